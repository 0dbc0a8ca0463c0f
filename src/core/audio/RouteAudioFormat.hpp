#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/models/RouteCaptureMode.hpp"

namespace tarn {

// Where and how a route renders: the output device, which of its streams, how many interleaved
// channels, the text shown for the layout, and how the application is captured.
struct RouteAudioFormat {
    std::uint32_t outputDeviceID = 0;
    std::string outputDeviceUID;
    // None means the device's default/first stream layout.
    std::optional<std::uint32_t> streamIndex;
    std::int64_t channelCount = 2;
    std::string layoutDescription;
    RouteCaptureMode captureMode = RouteCaptureMode::multichannelStream;

    bool operator==(const RouteAudioFormat&) const = default;

    // The same device, degraded to plain stereo: used when a multichannel stream cannot be
    // captured or rendered.
    static RouteAudioFormat stereoFallback(const RouteAudioFormat& from);
};

} // namespace tarn
