#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pipewire/filter.h>
#include <spa/param/audio/raw.h>

#include "core/audio/AudioPlatform.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn {

struct PipeWireRouteSide;

// One pw_filter in this process that carries a route's capture ports (linked from its capture
// sink's monitor), its playback ports (linked to the output device), or both. With both, the
// route costs one wake-up per graph cycle instead of two, and playback takes what capture wrote
// in the same cycle, so the route adds no latency of its own. The links are this client's and go
// with it.
//
// Everything but the process callback runs with the connection's loop lock held.
class PipeWireRouteNode {
public:
    // The most frames one render call is asked for, whatever quantum the graph runs.
    static constexpr uint32_t maximumCycleFrames = 4096;

    // Makes the filter for a capture side, a render side or both, connects it, links its ports
    // and waits until the links stand; then the sides are attached to it. `latencyFrames` is the
    // `node.latency` to ask for (0: none). On failure nothing of it is left.
    static AudioPlatform::Status build(PipeWireConnection& connection, const std::string& name,
                                       PipeWireRouteSide* capture, PipeWireRouteSide* render, uint32_t latencyFrames,
                                       std::unique_ptr<PipeWireRouteNode>& node);
    ~PipeWireRouteNode();
    PipeWireRouteNode(const PipeWireRouteNode&) = delete;
    PipeWireRouteNode& operator=(const PipeWireRouteNode&) = delete;

    // Takes one side off, with its links; its callback is not running once this returns.
    void detach(PipeWireRouteSide& side);
    bool servesNothing() const;
    PipeWireRouteSide* capture() const { return capture_.load(std::memory_order_relaxed); }
    PipeWireRouteSide* render() const { return render_.load(std::memory_order_relaxed); }

    // The quantum of the node's last cycle, 0 before it has run.
    uint32_t quantum() const { return quantum_.load(std::memory_order_relaxed); }
    // Why a side stopped working (the node or one of that side's links failed, or the graph left
    // the rate the route was built for), or none.
    std::optional<std::string> failureOf(const PipeWireRouteSide& side) const;
    // The rate of the graph the node last ran in, once it has run.
    std::optional<double> graphRate() const;
    void setLatency(uint32_t frames, double sampleRate);

    // Returns once a cycle that may have seen the old state of any node has finished.
    static void waitForDataThread(PipeWireConnection& connection);

private:
    struct Link {
        PipeWireRouteNode* node = nullptr;
        bool isCapture = false;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
        uint32_t globalID = 0;
        std::string failure;
    };

    explicit PipeWireRouteNode(PipeWireConnection& connection) : connection_(connection) {}
    AudioPlatform::Status start(const std::string& name, PipeWireRouteSide* capture, PipeWireRouteSide* render,
                                uint32_t latencyFrames);
    bool addPorts(PipeWireRouteSide* side, pw_direction direction, std::array<void*, SPA_AUDIO_MAX_CHANNELS>& ports);
    AudioPlatform::Status link(bool isCapture, uint32_t outputNode, uint32_t outputPort, uint32_t inputNode,
                               uint32_t inputPort);
    AudioPlatform::Status linkSide(uint32_t nodeID, bool isCapture, uint32_t peer);
    template <typename Done> AudioPlatform::Status waitFor(Done done);
    std::string sideFailure(bool isCapture) const;
    void destroyLink(Link& link);

    static void onState(void* data, pw_filter_state old, pw_filter_state state, const char* error);
    static void onProcess(void* data, spa_io_position* position);
    static void countCycle(PipeWireRouteNode* node, PipeWireRouteSide* render, const spa_io_position* position);
    static void onLinkBound(void* data, uint32_t globalID);
    static void onLinkRemoved(void* data);
    static void onLinkError(void* data, int seq, int res, const char* message);

    PipeWireConnection& connection_;
    pw_filter* filter_ = nullptr;
    spa_hook listener_{};
    // Fixed before the filter connects.
    uint32_t captureChannels_ = 0;
    uint32_t renderChannels_ = 0;
    std::array<void*, SPA_AUDIO_MAX_CHANNELS> inputs_{};
    std::array<void*, SPA_AUDIO_MAX_CHANNELS> outputs_{};
    std::vector<float> scratch_; // interleaved playback frames, renderChannels_ x maximumCycleFrames
    // The sides it serves; cleared (then a data-loop barrier) before a side goes away.
    std::atomic<PipeWireRouteSide*> capture_{nullptr};
    std::atomic<PipeWireRouteSide*> render_{nullptr};
    std::atomic<uint32_t> quantum_{0};
    std::atomic<uint32_t> graphRate_{0};
    // Real-time thread only.
    uint64_t expectedPosition_ = 0;
    uint64_t cycles_ = 0;
    // Loop lock.
    pw_filter_state state_ = PW_FILTER_STATE_UNCONNECTED;
    bool isConnected_ = false;
    std::string failure_;
    std::vector<std::unique_ptr<Link>> links_;
};

} // namespace tarn
