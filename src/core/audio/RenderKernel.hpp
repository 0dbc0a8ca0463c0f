#pragma once

#include <atomic>
#include <cstdint>

#include "core/audio/AudioBufferList.hpp"
#include "core/audio/RouteDSPStage.hpp"

namespace tarn {

class AudioRingBuffer;
class RouteDSPChain;

// The body of the render callback: pulls interleaved frames from the ring into the output,
// hides an underrun with a tail that decays by `underrunDecayPerFrame` per frame and brings the
// audio back through a 3 ms ramp, runs the DSP chain in the render stage, and applies the 5 ms
// start/stop fade. A plain function over buffers: the platform only calls it.
//
// Real-time: no lock, no allocation, no system call. The ramp and fade fields are written by
// `prepare` before the platform starts calling, and by the callback only while it runs;
// `fadeOutRequested` is the one value the control thread writes while the callback runs;
// `hasFadedOut` is the one it reads back.
struct RenderKernel {
    static constexpr std::int64_t maxFrames = 4096;
    static constexpr float underrunDecayPerFrame = 0.94f;
    static constexpr double fadeSeconds = 0.005;
    static constexpr double resumeRampSeconds = 0.003;

    AudioRingBuffer* ringBuffer = nullptr;
    RouteDSPChain* dspChain = nullptr;       // run only in the render stage
    RouteDSPStage dspStage = RouteDSPStage::capture;
    std::int64_t channelCount = 0;
    float* ioScratch = nullptr;               // channelCount x maxFrames; render stage only
    float* lastSamples = nullptr;             // channelCount floats

    float fadeGain = 0.0f;
    float fadeStep = 1.0f / 240.0f;
    float resumeGain = 1.0f;
    float resumeStep = 1.0f / 144.0f;
    std::atomic<bool> fadeOutRequested{false};
    // Raised by the callback once a requested fade-out has reached silence.
    std::atomic<bool> hasFadedOut{false};

    // Start values of the fade and ramps for a stream at `sampleRate`.
    void prepare(double sampleRate);
    void render(std::uint32_t frameCount, AudioBufferList& output);

    // Adapter for AudioPlatform::RenderProc; `context` is the kernel.
    static void renderProc(void* context, std::uint32_t frameCount, AudioBufferList& output);
};

} // namespace tarn
