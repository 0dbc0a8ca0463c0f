#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/audio/AudioRingBuffer.hpp"

namespace tarn {

// Where a route (or the player deck) hands the audio it is about to process to AI Tune: the
// block is mixed down to mono into a ring that the band prominence analyser drains on its own
// thread. `write` runs on the real-time thread and never locks, allocates or blocks.
class AnalysisTap {
public:
    static constexpr std::int64_t defaultFrameCapacity = 32768;
    static constexpr int mixdownChunkFrames = 4096;

    explicit AnalysisTap(std::int64_t frameCapacity = defaultFrameCapacity);
    AnalysisTap(const AnalysisTap&) = delete;
    AnalysisTap& operator=(const AnalysisTap&) = delete;

    // Real-time side: one producer thread. Ignored while disabled, while the clock is paused, or
    // for fewer than one channel. A full ring drops the newest frames; the song clock still
    // advances by the whole block.
    void write(const float* interleaved, int frameCount, int channelCount);

    // Set by whoever owns the route or player that feeds the tap. Off at creation.
    void setEnabled(bool enabled) { enabled_.store(enabled); }
    bool isEnabled() const { return enabled_.load(); }

    // While paused the tap ignores its input, so the song clock stands still.
    void setClockPaused(bool paused) { clockPaused_.store(paused); }
    bool isClockPaused() const { return clockPaused_.load(); }

    // The song clock: frames offered while enabled and not paused.
    std::int64_t framesObserved() const { return framesObserved_.load(std::memory_order_relaxed); }
    void resetFramesObserved() { framesObserved_.store(0, std::memory_order_relaxed); }

    // Consumer side, for the analyser's thread only.
    AudioRingBuffer& ring() { return ring_; }

private:
    AudioRingBuffer ring_;
    std::unique_ptr<float[]> monoScratch_;
    std::atomic<bool> enabled_{false};
    std::atomic<std::int64_t> framesObserved_{0};
    std::atomic<bool> clockPaused_{false};
};

} // namespace tarn
