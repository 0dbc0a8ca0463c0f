#pragma once

#include <map>
#include <memory>

#include "core/audio/AudioPlatform.hpp"
#include "platform/pipewire/MetadataGuard.hpp"
#include "platform/pipewire/PipeWireCaptureSink.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireTap.hpp"

namespace tarn {

// This process's capture sinks, and the moving of applications' streams onto them.
//
// Every output stream of a sink's application is moved onto it through `target.object` in the
// session manager's "default" metadata, once per stream, and streams that appear later follow
// while the sink exists. Destroying a sink removes those entries, so the application goes back to
// its normal output; if the process dies, the sinks go with its client and the metadata guard (a
// small watchdog process) removes the entries.
//
// Several sinks can want the same stream: a route resuming while its stream hold still stands,
// or a route's new engine starting on another device before the old one stops. The newest sink
// (by serial) wins, and an older sink going away never clears an entry a newer one has set.
//
// Loop lock held for everything.
class PipeWireCaptureSinks {
public:
    explicit PipeWireCaptureSinks(PipeWireConnection& connection) : connection_(connection) {}
    PipeWireCaptureSinks(const PipeWireCaptureSinks&) = delete;
    PipeWireCaptureSinks& operator=(const PipeWireCaptureSinks&) = delete;

    // Makes a sink for the tap and moves the application's streams onto it. `number` makes its
    // names unique in this process.
    AudioPlatform::Status create(const PipeWireTap& tap, const AudioPlatform::AggregateDeviceDescription& description,
                                 uint64_t number, AudioPlatform::ObjectID& deviceID);
    AudioPlatform::Status destroy(AudioPlatform::ObjectID deviceID);
    void destroyAll();
    PipeWireCaptureSink* find(AudioPlatform::ObjectID deviceID);

    // Moves every stream of each sink's application onto it, once per stream. Called after every
    // change of the graph.
    void followStreams(const PipeWireGraph& graph);

    // Once the daemon has applied the removals of `destroyAll`, the guard may stand down; when it
    // cannot be told that they were, it cleans up itself.
    void finishGuard();
    void abandonGuard();

private:
    bool isTakenOver(const PipeWireCaptureSink& from, uint32_t node) const;
    void releaseStreams(PipeWireCaptureSink& sink);

    PipeWireConnection& connection_;
    std::map<AudioPlatform::ObjectID, std::unique_ptr<PipeWireCaptureSink>> sinks_;
    std::unique_ptr<MetadataGuard> guard_;
};

} // namespace tarn
