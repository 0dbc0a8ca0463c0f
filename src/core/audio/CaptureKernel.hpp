#pragma once

#include <cstdint>

#include "core/audio/AudioBufferList.hpp"

namespace tarn {

class AnalysisTap;
class AudioRingBuffer;
class RouteDSPChain;

// The body of the capture callback: takes one cycle of captured audio (interleaved, or one buffer
// per channel), brings it to the ring's interleaved layout in chunks of at most
// `maxChunkFrames`, hands each unprocessed chunk to the analysis tap, runs the DSP chain on it in
// place and writes it into the ring. A plain function over buffers: the platform only calls it.
//
// Real-time: no lock, no allocation, no system call. The pointed-to objects belong to the
// capture engine and stay alive while the platform may call `ioProc`.
struct CaptureKernel {
    static constexpr std::int64_t maxChunkFrames = 4096;

    AudioRingBuffer* ringBuffer = nullptr;
    // ringBuffer->channelCount() x maxChunkFrames floats; null when not allocated.
    float* scratch = nullptr;
    std::int64_t scratchSamples = 0;
    RouteDSPChain* dspChain = nullptr;   // optional
    AnalysisTap* analysisTap = nullptr;  // optional

    void process(const AudioBufferList& input) const;

    // Adapter for AudioPlatform::IOProc; `context` is the kernel.
    static void ioProc(void* context, const AudioBufferList& input);
};

} // namespace tarn
