#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "core/audio/AudioBufferList.hpp"
#include "core/audio/AudioStreamFormat.hpp"

namespace tarn {

// What the audio engines need from the operating system's sound server: capture of one
// application, playback on one device, the list of applications that play sound, the output
// devices, and I/O buffer sizes. The engines (ProcessTapEngine, AudioOutputRenderer,
// RouteAudioEngine, ProcessDiscoveryService, OutputDeviceLookup, AudioCapturePermission) hold
// all ordering, undo and error-reporting rules; a platform only performs single steps. Each step
// is one call so that a failure names exactly the step that failed.
//
// Status codes: every operation returns a signed 32-bit status, `noError` (0) on success. On
// PipeWire a failure is the negative errno the server or library returned; on macOS it is the
// OSStatus. Outputs are written only on success.
//
// Threads:
// - Every operation is called from one control thread (the application's main thread), never
//   concurrently with another operation, and never from a callback or listener.
// - I/O and render callbacks run on the platform's real-time threads. They must not be called
//   after the matching stop call (`stopDevice`, `stopOutputUnit`) has returned, and a stop call
//   must not return while the callback is still running: the engines free the callback's memory
//   right after.
// - Change listeners run on a platform thread that is neither real-time nor the control thread.
//   Once `removeListener` has returned, that listener is not running and is never called again.
//
// Objects: ids are the platform's own, 0 meaning none. The platform owns the objects it creates
// until the matching destroy call; the engines own the callback contexts, which must stay valid
// until the destroy call for their I/O procedure or output unit has returned. Destroy and stop
// calls on something already gone return a failure status and do no harm. Destroying a private
// object must also happen if the process dies: nothing created here may outlive the program.
class AudioPlatform {
public:
    using ObjectID = std::uint32_t;
    using Status = std::int32_t;
    static constexpr Status noError = 0;

    virtual ~AudioPlatform() = default;

    // A status in words, for error texts: a negative errno with its meaning ("-13: Permission
    // denied"); a status whose four bytes are all printable ASCII with that code, as macOS
    // statuses are read ("1718449215 'fmt?'"); any other status as its number alone.
    static std::string statusDescription(Status status);

    // ---- Capture ---------------------------------------------------------------------------
    //
    // A tap takes the audio of a set of processes; a private aggregate device containing only
    // that tap runs an I/O procedure that receives it. While a tap with `isMuted` exists and its
    // aggregate device exists, the tapped processes are heard only through their route.
    //
    // On PipeWire: the tap is the record of the application's output streams and the format
    // they will be captured in; the aggregate device is the route's private virtual sink (named
    // as given) onto which those streams are moved through `target.object` metadata, and new
    // streams of the same application follow while it exists; the I/O procedure reads that sink's
    // monitor, one buffer per channel. Destroying the aggregate device sends the application back to its
    // normal output.

    struct TapDescription {
        std::vector<ObjectID> processes;
        // true: mix the processes down to 2 channels. false: capture them as they play on stream
        // `streamIndex` of output device `deviceUID`, with that stream's channel count.
        bool isStereoMixdown = true;
        std::string deviceUID;
        std::uint32_t streamIndex = 0;
        std::string name;
        // Visible only to this program.
        bool isPrivate = true;
        // The processes are silent at their normal output while tapped.
        bool isMuted = true;
    };

    struct AggregateDeviceDescription {
        struct Tap {
            std::string uid;
            bool driftCompensation = true;
        };
        std::string uid;
        std::string name;
        bool isPrivate = true;
        bool isStacked = false;
        std::vector<Tap> taps;
    };

    // Called once per cycle on the device's real-time thread with the tapped audio, in the
    // format `tapFormat` reported: one interleaved buffer, or one buffer per channel.
    using IOProc = void (*)(void* context, const AudioBufferList& input);
    using IOProcHandle = std::uint64_t; // 0 means none

    // An empty process list is allowed: the result says whether capture is permitted at all.
    virtual Status createProcessTap(const TapDescription& description, ObjectID& tapID) = 0;
    virtual Status tapUID(ObjectID tapID, std::string& uid) = 0;
    virtual Status tapFormat(ObjectID tapID, AudioStreamFormat& format) = 0;
    virtual Status destroyProcessTap(ObjectID tapID) = 0;

    virtual Status createAggregateDevice(const AggregateDeviceDescription& description, ObjectID& deviceID) = 0;
    virtual Status destroyAggregateDevice(ObjectID deviceID) = 0;

    // Registers `proc` on the device; it is not called before `startDevice`.
    virtual Status createIOProc(ObjectID deviceID, IOProc proc, void* context, IOProcHandle& handle) = 0;
    virtual Status destroyIOProc(ObjectID deviceID, IOProcHandle handle) = 0;
    virtual Status startDevice(ObjectID deviceID, IOProcHandle handle) = 0;
    // Returns once the I/O procedure has stopped running (see Threads).
    virtual Status stopDevice(ObjectID deviceID, IOProcHandle handle) = 0;

    // ---- Render ----------------------------------------------------------------------------
    //
    // An output unit plays interleaved 32-bit float frames on one output device, pulling them
    // from a render callback. On PipeWire it is a set of playback ports linked to the device's node.

    using OutputUnitHandle = std::uint64_t; // 0 means none
    // Called once per cycle on the unit's real-time thread: fill `frameCount` interleaved frames
    // of the unit's format into buffer 0 of `output`.
    using RenderProc = void (*)(void* context, std::uint32_t frameCount, AudioBufferList& output);

    // False when the platform has no output facility at all.
    virtual bool hasOutputUnitComponent() = 0;
    virtual Status createOutputUnit(OutputUnitHandle& unit) = 0;
    // Output on, input off.
    virtual Status enableOutputIO(OutputUnitHandle unit) = 0;
    virtual Status setOutputUnitDevice(OutputUnitHandle unit, ObjectID deviceID) = 0;
    // The largest `frameCount` the render callback may be asked for.
    virtual Status setMaximumFramesPerSlice(OutputUnitHandle unit, std::uint32_t frames) = 0;
    // Interleaved 32-bit float frames at this rate and channel count; no other format is used.
    virtual Status setOutputUnitFormat(OutputUnitHandle unit, const AudioStreamFormat& format) = 0;
    virtual Status setRenderCallback(OutputUnitHandle unit, RenderProc proc, void* context) = 0;
    // Names the capture whose route this unit plays: the aggregate device of that route's own
    // tap. Called before `initializeOutputUnit`, and only when the route has a capture (a unit
    // that plays what another producer wrote has none). One process runs many routes, started,
    // paused and resumed in any order, so nothing else can tell which capture a unit belongs to.
    // On PipeWire the unit and that capture become the two sides of one node. A platform that
    // needs nothing of this leaves the default.
    virtual Status setOutputUnitCapture(OutputUnitHandle unit, ObjectID aggregateDeviceID) { return noError; }
    // Connects the unit to its device; the callback is not called before `startOutputUnit`.
    virtual Status initializeOutputUnit(OutputUnitHandle unit) = 0;
    virtual Status startOutputUnit(OutputUnitHandle unit) = 0;
    // Returns once the render callback has stopped running (see Threads).
    virtual Status stopOutputUnit(OutputUnitHandle unit) = 0;
    virtual Status uninitializeOutputUnit(OutputUnitHandle unit) = 0;
    virtual Status disposeOutputUnit(OutputUnitHandle unit) = 0;

    // ---- Interruptions ----------------------------------------------------------------------
    //
    // Why a started I/O procedure or output unit has stopped by itself (its device went away, the
    // server closed the connection), as a short human-readable reason; none while it runs
    // normally. Polled from the control thread. A platform that cannot tell answers none.

    virtual std::optional<std::string> ioProcFailure(IOProcHandle handle) { return std::nullopt; }
    virtual std::optional<std::string> outputUnitFailure(OutputUnitHandle unit) { return std::nullopt; }
    // The rate the server runs a started unit's graph at, once it has run a cycle; none while
    // unknown. A producer whose rate differs (a file) resamples to it.
    virtual std::optional<double> outputUnitGraphRate(OutputUnitHandle unit) { return std::nullopt; }

    // ---- I/O buffer size -------------------------------------------------------------------
    //
    // `deviceID` is an output device or a capture's aggregate device. On PipeWire a request is
    // the `node.latency` of Tarn's nodes linked to that node; the size in force is the quantum the
    // graph runs that node at.

    virtual Status bufferFrameSizeRange(ObjectID deviceID, double& minimum, double& maximum) = 0;
    virtual Status setBufferFrameSize(ObjectID deviceID, std::uint32_t frames) = 0;
    virtual Status bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) = 0;

    // ---- Change notifications --------------------------------------------------------------

    using ListenerToken = std::uint64_t;
    using ChangeListener = std::function<void()>;
    virtual Status removeListener(ListenerToken token) = 0;

    // ---- Processes ---------------------------------------------------------------------------
    //
    // A process object is one application that has audio output, in the server's order. On
    // PipeWire: all `Stream/Output/Audio` nodes of one application form one process object;
    // this program's own nodes are never listed.

    struct RunningApplication {
        std::optional<std::string> localizedName;
        std::optional<std::string> bundleIdentifier;
    };

    virtual Status processObjectList(std::vector<ObjectID>& processes) = 0;
    virtual Status processPID(ObjectID process, std::int32_t& pid) = 0;
    // The application's identity: macOS bundle identifier; on Linux the Flatpak application id,
    // else `application.id`, else the executable name. Empty when unknown.
    virtual Status processBundleID(ObjectID process, std::string& bundleID) = 0;
    virtual Status processIsRunningOutput(ObjectID process, bool& isRunning) = 0;
    // The desktop application behind a pid (on Linux its `application.name`), or none when the
    // pid belongs to no application.
    virtual std::optional<RunningApplication> runningApplication(std::int32_t pid) = 0;

    // Fires when processes appear or disappear.
    virtual Status addProcessListListener(ChangeListener listener, ListenerToken& token) = 0;
    // Fires when `process` starts or stops playing.
    virtual Status addRunningOutputListener(ObjectID process, ChangeListener listener, ListenerToken& token) = 0;

    // ---- Output devices ----------------------------------------------------------------------
    //
    // On PipeWire: `Audio/Sink` nodes; the UID is `node.name`; one stream per node.

    virtual Status outputDeviceList(std::vector<ObjectID>& devices) = 0;
    virtual Status defaultOutputDevice(ObjectID& deviceID) = 0;
    // A UID that names no present device is a failure.
    virtual Status deviceForUID(const std::string& uid, ObjectID& deviceID) = 0;
    virtual Status deviceUID(ObjectID deviceID, std::string& uid) = 0;
    virtual Status deviceName(ObjectID deviceID, std::string& name) = 0;
    // One entry per output stream, in the device's order: its channel count, or 0 when it could
    // not be read.
    virtual Status outputStreamChannelCounts(ObjectID deviceID, std::vector<std::uint32_t>& channelCounts) = 0;
    // Fires when devices appear or disappear, their streams change, or the default changes.
    virtual Status addDeviceListListener(ChangeListener listener, ListenerToken& token) = 0;
};

inline std::string AudioPlatform::statusDescription(Status status) {
    std::string text = std::to_string(status);
    if (status < 0) {
        // The lowest status has no positive counterpart and names no errno.
        if (status == std::numeric_limits<Status>::min()) return text;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 32))
        // Untranslated and thread-safe: the same words whatever the locale, none for a number
        // that is no errno (a negative macOS status).
        const char* meaning = strerrordesc_np(-status);
#else
        const char* meaning = std::strerror(-status);
#endif
        return meaning ? text + ": " + meaning : text;
    }
    const auto bits = static_cast<std::uint32_t>(status);
    std::string code(4, ' ');
    for (std::size_t i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned char>(bits >> (24 - 8 * i));
        if (byte < 0x20 || byte > 0x7e) return text;
        code[i] = static_cast<char>(byte);
    }
    return text + " '" + code + "'";
}

} // namespace tarn
