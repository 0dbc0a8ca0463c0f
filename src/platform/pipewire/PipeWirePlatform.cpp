#include "platform/pipewire/PipeWirePlatform.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include <fmt/format.h>
#include <pipewire/filter.h>
#include <spa/param/audio/raw.h>
#include <spa/utils/keys.h>
#include <pipewire/pipewire.h>
#include <unistd.h>

#include "platform/pipewire/MetadataGuard.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn {

namespace {

constexpr auto startTimeout = std::chrono::seconds(3);
constexpr uint32_t maximumCycleFrames = 4096;

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

    struct Node;

    // What the engines call an I/O procedure (capture from a route's sink) or an output unit
    // (playback on a device): one side of a route node.
    struct Part {
        bool isCapture = false;
        // set before the part runs, read by the real-time callback
        IOProc ioProc = nullptr;
        RenderProc renderProc = nullptr;
        void* context = nullptr;
        uint32_t channelCount = 2;
        double sampleRate = 48000;
        uint32_t maximumFrames = maximumCycleFrames;
        std::atomic<bool> isRunning{false};
        std::atomic<uint64_t> xruns{0}; // render only: graph cycles the clock skipped
        // loop lock
        std::vector<std::string> positions;
        ObjectID targetNode = 0; // the capture sink, or the output device
        std::string group;
        bool isInitialized = false;
        ObjectID pairedSink = 0; // render: the capture sink whose route it plays
        Node* node = nullptr;
    };
    std::map<IOProcHandle, std::unique_ptr<Part>> ioProcs;
    std::map<OutputUnitHandle, std::unique_ptr<Part>> units;

    // One pw_filter in this process that carries a route's capture ports (linked from its capture
    // sink's monitor), its playback ports (linked to the output device), or both. With both, the
    // route costs one wake-up per graph cycle instead of two, and playback takes what capture wrote
    // in the same cycle, so the route adds no latency of its own.
    struct Node {
        Impl* impl = nullptr;
        pw_filter* filter = nullptr;
        spa_hook listener{};
        // fixed before the filter connects
        uint32_t captureChannels = 0;
        uint32_t renderChannels = 0;
        std::array<void*, SPA_AUDIO_MAX_CHANNELS> inputs{};
        std::array<void*, SPA_AUDIO_MAX_CHANNELS> outputs{};
        std::vector<float> scratch; // interleaved playback frames, renderChannels x maximumCycleFrames
        // The parts it serves; cleared (then a data-loop barrier) before a part goes away.
        std::atomic<Part*> capture{nullptr};
        std::atomic<Part*> render{nullptr};
        std::atomic<uint32_t> quantum{0};
        std::atomic<uint32_t> graphRate{0};
        // real-time thread only
        uint64_t expectedPosition = 0;
        uint64_t cycles = 0;
        // loop lock
        pw_filter_state state = PW_FILTER_STATE_UNCONNECTED;
        bool isConnected = false;
        std::string failure;
        struct Link {
            Node* node = nullptr;
            bool isCapture = false;
            pw_proxy* proxy = nullptr;
            spa_hook listener{};
            uint32_t globalID = 0;
            std::string failure;
        };
        std::vector<std::unique_ptr<Link>> links;
    };
    std::vector<std::unique_ptr<Node>> nodes;
    std::map<ObjectID, uint32_t> requestedFrames; // node.latency asked per device or capture sink
    uint64_t retiredXruns = 0;                     // of output units already disposed

    struct Listener {
        enum class Kind { processes, running, devices } kind;
        ObjectID process = 0;
        ChangeListener fn;
    };
    std::map<ListenerToken, Listener> listeners;
    std::vector<PipeWireApplication> lastApps;
    // Every application seen on this connection, by each of its stream nodes: one whose streams
    // have all closed (a browser after a pause) can still be held for the streams it opens next.
    std::map<ObjectID, PipeWireApplication> seenApps;
    static constexpr std::size_t maxSeenStreams = 4096;
    std::vector<PipeWireDevice> lastDevices;
    std::string lastDefault;

    std::unique_ptr<MetadataGuard> guard;

    // ---- helpers (loop lock held) ----

    template <typename Match>
    const PipeWireDevice* findDevice(Match match) const {
        auto it = std::find_if(lastDevices.begin(), lastDevices.end(), match);
        return it == lastDevices.end() ? nullptr : &*it;
    }
    const PipeWireDevice* deviceWithID(ObjectID id) const {
        return findDevice([&](const PipeWireDevice& d) { return d.nodeID == id; });
    }

    PipeWireGraph graph() { return connection->graph(); }

    static const PipeWireApplication* appFor(const std::vector<PipeWireApplication>& apps, ObjectID object) {
        for (const auto& app : apps)
            if (std::find(app.streamNodeIDs.begin(), app.streamNodeIDs.end(), object) != app.streamNodeIDs.end())
                return &app;
        return nullptr;
    }

    void remember(const std::vector<PipeWireApplication>& apps) {
        for (const auto& app : apps)
            for (ObjectID node : app.streamNodeIDs) seenApps[node] = app;
        // A desk runs for days: forget the oldest streams (node ids only grow) past a bound.
        while (seenApps.size() > maxSeenStreams) seenApps.erase(seenApps.begin());
    }

    // Moves every stream of each capture sink's application onto it, once per stream.
    void followStreams(const PipeWireGraph& g) {
        // Oldest first, so that where two sinks take the same new stream (a route resuming while
        // its hold still stands) the newest one's entry is set last and wins. Node ids are reused;
        // serials only grow.
        std::vector<CaptureSink*> bySerial;
        for (auto& [id, sink] : sinks) bySerial.push_back(sink.get());
        std::sort(bySerial.begin(), bySerial.end(), [](auto* a, auto* b) { return a->serial < b->serial; });
        for (CaptureSink* sink : bySerial) {
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

    // Another of this program's capture sinks has moved the stream since: its entry stands, even
    // before the server has echoed it back to the metadata this client sees.
    bool isTakenOver(const CaptureSink& from, uint32_t node) const {
        for (const auto& [id, other] : sinks)
            if (other.get() != &from && !other->removed && other->moved.count(node) && other->serial > from.serial)
                return true;
        return false;
    }

    void releaseStreams(CaptureSink& sink) {
        auto value = std::to_string(sink.serial);
        for (uint32_t node : sink.moved) {
            if (isTakenOver(sink, node)) continue;
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
        remember(apps);
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

    // ---- route nodes ----

    static void onNodeState(void* data, pw_filter_state, pw_filter_state state, const char* error) {
        auto* n = static_cast<Node*>(data);
        n->state = state;
        if (state == PW_FILTER_STATE_ERROR)
            n->failure = error ? error : "the sound server stopped the route";
        else if (state == PW_FILTER_STATE_UNCONNECTED && n->isConnected && n->failure.empty())
            n->failure = "the route was disconnected from the sound server";
        pw_thread_loop_signal(n->impl->connection->threadLoop(), false);
    }

    // Real-time: counts the cycles the clock skipped while the render part plays.
    static void countCycle(Node* n, Part* render, const spa_io_position* position) {
        // The graph restarts its clock while routes join it: count from half a second in.
        bool settled = n->cycles * position->clock.duration >= position->clock.rate.denom / 2;
        if (render && n->expectedPosition != 0 && settled && position->clock.position != n->expectedPosition &&
            render->isRunning.load(std::memory_order_relaxed))
            render->xruns.fetch_add(1, std::memory_order_relaxed);
        n->cycles++;
        n->expectedPosition = position->clock.position + position->clock.duration;
    }

    // Real-time: one graph cycle of a route node. Capture first, so that playback can take the
    // frames of this very cycle.
    static void onNodeProcess(void* data, spa_io_position* position) {
        auto* n = static_cast<Node*>(data);
        if (!position) return;
        const auto frames = static_cast<uint32_t>(position->clock.duration);
        n->quantum.store(frames, std::memory_order_relaxed);
        n->graphRate.store(position->clock.rate.denom, std::memory_order_relaxed);
        Part* capture = n->capture.load(std::memory_order_acquire);
        Part* render = n->render.load(std::memory_order_acquire);
        countCycle(n, render, position);

        if (n->captureChannels > 0) {
            // Dequeued every cycle, running or not, so the ports' buffers keep flowing.
            std::array<AudioBufferList::Buffer, SPA_AUDIO_MAX_CHANNELS> buffers{};
            for (uint32_t c = 0; c < n->captureChannels; ++c)
                buffers[c] = {1, frames * uint32_t(sizeof(float)), pw_filter_get_dsp_buffer(n->inputs[c], frames)};
            if (capture && capture->isRunning.load(std::memory_order_acquire)) {
                AudioBufferList list{n->captureChannels, buffers.data()};
                capture->ioProc(capture->context, list);
            }
        }
        if (n->renderChannels > 0) {
            const uint32_t channels = n->renderChannels;
            std::array<float*, SPA_AUDIO_MAX_CHANNELS> outputs{};
            for (uint32_t c = 0; c < channels; ++c)
                outputs[c] = static_cast<float*>(pw_filter_get_dsp_buffer(n->outputs[c], frames));
            const bool playing = render && render->isRunning.load(std::memory_order_acquire);
            const uint32_t chunkMax = playing ? std::min(render->maximumFrames, maximumCycleFrames) : frames;
            for (uint32_t done = 0; done < frames;) {
                const uint32_t chunk = std::min(frames - done, chunkMax);
                if (playing) {
                    AudioBufferList::Buffer buffer{channels, chunk * channels * uint32_t(sizeof(float)), n->scratch.data()};
                    AudioBufferList list{1, &buffer};
                    render->renderProc(render->context, chunk, list);
                }
                const float* in = n->scratch.data();
                if (playing && channels == 2 && outputs[0] && outputs[1]) {
                    // The usual case, frame by frame so that the scratch is read in order.
                    float* left = outputs[0] + done;
                    float* right = outputs[1] + done;
                    for (uint32_t f = 0; f < chunk; ++f) {
                        left[f] = in[2 * f];
                        right[f] = in[2 * f + 1];
                    }
                } else {
                    for (uint32_t c = 0; c < channels; ++c) {
                        if (!outputs[c]) continue;
                        float* out = outputs[c] + done;
                        if (!playing) std::memset(out, 0, chunk * sizeof(float));
                        else
                            for (uint32_t f = 0; f < chunk; ++f) out[f] = in[size_t(f) * channels + c];
                    }
                }
                done += chunk;
            }
        }
    }

    static void onLinkBound(void* data, uint32_t globalID) {
        auto* l = static_cast<Node::Link*>(data);
        l->globalID = globalID;
        pw_thread_loop_signal(l->node->impl->connection->threadLoop(), false);
    }
    static void onLinkRemoved(void* data) {
        auto* l = static_cast<Node::Link*>(data);
        if (l->failure.empty())
            l->failure = l->isCapture ? "the capture sink went away" : "the output device went away";
        pw_thread_loop_signal(l->node->impl->connection->threadLoop(), false);
    }
    static void onLinkError(void* data, int, int res, const char* message) {
        auto* l = static_cast<Node::Link*>(data);
        l->failure = fmt::format("the sound server refused a link ({})", message ? message : strerror(-res));
        pw_thread_loop_signal(l->node->impl->connection->threadLoop(), false);
    }

    Status link(Node& node, bool isCapture, uint32_t outputNode, uint32_t outputPort, uint32_t inputNode,
                uint32_t inputPort) {
        auto l = std::make_unique<Node::Link>();
        l->node = &node;
        l->isCapture = isCapture;
        // Not lingering: the link is this client's and goes with it.
        auto* props = pw_properties_new(PW_KEY_OBJECT_LINGER, "false", nullptr);
        pw_properties_setf(props, PW_KEY_LINK_OUTPUT_NODE, "%u", outputNode);
        pw_properties_setf(props, PW_KEY_LINK_OUTPUT_PORT, "%u", outputPort);
        pw_properties_setf(props, PW_KEY_LINK_INPUT_NODE, "%u", inputNode);
        pw_properties_setf(props, PW_KEY_LINK_INPUT_PORT, "%u", inputPort);
        l->proxy = static_cast<pw_proxy*>(pw_core_create_object(connection->core(), "link-factory",
                                                                PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &props->dict, 0));
        pw_properties_free(props);
        if (!l->proxy) return -errno ? -errno : -ENOMEM;
        static const pw_proxy_events events = [] {
            pw_proxy_events e{};
            e.version = PW_VERSION_PROXY_EVENTS;
            e.bound = &onLinkBound;
            e.removed = &onLinkRemoved;
            e.error = &onLinkError;
            return e;
        }();
        pw_proxy_add_listener(l->proxy, &l->listener, &events, l.get());
        node.links.push_back(std::move(l));
        return noError;
    }

    // Links one side of a node to its peer's ports: channel to the same channel, else by order.
    Status linkSide(Node& node, uint32_t nodeID, bool isCapture, uint32_t peer) {
        auto own = connection->portsLocked(nodeID);
        auto theirs = connection->portsLocked(peer);
        auto keep = [](std::vector<PipeWirePortRecord>& ports, auto wanted) {
            ports.erase(std::remove_if(ports.begin(), ports.end(), [&](auto& p) { return !wanted(p); }), ports.end());
            std::sort(ports.begin(), ports.end(), [](auto& a, auto& b) { return a.index < b.index; });
        };
        // Capture reads the sink's monitor; playback feeds the device's inputs.
        keep(own, [&](const PipeWirePortRecord& p) { return p.isOutput != isCapture; });
        keep(theirs, [&](const PipeWirePortRecord& p) { return isCapture ? p.isOutput && p.isMonitor : !p.isOutput && !p.isMonitor; });
        if (theirs.empty()) return isCapture ? -ENOENT : -ENODEV;
        std::set<uint32_t> used;
        for (size_t i = 0; i < own.size(); ++i) {
            const PipeWirePortRecord* match = nullptr;
            for (const auto& p : theirs)
                if (p.channel == own[i].channel && !used.count(p.id)) match = match ? match : &p;
            if (!match && i < theirs.size() && !used.count(theirs[i].id)) match = &theirs[i];
            if (!match) continue; // the peer has fewer channels: this one stays silent
            used.insert(match->id);
            Status st = isCapture ? link(node, true, peer, match->id, nodeID, own[i].id)
                                  : link(node, false, nodeID, own[i].id, peer, match->id);
            if (st != noError) return st;
        }
        return noError;
    }

    static std::string sideFailure(const Node& n, bool isCapture) {
        if (!n.failure.empty()) return n.failure;
        for (const auto& l : n.links)
            if (l->isCapture == isCapture && !l->failure.empty()) return l->failure;
        return {};
    }

    // Makes the filter for a capture part, a render part or both, connects it, links its ports and
    // waits until the links stand. On failure nothing of it is left.
    Status buildNode(Part* capture, Part* render) {
        for (Part* p : {capture, render})
            if (p && (p->channelCount == 0 || p->channelCount > SPA_AUDIO_MAX_CHANNELS)) return -EINVAL;
        nodes.push_back(std::make_unique<Node>());
        Node& n = *nodes.back();
        n.impl = this;
        n.captureChannels = capture ? capture->channelCount : 0;
        n.renderChannels = render ? render->channelCount : 0;
        n.scratch.assign(size_t(n.renderChannels) * maximumCycleFrames, 0.0f);
        Part& lead = render ? *render : *capture;

        auto nodeName = fmt::format("tarn.route.{}.{}", getpid(), nextID++);
        auto* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Filter", PW_KEY_MEDIA_ROLE,
                                        "Music", PW_KEY_NODE_NAME, nodeName.c_str(), PW_KEY_NODE_DESCRIPTION,
                                        "Tarn route", PW_KEY_NODE_WANT_DRIVER, "true", "tarn.role", "route", nullptr);
        if (!lead.group.empty()) pw_properties_set(props, PW_KEY_NODE_GROUP, lead.group.c_str());
        if (auto frames = requestedFramesFor(capture, render))
            pw_properties_setf(props, PW_KEY_NODE_LATENCY, "%u/%u", frames, unsigned(lead.sampleRate));
        n.filter = pw_filter_new(connection->core(), nodeName.c_str(), props);
        if (!n.filter) {
            int err = errno ? -errno : -ENOMEM;
            nodes.pop_back();
            return err;
        }
        static const pw_filter_events events = [] {
            pw_filter_events e{};
            e.version = PW_VERSION_FILTER_EVENTS;
            e.state_changed = &onNodeState;
            e.process = &onNodeProcess;
            return e;
        }();
        pw_filter_add_listener(n.filter, &n.listener, &events, &n);

        auto addPorts = [&](Part* part, pw_direction direction, std::array<void*, SPA_AUDIO_MAX_CHANNELS>& ports) {
            if (!part) return true;
            auto positions = part->positions.size() == part->channelCount ? part->positions
                                                                          : defaultPositions(part->channelCount);
            for (uint32_t c = 0; c < part->channelCount; ++c) {
                auto name = fmt::format("{}_{}", direction == PW_DIRECTION_INPUT ? "input" : "output", positions[c]);
                ports[c] = pw_filter_add_port(n.filter, direction, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                                              pw_properties_new(PW_KEY_FORMAT_DSP, "32 bit float mono audio",
                                                                PW_KEY_PORT_NAME, name.c_str(), PW_KEY_AUDIO_CHANNEL,
                                                                positions[c].c_str(), nullptr),
                                              nullptr, 0);
                if (!ports[c]) return false;
            }
            return true;
        };
        Status status = noError;
        if (!addPorts(capture, PW_DIRECTION_INPUT, n.inputs) || !addPorts(render, PW_DIRECTION_OUTPUT, n.outputs))
            status = errno ? -errno : -ENOMEM;
        if (status == noError) status = pw_filter_connect(n.filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
        if (status == noError) {
            n.isConnected = true;
            status = waitFor(n, [&] { return n.state == PW_FILTER_STATE_PAUSED || n.state == PW_FILTER_STATE_STREAMING; });
        }
        uint32_t nodeID = status == noError ? pw_filter_get_node_id(n.filter) : SPA_ID_INVALID;
        if (status == noError && nodeID == SPA_ID_INVALID) status = -EIO;
        if (status == noError) {
            // The ports must be known to the registry, ours and the peers', before they can be linked.
            const size_t ownPorts = n.captureChannels + n.renderChannels;
            status = waitFor(n, [&] {
                if (connection->portsLocked(nodeID).size() < ownPorts) return false;
                for (Part* p : {capture, render}) {
                    if (!p) continue;
                    auto peer = connection->portsLocked(p->targetNode);
                    bool any = std::any_of(peer.begin(), peer.end(), [&](auto& port) {
                        return p->isCapture ? port.isMonitor : !port.isOutput && !port.isMonitor;
                    });
                    if (!any) return false;
                }
                return true;
            });
        }
        if (status == noError && capture) status = linkSide(n, nodeID, true, capture->targetNode);
        if (status == noError && render) status = linkSide(n, nodeID, false, render->targetNode);
        if (status == noError)
            status = waitFor(n, [&] {
                return std::all_of(n.links.begin(), n.links.end(), [](auto& l) { return l->globalID != 0; });
            });
        if (status != noError) {
            destroyNode(n);
            return status;
        }
        if (capture) {
            capture->node = &n;
            n.capture.store(capture, std::memory_order_release);
        }
        if (render) {
            render->node = &n;
            n.render.store(render, std::memory_order_release);
        }
        return noError;
    }

    // Waits for `done`, failing early when the node or one of its links fails.
    template <typename Done>
    Status waitFor(Node& n, Done done) {
        bool failed = false;
        bool ok = connection->waitLocked(
            [&] {
                failed = !n.failure.empty() ||
                         std::any_of(n.links.begin(), n.links.end(), [](auto& l) { return !l->failure.empty(); });
                return failed || done();
            },
            startTimeout);
        if (failed) return -EIO;
        return ok ? noError : -ETIMEDOUT;
    }

    uint32_t requestedFramesFor(const Part* capture, const Part* render) const {
        for (const Part* p : {render, capture})
            if (p)
                if (auto it = requestedFrames.find(p->targetNode); it != requestedFrames.end()) return it->second;
        return 0;
    }

    static int barrier(spa_loop*, bool, uint32_t, const void*, size_t, void*) { return 0; }

    // Returns once a cycle that may have seen the old state of a node has finished.
    void waitForDataThread() {
        pw_data_loop_invoke(pw_context_get_data_loop(connection->context()), &barrier, 0, nullptr, 0, true, nullptr);
    }

    // Stops a part's callback and returns only once it cannot be running any more.
    void deactivate(Part& p) {
        p.isRunning.store(false, std::memory_order_release);
        waitForDataThread();
    }

    void destroyLink(Node::Link& l) {
        spa_hook_remove(&l.listener);
        pw_proxy_destroy(l.proxy);
    }

    void destroyNode(Node& n) {
        n.capture.store(nullptr, std::memory_order_release);
        n.render.store(nullptr, std::memory_order_release);
        for (auto& l : n.links) destroyLink(*l);
        n.links.clear();
        if (n.filter) {
            spa_hook_remove(&n.listener);
            pw_filter_destroy(n.filter); // disconnects, through the data thread
        }
        nodes.erase(std::find_if(nodes.begin(), nodes.end(), [&](auto& x) { return x.get() == &n; }));
    }

    // Takes a part off its node, with its links; the node goes when it serves nothing more.
    void detach(Part& p) {
        Node* n = p.node;
        if (!n) return;
        (p.isCapture ? n->capture : n->render).store(nullptr, std::memory_order_release);
        waitForDataThread();
        p.node = nullptr;
        for (auto it = n->links.begin(); it != n->links.end();) {
            if ((*it)->isCapture == p.isCapture) {
                destroyLink(**it);
                it = n->links.erase(it);
            } else {
                ++it;
            }
        }
        if (!n->capture.load(std::memory_order_relaxed) && !n->render.load(std::memory_order_relaxed)) destroyNode(*n);
    }

    // Takes a part out of service: its callback stops (the barrier in `detach` makes sure), it
    // leaves its node, and a render part gives its capture sink back for another unit to pair with.
    void release(Part& p) {
        p.isRunning.store(false, std::memory_order_release);
        detach(p);
        if (!p.isCapture) unpair(p);
    }

    std::optional<std::string> failureOf(const Part& p) const {
        if (!p.node) return std::nullopt;
        if (auto text = sideFailure(*p.node, p.isCapture); !text.empty()) return text;
        // The node has no resampler: its chain was designed for one rate and the graph left it.
        uint32_t rate = p.node->graphRate.load(std::memory_order_relaxed);
        if (rate != 0 && rate != uint32_t(p.sampleRate))
            return fmt::format("the sound server switched the graph from {} Hz to {} Hz", uint32_t(p.sampleRate), rate);
        return std::nullopt;
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

    // The node that plays to or captures from a device, or none.
    Node* nodeFor(ObjectID device) {
        for (auto* parts : {&units, &ioProcs})
            for (auto& [h, p] : *parts)
                if (p->node && p->targetNode == device) return p->node;
        return nullptr;
    }

    void unpair(Part& render) {
        if (auto it = sinks.find(render.pairedSink); it != sinks.end()) it->second->isPaired = false;
        render.pairedSink = 0;
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
    impl_->remember(impl_->lastApps);
    impl_->lastDevices = PipeWireDevice::list(g);
    impl_->lastDefault = g.defaultSinkName;
    impl_->connectionListener = connection_->addListener([impl = impl_.get()] { impl->onGraphChanged(); });
}

PipeWirePlatform::~PipeWirePlatform() {
    connection_->removeListener(impl_->connectionListener);
    {
        PipeWireConnection::Lock lock(*connection_);
        for (auto* parts : {&impl_->units, &impl_->ioProcs})
            for (auto& [h, p] : *parts) impl_->release(*p);
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
    return it == impl_->units.end() ? std::nullopt : impl_->failureOf(*it->second);
}

std::optional<std::string> PipeWirePlatform::ioProcFailure(IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    if (int err = connection_->connectionError()) return fmt::format("the sound server went away ({})", strerror(-err));
    auto it = impl_->ioProcs.find(handle);
    return it == impl_->ioProcs.end() ? std::nullopt : impl_->failureOf(*it->second);
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
        if (!app) {
            auto seen = impl_->seenApps.find(description.processes.front());
            if (seen == impl_->seenApps.end()) return -ESRCH;
            app = &seen->second;
        }
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
        PW_KEY_PRIORITY_SESSION, "0", PW_KEY_PRIORITY_DRIVER, "1", "monitor.channel-volumes", "true",
        // A session manager that honours it neither restores a volume onto the sink (the route's
        // level would change behind the user's back) nor keeps a record of every route's sink.
        "state.restore-props", "false", nullptr);
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
            if (raw->serial == 0) return false;
            // Streams are moved onto the sink only once it can take them: a session manager told
            // to move a stream onto a sink without input ports yet plays it on the default output
            // meanwhile, unprocessed.
            std::size_t inputs = 0;
            for (const auto& port : connection_->portsLocked(raw->nodeID)) inputs += port.isOutput ? 0 : 1;
            return inputs >= raw->format.channelCount;
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
    auto s = std::make_unique<Impl::Part>();
    s->isCapture = true;
    s->ioProc = proc;
    s->context = context;
    s->targetNode = deviceID;
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
    impl_->release(*it->second);
    impl_->ioProcs.erase(it);
    return noError;
}

AudioPlatform::Status PipeWirePlatform::startDevice(ObjectID deviceID, IOProcHandle handle) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->ioProcs.find(handle);
    if (it == impl_->ioProcs.end()) return -ENOENT;
    auto& s = *it->second;
    if (!s.node)
        if (Status st = impl_->buildNode(&s, nullptr); st != noError) return st;
    s.isRunning.store(true, std::memory_order_release);
    return noError;
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
    auto s = std::make_unique<Impl::Part>();
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
    if (s.isInitialized) return noError;
    // The newest capture sink without a renderer is this route's: its capture moves into one node
    // with this playback, so that the output device's cycle carries both.
    Impl::Part* capture = nullptr;
    for (auto sink = impl_->sinks.rbegin(); sink != impl_->sinks.rend(); ++sink) {
        if (sink->second->isPaired) continue;
        sink->second->isPaired = true;
        s.pairedSink = sink->first;
        s.group = sink->second->group;
        for (auto& [h, p] : impl_->ioProcs)
            if (p->targetNode == sink->first && !capture) capture = p.get();
        break;
    }
    if (capture) impl_->detach(*capture);
    Status st = impl_->buildNode(capture, &s);
    if (st != noError) {
        impl_->unpair(s);
        // The capture carries on alone, as it was.
        if (capture) impl_->buildNode(capture, nullptr);
        return st;
    }
    s.isInitialized = true;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::startOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end() || !it->second->isInitialized) return -ENOENT;
    it->second->isRunning.store(true, std::memory_order_release);
    return noError;
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
    impl_->release(*it->second);
    it->second->isInitialized = false;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::disposeOutputUnit(OutputUnitHandle unit) {
    PipeWireConnection::Lock lock(*connection_);
    auto it = impl_->units.find(unit);
    if (it == impl_->units.end()) return -ENOENT;
    impl_->release(*it->second);
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
    for (auto& n : impl_->nodes) {
        Impl::Part* capture = n->capture.load(std::memory_order_relaxed);
        Impl::Part* render = n->render.load(std::memory_order_relaxed);
        if (!(capture && capture->targetNode == deviceID) && !(render && render->targetNode == deviceID)) continue;
        const Impl::Part& lead = render ? *render : *capture;
        auto latency = fmt::format("{}/{}", impl_->requestedFramesFor(capture, render), unsigned(lead.sampleRate));
        spa_dict_item item = SPA_DICT_ITEM_INIT(PW_KEY_NODE_LATENCY, latency.c_str());
        spa_dict dict = SPA_DICT_INIT(&item, 1);
        pw_filter_update_properties(n->filter, nullptr, &dict);
    }
    return noError;
}

AudioPlatform::Status PipeWirePlatform::bufferFrameSize(ObjectID deviceID, std::uint32_t& frames) {
    PipeWireConnection::Lock lock(*connection_);
    auto* n = impl_->nodeFor(deviceID);
    // Only a running node knows the quantum its graph was granted.
    uint32_t q = n ? n->quantum.load(std::memory_order_relaxed) : 0;
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
    auto* d = impl_->findDevice([](const PipeWireDevice& d) { return d.isDefault; });
    if (!d) return -ENODEV;
    deviceID = d->nodeID;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::deviceForUID(const std::string& uid, ObjectID& deviceID) {
    PipeWireConnection::Lock lock(*connection_);
    auto* d = impl_->findDevice([&](const PipeWireDevice& d) { return d.uid == uid; });
    if (!d) return -ENODEV;
    deviceID = d->nodeID;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::deviceUID(ObjectID deviceID, std::string& uid) {
    PipeWireConnection::Lock lock(*connection_);
    auto* d = impl_->deviceWithID(deviceID);
    if (!d) return -ENODEV;
    uid = d->uid;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::deviceName(ObjectID deviceID, std::string& name) {
    PipeWireConnection::Lock lock(*connection_);
    auto* d = impl_->deviceWithID(deviceID);
    if (!d) return -ENODEV;
    name = d->name;
    return noError;
}

AudioPlatform::Status PipeWirePlatform::outputStreamChannelCounts(ObjectID deviceID,
                                                                  std::vector<std::uint32_t>& channelCounts) {
    PipeWireConnection::Lock lock(*connection_);
    auto* d = impl_->deviceWithID(deviceID);
    if (!d) return -ENODEV;
    channelCounts = {static_cast<uint32_t>(std::max(d->channelCount, 0))};
    return noError;
}

} // namespace tarn
