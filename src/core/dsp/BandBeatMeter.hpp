#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <set>
#include <vector>

#include "core/dsp/PeakMeter.hpp"
#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

// A live, decaying level per equaliser band so band controls can pulse with the music: one
// band-pass per band centre on the first channel, each followed by a peak meter. Only bands the
// interface marks active cost any filtering.
class BandBeatMeter {
public:
    static constexpr int bandCount = TenBandLayout::bandCount;
    static constexpr const std::array<double, bandCount>& centerFrequenciesHz = TenBandLayout::centerFrequenciesHz;

    // Cookbook band-pass, 0 dB peak gain, Q 1, transposed direct form II in double precision.
    struct BandFilter {
        double b0 = 0, b2 = 0, a1 = 0, a2 = 0;
        double s1 = 0, s2 = 0;

        BandFilter() = default;
        BandFilter(double centerHz, double sampleRate);
        double process(double x) {
            const double y = b0 * x + s1;
            s1 = -a1 * y + s2;
            s2 = b2 * x - a2 * y;
            return y;
        }
    };

    BandBeatMeter(double sampleRate, double decayMs);
    BandBeatMeter(const BandBeatMeter&) = delete;
    BandBeatMeter& operator=(const BandBeatMeter&) = delete;

    // Control thread; a change is picked up at the next block.
    void setActiveBands(const std::set<int>& bands);
    void setEnabled(bool enabled) { enabled_.store(enabled); }
    bool isEnabled() const { return enabled_.load(std::memory_order_acquire); }
    // New time base; not while the real-time thread runs the meter.
    void rebuild(double sampleRate);

    // Real-time thread.
    void processBlock(const float* buffer, int frameCount, int channelCount);
    void processSilence(int frameCount);

    // Interface thread.
    void readPeaks(std::array<double, bandCount>& into) const;
    std::vector<double> currentPeaks() const;

private:
    std::array<std::atomic<bool>, bandCount> activeBands_{};
    std::array<BandFilter, bandCount> filters_;
    std::vector<std::unique_ptr<PeakMeter>> meters_;
    std::array<double, bandCount> blockPeaks_{};
    std::atomic<bool> enabled_{true};
    double decayMs_;
};

} // namespace tarn
