#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace tarn {

// The engine state shown on a route. The case order is fixed: the route store compares
// health values by it.
enum class RouteHealth { idle, active, lost, verifying, verified, attention, paused, blocked };

inline constexpr std::array<RouteHealth, 8> allRouteHealths = {
    RouteHealth::idle,     RouteHealth::active,    RouteHealth::lost,   RouteHealth::verifying,
    RouteHealth::verified, RouteHealth::attention, RouteHealth::paused, RouteHealth::blocked};

inline std::string_view toString(RouteHealth health) {
    switch (health) {
    case RouteHealth::idle: return "idle";
    case RouteHealth::active: return "active";
    case RouteHealth::lost: return "lost";
    case RouteHealth::verifying: return "verifying";
    case RouteHealth::verified: return "verified";
    case RouteHealth::attention: return "attention";
    case RouteHealth::paused: return "paused";
    case RouteHealth::blocked: return "blocked";
    }
    return "idle";
}

inline std::optional<RouteHealth> routeHealthFromString(std::string_view raw) {
    for (auto health : allRouteHealths)
        if (toString(health) == raw) return health;
    return std::nullopt;
}

} // namespace tarn
