#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/OutputDeviceInfo.hpp"
#include "core/audio/RouteAudioFormat.hpp"

namespace tarn {

// Turns a route's saved output device UID and stream index into the format its engines run
// with, and lists the output devices. Every call asks the platform afresh (control thread only);
// a read that fails counts as "not there".
class OutputDeviceLookup {
public:
    explicit OutputDeviceLookup(AudioPlatform& platform) : platform_(platform) {}

    // 1 "Mono", 2 "Stereo", 6 "5.1", 8 "7.1", 10 "7.1.2", 12 "7.1.4", otherwise "<n> ch".
    static std::string layoutDescription(std::int64_t channelCount);

    // A requested index picks that stream (or none); otherwise `preferStereo` picks the first
    // 2-channel stream (or none); otherwise the stream with the most channels, the lowest index
    // winning ties.
    static std::optional<OutputDeviceStreamInfo> selectStream(std::span<const OutputDeviceStreamInfo> streams,
                                                              std::optional<std::uint32_t> requested,
                                                              bool preferStereo);

    // None when the device cannot be found, its UID cannot be read, or a requested stream no
    // longer exists. A device with no usable stream (and none requested) gives plain stereo in
    // `stereoFallback` mode.
    std::optional<RouteAudioFormat> resolveRouteFormat(const std::optional<std::string>& uid,
                                                       std::optional<std::uint32_t> streamIndex,
                                                       bool preferStereo);

    // An absent or empty UID means the current default output device.
    std::optional<std::uint32_t> resolve(const std::optional<std::string>& uid);
    std::optional<std::string> readDeviceUID(std::uint32_t deviceID);
    // Streams whose channel count cannot be read, or is 0, are skipped; each kept stream keeps its
    // position in the device's list as its index.
    std::vector<OutputDeviceStreamInfo> outputStreams(std::uint32_t deviceID);
    std::optional<std::string> name(std::uint32_t deviceID);
    std::optional<std::string> name(const std::string& uid);
    std::optional<std::uint32_t> defaultOutputDevice();

    // Every output device with its streams, the default marked, in the platform's order. Devices
    // whose UID cannot be read are left out (a route could not be saved against them).
    std::vector<OutputDeviceInfo> outputDevices();

private:
    AudioPlatform& platform_;
};

} // namespace tarn
