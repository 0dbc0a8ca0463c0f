#include "core/audio/AudioRingBuffer.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarn {

namespace {

[[noreturn]] void fatal(const char* message) {
    std::fprintf(stderr, "AudioRingBuffer: %s\n", message);
    std::abort();
}

std::int64_t checkedSampleCapacity(std::int64_t channelCount, std::int64_t frameCapacity) {
    if (channelCount < 1) fatal("channelCount must be at least 1");
    if (frameCapacity < 1) fatal("frameCapacity must be at least 1");
    std::int64_t samples = 0;
    if (__builtin_mul_overflow(channelCount, frameCapacity, &samples)) fatal("channelCount x frameCapacity overflows");
    // The byte size of the block must fit as well.
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(static_cast<std::size_t>(samples), sizeof(float), &bytes)) {
        fatal("channelCount x frameCapacity overflows");
    }
    return samples;
}

} // namespace

AudioRingBuffer::AudioRingBuffer(std::int64_t channelCount, std::int64_t frameCapacity)
    : channelCount_(channelCount),
      frameCapacity_(frameCapacity),
      sampleCapacity_(checkedSampleCapacity(channelCount, frameCapacity)) {
    storage_ = std::make_unique<float[]>(static_cast<std::size_t>(sampleCapacity_)); // zero-filled
}

AudioRingBuffer::~AudioRingBuffer() = default;

std::int64_t AudioRingBuffer::availableFramesToRead() const {
    const std::int64_t w = writeIndex_.load(std::memory_order_acquire);
    const std::int64_t r = readIndex_.load(std::memory_order_acquire);
    return ((w - r + sampleCapacity_) % sampleCapacity_) / channelCount_;
}

std::int64_t AudioRingBuffer::availableFramesToWrite() const {
    return frameCapacity_ - availableFramesToRead() - 1;
}

std::int64_t AudioRingBuffer::write(const float* source, std::int64_t frameCount) {
    const std::int64_t freeFrames = frameCapacity_ - availableFramesToRead() - 1;
    const std::int64_t n = std::min(freeFrames, frameCount);
    if (n < 1) return 0;

    const std::int64_t samples = n * channelCount_;
    // Only this side stores writeIndex, so a relaxed load sees our own last store.
    const std::int64_t w = writeIndex_.load(std::memory_order_relaxed);
    const std::int64_t first = std::min(sampleCapacity_ - w, samples);
    std::memcpy(storage_.get() + w, source, static_cast<std::size_t>(first) * sizeof(float));
    if (samples > first) {
        std::memcpy(storage_.get(), source + first, static_cast<std::size_t>(samples - first) * sizeof(float));
    }
    // Release after the copies: a reader that sees the new index sees the samples too.
    writeIndex_.store((w + samples) % sampleCapacity_, std::memory_order_release);
    framesWritten_.fetch_add(static_cast<std::uint64_t>(n), std::memory_order_relaxed);
    return n;
}

std::int64_t AudioRingBuffer::read(float* destination, std::int64_t frameCount) {
    if (frameCount < 1) return 0;
    const std::int64_t avail = availableFramesToRead();
    const std::int64_t n = std::min(avail, frameCount);
    const std::int64_t samples = n * channelCount_;
    if (samples >= 1) {
        const std::int64_t r = readIndex_.load(std::memory_order_relaxed);
        const std::int64_t first = std::min(sampleCapacity_ - r, samples);
        std::memcpy(destination, storage_.get() + r, static_cast<std::size_t>(first) * sizeof(float));
        if (samples > first) {
            std::memcpy(destination + first, storage_.get(), static_cast<std::size_t>(samples - first) * sizeof(float));
        }
        // Release after the copies: the writer may reuse these samples only once we are done.
        readIndex_.store((r + samples) % sampleCapacity_, std::memory_order_release);
    }
    if (avail < frameCount) {
        std::memset(destination + samples, 0, static_cast<std::size_t>((frameCount - n) * channelCount_) * sizeof(float));
    }
    return n;
}

void AudioRingBuffer::reset() {
    writeIndex_.store(0, std::memory_order_seq_cst);
    readIndex_.store(0, std::memory_order_seq_cst);
}

} // namespace tarn
