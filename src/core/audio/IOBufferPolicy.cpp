#include "core/audio/IOBufferPolicy.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/ProcessCategory.hpp"

namespace tarn::IOBufferPolicy {

namespace {

// Diagnostics go to stderr, never stdout, where commands write what scripts read. An application
// that registers its own "io-buffer" logger first gets these messages there instead.
spdlog::logger& log() {
    static const auto logger = [] {
        if (auto registered = spdlog::get("io-buffer")) return registered;
        return spdlog::stderr_color_mt("io-buffer");
    }();
    return *logger;
}

double checkedBound(double value, const char* what) {
    if (!std::isfinite(value) || value <= -1.0 || value >= 4294967296.0) {
        std::fprintf(stderr, "IOBufferPolicy::clamp: %s bound %g is out of range\n", what, value);
        std::abort();
    }
    return value;
}

} // namespace

std::uint32_t preferredFrames(std::optional<std::string_view> bundleID, std::optional<std::string_view> displayName) {
    if (!bundleID || bundleID->empty()) return musicFrames;
    using ProcessCategory::Kind;
    switch (ProcessCategory::kindOf(*bundleID, displayName)) {
    case Kind::video:
    case Kind::videoWebApp:
    case Kind::webApp:
    case Kind::browser: return lowLatencyFrames;
    case Kind::musicWebApp:
    case Kind::entertainment:
    case Kind::other: break;
    }
    return musicFrames;
}

std::uint32_t clamp(std::uint32_t frames, double minimum, double maximum) {
    const double lo = std::max(checkedBound(std::ceil(minimum), "minimum"), 1.0);
    const double hi = std::max(std::min(checkedBound(std::floor(maximum), "maximum"), double(maxSupportedFrames)), 1.0);
    if (hi >= lo) return std::uint32_t(std::min(std::max(lo, double(frames)), hi));
    return std::min(frames, maxSupportedFrames);
}

std::optional<std::uint32_t> apply(std::uint32_t frames, std::uint32_t deviceID, AudioPlatform& platform) {
    if (deviceID == 0) return std::nullopt;
    std::uint32_t requested = frames;
    double minimum = 0, maximum = 0;
    if (platform.bufferFrameSizeRange(deviceID, minimum, maximum) == AudioPlatform::noError && maximum > 0 &&
        minimum <= maximum) {
        requested = clamp(frames, minimum, maximum);
    }
    if (platform.setBufferFrameSize(deviceID, requested) != AudioPlatform::noError) return std::nullopt;
    std::uint32_t granted = 0;
    if (platform.bufferFrameSize(deviceID, granted) == AudioPlatform::noError) {
        log().info("IO buffer: asked {}, granted {} frames (device {})", frames, granted, deviceID);
        return granted;
    }
    log().info("IO buffer: asked {}, set {}, read-back failed (device {})", frames, requested, deviceID);
    return requested;
}

} // namespace tarn::IOBufferPolicy
