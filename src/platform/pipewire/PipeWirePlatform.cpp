#include "platform/pipewire/PipeWirePlatform.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include <fmt/format.h>
#include <unistd.h>

#include "platform/pipewire/PipeWireCaptureSinks.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"
#include "platform/pipewire/PipeWireGraphWatcher.hpp"
#include "platform/pipewire/PipeWireRoutes.hpp"
#include "platform/pipewire/PipeWireTap.hpp"

namespace tarn {

namespace {

// What `read` takes from a record found, written only on success; `missing` when none was found.
template <typename Record, typename Out, typename Read>
AudioPlatform::Status answer(const Record* found, AudioPlatform::Status missing, Out& out, Read read) {
    if (!found) return missing;
    out = read(*found);
    return AudioPlatform::noError;
}

} // namespace

struct PipeWirePlatform::Impl {
    std::shared_ptr<PipeWireConnection> connection;
    int connectionListener = 0;
    // Ids, handles, tokens and node names of this platform: unique, never reused.
    uint64_t nextID = 1;

    std::map<ObjectID, PipeWireTap> taps;
    PipeWireCaptureSinks sinks;
    PipeWireGraphWatcher watcher;
    PipeWireRoutes routes;

    explicit Impl(std::shared_ptr<PipeWireConnection> c)
        : connection(std::move(c)), sinks(*connection), watcher(connection->graph()),
          routes(*connection, sinks, nextID) {}

    void onGraphChanged() {
        auto g = connection->graph();
        sinks.followStreams(g);
        if (!hasReportedLoss && connection->connectionError() != 0) {
            hasReportedLoss = true;
            watcher.serverGone();
            return;
        }
        watcher.update(g);
    }

    bool hasReportedLoss = false;

    // Takes the lock and runs `step` on an output unit or I/O procedure, or fails when there is
    // no such one.
    template <typename Step> Status onUnit(OutputUnitHandle handle, Step step) {
        PipeWireConnection::Lock lock(*connection);
        auto* side = routes.unit(handle);
        return side ? step(*side) : -ENOENT;
    }
    template <typename Step> Status onIOProc(IOProcHandle handle, Step step) {
        PipeWireConnection::Lock lock(*connection);
        auto* side = routes.ioProc(handle);
        return side ? step(*side) : -ENOENT;
    }

    Status addListener(PipeWireGraphWatcher::Kind kind, ObjectID process, ChangeListener listener,
                       ListenerToken& token) {
        PipeWireConnection::Lock lock(*connection);
        if (kind == PipeWireGraphWatcher::Kind::running && !watcher.application(process)) return -ESRCH;
        token = nextID++;
        watcher.addListener(token, kind, process, std::move(listener));
        return noError;
    }
};

PipeWirePlatform::PipeWirePlatform() : PipeWirePlatform(PipeWireConnection::connect()) {}

PipeWirePlatform::PipeWirePlatform(std::shared_ptr<PipeWireConnection> connection)
    : connection_(std::move(connection)) {
    PipeWireConnection::Lock lock(*connection_);
    impl_ = std::make_unique<Impl>(connection_);
    impl_->connectionListener = connection_->addListener([impl = impl_.get()] { impl->onGraphChanged(); });
}

PipeWirePlatform::~PipeWirePlatform() {
    connection_->removeListener(impl_->connectionListener);
    {
        PipeWireConnection::Lock lock(*connection_);
        impl_->routes.releaseAll();
        impl_->sinks.destroyAll();
        impl_->watcher.removeAllListeners();
    }
    // The daemon has applied our metadata removals once this round trip returns; only then may the
    // guard stand down.
    try {
        connection_->sync();
        impl_->sinks.finishGuard();
    } catch (const PipeWireError&) {
        // The daemon is gone or silent: the guard keeps its list and cleans up when it can.
        impl_->sinks.abandonGuard();
    }
}

std::optional<std::string> PipeWirePlatform::outputUnitFailure(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    if (int err = connection_->connectionError()) return fmt::format("the sound server went away ({})", strerror(-err));
    auto* side = impl_->routes.unit(unit);
    return side ? impl_->routes.failureOf(*side) : std::nullopt;
}

std::optional<double> PipeWirePlatform::outputUnitGraphRate(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto* side = impl_->routes.unit(unit);
    return side ? impl_->routes.graphRateOf(*side) : std::nullopt;
}

std::optional<std::string> PipeWirePlatform::ioProcFailure(IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    if (int err = connection_->connectionError()) return fmt::format("the sound server went away ({})", strerror(-err));
    auto* side = impl_->routes.ioProc(handle);
    return side ? impl_->routes.failureOf(*side) : std::nullopt;
}

std::uint64_t PipeWirePlatform::xrunCount() {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->routes.xrunCount();
}

// ---- capture ------------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::createProcessTap(const TapDescription& description, ObjectID& tapID) {
    PipeWireConnection::Lock lock(*connection_);
    auto g = connection_->graph();
    const PipeWireApplication* app = nullptr;
    auto apps = PipeWireApplication::list(g);
    if (!description.processes.empty()) {
        app = PipeWireApplication::withStream(apps, description.processes.front());
        if (!app) app = impl_->watcher.seenApplication(description.processes.front());
        if (!app) return -ESRCH;
    }
    PipeWireTap tap;
    if (Status status = PipeWireTap::make(g, description, app, tap)) return status;
    tap.id = static_cast<ObjectID>(impl_->nextID++);
    tapID = tap.id;
    impl_->taps[tap.id] = std::move(tap);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::tapUID(ObjectID tapID, std::string& uid) {
    PipeWireConnection::Lock lock(*connection_);
    if (!impl_->taps.count(tapID)) return -ENOENT;
    uid = PipeWireTap::uid(tapID);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::tapFormat(ObjectID tapID, AudioStreamFormat& format) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->taps.find(tapID);
    if (it == impl_->taps.end()) return -ENOENT;
    format = it->second.format;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::destroyProcessTap(ObjectID tapID) {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->taps.erase(tapID) ? noError : -ENOENT;
}

AudioPlatform::Status PipeWirePlatform::createAggregateDevice(const AggregateDeviceDescription& description,
                                                              ObjectID& deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    if (description.taps.size() != 1) return -EINVAL;
    const PipeWireTap* tap = nullptr;
    for (auto& [id, t] : impl_->taps)
        if (PipeWireTap::uid(id) == description.taps.front().uid) tap = &t;
    if (!tap || tap->isProbe) return -ENOENT;
    return impl_->sinks.create(*tap, description, impl_->nextID++, deviceID);
}

AudioPlatform::Status PipeWirePlatform::destroyAggregateDevice(ObjectID deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    if (Status status = impl_->sinks.destroy(deviceID)) return status;
    impl_->routes.forgetSink(deviceID);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::createIOProc(ObjectID deviceID, IOProc proc, void* context,
                                                     IOProcHandle& handle) {
    PipeWireConnection::Lock lock(*connection_);
    auto* sink = impl_->sinks.find(deviceID);
    if (!sink || !proc) return -ENOENT;
    auto side = std::make_unique<PipeWireRouteSide>();
    side->isCapture = true;
    side->ioProc = proc;
    side->context = context;
    side->targetNode = deviceID;
    side->group = sink->group;
    side->channelCount = sink->format.channelCount;
    side->sampleRate = sink->format.sampleRate;
    side->positions = sink->positions;
    handle = impl_->routes.addIOProc(std::move(side));
    return noError;
}

AudioPlatform::Status PipeWirePlatform::destroyIOProc(ObjectID deviceID, IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->routes.destroyIOProc(handle) ? noError : -ENOENT;
}

AudioPlatform::Status PipeWirePlatform::startDevice(ObjectID deviceID, IOProcHandle handle) {
    return impl_->onIOProc(handle, [&](PipeWireRouteSide& side) { return impl_->routes.startCapture(side); });
}

AudioPlatform::Status PipeWirePlatform::stopDevice(ObjectID deviceID, IOProcHandle handle) {
    return impl_->onIOProc(handle, [&](PipeWireRouteSide& side) {
        impl_->routes.deactivate(side);
        return noError;
    });
}

// ---- render -------------------------------------------------------------------------------------

bool PipeWirePlatform::hasOutputUnitComponent() { return true; }

AudioPlatform::Status PipeWirePlatform::createOutputUnit(OutputUnitHandle& unit) {
    PipeWireConnection::Lock lock(*connection_);
    unit = impl_->routes.addUnit();
    return noError;
}

AudioPlatform::Status PipeWirePlatform::enableOutputIO(OutputUnitHandle unit) {
    return impl_->onUnit(unit, [](PipeWireRouteSide&) { return noError; });
}

AudioPlatform::Status PipeWirePlatform::setOutputUnitDevice(OutputUnitHandle unit, ObjectID deviceID) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) -> Status {
        auto devices = PipeWireDevice::list(connection_->graph());
        auto d = std::find_if(devices.begin(), devices.end(), [&](auto& x) { return x.nodeID == deviceID; });
        if (d == devices.end()) return -ENODEV;
        side.targetNode = deviceID;
        side.positions = d->positions;
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::setMaximumFramesPerSlice(OutputUnitHandle unit, std::uint32_t frames) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) -> Status {
        if (frames == 0) return -EINVAL;
        side.maximumFrames = frames;
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::setOutputUnitFormat(OutputUnitHandle unit, const AudioStreamFormat& format) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) -> Status {
        if (format.channelCount == 0 || format.channelCount > SPA_AUDIO_MAX_CHANNELS || !(format.sampleRate > 0))
            return -EINVAL;
        side.channelCount = format.channelCount;
        side.sampleRate = format.sampleRate;
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::setRenderCallback(OutputUnitHandle unit, RenderProc proc, void* context) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) -> Status {
        if (!proc) return -ENOENT;
        side.renderProc = proc;
        side.context = context;
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::setOutputUnitCapture(OutputUnitHandle unit, ObjectID aggregateDeviceID) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) -> Status {
        // The unit's node is built already: its capture could only be joined by building it again.
        if (side.isInitialized) return -EBUSY;
        auto* sink = impl_->sinks.find(aggregateDeviceID);
        if (!sink) return -ENOENT;
        if (sink->isPaired) return -EBUSY;
        side.captureSink = aggregateDeviceID;
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::initializeOutputUnit(OutputUnitHandle unit) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) { return impl_->routes.initialize(side); });
}

AudioPlatform::Status PipeWirePlatform::startOutputUnit(OutputUnitHandle unit) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) -> Status {
        if (!side.isInitialized) return -ENOENT;
        side.isRunning.store(true, std::memory_order_release);
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::stopOutputUnit(OutputUnitHandle unit) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) {
        impl_->routes.deactivate(side);
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::uninitializeOutputUnit(OutputUnitHandle unit) {
    return impl_->onUnit(unit, [&](PipeWireRouteSide& side) {
        impl_->routes.release(side);
        side.isInitialized = false;
        return noError;
    });
}

AudioPlatform::Status PipeWirePlatform::disposeOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->routes.disposeUnit(unit) ? noError : -ENOENT;
}

// ---- buffer sizes -------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::bufferFrameSizeRange(ObjectID deviceID, double& minimum, double& maximum) {
    PipeWireConnection::Lock lock(*connection_);
    auto g = connection_->graph();
    if (!g.node(deviceID)) return -ENODEV;
    minimum = g.minQuantum;
    maximum = g.maxQuantum;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::setBufferFrameSize(ObjectID deviceID, std::uint32_t frames) {
    PipeWireConnection::Lock lock(*connection_);
    auto g = connection_->graph();
    if (!g.node(deviceID)) return -ENODEV;
    if (frames == 0) return -EINVAL;
    impl_->routes.requestFrames(deviceID, frames);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) {
    PipeWireConnection::Lock lock(*connection_);
    // Only a running node knows the quantum its graph was granted.
    uint32_t q = impl_->routes.quantumOf(deviceID);
    if (q == 0) return -EAGAIN;
    frames = q;
    return noError;
}

// ---- listeners ----------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::removeListener(ListenerToken token) {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->watcher.removeListener(token) ? noError : -ENOENT;
}

AudioPlatform::Status PipeWirePlatform::addProcessListListener(ChangeListener listener, ListenerToken& token) {
    return impl_->addListener(PipeWireGraphWatcher::Kind::processes, 0, std::move(listener), token);
}

AudioPlatform::Status PipeWirePlatform::addRunningOutputListener(ObjectID process, ChangeListener listener,
                                                                 ListenerToken& token) {
    return impl_->addListener(PipeWireGraphWatcher::Kind::running, process, std::move(listener), token);
}

AudioPlatform::Status PipeWirePlatform::addDeviceListListener(ChangeListener listener, ListenerToken& token) {
    return impl_->addListener(PipeWireGraphWatcher::Kind::devices, 0, std::move(listener), token);
}

// ---- processes ----------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::processObjectList(std::vector<ObjectID>& processes) {
    if (int err = connection_->connectionError()) return err;
    PipeWireConnection::Lock lock(*connection_);
    processes.clear();
    for (const auto& app : impl_->watcher.applications()) processes.push_back(app.objectID);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::processPID(ObjectID process, std::int32_t& pid) {
    PipeWireConnection::Lock lock(*connection_);
    auto* app = impl_->watcher.application(process);
    if (!app || app->pid <= 0) return -ESRCH;
    pid = app->pid;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::processBundleID(ObjectID process, std::string& bundleID) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.application(process), -ESRCH, bundleID, [](auto& app) { return app.identity; });
}

AudioPlatform::Status PipeWirePlatform::processIsRunningOutput(ObjectID process, bool& isRunning) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.application(process), -ESRCH, isRunning, [](auto& app) { return app.isRunningOutput; });
}

std::optional<AudioPlatform::RunningApplication> PipeWirePlatform::runningApplication(std::int32_t pid) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& app : impl_->watcher.applications()) {
        if (app.pid != pid || app.name.empty()) continue;
        RunningApplication out;
        out.localizedName = app.name;
        if (!app.identity.empty()) out.bundleIdentifier = app.identity;
        return out;
    }
    return std::nullopt;
}

// ---- devices ------------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::outputDeviceList(std::vector<ObjectID>& devices) {
    if (int err = connection_->connectionError()) return err;
    PipeWireConnection::Lock lock(*connection_);
    devices.clear();
    for (const auto& d : impl_->watcher.devices()) devices.push_back(d.nodeID);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::defaultOutputDevice(ObjectID& deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.defaultDevice(), -ENODEV, deviceID, [](auto& d) { return d.nodeID; });
}

AudioPlatform::Status PipeWirePlatform::deviceForUID(const std::string& uid, ObjectID& deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.deviceWithUID(uid), -ENODEV, deviceID, [](auto& d) { return d.nodeID; });
}

AudioPlatform::Status PipeWirePlatform::deviceUID(ObjectID deviceID, std::string& uid) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.device(deviceID), -ENODEV, uid, [](auto& d) { return d.uid; });
}

AudioPlatform::Status PipeWirePlatform::deviceName(ObjectID deviceID, std::string& name) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.device(deviceID), -ENODEV, name, [](auto& d) { return d.name; });
}

AudioPlatform::Status PipeWirePlatform::outputStreamChannelCounts(ObjectID deviceID,
                                                                  std::vector<std::uint32_t>& channelCounts) {
    PipeWireConnection::Lock lock(*connection_);
    return answer(impl_->watcher.device(deviceID), -ENODEV, channelCounts, [](auto& d) {
        return std::vector<std::uint32_t>{static_cast<uint32_t>(std::max(d.channelCount, 0))};
    });
}

} // namespace tarn
