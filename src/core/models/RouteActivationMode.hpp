#pragma once

#include <optional>
#include <string_view>

namespace tarn {

// Who decides when a route runs: the user by hand (off), the application's own activity
// (auto), or always (on). The case order is part of the model.
// `auto` is a C++ keyword, so that case is spelt `automatic`; its raw value stays "auto".
enum class RouteActivationMode { off, automatic, on };

inline std::string_view toString(RouteActivationMode mode) {
    switch (mode) {
    case RouteActivationMode::off: return "off";
    case RouteActivationMode::automatic: return "auto";
    case RouteActivationMode::on: return "on";
    }
    return "off";
}

inline std::optional<RouteActivationMode> routeActivationModeFromString(std::string_view raw) {
    if (raw == "off") return RouteActivationMode::off;
    if (raw == "auto") return RouteActivationMode::automatic;
    if (raw == "on") return RouteActivationMode::on;
    return std::nullopt;
}

} // namespace tarn
