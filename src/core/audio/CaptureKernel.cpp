#include "core/audio/CaptureKernel.hpp"

#include <algorithm>
#include <cstring>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/recommendation/AnalysisTap.hpp"

namespace tarn {

void CaptureKernel::ioProc(void* context, const AudioBufferList& input) {
    static_cast<const CaptureKernel*>(context)->process(input);
}

namespace {

bool hasFrames(const AudioBufferList::Buffer& buffer, std::int64_t frames) {
    return buffer.data != nullptr && std::int64_t(buffer.byteSize / sizeof(float)) >= frames;
}

} // namespace

void CaptureKernel::process(const AudioBufferList& input) const {
    DenormalGuard::enableFlushToZero();
    if (input.bufferCount == 0 || input.buffers == nullptr || ringBuffer == nullptr) return;
    const auto& first = input.buffers[0];
    const std::uint32_t bytesPerFrame = first.channelCount == 0 ? 1 : first.channelCount * std::uint32_t(sizeof(float));
    if (first.byteSize < bytesPerFrame || scratch == nullptr) return;

    const auto channels = ringBuffer->channelCount();
    const std::int64_t frames = first.byteSize / bytesPerFrame;
    const std::int64_t chunkMax = scratchSamples / channels;
    if (chunkMax < 1) return;

    auto deliver = [&](std::int64_t n) {
        if (analysisTap) analysisTap->write(scratch, int(n), int(channels));
        if (dspChain) dspChain->processInterleaved(scratch, int(n));
        ringBuffer->write(scratch, n); // what does not fit is dropped: the ring's overrun rule
    };

    if (input.bufferCount == 1) {
        if (first.data == nullptr || std::int64_t(first.channelCount) != channels) return; // wrong shape: drop
        const auto* source = static_cast<const float*>(first.data);
        for (std::int64_t done = 0; done < frames;) {
            const std::int64_t n = std::min(frames - done, chunkMax);
            std::memcpy(scratch, source + done * channels, std::size_t(n * channels) * sizeof(float));
            deliver(n);
            done += n;
        }
        return;
    }

    // One buffer per channel: ring channel c takes buffer min(c, last), so surplus ring channels
    // repeat the last buffer.
    const std::int64_t lastBuffer = std::int64_t(input.bufferCount) - 1;
    if (channels == 2 && lastBuffer >= 1 && hasFrames(input.buffers[0], frames) && hasFrames(input.buffers[1], frames)) {
        // The usual case, frame by frame so that the scratch is written in order.
        const auto* left = static_cast<const float*>(input.buffers[0].data);
        const auto* right = static_cast<const float*>(input.buffers[1].data);
        for (std::int64_t done = 0; done < frames;) {
            const std::int64_t n = std::min(frames - done, chunkMax);
            for (std::int64_t f = 0; f < n; ++f) {
                scratch[2 * f] = left[done + f];
                scratch[2 * f + 1] = right[done + f];
            }
            deliver(n);
            done += n;
        }
        return;
    }
    for (std::int64_t done = 0; done < frames;) {
        const std::int64_t n = std::min(frames - done, chunkMax);
        for (std::int64_t c = 0; c < channels; ++c) {
            const auto& buffer = input.buffers[std::min(c, lastBuffer)];
            const auto* source = static_cast<const float*>(buffer.data);
            // A missing buffer, or one shorter than the first, contributes silence rather than
            // stale samples from the previous chunk or bytes past its end.
            const std::int64_t available = source ? std::int64_t(buffer.byteSize / sizeof(float)) - done : 0;
            const std::int64_t copy = std::clamp<std::int64_t>(available, 0, n);
            for (std::int64_t f = 0; f < copy; ++f) scratch[f * channels + c] = source[done + f];
            for (std::int64_t f = copy; f < n; ++f) scratch[f * channels + c] = 0.0f;
        }
        deliver(n);
        done += n;
    }
}

} // namespace tarn
