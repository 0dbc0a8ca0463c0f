#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core/audio/AudioPlatform.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn {

// The audio platform on PipeWire.
//
// - A tap (PipeWireTap) records which application (its pid, else its identity) is captured and in
//   which format (the graph's rate; two channels, or the chosen sink's channel layout).
// - The aggregate device is a private virtual sink, "Tarn Capture " + identity, created by this
//   client (so it dies with it). Every output stream of the application is moved onto it through
//   `target.object` in the session manager's "default" metadata, and streams that appear later
//   follow while it exists. Destroying it removes those entries, so the application goes back to
//   its normal output; if the process dies, the sink goes with its client and the metadata guard
//   (a small watchdog process) removes the entries. PipeWireCaptureSinks keeps the sinks and
//   moves the streams.
// - A route's I/O procedure and output unit are the two sides (PipeWireRouteSide) of one filter
//   node in this process (PipeWireRouteNode): input ports linked from the capture sink's monitor,
//   output ports linked to the chosen sink, so that the output device's cycle runs capture and
//   playback in one wake-up, playback taking what capture wrote in the same cycle. The unit is
//   joined with the capture the engine names through `setOutputUnitCapture`; a unit named none
//   (or an I/O procedure alone) gets a node of its own.
// - Buffer sizes are `node.latency` requests; the size in force is the quantum the node's graph
//   cycle really has, known once the node runs.
// - Applications and devices are read from PipeWireGraphWatcher's picture of the graph.
class PipeWirePlatform final : public AudioPlatform {
public:
    // Connects to the daemon. Throws PipeWireError when none answers.
    PipeWirePlatform();
    explicit PipeWirePlatform(std::shared_ptr<PipeWireConnection> connection);
    ~PipeWirePlatform() override;

    PipeWireConnection& connection() { return *connection_; }

    // The failure that ended this unit or I/O procedure while it ran (its sink went away,
    // the daemon closed the connection), or none while it runs normally.
    std::optional<std::string> outputUnitFailure(OutputUnitHandle unit) override;
    std::optional<double> outputUnitGraphRate(OutputUnitHandle unit) override;
    std::optional<std::string> ioProcFailure(IOProcHandle handle) override;
    // Graph cycles that output units missed (the clock skipped past where a cycle ended), since
    // this platform was made.
    std::uint64_t xrunCount();

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
    // The sink must exist and be joined with no other unit; the unit must not be initialised yet.
    Status setOutputUnitCapture(OutputUnitHandle unit, ObjectID aggregateDeviceID) override;
    Status initializeOutputUnit(OutputUnitHandle unit) override;
    Status startOutputUnit(OutputUnitHandle unit) override;
    Status stopOutputUnit(OutputUnitHandle unit) override;
    Status uninitializeOutputUnit(OutputUnitHandle unit) override;
    Status disposeOutputUnit(OutputUnitHandle unit) override;

    Status bufferFrameSizeRange(ObjectID deviceID, double& minimum, double& maximum) override;
    Status setBufferFrameSize(ObjectID deviceID, std::uint32_t frames) override;
    Status bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) override;

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

    struct Impl;

private:
    std::shared_ptr<PipeWireConnection> connection_;
    std::unique_ptr<Impl> impl_;
};

} // namespace tarn
