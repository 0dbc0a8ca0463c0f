#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "platform/pipewire/PipeWireRouteNode.hpp"

namespace tarn {

// What the engines call an I/O procedure (capture from a route's sink) or an output unit
// (playback on a device): one side of a route node. It exists from the engine's create call to
// its destroy call; the node it runs on may come and go in between.
struct PipeWireRouteSide {
    bool isCapture = false;

    // Set before the side runs, read by the real-time callback.
    AudioPlatform::IOProc ioProc = nullptr;
    AudioPlatform::RenderProc renderProc = nullptr;
    void* context = nullptr;
    uint32_t channelCount = 2;
    double sampleRate = 48000;
    uint32_t maximumFrames = PipeWireRouteNode::maximumCycleFrames;
    std::atomic<bool> isRunning{false};
    std::atomic<uint64_t> xruns{0}; // render only: graph cycles the clock skipped

    // Loop lock.
    std::vector<std::string> positions;
    AudioPlatform::ObjectID targetNode = 0; // the capture sink, or the output device
    std::string group;
    bool isInitialized = false;
    // Render: the capture sink the engine named as this route's own, and the one it is joined
    // with while initialised.
    AudioPlatform::ObjectID captureSink = 0;
    AudioPlatform::ObjectID pairedSink = 0;
    PipeWireRouteNode* node = nullptr;
};

} // namespace tarn
