#include "core/audio/RouteAudioFormat.hpp"

namespace tarn {

RouteAudioFormat RouteAudioFormat::stereoFallback(const RouteAudioFormat& from) {
    return RouteAudioFormat{from.outputDeviceID, from.outputDeviceUID, std::nullopt, 2, "Stereo Fallback",
                            RouteCaptureMode::stereoFallback};
}

} // namespace tarn
