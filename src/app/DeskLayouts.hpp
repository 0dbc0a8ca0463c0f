#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/PreferenceDocument.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/UUID.hpp"

namespace tarn {

// A named snapshot of the desk: which routes exist and where each plays (every route is kept
// whole, so nothing set on it is lost while another layout is in use). Bound to an output
// device, it is applied when that device appears (headphones plugged in).
struct DeskLayout {
    UUID id;
    std::string name;
    std::vector<AppRoute> routes;
    std::optional<std::string> boundOutputDeviceUID;

    bool operator==(const DeskLayout&) const = default;
};

// The saved layouts, the one in use, and the desk as it was before a layout took over (what
// comes back when the layout's device goes away), kept across restarts.
class DeskLayouts {
public:
    static constexpr std::string_view key = "Tarn.deskLayouts.v1";

    struct State {
        std::vector<DeskLayout> layouts;
        std::optional<UUID> activeLayoutID;
        std::optional<std::vector<AppRoute>> routesBeforeLayout;
        bool operator==(const State&) const = default;
    };

    explicit DeskLayouts(PreferencesStore preferences);

    const std::vector<DeskLayout>& layouts() const { return document_.value().layouts; }
    const DeskLayout* find(const UUID& id) const;
    const std::optional<UUID>& activeLayoutID() const { return document_.value().activeLayoutID; }
    const std::optional<std::vector<AppRoute>>& routesBeforeLayout() const {
        return document_.value().routesBeforeLayout;
    }

    // Each change is saved at once (layouts change rarely, and by hand).
    UUID add(std::string name, const std::vector<AppRoute>& routes, std::optional<std::string> boundOutputDeviceUID);
    bool remove(const UUID& id);
    bool bind(const UUID& id, std::optional<std::string> deviceUID);
    // Keeps what the desk became while the layout was in use.
    void remember(const UUID& id, const std::vector<AppRoute>& routes);
    void setActive(std::optional<UUID> id, std::optional<std::vector<AppRoute>> routesBefore);

    // The layout the present devices ask for: the first bound to one of them, or none.
    std::optional<UUID> layoutForDevices(const std::vector<std::string>& presentDeviceUIDs) const;

    const std::optional<std::string>& lastProblem() const { return document_.lastProblem(); }

private:
    PreferenceDocument<State> document_;
};

void to_json(nlohmann::json& j, const DeskLayout& layout);
void from_json(const nlohmann::json& j, DeskLayout& layout);
void to_json(nlohmann::json& j, const DeskLayouts::State& state);
void from_json(const nlohmann::json& j, DeskLayouts::State& state);

} // namespace tarn
