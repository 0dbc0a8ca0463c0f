#include "app/DeskLayouts.hpp"

#include <algorithm>

#include "core/io/JsonCodecs.hpp"

namespace tarn {

namespace {

// Routes are kept as settings: whatever ran is idle in a snapshot.
std::vector<AppRoute> snapshot(const std::vector<AppRoute>& routes) {
    std::vector<AppRoute> out;
    for (const auto& r : routes) out.push_back(r.restoredForCurrentSession());
    return out;
}

} // namespace

void to_json(nlohmann::json& j, const DeskLayout& layout) {
    j = {{"id", layout.id}, {"name", layout.name}, {"routes", layout.routes}};
    if (layout.boundOutputDeviceUID) j["boundOutputDeviceUID"] = *layout.boundOutputDeviceUID;
}

void from_json(const nlohmann::json& j, DeskLayout& layout) {
    layout.id = j.at("id").get<UUID>();
    layout.name = j.at("name").get<std::string>();
    layout.routes = j.at("routes").get<std::vector<AppRoute>>();
    layout.boundOutputDeviceUID.reset();
    if (j.contains("boundOutputDeviceUID")) layout.boundOutputDeviceUID = j.at("boundOutputDeviceUID").get<std::string>();
}

void to_json(nlohmann::json& j, const DeskLayouts::State& state) {
    j = {{"layouts", state.layouts}};
    if (state.activeLayoutID) j["activeLayoutID"] = *state.activeLayoutID;
    if (state.routesBeforeLayout) j["routesBeforeLayout"] = *state.routesBeforeLayout;
}

void from_json(const nlohmann::json& j, DeskLayouts::State& state) {
    state.layouts = j.at("layouts").get<std::vector<DeskLayout>>();
    state.activeLayoutID.reset();
    state.routesBeforeLayout.reset();
    if (j.contains("activeLayoutID")) state.activeLayoutID = j.at("activeLayoutID").get<UUID>();
    if (j.contains("routesBeforeLayout"))
        state.routesBeforeLayout = j.at("routesBeforeLayout").get<std::vector<AppRoute>>();
}

DeskLayouts::DeskLayouts(PreferencesStore preferences) : document_(std::move(preferences), std::string(key)) {}

const DeskLayout* DeskLayouts::find(const UUID& id) const {
    const auto& all = layouts();
    auto it = std::find_if(all.begin(), all.end(), [&](const DeskLayout& l) { return l.id == id; });
    return it == all.end() ? nullptr : &*it;
}

UUID DeskLayouts::add(std::string name, const std::vector<AppRoute>& routes,
                      std::optional<std::string> boundOutputDeviceUID) {
    DeskLayout layout{UUID::random(), std::move(name), snapshot(routes), std::move(boundOutputDeviceUID)};
    document_.edit().layouts.push_back(layout);
    document_.save();
    return layout.id;
}

bool DeskLayouts::remove(const UUID& id) {
    auto& state = document_.edit();
    const auto before = state.layouts.size();
    std::erase_if(state.layouts, [&](const DeskLayout& l) { return l.id == id; });
    if (state.layouts.size() == before) return false;
    if (state.activeLayoutID == id) state.activeLayoutID.reset();
    document_.save();
    return true;
}

bool DeskLayouts::bind(const UUID& id, std::optional<std::string> deviceUID) {
    auto& all = document_.edit().layouts;
    auto it = std::find_if(all.begin(), all.end(), [&](const DeskLayout& l) { return l.id == id; });
    if (it == all.end()) return false;
    it->boundOutputDeviceUID = deviceUID && !deviceUID->empty() ? deviceUID : std::nullopt;
    document_.save();
    return true;
}

void DeskLayouts::remember(const UUID& id, const std::vector<AppRoute>& routes) {
    auto& all = document_.edit().layouts;
    auto it = std::find_if(all.begin(), all.end(), [&](const DeskLayout& l) { return l.id == id; });
    if (it == all.end()) return;
    it->routes = snapshot(routes);
    document_.save();
}

void DeskLayouts::setActive(std::optional<UUID> id, std::optional<std::vector<AppRoute>> routesBefore) {
    auto& state = document_.edit();
    state.activeLayoutID = id;
    state.routesBeforeLayout = routesBefore ? std::optional(snapshot(*routesBefore)) : std::nullopt;
    document_.save();
}

std::optional<UUID> DeskLayouts::layoutForDevices(const std::vector<std::string>& presentDeviceUIDs) const {
    for (const auto& layout : layouts())
        if (layout.boundOutputDeviceUID &&
            std::find(presentDeviceUIDs.begin(), presentDeviceUIDs.end(), *layout.boundOutputDeviceUID) !=
                presentDeviceUIDs.end())
            return layout.id;
    return std::nullopt;
}

} // namespace tarn
