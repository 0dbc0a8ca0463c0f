#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarn {

// One output stream of a device: its position in the device's stream list, its channel count
// and the text shown for its layout ("Stereo", "5.1", ...).
struct OutputDeviceStreamInfo {
    std::uint32_t streamIndex = 0;
    std::int64_t channelCount = 0;
    std::string layoutDescription;

    std::uint32_t id() const { return streamIndex; }
    bool operator==(const OutputDeviceStreamInfo&) const = default;
};

// One output device as the route picker shows it.
struct OutputDeviceInfo {
    std::uint32_t deviceID = 0;
    std::string uid;
    std::string name;
    bool isDefault = false;
    std::vector<OutputDeviceStreamInfo> streams;

    const std::string& id() const { return uid; }
    bool operator==(const OutputDeviceInfo&) const = default;
};

} // namespace tarn
