#include "core/dsp/PeakMeter.hpp"

#include <algorithm>
#include <bit>
#include <cmath>

namespace tarn {

PeakMeter::PeakMeter(double decayMs, double sampleRate) : decayMs_(decayMs), decayCoefficient_(0.0) {
    setSampleRate(sampleRate);
}

void PeakMeter::setSampleRate(double sampleRate) {
    decayCoefficient_ = std::exp(-1.0 / (decayMs_ * sampleRate / 1000.0));
    cachedDecayFrameCount_ = -1;
    cachedBlockDecay_ = 1.0;
}

void PeakMeter::publish() { publishedPeak_.store(std::bit_cast<std::uint64_t>(audioPeak_)); }

void PeakMeter::update(double sample) {
    const double decayed = audioPeak_ * decayCoefficient_;
    const double m = std::abs(sample);
    // A NaN sample fails the comparison and leaves the decayed value.
    audioPeak_ = m > decayed ? m : decayed;
    publish();
}

void PeakMeter::updateBlockPeak(double peak, int frameCount) {
    if (frameCount < 1) return;
    if (frameCount != cachedDecayFrameCount_) {
        cachedDecayFrameCount_ = frameCount;
        cachedBlockDecay_ = std::pow(decayCoefficient_, frameCount);
    }
    const double decayed = audioPeak_ * cachedBlockDecay_;
    const double m = std::abs(peak);
    audioPeak_ = m > decayed ? m : decayed;
    publish();
}

void PeakMeter::reset() {
    audioPeak_ = 0.0;
    publish();
}

double PeakMeter::currentPeak() const {
    return std::bit_cast<double>(publishedPeak_.load(std::memory_order_acquire));
}

} // namespace tarn
