#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "core/dsp/BandBeatMeter.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

std::set<int> allBands() { return {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}; }

TEST(BandBeatMeter, OneKilohertzLiftsMostlyItsOwnBandToTheInputLevel) {
    BandBeatMeter meter(48000, 200);
    meter.setActiveBands(allBands());
    auto x = test::interleavedSine(1000, 48000, 0.5, 48000, 2);
    for (int i = 0; i < 48000; i += 512) meter.processBlock(x.data() + 2 * i, std::min(512, 48000 - i), 2);
    const auto peaks = meter.currentPeaks();
    EXPECT_NEAR(peaks[5], 0.5, 0.01);
    // Elsewhere each band reads its Q = 1 band-pass response at 1 kHz (analog form, prewarped).
    const double pi = 3.141592653589793;
    for (int b = 0; b < 9; ++b) {
        const double r = std::tan(pi * 1000 / 48000) / std::tan(pi * BandBeatMeter::centerFrequenciesHz[b] / 48000);
        EXPECT_NEAR(peaks[b], 0.5 / std::sqrt(1 + (r - 1 / r) * (r - 1 / r)), 0.01) << b;
    }
}

TEST(BandBeatMeter, OnlyTheFirstChannelAndOnlyActiveBandsAreMetered) {
    BandBeatMeter meter(48000, 200);
    meter.setActiveBands(allBands());
    auto right = test::interleavedSine(1000, 48000, 0.5, 4800, 2, {1});
    meter.processBlock(right.data(), 4800, 2);
    for (double p : meter.currentPeaks()) EXPECT_EQ(p, 0.0);

    meter.setActiveBands({2, 42, -1});
    auto left = test::interleavedSine(1000, 48000, 0.5, 4800, 2, {0});
    meter.processBlock(left.data(), 4800, 2);
    const auto peaks = meter.currentPeaks();
    EXPECT_GT(peaks[2], 0.0);
    EXPECT_EQ(peaks[5], 0.0);
}

TEST(BandBeatMeter, SilenceAndDisablingDecayEveryBand) {
    BandBeatMeter meter(48000, 200);
    meter.setActiveBands(allBands());
    auto x = test::interleavedSine(1000, 48000, 0.5, 9600, 1);
    meter.processBlock(x.data(), 9600, 1);
    const double before = meter.currentPeaks()[5];
    meter.processSilence(0);
    EXPECT_EQ(meter.currentPeaks()[5], before);
    meter.processSilence(9600);   // 200 ms: one time constant
    EXPECT_NEAR(meter.currentPeaks()[5], before * std::exp(-1.0), 1e-9);
    meter.setEnabled(false);
    meter.processBlock(x.data(), 9600, 1);
    EXPECT_NEAR(meter.currentPeaks()[5], before * std::exp(-2.0), 1e-9);
}

} // namespace
} // namespace tarn
