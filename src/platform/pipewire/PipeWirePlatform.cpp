#include "platform/pipewire/PipeWirePlatform.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include <fmt/format.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>
#include <unistd.h>

#include "platform/pipewire/MetadataGuard.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn {

namespace {

constexpr auto startTimeout = std::chrono::seconds(3);
constexpr uint32_t maximumCycleFrames = 4096;

uint32_t channelPosition(const std::string& name) {
    static const std::map<std::string, uint32_t> table = {
        {"MONO", SPA_AUDIO_CHANNEL_MONO}, {"FL", SPA_AUDIO_CHANNEL_FL},   {"FR", SPA_AUDIO_CHANNEL_FR},
        {"FC", SPA_AUDIO_CHANNEL_FC},     {"LFE", SPA_AUDIO_CHANNEL_LFE}, {"SL", SPA_AUDIO_CHANNEL_SL},
        {"SR", SPA_AUDIO_CHANNEL_SR},     {"FLC", SPA_AUDIO_CHANNEL_FLC}, {"FRC", SPA_AUDIO_CHANNEL_FRC},
        {"RC", SPA_AUDIO_CHANNEL_RC},     {"RL", SPA_AUDIO_CHANNEL_RL},   {"RR", SPA_AUDIO_CHANNEL_RR},
        {"TC", SPA_AUDIO_CHANNEL_TC},     {"TFL", SPA_AUDIO_CHANNEL_TFL}, {"TFC", SPA_AUDIO_CHANNEL_TFC},
        {"TFR", SPA_AUDIO_CHANNEL_TFR},   {"TRL", SPA_AUDIO_CHANNEL_TRL}, {"TRC", SPA_AUDIO_CHANNEL_TRC},
        {"TRR", SPA_AUDIO_CHANNEL_TRR},   {"RLC", SPA_AUDIO_CHANNEL_RLC}, {"RRC", SPA_AUDIO_CHANNEL_RRC},
    };
    auto it = table.find(name);
    return it == table.end() ? uint32_t(SPA_AUDIO_CHANNEL_UNKNOWN) : it->second;
}

// The usual layout for a channel count when a device does not name its positions.
std::vector<std::string> defaultPositions(uint32_t channels) {
    switch (channels) {
    case 1: return {"MONO"};
    case 2: return {"FL", "FR"};
    case 4: return {"FL", "FR", "RL", "RR"};
    case 6: return {"FL", "FR", "FC", "LFE", "RL", "RR"};
    case 8: return {"FL", "FR", "FC", "LFE", "RL", "RR", "SL", "SR"};
    default: {
        std::vector<std::string> out;
        for (uint32_t i = 0; i < channels; ++i) out.push_back(fmt::format("AUX{}", i));
        return out;
    }
    }
}

std::string joined(const std::vector<std::string>& positions) {
    std::string out;
    for (const auto& p : positions) out += (out.empty() ? "" : ",") + p;
    return out;
}

// Node names must stay readable in pw-cli and unique per capture.
std::string sanitized(const std::string& text) {
    std::string out;
    for (char c : text) out += (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-') ? c : '_';
    return out.empty() ? "app" : out;
}

} // namespace

struct PipeWirePlatform::Impl {
    PipeWirePlatform* owner = nullptr;
    std::shared_ptr<PipeWireConnection> connection;
    int connectionListener = 0;
    uint64_t nextID = 1;

    struct Tap {
        ObjectID id = 0;
        int32_t pid = 0;
        std::string identity;
        std::string name;
        bool isProbe = false;
        AudioStreamFormat format;
        std::vector<std::string> positions;
    };
    std::map<ObjectID, Tap> taps;

    struct CaptureSink {
        Impl* impl = nullptr;
        ObjectID nodeID = 0;
        uint64_t serial = 0;
        std::string nodeName;
        std::string group;
        bool isPaired = false;
        int32_t pid = 0;
        std::string identity;
        AudioStreamFormat format;
        std::vector<std::string> positions;
        pw_proxy* proxy = nullptr;
        spa_hook proxyListener{};
        int error = 0;
        bool removed = false;
        std::set<uint32_t> moved; // stream node ids we set target.object for
    };
    std::map<ObjectID, std::unique_ptr<CaptureSink>> sinks;

    struct Stream {
        Impl* impl = nullptr;
        bool isCapture = false;
        pw_stream* stream = nullptr;
        spa_hook listener{};
        // set before the stream runs, read by the real-time callback
        IOProc ioProc = nullptr;
        RenderProc renderProc = nullptr;
        void* context = nullptr;
        uint32_t channelCount = 2;
        double sampleRate = 48000;
        uint32_t maximumFrames = maximumCycleFrames;
        std::vector<std::string> positions;
        ObjectID targetNode = 0;
        std::string targetName;
        std::string group;
        bool isConnected = false;
        std::atomic<bool> isRunning{false};
        std::atomic<spa_io_position*> position{nullptr};
        std::atomic<uint32_t> quantum{0};
        // Render only: cycles the graph skipped (the clock jumped past where the last one ended).
        std::atomic<uint64_t> expectedPosition{0};
        std::atomic<uint64_t> xruns{0};
        std::atomic<uint64_t> cycles{0};
        // written on the loop thread, read under its lock
        pw_stream_state state = PW_STREAM_STATE_UNCONNECTED;
        std::string failure;
    };
    std::map<IOProcHandle, std::unique_ptr<Stream>> ioProcs;
    std::map<OutputUnitHandle, std::unique_ptr<Stream>> units;
    std::map<ObjectID, uint32_t> requestedFrames; // node.latency asked per device or capture sink
    uint64_t retiredXruns = 0;                     // of output units already disposed

    struct Listener {
        enum class Kind { processes, running, devices } kind;
        ObjectID process = 0;
        ChangeListener fn;
    };
    std::map<ListenerToken, Listener> listeners;
    std::vector<PipeWireApplication> lastApps;
    std::vector<PipeWireDevice> lastDevices;
    std::string lastDefault;

    std::unique_ptr<MetadataGuard> guard;

    // ---- helpers (loop lock held) ----

    PipeWireGraph graph() { return connection->graph(); }

    static const PipeWireApplication* appFor(const std::vector<PipeWireApplication>& apps, ObjectID object) {
        for (const auto& app : apps)
            if (std::find(app.streamNodeIDs.begin(), app.streamNodeIDs.end(), object) != app.streamNodeIDs.end())
                return &app;
        return nullptr;
    }

    // Moves every stream of each capture sink's application onto it, once per stream.
    void followStreams(const PipeWireGraph& g) {
        for (auto& [id, sink] : sinks) {
            if (sink->serial == 0 || sink->removed) continue;
            for (const auto& node : g.nodes) {
                if (sink->moved.count(node.id)) continue;
                if (!PipeWireApplication::streamBelongsTo(node, g.client(node.clientID), sink->pid, sink->identity))
                    continue;
                auto value = std::to_string(sink->serial);
                if (connection->setDefaultMetadataLocked(node.id, "target.object", value, "Spa:Id") >= 0) {
                    sink->moved.insert(node.id);
                    if (guard) guard->set(node.id, "target.object", value);
                }
            }
            // Streams that went away take their metadata with them.
            for (auto it = sink->moved.begin(); it != sink->moved.end();)
                it = g.node(*it) ? std::next(it) : sink->moved.erase(it);
        }
    }

    void releaseStreams(CaptureSink& sink) {
        auto value = std::to_string(sink.serial);
        for (uint32_t node : sink.moved) {
            // Leave an entry someone else has changed since (the user moved the stream elsewhere).
            if (connection->defaultMetadataValueLocked(node, "target.object") == value)
                connection->setDefaultMetadataLocked(node, "target.object", std::nullopt);
            if (guard) guard->clear(node, "target.object");
        }
        sink.moved.clear();
    }

    void onGraphChanged() {
        auto g = graph();
        followStreams(g);
        auto apps = PipeWireApplication::list(g);
        auto devices = PipeWireDevice::list(g);
        bool processesChanged = apps.size() != lastApps.size();
        for (size_t i = 0; !processesChanged && i < apps.size(); ++i)
            processesChanged = apps[i].objectID != lastApps[i].objectID || apps[i].pid != lastApps[i].pid ||
                               apps[i].streamNodeIDs != lastApps[i].streamNodeIDs;
        std::set<ObjectID> runningChanged;
        for (const auto& app : apps) {
            auto* before = appFor(lastApps, app.objectID);
            if (!before || before->isRunningOutput != app.isRunningOutput) runningChanged.insert(app.objectID);
        }
        bool devicesChanged = devices != lastDevices || g.defaultSinkName != lastDefault;
        lastApps = std::move(apps);
        lastDevices = std::move(devices);
        lastDefault = g.defaultSinkName;

        auto copy = listeners;
        for (auto& [token, l] : copy) {
            if ((l.kind == Listener::Kind::processes && processesChanged) ||
                (l.kind == Listener::Kind::devices && devicesChanged) ||
                (l.kind == Listener::Kind::running && runningChanged.count(l.process)))
                l.fn();
        }
    }

    // ---- streams ----

    static void onStreamState(void* data, pw_stream_state, pw_stream_state state, const char* error) {
        auto* s = static_cast<Stream*>(data);
        s->state = state;
        if (state == PW_STREAM_STATE_ERROR)
            s->failure = error ? error : "stream error";
        else if (state == PW_STREAM_STATE_UNCONNECTED && s->isConnected && s->failure.empty())
            s->failure = "the stream was disconnected";
        pw_thread_loop_signal(s->impl->connection->threadLoop(), false);
    }

    static void onStreamIO(void* data, uint32_t id, void* area, uint32_t size) {
        auto* s = static_cast<Stream*>(data);
        if (id == SPA_IO_Position) s->position.store(static_cast<spa_io_position*>(area), std::memory_order_release);
    }

    static void noteQuantum(Stream* s) {
        auto* pos = s->position.load(std::memory_order_acquire);
        if (!pos) return;
        s->quantum.store(static_cast<uint32_t>(pos->clock.duration), std::memory_order_relaxed);
        // The graph restarts its clock while routes join it: count from half a second in.
        uint64_t expected = s->expectedPosition.load(std::memory_order_relaxed);
        uint64_t cycles = s->cycles.fetch_add(1, std::memory_order_relaxed);
        bool settled = cycles * pos->clock.duration >= pos->clock.rate.denom / 2;
        if (expected != 0 && settled && pos->clock.position != expected && s->isRunning.load(std::memory_order_relaxed))
            s->xruns.fetch_add(1, std::memory_order_relaxed);
        s->expectedPosition.store(pos->clock.position + pos->clock.duration, std::memory_order_relaxed);
    }

    // Real-time: the capture stream's cycle.
    static void onCaptureProcess(void* data) {
        auto* s = static_cast<Stream*>(data);
        pw_buffer* b = pw_stream_dequeue_buffer(s->stream);
        if (!b) return;
        noteQuantum(s);
        spa_buffer* buf = b->buffer;
        if (s->isRunning.load(std::memory_order_acquire) && buf->n_datas > 0 && buf->datas[0].data &&
            buf->datas[0].chunk) {
            spa_data& d = buf->datas[0];
            uint32_t offset = std::min(d.chunk->offset, d.maxsize);
            uint32_t size = std::min(d.chunk->size, d.maxsize - offset);
            AudioBufferList::Buffer buffer{s->channelCount, size, static_cast<uint8_t*>(d.data) + offset};
            AudioBufferList list{1, &buffer};
            s->ioProc(s->context, list);
        }
        pw_stream_queue_buffer(s->stream, b);
    }

    // Real-time: the playback stream's cycle.
    static void onRenderProcess(void* data) {
        auto* s = static_cast<Stream*>(data);
        pw_buffer* b = pw_stream_dequeue_buffer(s->stream);
        if (!b) return;
        noteQuantum(s);
        spa_buffer* buf = b->buffer;
        if (buf->n_datas == 0 || !buf->datas[0].data) {
            pw_stream_queue_buffer(s->stream, b);
            return;
        }
        spa_data& d = buf->datas[0];
        uint32_t stride = s->channelCount * sizeof(float);
        uint32_t frames = d.maxsize / stride;
        if (b->requested) frames = std::min<uint32_t>(frames, static_cast<uint32_t>(b->requested));
        frames = std::min(frames, s->maximumFrames);
        if (s->isRunning.load(std::memory_order_acquire)) {
            AudioBufferList::Buffer buffer{s->channelCount, frames * stride, d.data};
            AudioBufferList list{1, &buffer};
            s->renderProc(s->context, frames, list);
        } else {
            std::memset(d.data, 0, size_t(frames) * stride);
        }
        d.chunk->offset = 0;
        d.chunk->stride = static_cast<int32_t>(stride);
        d.chunk->size = frames * stride;
        pw_stream_queue_buffer(s->stream, b);
    }

    static pw_stream_events streamEvents(bool capture) {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = &onStreamState;
        e.io_changed = &onStreamIO;
        e.process = capture ? &onCaptureProcess : &onRenderProcess;
        return e;
    }

    // Creates and connects a stream, inactive, and waits until the graph has linked it.
    Status connectStream(Stream& s, const std::string& nodeName, const std::string& description) {
        auto* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY,
                                        s.isCapture ? "Capture" : "Playback", PW_KEY_MEDIA_ROLE, "Music",
                                        PW_KEY_NODE_NAME, nodeName.c_str(), PW_KEY_NODE_DESCRIPTION,
                                        description.c_str(), PW_KEY_TARGET_OBJECT, s.targetName.c_str(),
                                        PW_KEY_NODE_DONT_RECONNECT, "true", "tarn.role",
                                        s.isCapture ? "capture" : "render", "state.restore-target", "false",
                                        "state.restore-props", "false", nullptr);
        if (s.isCapture) {
            pw_properties_set(props, PW_KEY_STREAM_CAPTURE_SINK, "true");
            pw_properties_set(props, PW_KEY_STREAM_DONT_REMIX, "true");
        }
        if (!s.group.empty()) pw_properties_set(props, PW_KEY_NODE_GROUP, s.group.c_str());
        if (auto it = requestedFrames.find(s.targetNode); it != requestedFrames.end())
            pw_properties_setf(props, PW_KEY_NODE_LATENCY, "%u/%u", it->second, unsigned(s.sampleRate));

        s.stream = pw_stream_new(connection->core(), nodeName.c_str(), props);
        if (!s.stream) return -errno ? -errno : -ENOMEM;
        static const pw_stream_events captureEvents = streamEvents(true);
        static const pw_stream_events renderEvents = streamEvents(false);
        pw_stream_add_listener(s.stream, &s.listener, s.isCapture ? &captureEvents : &renderEvents, &s);

        spa_audio_info_raw info{};
        info.format = SPA_AUDIO_FORMAT_F32;
        info.rate = static_cast<uint32_t>(s.sampleRate);
        info.channels = s.channelCount;
        auto positions = s.positions.size() == s.channelCount ? s.positions : defaultPositions(s.channelCount);
        for (uint32_t i = 0; i < s.channelCount && i < SPA_AUDIO_MAX_CHANNELS; ++i)
            info.position[i] = channelPosition(positions[i]);
        uint8_t storage[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof storage);
        const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};

        int res = pw_stream_connect(s.stream, s.isCapture ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                    static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                                 PW_STREAM_FLAG_RT_PROCESS | PW_STREAM_FLAG_INACTIVE),
                                    params, 1);
        if (res < 0) return res;
        s.isConnected = true;
        bool linked = connection->waitLocked(
            [&] { return s.state == PW_STREAM_STATE_PAUSED || s.state == PW_STREAM_STATE_STREAMING ||
                         s.state == PW_STREAM_STATE_ERROR || !s.failure.empty(); },
            startTimeout);
        if (s.state == PW_STREAM_STATE_ERROR || !s.failure.empty()) return -EIO;
        if (!linked) return -ETIMEDOUT;
        return noError;
    }

    static int barrier(spa_loop*, bool, uint32_t, const void*, size_t, void*) { return 0; }

    // Stops the callback and returns only once it cannot be running any more.
    void deactivate(Stream& s) {
        s.isRunning.store(false, std::memory_order_release);
        if (s.stream && s.isConnected) pw_stream_set_active(s.stream, false);
        // One empty call through the data thread: a cycle in progress has finished when it returns.
        pw_data_loop_invoke(pw_context_get_data_loop(connection->context()), &barrier, 0, nullptr, 0, true, nullptr);
    }

    void destroyStream(Stream& s) {
        if (!s.stream) return;
        deactivate(s);
        spa_hook_remove(&s.listener);
        pw_stream_destroy(s.stream);
        s.stream = nullptr;
        s.isConnected = false;
    }

    // ---- capture sinks ----

    static void onSinkBound(void* data, uint32_t globalID) {
        auto* sink = static_cast<CaptureSink*>(data);
        sink->nodeID = globalID;
        pw_thread_loop_signal(sink->impl->connection->threadLoop(), false);
    }
    static void onSinkRemoved(void* data) {
        auto* sink = static_cast<CaptureSink*>(data);
        sink->removed = true;
        pw_thread_loop_signal(sink->impl->connection->threadLoop(), false);
    }
    static void onSinkError(void* data, int seq, int res, const char* message) {
        auto* sink = static_cast<CaptureSink*>(data);
        sink->error = res < 0 ? res : -EIO;
        pw_thread_loop_signal(sink->impl->connection->threadLoop(), false);
    }

    void destroySink(CaptureSink& sink) {
        releaseStreams(sink);
        if (sink.proxy) {
            spa_hook_remove(&sink.proxyListener);
            pw_proxy_destroy(sink.proxy);
            sink.proxy = nullptr;
        }
    }

    Stream* streamFor(ObjectID node) {
        for (auto& [h, s] : units)
            if (s->stream && s->targetNode == node) return s.get();
        for (auto& [h, s] : ioProcs)
            if (s->stream && s->targetNode == node) return s.get();
        return nullptr;
    }
};

PipeWirePlatform::PipeWirePlatform() : PipeWirePlatform(PipeWireConnection::connect()) {}

PipeWirePlatform::PipeWirePlatform(std::shared_ptr<PipeWireConnection> connection)
    : connection_(std::move(connection)), impl_(std::make_unique<Impl>()) {
    impl_->owner = this;
    impl_->connection = connection_;
    PipeWireConnection::Lock lock(*connection_);
    auto g = connection_->graph();
    impl_->lastApps = PipeWireApplication::list(g);
    impl_->lastDevices = PipeWireDevice::list(g);
    impl_->lastDefault = g.defaultSinkName;
    impl_->connectionListener = connection_->addListener([impl = impl_.get()] { impl->onGraphChanged(); });
}

PipeWirePlatform::~PipeWirePlatform() {
    connection_->removeListener(impl_->connectionListener);
    {
        PipeWireConnection::Lock lock(*connection_);
        for (auto& [h, s] : impl_->units) impl_->destroyStream(*s);
        for (auto& [h, s] : impl_->ioProcs) impl_->destroyStream(*s);
        for (auto& [id, sink] : impl_->sinks) impl_->destroySink(*sink);
        impl_->units.clear();
        impl_->ioProcs.clear();
        impl_->sinks.clear();
        impl_->listeners.clear();
    }
    // The daemon has applied our metadata removals once this round trip returns; only then may the
    // guard stand down.
    try {
        connection_->sync();
        if (impl_->guard) impl_->guard->finish();
    } catch (const PipeWireError&) {
        // The daemon is gone or silent: the guard keeps its list and cleans up when it can.
        if (impl_->guard) impl_->guard->abandon();
    }
}

std::optional<std::string> PipeWirePlatform::outputUnitFailure(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    if (int err = connection_->connectionError()) return fmt::format("the sound server went away ({})", strerror(-err));
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end() || it->second->failure.empty()) return std::nullopt;
    return it->second->failure;
}

std::optional<std::string> PipeWirePlatform::ioProcFailure(IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    if (int err = connection_->connectionError()) return fmt::format("the sound server went away ({})", strerror(-err));
    auto it = impl_->ioProcs.find(handle);
    if (it == impl_->ioProcs.end() || it->second->failure.empty()) return std::nullopt;
    return it->second->failure;
}

std::uint64_t PipeWirePlatform::xrunCount() {
    PipeWireConnection::Lock lock(*connection_);
    uint64_t total = impl_->retiredXruns;
    for (auto& [h, s] : impl_->units) total += s->xruns.load(std::memory_order_relaxed);
    return total;
}

// ---- capture ------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::createProcessTap(const TapDescription& description, ObjectID& tapID) {
    PipeWireConnection::Lock lock(*connection_);
    auto g = connection_->graph();
    Impl::Tap tap;
    tap.name = description.name;
    tap.format.sampleRate = g.clockRate;
    if (description.processes.empty()) {
        // The permission probe: capture needs the session manager's metadata (to move streams),
        // the adapter factory (to make the capture sink) and sight of the output devices.
        bool canMove = g.hasDefaultMetadata && (g.defaultMetadataPermissions & PW_PERM_W) &&
                       (g.defaultMetadataPermissions & PW_PERM_X);
        bool canCreate = std::find(g.factories.begin(), g.factories.end(), "adapter") != g.factories.end();
        if (!canMove || !canCreate || PipeWireDevice::list(g).empty()) return -EACCES;
        tap.isProbe = true;
    } else {
        auto apps = PipeWireApplication::list(g);
        const auto* app = Impl::appFor(apps, description.processes.front());
        if (!app) return -ESRCH;
        tap.pid = app->pid;
        tap.identity = app->identity;
    }
    if (description.isStereoMixdown) {
        tap.format.channelCount = 2;
        tap.positions = {"FL", "FR"};
    } else {
        auto devices = PipeWireDevice::list(g);
        auto it = std::find_if(devices.begin(), devices.end(), [&](auto& d) { return d.uid == description.deviceUID; });
        if (it == devices.end()) return -ENODEV;
        if (description.streamIndex != 0 || it->channelCount <= 0) return -EINVAL;
        tap.format.channelCount = static_cast<uint32_t>(it->channelCount);
        tap.positions = it->positions.size() == tap.format.channelCount ? it->positions
                                                                         : defaultPositions(tap.format.channelCount);
    }
    tap.id = static_cast<ObjectID>(impl_->nextID++);
    tapID = tap.id;
    impl_->taps[tap.id] = std::move(tap);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::tapUID(ObjectID tapID, std::string& uid) {
    PipeWireConnection::Lock lock(*connection_);
    if (!impl_->taps.count(tapID)) return -ENOENT;
    uid = fmt::format("tarn-tap-{}-{}", getpid(), tapID);
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
    const Impl::Tap* tap = nullptr;
    for (auto& [id, t] : impl_->taps)
        if (fmt::format("tarn-tap-{}-{}", getpid(), id) == description.taps.front().uid) tap = &t;
    if (!tap || tap->isProbe) return -ENOENT;

    if (!impl_->guard) {
        try {
            impl_->guard = MetadataGuard::launch();
        } catch (const std::exception&) {
            return -ECHILD;
        }
    }

    auto sink = std::make_unique<Impl::CaptureSink>();
    sink->impl = impl_.get();
    sink->pid = tap->pid;
    sink->identity = tap->identity;
    sink->format = tap->format;
    sink->positions = tap->positions;
    uint64_t serial = impl_->nextID++;
    sink->nodeName = fmt::format("tarn_capture.{}.{}.{}", sanitized(tap->identity), getpid(), serial);
    sink->group = fmt::format("tarn.route.{}.{}", getpid(), serial);
    auto* props = pw_properties_new(
        "factory.name", "support.null-audio-sink", PW_KEY_NODE_NAME, sink->nodeName.c_str(), PW_KEY_NODE_DESCRIPTION,
        description.name.c_str(), PW_KEY_MEDIA_CLASS, "Audio/Sink", PW_KEY_NODE_VIRTUAL, "true", PW_KEY_NODE_GROUP,
        sink->group.c_str(), "tarn.role", "capture-sink", "tarn.route.uid", description.uid.c_str(),
        // Never the default output, and never the driver when a real device can drive.
        PW_KEY_PRIORITY_SESSION, "0", PW_KEY_PRIORITY_DRIVER, "1", "monitor.channel-volumes", "true", nullptr);
    pw_properties_setf(props, PW_KEY_AUDIO_CHANNELS, "%u", tap->format.channelCount);
    pw_properties_set(props, SPA_KEY_AUDIO_POSITION, joined(tap->positions).c_str());
    pw_properties_setf(props, PW_KEY_AUDIO_RATE, "%u", unsigned(tap->format.sampleRate));
    sink->proxy = static_cast<pw_proxy*>(pw_core_create_object(connection_->core(), "adapter", PW_TYPE_INTERFACE_Node,
                                                               PW_VERSION_NODE, &props->dict, 0));
    pw_properties_free(props);
    if (!sink->proxy) return -errno ? -errno : -ENOMEM;
    static const pw_proxy_events proxyEvents = [] {
        pw_proxy_events e{};
        e.version = PW_VERSION_PROXY_EVENTS;
        e.bound = &Impl::onSinkBound;
        e.removed = &Impl::onSinkRemoved;
        e.error = &Impl::onSinkError;
        return e;
    }();
    pw_proxy_add_listener(sink->proxy, &sink->proxyListener, &proxyEvents, sink.get());

    auto* raw = sink.get();
    bool ready = connection_->waitLocked(
        [&] {
            if (raw->error || raw->removed) return true;
            if (raw->nodeID == 0) return false;
            auto g = connection_->graph();
            auto* node = g.node(raw->nodeID);
            if (node && node->serial) raw->serial = node->serial;
            return raw->serial != 0;
        },
        startTimeout);
    if (raw->error || raw->removed || !ready) {
        int status = raw->error ? raw->error : raw->removed ? -EIO : -ETIMEDOUT;
        impl_->destroySink(*raw);
        return status;
    }
    deviceID = raw->nodeID;
    impl_->sinks[raw->nodeID] = std::move(sink);
    impl_->followStreams(connection_->graph());
    return noError;
}

AudioPlatform::Status PipeWirePlatform::destroyAggregateDevice(ObjectID deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->sinks.find(deviceID);
    if (it == impl_->sinks.end()) return -ENOENT;
    impl_->destroySink(*it->second);
    impl_->sinks.erase(it);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::createIOProc(ObjectID deviceID, IOProc proc, void* context,
                                                     IOProcHandle& handle) {
    PipeWireConnection::Lock lock(*connection_);
    auto sinkIt = impl_->sinks.find(deviceID);
    if (sinkIt == impl_->sinks.end() || !proc) return -ENOENT;
    auto& sink = *sinkIt->second;
    auto s = std::make_unique<Impl::Stream>();
    s->impl = impl_.get();
    s->isCapture = true;
    s->ioProc = proc;
    s->context = context;
    s->targetNode = deviceID;
    s->targetName = sink.nodeName;
    s->group = sink.group;
    s->channelCount = sink.format.channelCount;
    s->sampleRate = sink.format.sampleRate;
    s->positions = sink.positions;
    handle = impl_->nextID++;
    impl_->ioProcs[handle] = std::move(s);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::destroyIOProc(ObjectID deviceID, IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->ioProcs.find(handle);
    if (it == impl_->ioProcs.end()) return -ENOENT;
    impl_->destroyStream(*it->second);
    impl_->ioProcs.erase(it);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::startDevice(ObjectID deviceID, IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->ioProcs.find(handle);
    if (it == impl_->ioProcs.end()) return -ENOENT;
    auto& s = *it->second;
    if (!s.stream) {
        auto name = fmt::format("tarn.capture.{}.{}", getpid(), handle);
        if (Status st = impl_->connectStream(s, name, "Tarn capture"); st != noError) {
            impl_->destroyStream(s);
            return st;
        }
    }
    s.isRunning.store(true, std::memory_order_release);
    return pw_stream_set_active(s.stream, true);
}

AudioPlatform::Status PipeWirePlatform::stopDevice(ObjectID deviceID, IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->ioProcs.find(handle);
    if (it == impl_->ioProcs.end()) return -ENOENT;
    impl_->deactivate(*it->second);
    return noError;
}

// ---- render -------------------------------------------------------------------------------

bool PipeWirePlatform::hasOutputUnitComponent() { return true; }

AudioPlatform::Status PipeWirePlatform::createOutputUnit(OutputUnitHandle& unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto s = std::make_unique<Impl::Stream>();
    s->impl = impl_.get();
    unit = impl_->nextID++;
    impl_->units[unit] = std::move(s);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::enableOutputIO(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->units.count(unit) ? noError : -ENOENT;
}

AudioPlatform::Status PipeWirePlatform::setOutputUnitDevice(OutputUnitHandle unit, ObjectID deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    auto devices = PipeWireDevice::list(connection_->graph());
    auto d = std::find_if(devices.begin(), devices.end(), [&](auto& x) { return x.nodeID == deviceID; });
    if (d == devices.end()) return -ENODEV;
    it->second->targetNode = deviceID;
    it->second->targetName = d->uid;
    it->second->positions = d->positions;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::setMaximumFramesPerSlice(OutputUnitHandle unit, std::uint32_t frames) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    if (frames == 0) return -EINVAL;
    it->second->maximumFrames = frames;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::setOutputUnitFormat(OutputUnitHandle unit, const AudioStreamFormat& format) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    if (format.channelCount == 0 || format.channelCount > SPA_AUDIO_MAX_CHANNELS || !(format.sampleRate > 0))
        return -EINVAL;
    it->second->channelCount = format.channelCount;
    it->second->sampleRate = format.sampleRate;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::setRenderCallback(OutputUnitHandle unit, RenderProc proc, void* context) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end() || !proc) return -ENOENT;
    it->second->renderProc = proc;
    it->second->context = context;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::initializeOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    auto& s = *it->second;
    if (!s.renderProc || s.targetNode == 0) return -EINVAL;
    if (s.stream) return noError;
    // The newest capture sink without a renderer is this route's: share its group so that the
    // output device drives the capture too.
    for (auto sink = impl_->sinks.rbegin(); sink != impl_->sinks.rend(); ++sink) {
        if (!sink->second->isPaired) {
            sink->second->isPaired = true;
            s.group = sink->second->group;
            break;
        }
    }
    auto name = fmt::format("tarn.render.{}.{}", getpid(), unit);
    Status st = impl_->connectStream(s, name, "Tarn output");
    if (st != noError) impl_->destroyStream(s);
    return st;
}

AudioPlatform::Status PipeWirePlatform::startOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end() || !it->second->stream) return -ENOENT;
    it->second->isRunning.store(true, std::memory_order_release);
    return pw_stream_set_active(it->second->stream, true);
}

AudioPlatform::Status PipeWirePlatform::stopOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    impl_->deactivate(*it->second);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::uninitializeOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    impl_->destroyStream(*it->second);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::disposeOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    impl_->destroyStream(*it->second);
    impl_->retiredXruns += it->second->xruns.load(std::memory_order_relaxed);
    impl_->units.erase(it);
    return noError;
}

// ---- buffer sizes ---------------------------------------------------------------------------

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
    impl_->requestedFrames[deviceID] = frames;
    for (auto* streams : {&impl_->units, &impl_->ioProcs}) {
        for (auto& [h, s] : *streams) {
            if (s->stream && s->targetNode == deviceID) {
                auto latency = fmt::format("{}/{}", frames, unsigned(s->sampleRate));
                spa_dict_item item = SPA_DICT_ITEM_INIT(PW_KEY_NODE_LATENCY, latency.c_str());
                spa_dict dict = SPA_DICT_INIT(&item, 1);
                pw_stream_update_properties(s->stream, &dict);
            }
        }
    }
    return noError;
}

AudioPlatform::Status PipeWirePlatform::bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) {
    PipeWireConnection::Lock lock(*connection_);
    auto* s = impl_->streamFor(deviceID);
    // Only a running stream knows the quantum its graph was granted.
    uint32_t q = s ? s->quantum.load(std::memory_order_relaxed) : 0;
    if (q == 0) return -EAGAIN;
    frames = q;
    return noError;
}

// ---- listeners ------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::removeListener(ListenerToken token) {
    PipeWireConnection::Lock lock(*connection_);
    return impl_->listeners.erase(token) ? noError : -ENOENT;
}

AudioPlatform::Status PipeWirePlatform::addProcessListListener(ChangeListener listener, ListenerToken& token) {
    PipeWireConnection::Lock lock(*connection_);
    token = impl_->nextID++;
    impl_->listeners[token] = {Impl::Listener::Kind::processes, 0, std::move(listener)};
    return noError;
}

AudioPlatform::Status PipeWirePlatform::addRunningOutputListener(ObjectID process, ChangeListener listener,
                                                                 ListenerToken& token) {
    PipeWireConnection::Lock lock(*connection_);
    if (!Impl::appFor(impl_->lastApps, process)) return -ESRCH;
    token = impl_->nextID++;
    impl_->listeners[token] = {Impl::Listener::Kind::running, process, std::move(listener)};
    return noError;
}

AudioPlatform::Status PipeWirePlatform::addDeviceListListener(ChangeListener listener, ListenerToken& token) {
    PipeWireConnection::Lock lock(*connection_);
    token = impl_->nextID++;
    impl_->listeners[token] = {Impl::Listener::Kind::devices, 0, std::move(listener)};
    return noError;
}

// ---- processes ------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::processObjectList(std::vector<ObjectID>& processes) {
    if (int err = connection_->connectionError()) return err;
    PipeWireConnection::Lock lock(*connection_);
    processes.clear();
    for (const auto& app : impl_->lastApps) processes.push_back(app.objectID);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::processPID(ObjectID process, std::int32_t& pid) {
    PipeWireConnection::Lock lock(*connection_);
    auto* app = Impl::appFor(impl_->lastApps, process);
    if (!app || app->pid <= 0) return -ESRCH;
    pid = app->pid;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::processBundleID(ObjectID process, std::string& bundleID) {
    PipeWireConnection::Lock lock(*connection_);
    auto* app = Impl::appFor(impl_->lastApps, process);
    if (!app) return -ESRCH;
    bundleID = app->identity;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::processIsRunningOutput(ObjectID process, bool& isRunning) {
    PipeWireConnection::Lock lock(*connection_);
    auto* app = Impl::appFor(impl_->lastApps, process);
    if (!app) return -ESRCH;
    isRunning = app->isRunningOutput;
    return noError;
}

std::optional<AudioPlatform::RunningApplication> PipeWirePlatform::runningApplication(std::int32_t pid) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& app : impl_->lastApps) {
        if (app.pid != pid || app.name.empty()) continue;
        RunningApplication out;
        out.localizedName = app.name;
        if (!app.identity.empty()) out.bundleIdentifier = app.identity;
        return out;
    }
    return std::nullopt;
}

// ---- devices --------------------------------------------------------------------------------

AudioPlatform::Status PipeWirePlatform::outputDeviceList(std::vector<ObjectID>& devices) {
    if (int err = connection_->connectionError()) return err;
    PipeWireConnection::Lock lock(*connection_);
    devices.clear();
    for (const auto& d : impl_->lastDevices) devices.push_back(d.nodeID);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::defaultOutputDevice(ObjectID& deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& d : impl_->lastDevices)
        if (d.isDefault) {
            deviceID = d.nodeID;
            return noError;
        }
    return -ENODEV;
}

AudioPlatform::Status PipeWirePlatform::deviceForUID(const std::string& uid, ObjectID& deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& d : impl_->lastDevices)
        if (d.uid == uid) {
            deviceID = d.nodeID;
            return noError;
        }
    return -ENODEV;
}

AudioPlatform::Status PipeWirePlatform::deviceUID(ObjectID deviceID, std::string& uid) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& d : impl_->lastDevices)
        if (d.nodeID == deviceID) {
            uid = d.uid;
            return noError;
        }
    return -ENODEV;
}

AudioPlatform::Status PipeWirePlatform::deviceName(ObjectID deviceID, std::string& name) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& d : impl_->lastDevices)
        if (d.nodeID == deviceID) {
            name = d.name;
            return noError;
        }
    return -ENODEV;
}

AudioPlatform::Status PipeWirePlatform::outputStreamChannelCounts(ObjectID deviceID,
                                                                  std::vector<std::uint32_t>& channelCounts) {
    PipeWireConnection::Lock lock(*connection_);
    for (const auto& d : impl_->lastDevices)
        if (d.nodeID == deviceID) {
            channelCounts = {static_cast<uint32_t>(std::max(d.channelCount, 0))};
            return noError;
        }
    return -ENODEV;
}

} // namespace tarn
