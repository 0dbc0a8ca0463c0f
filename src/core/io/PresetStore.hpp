#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/io/PreferencesStore.hpp"
#include "core/models/EQPreset.hpp"
#include "core/models/UUID.hpp"

namespace tarn {

// The user's saved presets, newest first, persisted as one JSON list. The app layer wraps it
// to make the list observable by views; the command line uses it directly.
class PresetStore {
public:
    static constexpr std::string_view key = "Tarn.savedPresets.v1";

    using Observer = std::function<void(const std::vector<EQPreset>&)>;

    // Reads the stored list. Nothing stored, or a list that does not decode, gives no presets;
    // in the second case loadProblem() says why and the file is left untouched until the
    // first save, which moves it aside rather than overwrite it.
    explicit PresetStore(PreferencesStore store);

    const std::vector<EQPreset>& presets() const { return presets_; }
    const EQPreset* preset(const UUID& id) const;

    // Replaces the preset with the same id in place, or appends it; then sorts newest first
    // (stable: presets created at the same moment keep their order) and persists. Renaming is
    // a save of the same id under a new name. When the write fails the list is left as it was
    // and PreferencesStore::Error is thrown.
    void save(EQPreset preset);

    // Removes every preset with this id and persists; returns how many were removed (nothing
    // is written when none was).
    std::size_t remove(const UUID& id);

    // Called after every change of the list, with the new list.
    void setObserver(Observer observer) { observer_ = std::move(observer); }

    const std::optional<std::string>& loadProblem() const { return loadProblem_; }
    // Where an unreadable list was moved by the first save, if that happened.
    const std::optional<std::filesystem::path>& setAsidePath() const { return setAsidePath_; }

private:
    void commit(std::vector<EQPreset> updated);

    PreferencesStore store_;
    std::vector<EQPreset> presets_;
    Observer observer_;
    std::optional<std::string> loadProblem_;
    std::optional<std::filesystem::path> setAsidePath_;
    bool needsSetAside_ = false;
};

} // namespace tarn
