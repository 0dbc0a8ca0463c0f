#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/audio/AudioPlatform.hpp"

namespace tarn::test {

// An in-memory sound server for tests. It keeps every object the engines create, runs I/O and
// render callbacks on real threads (one per started device or unit), calls listeners on threads
// of their own, and can make any step fail with a chosen status. Tests then check that an engine
// left nothing behind.
//
// Control operations take a lock; the callback threads never hold it while calling the engines.
class SimulatedAudioPlatform : public AudioPlatform {
public:
    enum class Step {
        createProcessTap, tapUID, tapFormat, destroyProcessTap,
        createAggregateDevice, destroyAggregateDevice,
        createIOProc, createIOProcWithoutHandle, destroyIOProc, startDevice, stopDevice,
        outputUnitComponent, createOutputUnit, enableOutputIO, setOutputUnitDevice, setMaximumFramesPerSlice,
        setOutputUnitFormat, setRenderCallback, setOutputUnitCapture, initializeOutputUnit, startOutputUnit,
        bufferFrameSizeRange, setBufferFrameSize, bufferFrameSize,
        processObjectList, addProcessListListener, addRunningOutputListener,
        outputDeviceList, defaultOutputDevice, deviceForUID, deviceUID, deviceName, outputStreamChannelCounts,
        none, // steps that cannot be made to fail
    };

    struct Process {
        ObjectID id = 0;
        std::int32_t pid = 0;
        std::string bundleID;
        bool isRunningOutput = false;
        std::optional<RunningApplication> application;
        Status pidStatus = noError;
        Status bundleIDStatus = noError;
        Status runningStatus = noError;
    };

    struct Device {
        ObjectID id = 0;
        std::string uid;
        std::string name;
        std::vector<std::uint32_t> streamChannelCounts{2};
        std::uint32_t bufferFrames = 1024;
    };

    // What the capture threads deliver.
    struct CaptureSource {
        double sampleRate = 48000;
        std::uint32_t framesPerCycle = 512;
        bool interleaved = true;
        // Non-interleaved only: how many one-channel buffers each cycle holds (0: the tap's
        // channel count).
        std::uint32_t bufferCount = 0;
        // Sample value of frame `frame` (counted from the start) of buffer channel `channel`.
        std::function<float(std::uint64_t frame, std::uint32_t channel)> sample =
            [](std::uint64_t frame, std::uint32_t channel) { return float(frame % 1000) * 0.001f + float(channel); };
    };

    struct RenderSink {
        std::uint32_t framesPerCycle = 512;
        std::uint64_t maxCycles = 0;
        // Pause between cycles (a real device's cycle lasts framesPerCycle / rate).
        std::chrono::microseconds cyclePeriod{300};
    };

    SimulatedAudioPlatform();
    ~SimulatedAudioPlatform() override;

    // ---- set-up --------------------------------------------------------------------------------
    void fail(Step step, Status status);
    void clearFailures();
    void addProcess(Process process);
    // The process object goes (its streams closed); a tap can still be made on it, as a sound
    // server that remembers the application would allow.
    void removeProcess(ObjectID id);
    void setRunningOutput(ObjectID id, bool running);
    void addDevice(Device device);
    void removeDevice(ObjectID id);
    void setDefaultOutputDevice(ObjectID id);
    // The buffer size granted from now on, whatever is asked (none: grant what is asked).
    void forceGrantedBufferFrames(std::optional<std::uint32_t> frames);
    void setCaptureSource(CaptureSource source);
    void setRenderSink(RenderSink sink);
    // Marks every started I/O procedure / output unit as stopped by the platform for `reason`.
    void interruptIOProcs(std::string reason);
    void interruptOutputUnits(std::string reason);
    // Invokes the matching listeners on a separate thread and waits for them.
    void notifyProcessListChanged();
    void notifyRunningOutputChanged(ObjectID process);
    void notifyDeviceListChanged();

    // ---- inspection ----------------------------------------------------------------------------
    std::vector<std::string> calls() const;
    void clearCalls();
    std::size_t liveTaps() const;
    std::size_t liveAggregateDevices() const;
    std::size_t liveIOProcs() const;
    std::size_t liveListeners() const;
    std::size_t runningCallbackThreads() const;
    // Everything the engines created is gone and no callback thread runs.
    bool isClean() const;
    std::optional<TapDescription> lastTapDescription() const;
    std::optional<AggregateDeviceDescription> lastAggregateDescription() const;
    std::optional<AudioStreamFormat> lastOutputUnitFormat() const;
    std::optional<ObjectID> lastOutputUnitDevice() const;
    // The aggregate device each live output unit was paired with (0: none), in the units' order.
    std::vector<ObjectID> outputUnitCaptures() const;
    std::uint32_t bufferFramesOf(ObjectID deviceID) const;
    std::vector<std::pair<ObjectID, std::uint32_t>> bufferRequests() const;
    // Cycles delivered by all capture threads / render threads so far.
    std::uint64_t captureCycles() const { return captureCycles_.load(); }
    std::uint64_t renderCycles() const { return renderCycles_.load(); }
    // Waits (up to a few seconds) until that many cycles have run; false on timeout.
    bool waitForCaptureCycles(std::uint64_t cycles) const;
    bool waitForRenderCycles(std::uint64_t cycles) const;
    // Everything the render callbacks produced, interleaved, in order.
    std::vector<float> renderedSamples() const;
    // What the render callbacks played on one device, interleaved, in order.
    std::vector<float> renderedSamples(ObjectID device) const;
    void clearRenderedSamples();
    // A process of this pid plays (its output flag is set) while no capture device of a tap on
    // that pid exists: its sound reaches its normal output unprocessed.
    bool isHeardUnprocessed(std::int32_t pid) const;

    // True on a callback thread while the engine's callback runs (for allocation counting).
    static bool isInsideCallback();

    // ---- AudioPlatform -------------------------------------------------------------------------
    Status createProcessTap(const TapDescription& description, ObjectID& tapID) override;
    Status tapUID(ObjectID tapID, std::string& uid) override;
    Status tapFormat(ObjectID tapID, AudioStreamFormat& format) override;
    Status destroyProcessTap(ObjectID tapID) override;
    Status createAggregateDevice(const AggregateDeviceDescription& description, ObjectID& deviceID) override;
    Status destroyAggregateDevice(ObjectID deviceID) override;
    Status createIOProc(ObjectID deviceID, IOProc proc, void* context, IOProcHandle& handle) override;
    Status destroyIOProc(ObjectID deviceID, IOProcHandle handle) override;
    Status startDevice(ObjectID deviceID, IOProcHandle handle) override;
    Status stopDevice(ObjectID deviceID, IOProcHandle handle) override;

    bool hasOutputUnitComponent() override;
    Status createOutputUnit(OutputUnitHandle& unit) override;
    Status enableOutputIO(OutputUnitHandle unit) override;
    Status setOutputUnitDevice(OutputUnitHandle unit, ObjectID deviceID) override;
    Status setMaximumFramesPerSlice(OutputUnitHandle unit, std::uint32_t frames) override;
    Status setOutputUnitFormat(OutputUnitHandle unit, const AudioStreamFormat& format) override;
    Status setRenderCallback(OutputUnitHandle unit, RenderProc proc, void* context) override;
    Status setOutputUnitCapture(OutputUnitHandle unit, ObjectID aggregateDeviceID) override;
    Status initializeOutputUnit(OutputUnitHandle unit) override;
    Status startOutputUnit(OutputUnitHandle unit) override;
    Status stopOutputUnit(OutputUnitHandle unit) override;
    Status uninitializeOutputUnit(OutputUnitHandle unit) override;
    Status disposeOutputUnit(OutputUnitHandle unit) override;

    Status bufferFrameSizeRange(ObjectID deviceID, double& minimum, double& maximum) override;
    Status setBufferFrameSize(ObjectID deviceID, std::uint32_t frames) override;
    Status bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) override;

    std::optional<std::string> ioProcFailure(IOProcHandle handle) override;
    std::optional<std::string> outputUnitFailure(OutputUnitHandle unit) override;
    // The graph rate started units report (none: they report none, as a platform that cannot tell).
    void setGraphRate(std::optional<double> rate) {
        std::lock_guard lock(mutex_);
        graphRate_ = rate;
    }
    std::optional<double> outputUnitGraphRate(OutputUnitHandle unit) override {
        std::lock_guard lock(mutex_);
        return units_.count(unit) ? graphRate_ : std::nullopt;
    }

    Status removeListener(ListenerToken token) override;

    Status processObjectList(std::vector<ObjectID>& processes) override;
    Status processPID(ObjectID process, std::int32_t& pid) override;
    Status processBundleID(ObjectID process, std::string& bundleID) override;
    Status processIsRunningOutput(ObjectID process, bool& isRunning) override;
    std::optional<RunningApplication> runningApplication(std::int32_t pid) override;
    Status addProcessListListener(ChangeListener listener, ListenerToken& token) override;
    Status addRunningOutputListener(ObjectID process, ChangeListener listener, ListenerToken& token) override;

    Status outputDeviceList(std::vector<ObjectID>& devices) override;
    Status defaultOutputDevice(ObjectID& deviceID) override;
    Status deviceForUID(const std::string& uid, ObjectID& deviceID) override;
    Status deviceUID(ObjectID deviceID, std::string& uid) override;
    Status deviceName(ObjectID deviceID, std::string& name) override;
    Status outputStreamChannelCounts(ObjectID deviceID, std::vector<std::uint32_t>& channelCounts) override;
    Status addDeviceListListener(ChangeListener listener, ListenerToken& token) override;

    static constexpr Status notFound = -2;     // -ENOENT
    static constexpr Status invalid = -22;     // -EINVAL
    static constexpr Status busy = -16;        // -EBUSY
    // Every device and aggregate accepts buffers of this many frames.
    static constexpr double minimumBufferFrames = 16, maximumBufferFrames = 8192;

private:
    struct Runner;
    struct Tap {
        TapDescription description;
        std::int32_t pid = 0;
        std::string uid;
        AudioStreamFormat format;
    };
    struct IOProcRecord {
        ObjectID device = 0;
        IOProc proc = nullptr;
        void* context = nullptr;
        std::unique_ptr<Runner> runner;
        std::optional<std::string> failure;
    };
    struct OutputUnit {
        ObjectID device = 0;
        std::optional<AudioStreamFormat> format;
        RenderProc proc = nullptr;
        void* context = nullptr;
        ObjectID capture = 0; // the aggregate device it is paired with
        bool initialized = false;
        std::unique_ptr<Runner> runner;
        std::optional<std::string> failure;
    };
    enum class ListenerKind { processList, runningOutput, deviceList };
    struct Listener {
        ListenerKind kind;
        ObjectID process = 0;
        ChangeListener callback;
    };

    // Records the call and returns the injected failure for `step`, if any. Lock held.
    Status enter(Step step, const char* call);
    template <typename F> auto locked(F&& read) const;
    Status addListener(Step step, const char* call, Listener listener, ListenerToken& token);
    template <typename F> Status onUnit(Step step, const char* call, OutputUnitHandle unit, F&& change);
    template <typename T, typename Read> Status processProperty(ObjectID process, T& out, Status Process::*status, Read read);
    template <typename T, typename Read> Status deviceProperty(Step step, const char* call, ObjectID deviceID, T& out, Read read);
    void notify(ListenerKind kind, ObjectID process);
    void startCaptureRunner(IOProcRecord& record, const AudioStreamFormat& format);
    void startRenderRunner(OutputUnit& unit);

    mutable std::mutex mutex_;
    std::optional<double> graphRate_;
    std::map<Step, Status> failures_;
    std::vector<std::string> calls_;
    std::vector<Process> processes_;
    std::vector<Process> removedProcesses_;
    std::vector<Device> devices_;
    ObjectID defaultDevice_ = 0;
    std::optional<std::uint32_t> forcedGrant_;
    std::vector<std::pair<ObjectID, std::uint32_t>> bufferRequests_;
    CaptureSource captureSource_;
    RenderSink renderSink_;
    ObjectID nextObjectID_ = 1000;
    std::uint64_t nextHandle_ = 1;
    std::map<ObjectID, Tap> taps_;
    std::map<ObjectID, AggregateDeviceDescription> aggregates_;
    std::map<IOProcHandle, IOProcRecord> ioProcs_;
    std::map<OutputUnitHandle, OutputUnit> units_;
    std::map<ListenerToken, Listener> listeners_;
    std::optional<TapDescription> lastTap_;
    std::optional<AggregateDeviceDescription> lastAggregate_;
    std::optional<AudioStreamFormat> lastUnitFormat_;
    std::optional<ObjectID> lastUnitDevice_;

    std::atomic<std::uint64_t> captureCycles_{0};
    std::atomic<std::uint64_t> renderCycles_{0};
    std::atomic<int> runningThreads_{0};
    mutable std::mutex renderedMutex_;
    std::vector<float> rendered_;
    std::map<ObjectID, std::vector<float>> renderedByDevice_;
};

} // namespace tarn::test
