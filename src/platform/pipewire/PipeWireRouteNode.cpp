#include "platform/pipewire/PipeWireRouteNode.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

#include <fmt/format.h>
#include <pipewire/pipewire.h>

#include "platform/pipewire/PipeWireDevice.hpp"
#include "platform/pipewire/PipeWireRouteSide.hpp"

namespace tarn {

namespace {

constexpr auto startTimeout = std::chrono::seconds(3);
constexpr AudioPlatform::Status noError = AudioPlatform::noError;

int barrier(spa_loop*, bool, uint32_t, const void*, size_t, void*) { return 0; }

} // namespace

// ---- life -------------------------------------------------------------------------------------

AudioPlatform::Status PipeWireRouteNode::build(PipeWireConnection& connection, const std::string& name,
                                               PipeWireRouteSide* capture, PipeWireRouteSide* render,
                                               uint32_t latencyFrames, std::unique_ptr<PipeWireRouteNode>& node) {
    for (PipeWireRouteSide* side : {capture, render})
        if (side && (side->channelCount == 0 || side->channelCount > SPA_AUDIO_MAX_CHANNELS)) return -EINVAL;
    std::unique_ptr<PipeWireRouteNode> made(new PipeWireRouteNode(connection));
    if (auto status = made->start(name, capture, render, latencyFrames); status != noError) return status;
    if (capture) {
        capture->node = made.get();
        made->capture_.store(capture, std::memory_order_release);
    }
    if (render) {
        render->node = made.get();
        made->render_.store(render, std::memory_order_release);
    }
    node = std::move(made);
    return noError;
}

AudioPlatform::Status PipeWireRouteNode::start(const std::string& name, PipeWireRouteSide* capture,
                                               PipeWireRouteSide* render, uint32_t latencyFrames) {
    captureChannels_ = capture ? capture->channelCount : 0;
    renderChannels_ = render ? render->channelCount : 0;
    scratch_.assign(size_t(renderChannels_) * maximumCycleFrames, 0.0f);
    const PipeWireRouteSide& lead = render ? *render : *capture;

    auto* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Filter", PW_KEY_MEDIA_ROLE,
                                    "Music", PW_KEY_NODE_NAME, name.c_str(), PW_KEY_NODE_DESCRIPTION, "Tarn route",
                                    PW_KEY_NODE_WANT_DRIVER, "true", "tarn.role", "route", nullptr);
    if (!lead.group.empty()) pw_properties_set(props, PW_KEY_NODE_GROUP, lead.group.c_str());
    if (latencyFrames) pw_properties_setf(props, PW_KEY_NODE_LATENCY, "%u/%u", latencyFrames, unsigned(lead.sampleRate));
    filter_ = pw_filter_new(connection_.core(), name.c_str(), props);
    if (!filter_) return errno ? -errno : -ENOMEM;
    static const pw_filter_events events = [] {
        pw_filter_events e{};
        e.version = PW_VERSION_FILTER_EVENTS;
        e.state_changed = &onState;
        e.process = &onProcess;
        return e;
    }();
    pw_filter_add_listener(filter_, &listener_, &events, this);

    AudioPlatform::Status status = noError;
    if (!addPorts(capture, PW_DIRECTION_INPUT, inputs_) || !addPorts(render, PW_DIRECTION_OUTPUT, outputs_))
        status = errno ? -errno : -ENOMEM;
    if (status == noError) status = pw_filter_connect(filter_, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
    if (status == noError) {
        isConnected_ = true;
        status = waitFor([&] { return state_ == PW_FILTER_STATE_PAUSED || state_ == PW_FILTER_STATE_STREAMING; });
    }
    uint32_t nodeID = status == noError ? pw_filter_get_node_id(filter_) : SPA_ID_INVALID;
    if (status == noError && nodeID == SPA_ID_INVALID) status = -EIO;
    if (status == noError) {
        // The ports must be known to the registry, ours and the peers', before they can be linked.
        const size_t ownPorts = captureChannels_ + renderChannels_;
        status = waitFor([&] {
            if (connection_.portsLocked(nodeID).size() < ownPorts) return false;
            for (PipeWireRouteSide* side : {capture, render}) {
                if (!side) continue;
                auto peer = connection_.portsLocked(side->targetNode);
                bool any = std::any_of(peer.begin(), peer.end(), [&](auto& port) {
                    return side->isCapture ? port.isMonitor : !port.isOutput && !port.isMonitor;
                });
                if (!any) return false;
            }
            return true;
        });
    }
    if (status == noError && capture) status = linkSide(nodeID, true, capture->targetNode);
    if (status == noError && render) status = linkSide(nodeID, false, render->targetNode);
    if (status == noError)
        status = waitFor([&] {
            return std::all_of(links_.begin(), links_.end(), [](auto& l) { return l->globalID != 0; });
        });
    return status;
}

PipeWireRouteNode::~PipeWireRouteNode() {
    capture_.store(nullptr, std::memory_order_release);
    render_.store(nullptr, std::memory_order_release);
    for (auto& l : links_) destroyLink(*l);
    links_.clear();
    if (filter_) {
        spa_hook_remove(&listener_);
        pw_filter_destroy(filter_); // disconnects, through the data thread
    }
}

bool PipeWireRouteNode::addPorts(PipeWireRouteSide* side, pw_direction direction,
                                 std::array<void*, SPA_AUDIO_MAX_CHANNELS>& ports) {
    if (!side) return true;
    auto positions = side->positions.size() == side->channelCount ? side->positions
                                                                  : PipeWireDevice::defaultPositions(side->channelCount);
    for (uint32_t c = 0; c < side->channelCount; ++c) {
        auto name = fmt::format("{}_{}", direction == PW_DIRECTION_INPUT ? "input" : "output", positions[c]);
        ports[c] = pw_filter_add_port(filter_, direction, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                                      pw_properties_new(PW_KEY_FORMAT_DSP, "32 bit float mono audio", PW_KEY_PORT_NAME,
                                                        name.c_str(), PW_KEY_AUDIO_CHANNEL, positions[c].c_str(),
                                                        nullptr),
                                      nullptr, 0);
        if (!ports[c]) return false;
    }
    return true;
}

// Waits for `done`, failing early when the node or one of its links fails.
template <typename Done> AudioPlatform::Status PipeWireRouteNode::waitFor(Done done) {
    bool failed = false;
    bool ok = connection_.waitLocked(
        [&] {
            failed = !failure_.empty() ||
                     std::any_of(links_.begin(), links_.end(), [](auto& l) { return !l->failure.empty(); });
            return failed || done();
        },
        startTimeout);
    if (failed) return -EIO;
    return ok ? noError : -ETIMEDOUT;
}

void PipeWireRouteNode::waitForDataThread(PipeWireConnection& connection) {
    pw_data_loop_invoke(pw_context_get_data_loop(connection.context()), &barrier, 0, nullptr, 0, true, nullptr);
}

void PipeWireRouteNode::detach(PipeWireRouteSide& side) {
    (side.isCapture ? capture_ : render_).store(nullptr, std::memory_order_release);
    waitForDataThread(connection_);
    side.node = nullptr;
    for (auto it = links_.begin(); it != links_.end();) {
        if ((*it)->isCapture == side.isCapture) {
            destroyLink(**it);
            it = links_.erase(it);
        } else {
            ++it;
        }
    }
}

bool PipeWireRouteNode::servesNothing() const { return !capture() && !render(); }

void PipeWireRouteNode::setLatency(uint32_t frames, double sampleRate) {
    auto latency = fmt::format("{}/{}", frames, unsigned(sampleRate));
    spa_dict_item item = SPA_DICT_ITEM_INIT(PW_KEY_NODE_LATENCY, latency.c_str());
    spa_dict dict = SPA_DICT_INIT(&item, 1);
    pw_filter_update_properties(filter_, nullptr, &dict);
}

// ---- failures ---------------------------------------------------------------------------------

std::string PipeWireRouteNode::sideFailure(bool isCapture) const {
    if (!failure_.empty()) return failure_;
    for (const auto& l : links_)
        if (l->isCapture == isCapture && !l->failure.empty()) return l->failure;
    return {};
}

std::optional<double> PipeWireRouteNode::graphRate() const {
    const uint32_t rate = graphRate_.load(std::memory_order_relaxed);
    return rate ? std::optional<double>(rate) : std::nullopt;
}

std::optional<std::string> PipeWireRouteNode::failureOf(const PipeWireRouteSide& side) const {
    if (auto text = sideFailure(side.isCapture); !text.empty()) return text;
    // The node has no resampler: its chain was designed for one rate and the graph left it.
    uint32_t rate = graphRate_.load(std::memory_order_relaxed);
    if (rate != 0 && rate != uint32_t(side.sampleRate))
        return fmt::format("the sound server switched the graph from {} Hz to {} Hz", uint32_t(side.sampleRate), rate);
    return std::nullopt;
}

void PipeWireRouteNode::onState(void* data, pw_filter_state, pw_filter_state state, const char* error) {
    auto* n = static_cast<PipeWireRouteNode*>(data);
    n->state_ = state;
    if (state == PW_FILTER_STATE_ERROR)
        n->failure_ = error ? error : "the sound server stopped the route";
    else if (state == PW_FILTER_STATE_UNCONNECTED && n->isConnected_ && n->failure_.empty())
        n->failure_ = "the route was disconnected from the sound server";
    pw_thread_loop_signal(n->connection_.threadLoop(), false);
}

// ---- real time --------------------------------------------------------------------------------

// Counts the cycles the clock skipped while the render side plays.
void PipeWireRouteNode::countCycle(PipeWireRouteNode* n, PipeWireRouteSide* render, const spa_io_position* position) {
    // The graph restarts its clock while routes join it: count from half a second in.
    bool settled = n->cycles_ * position->clock.duration >= position->clock.rate.denom / 2;
    if (render && n->expectedPosition_ != 0 && settled && position->clock.position != n->expectedPosition_ &&
        render->isRunning.load(std::memory_order_relaxed))
        render->xruns.fetch_add(1, std::memory_order_relaxed);
    n->cycles_++;
    n->expectedPosition_ = position->clock.position + position->clock.duration;
}

// One graph cycle of a route node. Capture first, so that playback can take the frames of this
// very cycle.
void PipeWireRouteNode::onProcess(void* data, spa_io_position* position) {
    auto* n = static_cast<PipeWireRouteNode*>(data);
    if (!position) return;
    const auto frames = static_cast<uint32_t>(position->clock.duration);
    n->quantum_.store(frames, std::memory_order_relaxed);
    n->graphRate_.store(position->clock.rate.denom, std::memory_order_relaxed);
    PipeWireRouteSide* capture = n->capture_.load(std::memory_order_acquire);
    PipeWireRouteSide* render = n->render_.load(std::memory_order_acquire);
    countCycle(n, render, position);

    if (n->captureChannels_ > 0) {
        // Dequeued every cycle, running or not, so the ports' buffers keep flowing.
        std::array<AudioBufferList::Buffer, SPA_AUDIO_MAX_CHANNELS> buffers{};
        for (uint32_t c = 0; c < n->captureChannels_; ++c)
            buffers[c] = {1, frames * uint32_t(sizeof(float)), pw_filter_get_dsp_buffer(n->inputs_[c], frames)};
        if (capture && capture->isRunning.load(std::memory_order_acquire)) {
            AudioBufferList list{n->captureChannels_, buffers.data()};
            capture->ioProc(capture->context, list);
        }
    }
    if (n->renderChannels_ > 0) {
        const uint32_t channels = n->renderChannels_;
        std::array<float*, SPA_AUDIO_MAX_CHANNELS> outputs{};
        for (uint32_t c = 0; c < channels; ++c)
            outputs[c] = static_cast<float*>(pw_filter_get_dsp_buffer(n->outputs_[c], frames));
        const bool playing = render && render->isRunning.load(std::memory_order_acquire);
        const uint32_t chunkMax = playing ? std::min(render->maximumFrames, maximumCycleFrames) : frames;
        for (uint32_t done = 0; done < frames;) {
            const uint32_t chunk = std::min(frames - done, chunkMax);
            if (playing) {
                AudioBufferList::Buffer buffer{channels, chunk * channels * uint32_t(sizeof(float)), n->scratch_.data()};
                AudioBufferList list{1, &buffer};
                render->renderProc(render->context, chunk, list);
            }
            const float* in = n->scratch_.data();
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

// ---- links ------------------------------------------------------------------------------------

void PipeWireRouteNode::onLinkBound(void* data, uint32_t globalID) {
    auto* l = static_cast<Link*>(data);
    l->globalID = globalID;
    pw_thread_loop_signal(l->node->connection_.threadLoop(), false);
}

void PipeWireRouteNode::onLinkRemoved(void* data) {
    auto* l = static_cast<Link*>(data);
    if (l->failure.empty()) l->failure = l->isCapture ? "the capture sink went away" : "the output device went away";
    pw_thread_loop_signal(l->node->connection_.threadLoop(), false);
}

void PipeWireRouteNode::onLinkError(void* data, int, int res, const char* message) {
    auto* l = static_cast<Link*>(data);
    l->failure = fmt::format("the sound server refused a link ({})", message ? message : strerror(-res));
    pw_thread_loop_signal(l->node->connection_.threadLoop(), false);
}

AudioPlatform::Status PipeWireRouteNode::link(bool isCapture, uint32_t outputNode, uint32_t outputPort,
                                              uint32_t inputNode, uint32_t inputPort) {
    auto l = std::make_unique<Link>();
    l->node = this;
    l->isCapture = isCapture;
    // Not lingering: the link is this client's and goes with it.
    auto* props = pw_properties_new(PW_KEY_OBJECT_LINGER, "false", nullptr);
    pw_properties_setf(props, PW_KEY_LINK_OUTPUT_NODE, "%u", outputNode);
    pw_properties_setf(props, PW_KEY_LINK_OUTPUT_PORT, "%u", outputPort);
    pw_properties_setf(props, PW_KEY_LINK_INPUT_NODE, "%u", inputNode);
    pw_properties_setf(props, PW_KEY_LINK_INPUT_PORT, "%u", inputPort);
    l->proxy = static_cast<pw_proxy*>(pw_core_create_object(connection_.core(), "link-factory", PW_TYPE_INTERFACE_Link,
                                                            PW_VERSION_LINK, &props->dict, 0));
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
    links_.push_back(std::move(l));
    return noError;
}

// Links one side of the node to its peer's ports: channel to the same channel, else by order.
AudioPlatform::Status PipeWireRouteNode::linkSide(uint32_t nodeID, bool isCapture, uint32_t peer) {
    auto own = connection_.portsLocked(nodeID);
    auto theirs = connection_.portsLocked(peer);
    auto keep = [](std::vector<PipeWirePortRecord>& ports, auto wanted) {
        ports.erase(std::remove_if(ports.begin(), ports.end(), [&](auto& p) { return !wanted(p); }), ports.end());
        std::sort(ports.begin(), ports.end(), [](auto& a, auto& b) { return a.index < b.index; });
    };
    // Capture reads the sink's monitor; playback feeds the device's inputs.
    keep(own, [&](const PipeWirePortRecord& p) { return p.isOutput != isCapture; });
    keep(theirs, [&](const PipeWirePortRecord& p) {
        return isCapture ? p.isOutput && p.isMonitor : !p.isOutput && !p.isMonitor;
    });
    if (theirs.empty()) return isCapture ? -ENOENT : -ENODEV;
    std::set<uint32_t> used;
    for (size_t i = 0; i < own.size(); ++i) {
        const PipeWirePortRecord* match = nullptr;
        for (const auto& p : theirs)
            if (p.channel == own[i].channel && !used.count(p.id)) match = match ? match : &p;
        if (!match && i < theirs.size() && !used.count(theirs[i].id)) match = &theirs[i];
        if (!match) continue; // the peer has fewer channels: this one stays silent
        used.insert(match->id);
        auto status = isCapture ? link(true, peer, match->id, nodeID, own[i].id)
                                : link(false, nodeID, own[i].id, peer, match->id);
        if (status != noError) return status;
    }
    return noError;
}

void PipeWireRouteNode::destroyLink(Link& l) {
    spa_hook_remove(&l.listener);
    pw_proxy_destroy(l.proxy);
}

} // namespace tarn
