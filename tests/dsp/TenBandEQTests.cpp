#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "core/dsp/FrequencyResponse.hpp"
#include "core/dsp/TenBandEQ.hpp"
#include "dsp/CookbookReference.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

struct FakeClock {
    double seconds = 100.0;
    UptimeClock clock() {
        return UptimeClock{[this] { return seconds; }};
    }
};

TEST(TenBandEQ, ChannelDeltasShapeOnlyTheirChannel) {
    const double fs = 44100;
    TenBandEQ eq(2, fs);
    eq.setGain(3, 5);
    eq.setChannelDelta(6, 5, 1);
    const int frames = 44100;
    auto x = test::interleavedSine(1000, fs, 0.05, frames, 2);
    const auto snap = eq.processingSnapshot();
    ASSERT_NE(snap.channelBank, nullptr);
    for (int ch = 0; ch < 2; ++ch) eq.processBlock(x.data(), frames, ch, 2, snap);
    const double q = TenBandLayout::defaultQ;
    EXPECT_NEAR(test::toDb(test::fittedAmplitude(x, 2, 0, 1000, fs, 22050, 22050) / 0.05),
                test::prototypeMagnitudeDb(BiquadKind::peaking, fs, 1000, 3, q, 1000), 0.02);
    EXPECT_NEAR(test::toDb(test::fittedAmplitude(x, 2, 1, 1000, fs, 22050, 22050) / 0.05),
                test::prototypeMagnitudeDb(BiquadKind::peaking, fs, 1000, 9, q, 1000), 0.02);
}

TEST(TenBandEQ, GainsClampAndUnknownBandsAreIgnored) {
    TenBandEQ eq(2, 48000);
    int changes = 0;
    eq.setOnChange([&] { ++changes; });
    eq.setGain(-30, 3);
    EXPECT_EQ(eq.bands()[3].gainDb, -12);
    eq.setGain(5, 10);
    eq.setChannelDelta(5, 2, 2);
    eq.setChannelDelta(5, 11, 0);
    EXPECT_EQ(changes, 1);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.currentCoefficients()[3], 250, 48000), -12, 1e-9);
}

TEST(TenBandEQ, BypassFlagFollowsNegligibleGainsDeltasAndTheUser) {
    TenBandEQ eq(2, 48000);
    for (int i = 0; i < 10; ++i) eq.setGain(1e-10, i);
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    eq.setChannelDelta(0.5, 4, 1);
    EXPECT_FALSE(eq.processingSnapshot().isBypassed);
    eq.setChannelDeltas({});
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    eq.setGain(3, 0);
    eq.setBypassed(true);
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    std::vector<float> x = {0.1f, -0.2f, 0.3f, 0.4f};
    const auto copy = x;
    eq.processBlock(x.data(), 2, 0, 2, eq.processingSnapshot());
    EXPECT_EQ(x, copy);
}

TEST(TenBandEQ, WorstCaseBandsTakeTheLargestMagnitudeFirstOnTies) {
    TenBandEQ eq(2, 48000);
    eq.setGain(10, 2);
    eq.setChannelDelta(6, 2, 1);
    eq.setChannelDelta(-8, 7, 0);
    eq.setChannelDelta(8, 7, 1);
    const auto worst = eq.worstCaseBands();
    EXPECT_EQ(worst[2].gainDb, 12);
    EXPECT_EQ(worst[7].gainDb, -8);
    EXPECT_EQ(eq.bands()[2].gainDb, 10) << "the shared gain is not changed";
}

TEST(TenBandEQ, QVectorsOfTheWrongLengthChangeNothing) {
    TenBandEQ eq(1, 48000);
    eq.setGain(6, 5);
    const auto before = eq.currentCoefficients();
    eq.applyQVector(std::vector<double>(9, 0.5));
    EXPECT_EQ(eq.currentCoefficients(), before);
    eq.applyQVector(std::vector<double>(10, 0.5));
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.currentCoefficients()[5], 2000, 48000),
                test::prototypeMagnitudeDb(BiquadKind::peaking, 48000, 1000, 6, 0.5, 2000), 1e-9);
}

TEST(TenBandEQ, ReplacedBanksLiveAtLeastOneSecondAfterRetirement) {
    FakeClock t;
    TenBandEQ eq(2, 48000, t.clock());
    eq.setChannelDelta(1, 0, 0);   // bank A
    eq.setChannelDelta(2, 0, 0);   // bank B retires A at 100.0
    t.seconds = 100.5;
    eq.setChannelDelta(3, 0, 0);   // C retires B at 100.5; A is 0.5 s old: kept
    t.seconds = 101.0;
    eq.setChannelDelta(4, 0, 0);   // A retired exactly 1.0 s ago: still kept
    EXPECT_EQ(eq.retainedChannelBanks().size(), 4u);
    t.seconds = 101.6;
    eq.setChannelDelta(5, 0, 0);   // A (1.6 s) and B (1.1 s) go; C (0.6 s), D (0.0 s) stay
    ASSERT_EQ(eq.retainedChannelBanks().size(), 3u);
    EXPECT_EQ(eq.retainedChannelBanks()[0].retiredAt, 101.0);
    EXPECT_EQ(eq.retainedChannelBanks()[1].retiredAt, 101.6);
    EXPECT_TRUE(std::isinf(eq.retainedChannelBanks()[2].retiredAt));
    EXPECT_EQ(eq.retainedChannelBanks()[2].bank.get(), eq.currentChannelBank());
}

TEST(TenBandEQ, RebuildRedesignsForTheNewRateAndIgnoresNonsense) {
    TenBandEQ eq(1, 48000);
    eq.setGain(6, 9);
    eq.rebuild(-44100);
    EXPECT_EQ(eq.sampleRate(), 48000);
    eq.rebuild(44100);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.currentCoefficients()[9], 16000, 44100), 6, 1e-9);
}

} // namespace
} // namespace tarn
