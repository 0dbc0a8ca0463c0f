#include "platform/pipewire/PipeWireRoutes.hpp"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>
#include <unistd.h>

namespace tarn {

namespace {
constexpr AudioPlatform::Status noError = AudioPlatform::noError;
} // namespace

// ---- sides --------------------------------------------------------------------------------------

PipeWireRouteSide* PipeWireRoutes::find(Sides& sides, uint64_t handle) {
    auto it = sides.find(handle);
    return it == sides.end() ? nullptr : it->second.get();
}

AudioPlatform::IOProcHandle PipeWireRoutes::addIOProc(std::unique_ptr<PipeWireRouteSide> side) {
    auto handle = nextID_++;
    ioProcs_[handle] = std::move(side);
    return handle;
}

AudioPlatform::OutputUnitHandle PipeWireRoutes::addUnit() {
    auto handle = nextID_++;
    units_[handle] = std::make_unique<PipeWireRouteSide>();
    return handle;
}

bool PipeWireRoutes::destroyIOProc(AudioPlatform::IOProcHandle handle) {
    auto it = ioProcs_.find(handle);
    if (it == ioProcs_.end()) return false;
    release(*it->second);
    ioProcs_.erase(it);
    return true;
}

bool PipeWireRoutes::disposeUnit(AudioPlatform::OutputUnitHandle handle) {
    auto it = units_.find(handle);
    if (it == units_.end()) return false;
    release(*it->second);
    retiredXruns_ += it->second->xruns.load(std::memory_order_relaxed);
    units_.erase(it);
    return true;
}

void PipeWireRoutes::releaseAll() {
    for (auto* sides : {&units_, &ioProcs_})
        for (auto& [h, side] : *sides) release(*side);
    units_.clear();
    ioProcs_.clear();
}

// ---- running ------------------------------------------------------------------------------------

AudioPlatform::Status PipeWireRoutes::startCapture(PipeWireRouteSide& capture) {
    if (!capture.node)
        if (auto status = build(&capture, nullptr); status != noError) return status;
    capture.isRunning.store(true, std::memory_order_release);
    return noError;
}

AudioPlatform::Status PipeWireRoutes::initialize(PipeWireRouteSide& s) {
    if (!s.renderProc || s.targetNode == 0) return -EINVAL;
    if (s.isInitialized) return noError;
    // The route's own capture moves into one node with this playback, so that the output device's
    // cycle carries both. A sink with no I/O procedure (a stream hold) lends only its group.
    PipeWireRouteSide* capture = nullptr;
    if (s.captureSink != 0) {
        auto* sink = sinks_.find(s.captureSink);
        if (!sink) return -ENOENT; // the capture went away since it was named
        if (sink->isPaired) return -EBUSY;
        sink->isPaired = true;
        s.pairedSink = s.captureSink;
        s.group = sink->group;
        for (auto& [h, p] : ioProcs_)
            if (p->targetNode == s.captureSink && !capture) capture = p.get();
    }
    if (capture) detach(*capture);
    auto status = build(capture, &s);
    if (status != noError) {
        unpair(s);
        // The capture carries on alone, as it was.
        if (capture) build(capture, nullptr);
        return status;
    }
    s.isInitialized = true;
    return noError;
}

void PipeWireRoutes::deactivate(PipeWireRouteSide& side) {
    side.isRunning.store(false, std::memory_order_release);
    PipeWireRouteNode::waitForDataThread(connection_);
}

// The barrier in leaving the node makes sure that the callback has stopped.
void PipeWireRoutes::release(PipeWireRouteSide& side) {
    side.isRunning.store(false, std::memory_order_release);
    detach(side);
    if (!side.isCapture) unpair(side);
}

void PipeWireRoutes::forgetSink(AudioPlatform::ObjectID sinkID) {
    for (auto& [h, side] : units_)
        if (side->pairedSink == sinkID) side->pairedSink = 0;
}

AudioPlatform::Status PipeWireRoutes::build(PipeWireRouteSide* capture, PipeWireRouteSide* render) {
    auto name = fmt::format("tarn.route.{}.{}", getpid(), nextID_++);
    std::unique_ptr<PipeWireRouteNode> node;
    auto status = PipeWireRouteNode::build(connection_, name, capture, render, requestedFramesFor(capture, render), node);
    if (status == noError) nodes_.push_back(std::move(node));
    return status;
}

// The node goes when it serves nothing more.
void PipeWireRoutes::detach(PipeWireRouteSide& side) {
    PipeWireRouteNode* node = side.node;
    if (!node) return;
    node->detach(side);
    if (node->servesNothing())
        nodes_.erase(std::find_if(nodes_.begin(), nodes_.end(), [&](auto& n) { return n.get() == node; }));
}

void PipeWireRoutes::unpair(PipeWireRouteSide& render) {
    if (auto* sink = sinks_.find(render.pairedSink)) sink->isPaired = false;
    render.pairedSink = 0;
}

// ---- state --------------------------------------------------------------------------------------

std::optional<double> PipeWireRoutes::graphRateOf(const PipeWireRouteSide& side) const {
    return side.node ? side.node->graphRate() : std::nullopt;
}

std::optional<std::string> PipeWireRoutes::failureOf(const PipeWireRouteSide& side) const {
    return side.node ? side.node->failureOf(side) : std::nullopt;
}

uint64_t PipeWireRoutes::xrunCount() const {
    uint64_t total = retiredXruns_;
    for (auto& [h, side] : units_) total += side->xruns.load(std::memory_order_relaxed);
    return total;
}

void PipeWireRoutes::requestFrames(AudioPlatform::ObjectID deviceID, uint32_t frames) {
    requestedFrames_[deviceID] = frames;
    for (auto& n : nodes_) {
        PipeWireRouteSide* capture = n->capture();
        PipeWireRouteSide* render = n->render();
        if (!(capture && capture->targetNode == deviceID) && !(render && render->targetNode == deviceID)) continue;
        const PipeWireRouteSide& lead = render ? *render : *capture;
        n->setLatency(requestedFramesFor(capture, render), lead.sampleRate);
    }
}

uint32_t PipeWireRoutes::requestedFramesFor(const PipeWireRouteSide* capture, const PipeWireRouteSide* render) const {
    for (const PipeWireRouteSide* side : {render, capture})
        if (side)
            if (auto it = requestedFrames_.find(side->targetNode); it != requestedFrames_.end()) return it->second;
    return 0;
}

uint32_t PipeWireRoutes::quantumOf(AudioPlatform::ObjectID deviceID) const {
    for (auto* sides : {&units_, &ioProcs_})
        for (auto& [h, side] : *sides)
            if (side->node && side->targetNode == deviceID) return side->node->quantum();
    return 0;
}

} // namespace tarn
