#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarn {

class AudioPlatform;

// How many frames per I/O cycle a route asks its devices for: large buffers for music, small ones
// where sound must stay in sync with pictures (video players, video web apps, browsers).
namespace IOBufferPolicy {

inline constexpr std::uint32_t musicFrames = 2048;
inline constexpr std::uint32_t lowLatencyFrames = 512;
// The largest buffer ever requested, whatever the device allows.
inline constexpr std::uint32_t maxSupportedFrames = 4096;

std::uint32_t preferredFrames(std::optional<std::string_view> bundleID, std::optional<std::string_view> displayName);

// Raises `frames` to the device minimum and lowers it to the device maximum and to
// `maxSupportedFrames`; an inverted range only caps at `maxSupportedFrames`. Bounds that are not
// finite or do not round into 0 ..< 2^32 are a programming error that stops the process.
std::uint32_t clamp(std::uint32_t frames, double minimum, double maximum);

// Asks `deviceID` for `frames` (clamped to the range the device reports) and returns the size now
// in force, or none when there is no device (0) or the request was refused. Blocking: control
// thread only, never from a callback.
std::optional<std::uint32_t> apply(std::uint32_t frames, std::uint32_t deviceID, AudioPlatform& platform);

} // namespace IOBufferPolicy
} // namespace tarn
