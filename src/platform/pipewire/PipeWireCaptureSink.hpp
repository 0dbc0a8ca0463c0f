#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <pipewire/pipewire.h>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/AudioStreamFormat.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireTap.hpp"

namespace tarn {

// A route's capture sink: a private virtual sink, "Tarn Capture " + identity, made by this client
// through the adapter factory, so that it dies with the client. Which streams are moved onto it
// is kept here too; moving them is PipeWireCaptureSinks' work.
//
// Loop lock held for everything, events included.
struct PipeWireCaptureSink {
    PipeWireConnection& connection;
    AudioPlatform::ObjectID nodeID = 0;
    uint64_t serial = 0; // node ids are reused, serials only grow
    std::string nodeName;
    std::string group; // the route's node joins it, so both run in one graph cycle
    int32_t pid = 0;
    std::string identity;
    AudioStreamFormat format;
    std::vector<std::string> positions;
    // An output unit has been joined with its capture.
    bool isPaired = false;
    // The server removed the sink (or refused it).
    int error = 0;
    bool removed = false;
    std::set<uint32_t> moved; // stream node ids we set target.object for

    // Makes the sink for a tap, named and identified as the aggregate device asks, and waits
    // until it can take streams: it has its serial and its input ports. `number` makes its names
    // unique in this process. On failure nothing of it is left.
    static AudioPlatform::Status create(PipeWireConnection& connection, const PipeWireTap& tap,
                                        const AudioPlatform::AggregateDeviceDescription& description, uint64_t number,
                                        std::unique_ptr<PipeWireCaptureSink>& sink);
    explicit PipeWireCaptureSink(PipeWireConnection& connection) : connection(connection) {}
    // Removes the sink from the graph (streams still on it go back to their normal output).
    ~PipeWireCaptureSink();
    PipeWireCaptureSink(const PipeWireCaptureSink&) = delete;
    PipeWireCaptureSink& operator=(const PipeWireCaptureSink&) = delete;

private:
    static void onBound(void* data, uint32_t globalID);
    static void onRemoved(void* data);
    static void onError(void* data, int seq, int res, const char* message);

    pw_proxy* proxy_ = nullptr;
    spa_hook proxyListener_{};
};

} // namespace tarn
