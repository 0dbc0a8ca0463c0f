#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace tarn {

// Lock-free single-producer/single-consumer FIFO of interleaved 32-bit float frames, between a
// capture (or player) callback and a render callback, each on its own real-time thread.
//
// Positions count samples and always move by whole frames. One frame is kept empty so that full
// and empty differ: a buffer of `frameCapacity` frames holds at most `frameCapacity - 1`.
// A full buffer drops the newest frames (the writer never overwrites unread data and never
// blocks); a short read is zero-filled and the return value says how many frames were real.
//
// `write` may be called from one thread and `read` from one other thread at the same time.
// `availableFramesToRead`, `availableFramesToWrite` and `totalFramesWritten` may be called from
// any thread (their answer is a snapshot). `reset` must not run while either side runs.
class AudioRingBuffer {
public:
    // Both counts must be at least 1 and their product must fit; anything else is a programming
    // error that stops the process.
    AudioRingBuffer(std::int64_t channelCount, std::int64_t frameCapacity);
    ~AudioRingBuffer();

    AudioRingBuffer(const AudioRingBuffer&) = delete;
    AudioRingBuffer& operator=(const AudioRingBuffer&) = delete;

    // Producer side. Copies up to `frameCount` frames (frameCount x channelCount samples) and
    // returns how many were accepted; the rest are dropped. Never allocates, locks or blocks.
    std::int64_t write(const float* source, std::int64_t frameCount);

    // Consumer side. Always fills frameCount x channelCount samples of `destination`; returns the
    // number of frames that were real data, the rest being exact zeros.
    std::int64_t read(float* destination, std::int64_t frameCount);

    std::int64_t availableFramesToRead() const;
    std::int64_t availableFramesToWrite() const;
    // Running total of frames ever accepted by `write`; a statistic that orders nothing.
    std::uint64_t totalFramesWritten() const { return framesWritten_.load(std::memory_order_relaxed); }
    std::int64_t frameCapacity() const { return frameCapacity_; }
    std::int64_t channelCount() const { return channelCount_; }

    // Empties the buffer; only while neither callback runs. `totalFramesWritten` keeps its value.
    void reset();

private:
    std::int64_t channelCount_;
    std::int64_t frameCapacity_;
    std::unique_ptr<float[]> storage_;
    std::int64_t sampleCapacity_;
    // Each index on its own cache line, so producer and consumer do not fight over one line.
    alignas(64) std::atomic<std::int64_t> writeIndex_{0};
    alignas(64) std::atomic<std::int64_t> readIndex_{0};
    alignas(64) std::atomic<std::uint64_t> framesWritten_{0};
};

} // namespace tarn
