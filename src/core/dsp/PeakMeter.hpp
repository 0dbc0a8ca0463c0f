#pragma once

#include <atomic>
#include <cstdint>

namespace tarn {

// A peak follower with exponential decay: the real-time thread feeds it, the interface reads
// the published value through an atomic.
class PeakMeter {
public:
    PeakMeter(double decayMs, double sampleRate);

    // Real-time thread.
    void update(double sample);
    // The block's largest absolute sample; the block decay is recomputed only when the block
    // length changes.
    void updateBlockPeak(double peak, int frameCount);
    // Back to zero (start of a stream); not while the real-time thread feeds the meter.
    void reset();
    // New time base; not while the real-time thread feeds the meter.
    void setSampleRate(double sampleRate);

    // Any thread.
    double currentPeak() const;
    double decayCoefficient() const { return decayCoefficient_; }

private:
    void publish();

    double audioPeak_ = 0.0;
    std::atomic<std::uint64_t> publishedPeak_{0};
    double decayMs_;
    double decayCoefficient_;
    int cachedDecayFrameCount_ = -1;
    double cachedBlockDecay_ = 1.0;
};

} // namespace tarn
