#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "platform/pipewire/PipeWireCaptureSinks.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireRouteNode.hpp"
#include "platform/pipewire/PipeWireRouteSide.hpp"

namespace tarn {

// The I/O procedures and output units of this process, the route nodes they run on, and the
// buffer sizes asked for the devices and capture sinks those nodes link to.
//
// An output unit is joined with the capture its engine named: that capture's I/O procedure
// leaves the node it ran on alone and moves into the unit's node, so that one graph cycle of the
// output device runs both. A unit named no capture, and an I/O procedure started before its unit
// exists, get a node of their own. A node asks for the buffer size of its render side's device,
// else of its capture's sink.
//
// Loop lock held for everything.
class PipeWireRoutes {
public:
    // `nextID` numbers the nodes, with everything else the platform numbers.
    PipeWireRoutes(PipeWireConnection& connection, PipeWireCaptureSinks& sinks, uint64_t& nextID)
        : connection_(connection), sinks_(sinks), nextID_(nextID) {}
    PipeWireRoutes(const PipeWireRoutes&) = delete;
    PipeWireRoutes& operator=(const PipeWireRoutes&) = delete;

    AudioPlatform::IOProcHandle addIOProc(std::unique_ptr<PipeWireRouteSide> side);
    AudioPlatform::OutputUnitHandle addUnit();
    PipeWireRouteSide* ioProc(AudioPlatform::IOProcHandle handle) { return find(ioProcs_, handle); }
    PipeWireRouteSide* unit(AudioPlatform::OutputUnitHandle handle) { return find(units_, handle); }
    // Release the side and forget it; false when there is none.
    bool destroyIOProc(AudioPlatform::IOProcHandle handle);
    bool disposeUnit(AudioPlatform::OutputUnitHandle handle);
    void releaseAll();

    // Builds a capture's own node unless it already runs on one, and lets its callback run.
    AudioPlatform::Status startCapture(PipeWireRouteSide& capture);
    // Joins a unit with the capture its engine named, if any, and builds its node.
    AudioPlatform::Status initialize(PipeWireRouteSide& render);
    // Stops a side's callback and returns only once it cannot be running any more.
    void deactivate(PipeWireRouteSide& side);
    // Takes a side out of service: its callback stops, it leaves its node, and a render side
    // gives its capture sink back.
    void release(PipeWireRouteSide& side);
    // The sink has gone: units joined with it hold on to nothing (node ids are reused).
    void forgetSink(AudioPlatform::ObjectID sinkID);

    std::optional<std::string> failureOf(const PipeWireRouteSide& side) const;
    std::optional<double> graphRateOf(const PipeWireRouteSide& side) const;
    // Graph cycles that output units missed, disposed ones included.
    uint64_t xrunCount() const;

    // Asks for `frames` per cycle on the nodes linked to that device or sink, now and from now on.
    void requestFrames(AudioPlatform::ObjectID deviceID, uint32_t frames);
    // The quantum the graph runs a node linked to that device or sink at; 0 until one has run.
    uint32_t quantumOf(AudioPlatform::ObjectID deviceID) const;

private:
    using Sides = std::map<uint64_t, std::unique_ptr<PipeWireRouteSide>>;
    static PipeWireRouteSide* find(Sides& sides, uint64_t handle);

    AudioPlatform::Status build(PipeWireRouteSide* capture, PipeWireRouteSide* render);
    void detach(PipeWireRouteSide& side);
    void unpair(PipeWireRouteSide& render);
    uint32_t requestedFramesFor(const PipeWireRouteSide* capture, const PipeWireRouteSide* render) const;

    PipeWireConnection& connection_;
    PipeWireCaptureSinks& sinks_;
    uint64_t& nextID_;
    Sides ioProcs_;
    Sides units_;
    std::vector<std::unique_ptr<PipeWireRouteNode>> nodes_;
    std::map<AudioPlatform::ObjectID, uint32_t> requestedFrames_;
    uint64_t retiredXruns_ = 0; // of output units already disposed
};

} // namespace tarn
