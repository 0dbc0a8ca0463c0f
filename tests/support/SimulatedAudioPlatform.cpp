#include "support/SimulatedAudioPlatform.hpp"

#include <algorithm>
#include <chrono>

namespace tarn::test {

namespace {

thread_local bool insideCallback = false;

bool waitFor(const std::atomic<std::uint64_t>& counter, std::uint64_t target) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (counter.load() < target) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// The process or device with that id, or null.
template <typename T> T* withID(std::vector<T>& items, AudioPlatform::ObjectID id) {
    auto it = std::find_if(items.begin(), items.end(), [&](const T& item) { return item.id == id; });
    return it == items.end() ? nullptr : &*it;
}

} // namespace

struct SimulatedAudioPlatform::Runner {
    std::atomic<bool> stop{false};
    std::thread thread;

    ~Runner() { halt(); }
    void halt() {
        stop.store(true);
        if (thread.joinable()) thread.join();
    }
};

SimulatedAudioPlatform::SimulatedAudioPlatform() = default;

SimulatedAudioPlatform::~SimulatedAudioPlatform() {
    // Stop any thread an engine forgot, so a failing test does not crash the next one.
    std::lock_guard lock(mutex_);
    for (auto& [handle, record] : ioProcs_)
        if (record.runner) record.runner->halt();
    for (auto& [handle, unit] : units_)
        if (unit.runner) unit.runner->halt();
}

bool SimulatedAudioPlatform::isInsideCallback() { return insideCallback; }

// ---- set-up ------------------------------------------------------------------------------------

void SimulatedAudioPlatform::fail(Step step, Status status) {
    std::lock_guard lock(mutex_);
    failures_[step] = status;
}

void SimulatedAudioPlatform::clearFailures() {
    std::lock_guard lock(mutex_);
    failures_.clear();
}

void SimulatedAudioPlatform::addProcess(Process process) {
    std::lock_guard lock(mutex_);
    processes_.push_back(std::move(process));
}

void SimulatedAudioPlatform::removeProcess(ObjectID id) {
    std::lock_guard lock(mutex_);
    for (const auto& p : processes_)
        if (p.id == id) removedProcesses_.push_back(p);
    std::erase_if(processes_, [&](const Process& p) { return p.id == id; });
}

void SimulatedAudioPlatform::setRunningOutput(ObjectID id, bool running) {
    std::lock_guard lock(mutex_);
    if (auto* p = withID(processes_, id)) p->isRunningOutput = running;
}

void SimulatedAudioPlatform::addDevice(Device device) {
    std::lock_guard lock(mutex_);
    devices_.push_back(std::move(device));
}

void SimulatedAudioPlatform::removeDevice(ObjectID id) {
    std::lock_guard lock(mutex_);
    std::erase_if(devices_, [&](const Device& d) { return d.id == id; });
    if (defaultDevice_ == id) defaultDevice_ = 0;
}

void SimulatedAudioPlatform::setDefaultOutputDevice(ObjectID id) {
    std::lock_guard lock(mutex_);
    defaultDevice_ = id;
}

void SimulatedAudioPlatform::forceGrantedBufferFrames(std::optional<std::uint32_t> frames) {
    std::lock_guard lock(mutex_);
    forcedGrant_ = frames;
}

void SimulatedAudioPlatform::setCaptureSource(CaptureSource source) {
    std::lock_guard lock(mutex_);
    captureSource_ = std::move(source);
}

void SimulatedAudioPlatform::setRenderSink(RenderSink sink) {
    std::lock_guard lock(mutex_);
    renderSink_ = sink;
}

void SimulatedAudioPlatform::interruptIOProcs(std::string reason) {
    std::lock_guard lock(mutex_);
    for (auto& [handle, record] : ioProcs_)
        if (record.runner) record.failure = reason;
}

void SimulatedAudioPlatform::interruptOutputUnits(std::string reason) {
    std::lock_guard lock(mutex_);
    for (auto& [handle, unit] : units_)
        if (unit.runner) unit.failure = reason;
}

std::optional<std::string> SimulatedAudioPlatform::ioProcFailure(IOProcHandle handle) {
    std::lock_guard lock(mutex_);
    auto it = ioProcs_.find(handle);
    return it == ioProcs_.end() ? std::nullopt : it->second.failure;
}

std::optional<std::string> SimulatedAudioPlatform::outputUnitFailure(OutputUnitHandle unit) {
    std::lock_guard lock(mutex_);
    auto it = units_.find(unit);
    return it == units_.end() ? std::nullopt : it->second.failure;
}

void SimulatedAudioPlatform::notify(ListenerKind kind, ObjectID process) {
    std::vector<ChangeListener> callbacks;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [token, listener] : listeners_)
            if (listener.kind == kind && (kind != ListenerKind::runningOutput || listener.process == process))
                callbacks.push_back(listener.callback);
    }
    std::thread([&] {
        for (auto& callback : callbacks) callback();
    }).join();
}

void SimulatedAudioPlatform::notifyProcessListChanged() { notify(ListenerKind::processList, 0); }
void SimulatedAudioPlatform::notifyRunningOutputChanged(ObjectID process) { notify(ListenerKind::runningOutput, process); }
void SimulatedAudioPlatform::notifyDeviceListChanged() { notify(ListenerKind::deviceList, 0); }

// ---- inspection --------------------------------------------------------------------------------

template <typename F> auto SimulatedAudioPlatform::locked(F&& read) const {
    std::lock_guard lock(mutex_);
    return read();
}

std::vector<std::string> SimulatedAudioPlatform::calls() const { return locked([&] { return calls_; }); }
void SimulatedAudioPlatform::clearCalls() { locked([&] { calls_.clear(); }); }
std::size_t SimulatedAudioPlatform::liveTaps() const { return locked([&] { return taps_.size(); }); }
std::size_t SimulatedAudioPlatform::liveAggregateDevices() const { return locked([&] { return aggregates_.size(); }); }
std::size_t SimulatedAudioPlatform::liveIOProcs() const { return locked([&] { return ioProcs_.size(); }); }
std::size_t SimulatedAudioPlatform::liveListeners() const { return locked([&] { return listeners_.size(); }); }
std::size_t SimulatedAudioPlatform::runningCallbackThreads() const { return std::size_t(runningThreads_.load()); }

bool SimulatedAudioPlatform::isClean() const {
    return liveTaps() == 0 && liveAggregateDevices() == 0 && liveIOProcs() == 0 &&
           locked([&] { return units_.empty(); }) && runningCallbackThreads() == 0;
}

std::optional<AudioPlatform::TapDescription> SimulatedAudioPlatform::lastTapDescription() const {
    return locked([&] { return lastTap_; });
}
std::optional<AudioPlatform::AggregateDeviceDescription> SimulatedAudioPlatform::lastAggregateDescription() const {
    return locked([&] { return lastAggregate_; });
}
std::optional<AudioStreamFormat> SimulatedAudioPlatform::lastOutputUnitFormat() const {
    return locked([&] { return lastUnitFormat_; });
}
std::optional<AudioPlatform::ObjectID> SimulatedAudioPlatform::lastOutputUnitDevice() const {
    return locked([&] { return lastUnitDevice_; });
}
std::vector<AudioPlatform::ObjectID> SimulatedAudioPlatform::outputUnitCaptures() const {
    std::lock_guard lock(mutex_);
    std::vector<ObjectID> out;
    for (const auto& [handle, unit] : units_) out.push_back(unit.capture);
    return out;
}
std::vector<std::pair<AudioPlatform::ObjectID, std::uint32_t>> SimulatedAudioPlatform::bufferRequests() const {
    return locked([&] { return bufferRequests_; });
}

std::uint32_t SimulatedAudioPlatform::bufferFramesOf(ObjectID deviceID) const {
    std::lock_guard lock(mutex_);
    for (const auto& d : devices_)
        if (d.id == deviceID) return d.bufferFrames;
    return 0;
}

bool SimulatedAudioPlatform::waitForCaptureCycles(std::uint64_t cycles) const { return waitFor(captureCycles_, cycles); }
bool SimulatedAudioPlatform::waitForRenderCycles(std::uint64_t cycles) const { return waitFor(renderCycles_, cycles); }

std::vector<float> SimulatedAudioPlatform::renderedSamples() const {
    std::lock_guard lock(renderedMutex_);
    return rendered_;
}

std::vector<float> SimulatedAudioPlatform::renderedSamples(ObjectID device) const {
    std::lock_guard lock(renderedMutex_);
    auto it = renderedByDevice_.find(device);
    return it == renderedByDevice_.end() ? std::vector<float>{} : it->second;
}

void SimulatedAudioPlatform::clearRenderedSamples() {
    std::lock_guard lock(renderedMutex_);
    rendered_.clear();
    renderedByDevice_.clear();
}

bool SimulatedAudioPlatform::isHeardUnprocessed(std::int32_t pid) const {
    std::lock_guard lock(mutex_);
    const bool plays = std::any_of(processes_.begin(), processes_.end(),
                                   [&](const Process& p) { return p.pid == pid && p.isRunningOutput; });
    if (!plays) return false;
    for (const auto& [id, aggregate] : aggregates_)
        for (const auto& member : aggregate.taps)
            for (const auto& [tapID, tap] : taps_)
                if (tap.uid == member.uid && tap.pid == pid) return false;
    return true;
}

AudioPlatform::Status SimulatedAudioPlatform::enter(Step step, const char* call) {
    calls_.emplace_back(call);
    auto it = failures_.find(step);
    return it == failures_.end() ? noError : it->second;
}

// ---- capture -----------------------------------------------------------------------------------

AudioPlatform::Status SimulatedAudioPlatform::createProcessTap(const TapDescription& description, ObjectID& tapID) {
    std::lock_guard lock(mutex_);
    lastTap_ = description;
    if (auto s = enter(Step::createProcessTap, "createProcessTap")) return s;
    std::int32_t pid = 0;
    for (auto process : description.processes) {
        const Process* p = withID(processes_, process);
        if (!p) p = withID(removedProcesses_, process);
        if (!p) return notFound;
        pid = p->pid;
    }
    std::uint32_t channels = 2;
    if (!description.isStereoMixdown) {
        auto device = std::find_if(devices_.begin(), devices_.end(),
                                   [&](const Device& d) { return d.uid == description.deviceUID; });
        if (device == devices_.end() || description.streamIndex >= device->streamChannelCounts.size()) return notFound;
        channels = device->streamChannelCounts[description.streamIndex];
    }
    tapID = nextObjectID_++;
    taps_[tapID] = Tap{description, pid, "tap-" + std::to_string(tapID), {captureSource_.sampleRate, channels}};
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::tapUID(ObjectID tapID, std::string& uid) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::tapUID, "tapUID")) return s;
    auto it = taps_.find(tapID);
    if (it == taps_.end()) return notFound;
    uid = it->second.uid;
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::tapFormat(ObjectID tapID, AudioStreamFormat& format) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::tapFormat, "tapFormat")) return s;
    auto it = taps_.find(tapID);
    if (it == taps_.end()) return notFound;
    format = it->second.format;
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::destroyProcessTap(ObjectID tapID) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::destroyProcessTap, "destroyProcessTap")) return s;
    return taps_.erase(tapID) ? noError : notFound;
}

AudioPlatform::Status SimulatedAudioPlatform::createAggregateDevice(const AggregateDeviceDescription& description,
                                                                    ObjectID& deviceID) {
    std::lock_guard lock(mutex_);
    lastAggregate_ = description;
    if (auto s = enter(Step::createAggregateDevice, "createAggregateDevice")) return s;
    for (const auto& tap : description.taps)
        if (std::none_of(taps_.begin(), taps_.end(), [&](const auto& t) { return t.second.uid == tap.uid; }))
            return notFound;
    deviceID = nextObjectID_++;
    aggregates_[deviceID] = description;
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::destroyAggregateDevice(ObjectID deviceID) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::destroyAggregateDevice, "destroyAggregateDevice")) return s;
    return aggregates_.erase(deviceID) ? noError : notFound;
}

AudioPlatform::Status SimulatedAudioPlatform::createIOProc(ObjectID deviceID, IOProc proc, void* context,
                                                           IOProcHandle& handle) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::createIOProc, "createIOProc")) return s;
    if (!aggregates_.contains(deviceID) || !proc) return notFound;
    if (failures_.contains(Step::createIOProcWithoutHandle)) {
        handle = 0;
        return noError;
    }
    handle = nextHandle_++;
    ioProcs_[handle] = IOProcRecord{deviceID, proc, context, nullptr, std::nullopt};
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::destroyIOProc(ObjectID deviceID, IOProcHandle handle) {
    std::unique_ptr<Runner> runner; // a runner still going is joined when this goes, outside the lock
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::destroyIOProc, "destroyIOProc")) return s;
    auto it = ioProcs_.find(handle);
    if (it == ioProcs_.end() || it->second.device != deviceID) return notFound;
    runner = std::move(it->second.runner);
    ioProcs_.erase(it);
    return noError;
}

void SimulatedAudioPlatform::startCaptureRunner(IOProcRecord& record, const AudioStreamFormat& format) {
    record.runner = std::make_unique<Runner>();
    const CaptureSource source = captureSource_;
    const std::uint32_t channels = format.channelCount;
    runningThreads_.fetch_add(1);
    record.runner->thread = std::thread([this, source, channels, proc = record.proc, context = record.context,
                                         stop = &record.runner->stop] {
        const std::uint32_t frames = source.framesPerCycle;
        const std::uint32_t bufferCount = source.interleaved ? 1 : (source.bufferCount ? source.bufferCount : channels);
        const std::uint32_t perBufferChannels = source.interleaved ? channels : 1;
        std::vector<std::vector<float>> storage(bufferCount, std::vector<float>(std::size_t(frames) * perBufferChannels));
        std::vector<AudioBufferList::Buffer> buffers(bufferCount);
        for (std::uint64_t frame = 0; !stop->load(); frame += frames) {
            for (std::uint32_t b = 0; b < bufferCount; ++b) {
                for (std::uint32_t f = 0; f < frames; ++f)
                    for (std::uint32_t c = 0; c < perBufferChannels; ++c)
                        storage[b][f * perBufferChannels + c] = source.sample(frame + f, source.interleaved ? c : b);
                buffers[b] = {perBufferChannels, std::uint32_t(storage[b].size() * sizeof(float)), storage[b].data()};
            }
            AudioBufferList list{bufferCount, buffers.data()};
            insideCallback = true;
            proc(context, list);
            insideCallback = false;
            captureCycles_.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        runningThreads_.fetch_sub(1);
    });
}

AudioPlatform::Status SimulatedAudioPlatform::startDevice(ObjectID deviceID, IOProcHandle handle) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::startDevice, "startDevice")) return s;
    auto it = ioProcs_.find(handle);
    if (it == ioProcs_.end() || it->second.device != deviceID) return notFound;
    if (it->second.runner) return noError;
    // The aggregate's format is its tap's.
    AudioStreamFormat format{captureSource_.sampleRate, 2};
    for (const auto& tapRef : aggregates_[deviceID].taps)
        for (const auto& [id, tap] : taps_)
            if (tap.uid == tapRef.uid) format = tap.format;
    startCaptureRunner(it->second, format);
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::stopDevice(ObjectID deviceID, IOProcHandle handle) {
    std::unique_ptr<Runner> runner; // halted when this goes, outside the lock: the callback has returned then
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::stopDevice, "stopDevice")) return s;
    auto it = ioProcs_.find(handle);
    if (it == ioProcs_.end() || it->second.device != deviceID) return notFound;
    runner = std::move(it->second.runner);
    return noError;
}

// ---- render ------------------------------------------------------------------------------------

bool SimulatedAudioPlatform::hasOutputUnitComponent() {
    std::lock_guard lock(mutex_);
    return enter(Step::outputUnitComponent, "hasOutputUnitComponent") == noError;
}

AudioPlatform::Status SimulatedAudioPlatform::createOutputUnit(OutputUnitHandle& unit) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::createOutputUnit, "createOutputUnit")) return s;
    unit = nextHandle_++;
    units_[unit] = OutputUnit{};
    return noError;
}

// Records the call, returns an injected failure, then runs `change` on the unit if it exists.
template <typename F>
AudioPlatform::Status SimulatedAudioPlatform::onUnit(Step step, const char* call, OutputUnitHandle unit, F&& change) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(step, call)) return s;
    auto found = units_.find(unit);
    return found == units_.end() ? notFound : change(found->second);
}

AudioPlatform::Status SimulatedAudioPlatform::enableOutputIO(OutputUnitHandle unit) {
    return onUnit(Step::enableOutputIO, "enableOutputIO", unit, [](OutputUnit&) { return noError; });
}

AudioPlatform::Status SimulatedAudioPlatform::setOutputUnitDevice(OutputUnitHandle unit, ObjectID deviceID) {
    locked([&] { lastUnitDevice_ = deviceID; });
    return onUnit(Step::setOutputUnitDevice, "setOutputUnitDevice", unit, [&](OutputUnit& u) {
        if (!withID(devices_, deviceID)) return notFound;
        u.device = deviceID;
        return noError;
    });
}

AudioPlatform::Status SimulatedAudioPlatform::setMaximumFramesPerSlice(OutputUnitHandle unit, std::uint32_t) {
    return onUnit(Step::setMaximumFramesPerSlice, "setMaximumFramesPerSlice", unit, [](OutputUnit&) { return noError; });
}

AudioPlatform::Status SimulatedAudioPlatform::setOutputUnitFormat(OutputUnitHandle unit, const AudioStreamFormat& format) {
    locked([&] { lastUnitFormat_ = format; });
    return onUnit(Step::setOutputUnitFormat, "setOutputUnitFormat", unit, [&](OutputUnit& u) {
        if (format.channelCount == 0 || !(format.sampleRate > 0)) return invalid;
        u.format = format;
        return noError;
    });
}

AudioPlatform::Status SimulatedAudioPlatform::setRenderCallback(OutputUnitHandle unit, RenderProc proc, void* context) {
    return onUnit(Step::setRenderCallback, "setRenderCallback", unit, [&](OutputUnit& u) {
        u.proc = proc;
        u.context = context;
        return noError;
    });
}

// Like a platform that joins the unit to its capture when it connects it: too late once the unit
// is initialised, and one unit per capture.
AudioPlatform::Status SimulatedAudioPlatform::setOutputUnitCapture(OutputUnitHandle unit, ObjectID aggregateDeviceID) {
    return onUnit(Step::setOutputUnitCapture, "setOutputUnitCapture", unit, [&](OutputUnit& u) {
        if (u.initialized) return invalid;
        if (!aggregates_.contains(aggregateDeviceID)) return notFound;
        for (const auto& [handle, other] : units_)
            if (&other != &u && other.capture == aggregateDeviceID) return busy;
        u.capture = aggregateDeviceID;
        return noError;
    });
}

AudioPlatform::Status SimulatedAudioPlatform::initializeOutputUnit(OutputUnitHandle unit) {
    return onUnit(Step::initializeOutputUnit, "initializeOutputUnit", unit, [](OutputUnit& u) {
        if (!u.device || !u.format || !u.proc) return invalid;
        u.initialized = true;
        return noError;
    });
}

void SimulatedAudioPlatform::startRenderRunner(OutputUnit& unit) {
    unit.runner = std::make_unique<Runner>();
    const RenderSink sink = renderSink_;
    const std::uint32_t channels = unit.format->channelCount;
    runningThreads_.fetch_add(1);
    unit.runner->thread = std::thread([this, sink, channels, proc = unit.proc, context = unit.context,
                                       device = unit.device, stop = &unit.runner->stop] {
        std::vector<float> block(std::size_t(sink.framesPerCycle) * channels);
        AudioBufferList::Buffer buffer{channels, std::uint32_t(block.size() * sizeof(float)), block.data()};
        std::uint64_t cycles = 0;
        while (!stop->load()) {
            if (sink.maxCycles && cycles >= sink.maxCycles) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            // Garbage in the buffer, so a callback that leaves samples unwritten is caught.
            std::fill(block.begin(), block.end(), 123.0f);
            AudioBufferList list{1, &buffer};
            insideCallback = true;
            proc(context, sink.framesPerCycle, list);
            insideCallback = false;
            {
                std::lock_guard lock(renderedMutex_);
                rendered_.insert(rendered_.end(), block.begin(), block.end());
                auto& own = renderedByDevice_[device];
                own.insert(own.end(), block.begin(), block.end());
            }
            ++cycles;
            renderCycles_.fetch_add(1);
            std::this_thread::sleep_for(sink.cyclePeriod);
        }
        runningThreads_.fetch_sub(1);
    });
}

AudioPlatform::Status SimulatedAudioPlatform::startOutputUnit(OutputUnitHandle unit) {
    return onUnit(Step::startOutputUnit, "startOutputUnit", unit, [&](OutputUnit& u) {
        if (!u.initialized) return invalid;
        if (!u.runner) startRenderRunner(u);
        return noError;
    });
}

// The teardown steps never fail on request: the engines' undo paths ignore their status.
AudioPlatform::Status SimulatedAudioPlatform::stopOutputUnit(OutputUnitHandle unit) {
    std::unique_ptr<Runner> runner; // halted when this goes, outside the lock
    return onUnit(Step::none, "stopOutputUnit", unit, [&](OutputUnit& u) {
        runner = std::move(u.runner);
        return noError;
    });
}

AudioPlatform::Status SimulatedAudioPlatform::uninitializeOutputUnit(OutputUnitHandle unit) {
    return onUnit(Step::none, "uninitializeOutputUnit", unit, [](OutputUnit& u) {
        u.initialized = false;
        return noError;
    });
}

AudioPlatform::Status SimulatedAudioPlatform::disposeOutputUnit(OutputUnitHandle unit) {
    std::unique_ptr<Runner> runner;
    return onUnit(Step::none, "disposeOutputUnit", unit, [&](OutputUnit& u) {
        runner = std::move(u.runner);
        units_.erase(unit);
        return noError;
    });
}

// ---- buffer sizes ------------------------------------------------------------------------------

AudioPlatform::Status SimulatedAudioPlatform::bufferFrameSizeRange(ObjectID deviceID, double& minimum, double& maximum) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::bufferFrameSizeRange, "bufferFrameSizeRange")) return s;
    if (!aggregates_.contains(deviceID) && !withID(devices_, deviceID)) return notFound;
    minimum = minimumBufferFrames;
    maximum = maximumBufferFrames;
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::setBufferFrameSize(ObjectID deviceID, std::uint32_t frames) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::setBufferFrameSize, "setBufferFrameSize")) return s;
    bufferRequests_.emplace_back(deviceID, frames);
    if (aggregates_.contains(deviceID)) return noError;
    auto* d = withID(devices_, deviceID);
    if (!d) return notFound;
    d->bufferFrames = forcedGrant_.value_or(frames);
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::bufferFrameSize, "bufferFrameSize")) return s;
    if (aggregates_.contains(deviceID)) {
        frames = forcedGrant_.value_or(bufferRequests_.empty() ? 512 : bufferRequests_.back().second);
        return noError;
    }
    auto* d = withID(devices_, deviceID);
    if (!d) return notFound;
    frames = d->bufferFrames;
    return noError;
}

// ---- listeners ---------------------------------------------------------------------------------

AudioPlatform::Status SimulatedAudioPlatform::addListener(Step step, const char* call, Listener listener,
                                                          ListenerToken& token) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(step, call)) return s;
    if (listener.kind == ListenerKind::runningOutput && !withID(processes_, listener.process)) return notFound;
    token = nextHandle_++;
    listeners_[token] = std::move(listener);
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::removeListener(ListenerToken token) {
    std::lock_guard lock(mutex_);
    calls_.push_back("removeListener");
    return listeners_.erase(token) ? noError : notFound;
}

AudioPlatform::Status SimulatedAudioPlatform::addProcessListListener(ChangeListener listener, ListenerToken& token) {
    return addListener(Step::addProcessListListener, "addProcessListListener",
                       {ListenerKind::processList, 0, std::move(listener)}, token);
}

AudioPlatform::Status SimulatedAudioPlatform::addRunningOutputListener(ObjectID process, ChangeListener listener,
                                                                       ListenerToken& token) {
    return addListener(Step::addRunningOutputListener, "addRunningOutputListener",
                       {ListenerKind::runningOutput, process, std::move(listener)}, token);
}

AudioPlatform::Status SimulatedAudioPlatform::addDeviceListListener(ChangeListener listener, ListenerToken& token) {
    return addListener(Step::none, "addDeviceListListener", {ListenerKind::deviceList, 0, std::move(listener)}, token);
}

// ---- processes ---------------------------------------------------------------------------------

AudioPlatform::Status SimulatedAudioPlatform::processObjectList(std::vector<ObjectID>& processes) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::processObjectList, "processObjectList")) return s;
    processes.clear();
    for (const auto& p : processes_) processes.push_back(p.id);
    return noError;
}

// A process property: its own injected status if any, else the value read.
template <typename T, typename Read>
AudioPlatform::Status SimulatedAudioPlatform::processProperty(ObjectID process, T& out, Status Process::*status,
                                                              Read read) {
    std::lock_guard lock(mutex_);
    const auto* p = withID(processes_, process);
    if (!p) return notFound;
    if (p->*status) return p->*status;
    out = read(*p);
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::processPID(ObjectID process, std::int32_t& pid) {
    return processProperty(process, pid, &Process::pidStatus, [](const Process& p) { return p.pid; });
}

AudioPlatform::Status SimulatedAudioPlatform::processBundleID(ObjectID process, std::string& bundleID) {
    return processProperty(process, bundleID, &Process::bundleIDStatus, [](const Process& p) { return p.bundleID; });
}

AudioPlatform::Status SimulatedAudioPlatform::processIsRunningOutput(ObjectID process, bool& isRunning) {
    return processProperty(process, isRunning, &Process::runningStatus, [](const Process& p) { return p.isRunningOutput; });
}

std::optional<AudioPlatform::RunningApplication> SimulatedAudioPlatform::runningApplication(std::int32_t pid) {
    std::lock_guard lock(mutex_);
    for (const auto& p : processes_)
        if (p.pid == pid && p.application) return p.application;
    return std::nullopt;
}

// ---- devices -----------------------------------------------------------------------------------

AudioPlatform::Status SimulatedAudioPlatform::outputDeviceList(std::vector<ObjectID>& devices) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::outputDeviceList, "outputDeviceList")) return s;
    devices.clear();
    for (const auto& d : devices_) devices.push_back(d.id);
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::defaultOutputDevice(ObjectID& deviceID) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::defaultOutputDevice, "defaultOutputDevice")) return s;
    if (defaultDevice_ == 0) return notFound;
    deviceID = defaultDevice_;
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::deviceForUID(const std::string& uid, ObjectID& deviceID) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(Step::deviceForUID, "deviceForUID")) return s;
    for (const auto& d : devices_) {
        if (d.uid == uid) {
            deviceID = d.id;
            return noError;
        }
    }
    return notFound;
}

// A device property, after the step's injected failure if any.
template <typename T, typename Read>
AudioPlatform::Status SimulatedAudioPlatform::deviceProperty(Step step, const char* call, ObjectID deviceID, T& out,
                                                             Read read) {
    std::lock_guard lock(mutex_);
    if (auto s = enter(step, call)) return s;
    const auto* d = withID(devices_, deviceID);
    if (!d) return notFound;
    out = read(*d);
    return noError;
}

AudioPlatform::Status SimulatedAudioPlatform::deviceUID(ObjectID deviceID, std::string& uid) {
    return deviceProperty(Step::deviceUID, "deviceUID", deviceID, uid, [](const Device& d) { return d.uid; });
}

AudioPlatform::Status SimulatedAudioPlatform::deviceName(ObjectID deviceID, std::string& name) {
    return deviceProperty(Step::deviceName, "deviceName", deviceID, name, [](const Device& d) { return d.name; });
}

AudioPlatform::Status SimulatedAudioPlatform::outputStreamChannelCounts(ObjectID deviceID,
                                                                        std::vector<std::uint32_t>& channelCounts) {
    return deviceProperty(Step::outputStreamChannelCounts, "outputStreamChannelCounts", deviceID, channelCounts,
                          [](const Device& d) { return d.streamChannelCounts; });
}

} // namespace tarn::test
