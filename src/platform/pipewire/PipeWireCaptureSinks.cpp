#include "platform/pipewire/PipeWireCaptureSinks.hpp"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <vector>

#include "platform/pipewire/PipeWireApplication.hpp"

namespace tarn {

AudioPlatform::Status PipeWireCaptureSinks::create(const PipeWireTap& tap,
                                                   const AudioPlatform::AggregateDeviceDescription& description,
                                                   uint64_t number, AudioPlatform::ObjectID& deviceID) {
    if (!guard_) {
        try {
            guard_ = MetadataGuard::launch();
        } catch (const std::exception&) {
            return -ECHILD;
        }
    }
    std::unique_ptr<PipeWireCaptureSink> sink;
    if (auto status = PipeWireCaptureSink::create(connection_, tap, description, number, sink)) return status;
    deviceID = sink->nodeID;
    sinks_[sink->nodeID] = std::move(sink);
    followStreams(connection_.graph());
    return AudioPlatform::noError;
}

AudioPlatform::Status PipeWireCaptureSinks::destroy(AudioPlatform::ObjectID deviceID) {
    auto it = sinks_.find(deviceID);
    if (it == sinks_.end()) return -ENOENT;
    releaseStreams(*it->second);
    sinks_.erase(it);
    return AudioPlatform::noError;
}

void PipeWireCaptureSinks::destroyAll() {
    for (auto& [id, sink] : sinks_) releaseStreams(*sink);
    sinks_.clear();
}

PipeWireCaptureSink* PipeWireCaptureSinks::find(AudioPlatform::ObjectID deviceID) {
    auto it = sinks_.find(deviceID);
    return it == sinks_.end() ? nullptr : it->second.get();
}

void PipeWireCaptureSinks::followStreams(const PipeWireGraph& g) {
    // Oldest first, so that where two sinks take the same new stream (a route resuming while
    // its hold still stands) the newest one's entry is set last and wins. Node ids are reused;
    // serials only grow.
    std::vector<PipeWireCaptureSink*> bySerial;
    for (auto& [id, sink] : sinks_) bySerial.push_back(sink.get());
    std::sort(bySerial.begin(), bySerial.end(), [](auto* a, auto* b) { return a->serial < b->serial; });
    for (PipeWireCaptureSink* sink : bySerial) {
        if (sink->serial == 0 || sink->removed) continue;
        for (const auto& node : g.nodes) {
            if (sink->moved.count(node.id)) continue;
            if (!PipeWireApplication::streamBelongsTo(node, g.client(node.clientID), sink->pid, sink->identity))
                continue;
            auto value = std::to_string(sink->serial);
            if (connection_.setDefaultMetadataLocked(node.id, "target.object", value, "Spa:Id") >= 0) {
                sink->moved.insert(node.id);
                if (guard_) guard_->set(node.id, "target.object", value);
            }
        }
        // Streams that went away take their metadata with them.
        for (auto it = sink->moved.begin(); it != sink->moved.end();)
            it = g.node(*it) ? std::next(it) : sink->moved.erase(it);
    }
}

// Another of this program's capture sinks has moved the stream since: its entry stands, even
// before the server has echoed it back to the metadata this client sees.
bool PipeWireCaptureSinks::isTakenOver(const PipeWireCaptureSink& from, uint32_t node) const {
    for (const auto& [id, other] : sinks_)
        if (other.get() != &from && !other->removed && other->moved.count(node) && other->serial > from.serial)
            return true;
    return false;
}

void PipeWireCaptureSinks::releaseStreams(PipeWireCaptureSink& sink) {
    auto value = std::to_string(sink.serial);
    for (uint32_t node : sink.moved) {
        if (isTakenOver(sink, node)) continue;
        // Leave an entry someone else has changed since (the user moved the stream elsewhere).
        if (connection_.defaultMetadataValueLocked(node, "target.object") == value)
            connection_.setDefaultMetadataLocked(node, "target.object", std::nullopt);
        if (guard_) guard_->clear(node, "target.object");
    }
    sink.moved.clear();
}

void PipeWireCaptureSinks::finishGuard() {
    if (guard_) guard_->finish();
}

void PipeWireCaptureSinks::abandonGuard() {
    if (guard_) guard_->abandon();
}

} // namespace tarn
