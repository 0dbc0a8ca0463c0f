#pragma once

#include <optional>
#include <string_view>

namespace tarn {

// How a route captures its application: the device stream's own channel layout, or a plain
// stereo mix-down when the multichannel stream cannot be captured or rendered.
enum class RouteCaptureMode { multichannelStream, stereoFallback };

inline std::string_view toString(RouteCaptureMode mode) {
    return mode == RouteCaptureMode::stereoFallback ? "stereoFallback" : "multichannelStream";
}

inline std::optional<RouteCaptureMode> routeCaptureModeFromString(std::string_view raw) {
    if (raw == "multichannelStream") return RouteCaptureMode::multichannelStream;
    if (raw == "stereoFallback") return RouteCaptureMode::stereoFallback;
    return std::nullopt;
}

} // namespace tarn
