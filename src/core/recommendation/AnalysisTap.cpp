#include "core/recommendation/AnalysisTap.hpp"

#include <algorithm>

namespace tarn {

AnalysisTap::AnalysisTap(std::int64_t frameCapacity)
    : ring_(1, frameCapacity), monoScratch_(std::make_unique<float[]>(mixdownChunkFrames)) {}

void AnalysisTap::write(const float* interleaved, int frameCount, int channelCount) {
    if (!enabled_.load(std::memory_order_acquire) || channelCount < 1) return;
    if (clockPaused_.load(std::memory_order_acquire)) return;
    if (frameCount <= 0 || interleaved == nullptr) return;
    framesObserved_.fetch_add(frameCount, std::memory_order_relaxed);

    if (channelCount == 1) {
        ring_.write(interleaved, frameCount);
        return;
    }
    const float scale = 1.0f / float(channelCount);
    float* mono = monoScratch_.get();
    for (int done = 0; done < frameCount;) {
        const int chunk = std::min(mixdownChunkFrames, frameCount - done);
        const float* frame = interleaved + std::int64_t(done) * channelCount;
        for (int i = 0; i < chunk; ++i, frame += channelCount) {
            float sum = 0.0f;
            for (int c = 0; c < channelCount; ++c) sum += frame[c];
            mono[i] = sum * scale;
        }
        ring_.write(mono, chunk);
        done += chunk;
    }
}

} // namespace tarn
