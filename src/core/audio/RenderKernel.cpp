#include "core/audio/RenderKernel.hpp"

#include <algorithm>
#include <cstring>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

void RenderKernel::renderProc(void* context, std::uint32_t frameCount, AudioBufferList& output) {
    static_cast<RenderKernel*>(context)->render(frameCount, output);
}

void RenderKernel::prepare(double sampleRate) {
    fadeGain = 0.0f;
    fadeStep = float(1.0 / (sampleRate * fadeSeconds));
    resumeGain = 1.0f;
    resumeStep = float(1.0 / (sampleRate * resumeRampSeconds));
    fadeOutRequested.store(false);
    hasFadedOut.store(false);
}

void RenderKernel::render(std::uint32_t requestedFrames, AudioBufferList& output) {
    if (output.bufferCount == 0 || output.buffers == nullptr || output.buffers[0].data == nullptr) return;
    DenormalGuard::enableFlushToZero();
    if (ringBuffer == nullptr || lastSamples == nullptr || channelCount < 1) return;

    const std::int64_t c = channelCount;
    auto* out = static_cast<float*>(output.buffers[0].data);
    // Never write past the platform's buffer, whatever it asked for.
    const std::int64_t frameCount =
        std::min<std::int64_t>(requestedFrames, std::int64_t(output.buffers[0].byteSize / sizeof(float)) / c);
    if (frameCount < 1) return;

    float* target = out;
    if (dspStage == RouteDSPStage::render) {
        if (ioScratch == nullptr || frameCount > maxFrames) {
            std::memset(out, 0, std::size_t(frameCount * c) * sizeof(float));
            return;
        }
        target = ioScratch;
    }

    const std::int64_t n = ringBuffer->read(target, frameCount);

    // Coming back from an underrun: ramp the real frames in.
    if (n >= 1 && resumeGain < 1.0f) {
        for (std::int64_t f = 0; f < n; ++f) {
            resumeGain = std::min(resumeGain + resumeStep, 1.0f);
            for (std::int64_t ch = 0; ch < c; ++ch) target[f * c + ch] *= resumeGain;
        }
    }

    // Underrun: continue each channel's last sample, decaying, instead of dropping to zero.
    if (n < frameCount) {
        for (std::int64_t ch = 0; ch < c; ++ch) {
            float sample = n > 0 ? target[(n - 1) * c + ch] : lastSamples[ch];
            for (std::int64_t f = n; f < frameCount; ++f) {
                sample *= underrunDecayPerFrame;
                target[f * c + ch] = sample;
            }
        }
        resumeGain = 0.0f;
    }

    std::memcpy(lastSamples, target + (frameCount - 1) * c, std::size_t(c) * sizeof(float));

    if (dspStage == RouteDSPStage::render) {
        if (dspChain) dspChain->processInterleaved(ioScratch, int(frameCount));
        std::memcpy(out, ioScratch, std::size_t(frameCount * c) * sizeof(float));
    }

    // Start/stop fade.
    const bool fadingOut = fadeOutRequested.load(std::memory_order_acquire);
    if (!fadingOut && fadeGain == 1.0f) return;
    if (fadingOut && fadeGain == 0.0f) {
        std::memset(out, 0, std::size_t(frameCount * c) * sizeof(float));
        hasFadedOut.store(true, std::memory_order_release);
        return;
    }
    const float targetGain = fadingOut ? 0.0f : 1.0f;
    for (std::int64_t f = 0; f < frameCount; ++f) {
        fadeGain = fadeGain < targetGain ? std::min(fadeGain + fadeStep, targetGain)
                                         : std::max(fadeGain - fadeStep, targetGain);
        for (std::int64_t ch = 0; ch < c; ++ch) out[f * c + ch] *= fadeGain;
    }
    if (fadingOut && fadeGain == 0.0f) hasFadedOut.store(true, std::memory_order_release);
}

} // namespace tarn
