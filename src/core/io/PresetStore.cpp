#include "core/io/PresetStore.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "core/io/JsonCodecs.hpp"

namespace tarn {

using nlohmann::json;

PresetStore::PresetStore(PreferencesStore store) : store_(std::move(store)) {
    try {
        auto data = store_.data(key);
        if (!data) return;
        const json list = json::parse(*data);
        if (!list.is_array()) throw DecodingError("the saved presets must be a list");
        std::vector<EQPreset> decoded;
        for (const auto& item : list) decoded.push_back(item.get<EQPreset>());
        presets_ = std::move(decoded);
    } catch (const std::exception& e) {
        presets_.clear();
        needsSetAside_ = true;
        loadProblem_ = fmt::format("the saved presets in {} cannot be read ({})", store_.pathFor(key).string(), e.what());
    }
}

const EQPreset* PresetStore::preset(const UUID& id) const {
    auto it = std::find_if(presets_.begin(), presets_.end(), [&](const EQPreset& p) { return p.id == id; });
    return it == presets_.end() ? nullptr : &*it;
}

void PresetStore::save(EQPreset preset) {
    auto updated = presets_;
    auto it = std::find_if(updated.begin(), updated.end(), [&](const EQPreset& p) { return p.id == preset.id; });
    if (it != updated.end())
        *it = std::move(preset);
    else
        updated.push_back(std::move(preset));
    std::stable_sort(updated.begin(), updated.end(),
                     [](const EQPreset& a, const EQPreset& b) { return a.createdAt > b.createdAt; });
    commit(std::move(updated));
}

std::size_t PresetStore::remove(const UUID& id) {
    auto updated = presets_;
    const auto removed = std::erase_if(updated, [&](const EQPreset& p) { return p.id == id; });
    if (removed > 0) commit(std::move(updated));
    return removed;
}

void PresetStore::commit(std::vector<EQPreset> updated) {
    // Writing over a list that could not be read would destroy it: keep it beside the new one.
    if (needsSetAside_) {
        setAsidePath_ = store_.setAside(key);
        needsSetAside_ = false;
    }
    store_.setJSON(key, json(updated));
    presets_ = std::move(updated);
    if (observer_) observer_(presets_);
}

} // namespace tarn
