#pragma once

#include <optional>
#include <string_view>

namespace tarn {

// What feeds a route: one running application, or the built-in player deck.
enum class RouteKind { appTap, localPlayer };

// The bundle identifier every player-deck route carries.
inline constexpr std::string_view localPlayerBundleID = "sorvi.player.local";

inline std::string_view toString(RouteKind kind) {
    return kind == RouteKind::localPlayer ? "localPlayer" : "appTap";
}

inline std::optional<RouteKind> routeKindFromString(std::string_view raw) {
    if (raw == "appTap") return RouteKind::appTap;
    if (raw == "localPlayer") return RouteKind::localPlayer;
    return std::nullopt;
}

} // namespace tarn
