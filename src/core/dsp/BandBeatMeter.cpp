#include "core/dsp/BandBeatMeter.hpp"

#include <cmath>

namespace tarn {

BandBeatMeter::BandFilter::BandFilter(double centerHz, double sampleRate) {
    constexpr double twoPi = 6.283185307179586;
    const double w = twoPi * centerHz / sampleRate;
    const double alpha = std::sin(w) / 2.0;
    b0 = alpha / (1.0 + alpha);
    b2 = -alpha / (1.0 + alpha);
    a1 = -2.0 * std::cos(w) / (1.0 + alpha);
    a2 = (1.0 - alpha) / (1.0 + alpha);
}

BandBeatMeter::BandBeatMeter(double sampleRate, double decayMs) : decayMs_(decayMs) {
    for (int i = 0; i < bandCount; ++i) {
        activeBands_[i].store(false);
        filters_[i] = BandFilter(centerFrequenciesHz[i], sampleRate);
        meters_.push_back(std::make_unique<PeakMeter>(decayMs, sampleRate));
    }
}

void BandBeatMeter::rebuild(double sampleRate) {
    for (int i = 0; i < bandCount; ++i) {
        filters_[i] = BandFilter(centerFrequenciesHz[i], sampleRate);
        meters_[i]->setSampleRate(sampleRate);
    }
}

void BandBeatMeter::setActiveBands(const std::set<int>& bands) {
    for (int i = 0; i < bandCount; ++i) activeBands_[i].store(bands.count(i) > 0);
}

void BandBeatMeter::processBlock(const float* buffer, int frameCount, int channelCount) {
    if (frameCount < 1 || channelCount < 1) return;
    if (!enabled_.load(std::memory_order_acquire)) {
        processSilence(frameCount);
        return;
    }
    for (int b = 0; b < bandCount; ++b) {
        if (!activeBands_[b].load(std::memory_order_relaxed)) continue;
        BandFilter f = filters_[b];
        double peak = 0.0;
        const float* p = buffer;
        for (int i = 0; i < frameCount; ++i, p += channelCount) {
            const double y = std::abs(f.process(*p));
            if (y > peak) peak = y;
        }
        filters_[b] = f;
        blockPeaks_[b] = peak;
        meters_[b]->updateBlockPeak(peak, frameCount);
    }
}

void BandBeatMeter::processSilence(int frameCount) {
    if (frameCount < 1) return;
    for (auto& m : meters_) m->updateBlockPeak(0.0, frameCount);
}

void BandBeatMeter::readPeaks(std::array<double, bandCount>& into) const {
    for (int i = 0; i < bandCount; ++i) into[i] = meters_[i]->currentPeak();
}

std::vector<double> BandBeatMeter::currentPeaks() const {
    std::vector<double> peaks(bandCount);
    for (int i = 0; i < bandCount; ++i) peaks[i] = meters_[i]->currentPeak();
    return peaks;
}

} // namespace tarn
