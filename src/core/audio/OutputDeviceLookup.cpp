#include "core/audio/OutputDeviceLookup.hpp"

namespace tarn {

std::string OutputDeviceLookup::layoutDescription(std::int64_t channelCount) {
    switch (channelCount) {
    case 1: return "Mono";
    case 2: return "Stereo";
    case 6: return "5.1";
    case 8: return "7.1";
    case 10: return "7.1.2";
    case 12: return "7.1.4";
    default: return std::to_string(channelCount) + " ch";
    }
}

std::optional<OutputDeviceStreamInfo> OutputDeviceLookup::selectStream(std::span<const OutputDeviceStreamInfo> streams,
                                                                       std::optional<std::uint32_t> requested,
                                                                       bool preferStereo) {
    if (requested) {
        for (const auto& s : streams)
            if (s.streamIndex == *requested) return s;
        return std::nullopt;
    }
    if (preferStereo) {
        for (const auto& s : streams)
            if (s.channelCount == 2) return s;
        return std::nullopt;
    }
    const OutputDeviceStreamInfo* best = nullptr;
    for (const auto& s : streams) {
        if (!best || s.channelCount > best->channelCount ||
            (s.channelCount == best->channelCount && s.streamIndex < best->streamIndex)) {
            best = &s;
        }
    }
    if (!best) return std::nullopt;
    return *best;
}

std::optional<std::uint32_t> OutputDeviceLookup::defaultOutputDevice() {
    AudioPlatform::ObjectID id = 0;
    if (platform_.defaultOutputDevice(id) != AudioPlatform::noError || id == 0) return std::nullopt;
    return id;
}

std::optional<std::uint32_t> OutputDeviceLookup::resolve(const std::optional<std::string>& uid) {
    if (!uid || uid->empty()) return defaultOutputDevice();
    AudioPlatform::ObjectID id = 0;
    if (platform_.deviceForUID(*uid, id) != AudioPlatform::noError || id == 0) return std::nullopt;
    return id;
}

std::optional<std::string> OutputDeviceLookup::readDeviceUID(std::uint32_t deviceID) {
    std::string uid;
    if (platform_.deviceUID(deviceID, uid) != AudioPlatform::noError) return std::nullopt;
    return uid;
}

std::vector<OutputDeviceStreamInfo> OutputDeviceLookup::outputStreams(std::uint32_t deviceID) {
    std::vector<std::uint32_t> counts;
    if (platform_.outputStreamChannelCounts(deviceID, counts) != AudioPlatform::noError) return {};
    std::vector<OutputDeviceStreamInfo> streams;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] == 0) continue;
        streams.push_back({std::uint32_t(i), std::int64_t(counts[i]), layoutDescription(counts[i])});
    }
    return streams;
}

std::optional<std::string> OutputDeviceLookup::name(std::uint32_t deviceID) {
    std::string result;
    if (platform_.deviceName(deviceID, result) != AudioPlatform::noError) return std::nullopt;
    return result;
}

std::optional<std::string> OutputDeviceLookup::name(const std::string& uid) {
    auto id = resolve(uid);
    if (!id) return std::nullopt;
    return name(*id);
}

std::optional<RouteAudioFormat> OutputDeviceLookup::resolveRouteFormat(const std::optional<std::string>& uid,
                                                                       std::optional<std::uint32_t> streamIndex,
                                                                       bool preferStereo) {
    const auto deviceID = resolve(uid);
    if (!deviceID) return std::nullopt;
    const auto deviceUID = readDeviceUID(*deviceID);
    if (!deviceUID) return std::nullopt;

    const auto streams = outputStreams(*deviceID);
    const auto stream = selectStream(streams, streamIndex, preferStereo);
    if (streamIndex && !stream) return std::nullopt; // the saved stream no longer exists
    if (!stream) {
        RouteAudioFormat device;
        device.outputDeviceID = *deviceID;
        device.outputDeviceUID = *deviceUID;
        return RouteAudioFormat::stereoFallback(device);
    }
    return RouteAudioFormat{*deviceID, *deviceUID, stream->streamIndex, stream->channelCount,
                            stream->layoutDescription, RouteCaptureMode::multichannelStream};
}

std::vector<OutputDeviceInfo> OutputDeviceLookup::outputDevices() {
    std::vector<AudioPlatform::ObjectID> ids;
    if (platform_.outputDeviceList(ids) != AudioPlatform::noError) return {};
    const auto defaultID = defaultOutputDevice();
    std::vector<OutputDeviceInfo> devices;
    for (auto id : ids) {
        auto uid = readDeviceUID(id);
        if (!uid) continue;
        devices.push_back({id, *uid, name(id).value_or(*uid), defaultID == id, outputStreams(id)});
    }
    return devices;
}

} // namespace tarn
