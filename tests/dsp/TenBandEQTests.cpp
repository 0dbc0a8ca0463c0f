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

double cascadeReferenceDb(const std::vector<double>& gains, const std::vector<double>& qs, double fs, double f) {
    double sum = 0;
    for (int i = 0; i < 10; ++i)
        sum += test::prototypeMagnitudeDb(BiquadKind::peaking, fs, TenBandLayout::centerFrequenciesHz[i], gains[i], qs[i], f);
    return sum;
}

TEST(TenBandEQ, MeasuredGainAtEveryBandCentreMatchesTheCascadeResponse) {
    const double fs = 48000;
    const std::vector<double> gains = {6, -3, 4.5, 0, -9, 12, 2, -6, 8, 3};
    TenBandEQ eq(2, fs);
    for (int i = 0; i < 10; ++i) eq.setGain(gains[i], i);
    const std::vector<double> qs(10, TenBandLayout::defaultQ);
    for (int band = 0; band < 10; ++band) {
        const double f = TenBandLayout::centerFrequenciesHz[band];
        const int frames = int(fs * 1.5);
        auto x = test::interleavedSine(f, fs, 0.05, frames, 2);
        eq.resetStateOnly();
        // Uneven blocks, as a sound server delivers them.
        for (int done = 0; done < frames;) {
            const int n = std::min(frames - done, 173 + 64 * (done % 3));
            const auto snap = eq.processingSnapshot();
            for (int ch = 0; ch < 2; ++ch) eq.processBlock(x.data() + std::size_t(done) * 2, n, ch, 2, snap);
            done += n;
        }
        const double expect = cascadeReferenceDb(gains, qs, fs, f);
        for (int ch = 0; ch < 2; ++ch) {
            const double measured = test::toDb(test::fittedAmplitude(x, 2, ch, f, fs, frames / 2, frames / 2) / 0.05);
            EXPECT_NEAR(measured, expect, 0.02) << "band " << band << " channel " << ch;
        }
    }
}

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
    std::vector<double> g0(10, 0.0), g1(10, 0.0);
    g0[5] = 3, g1[5] = 9;
    const std::vector<double> qs(10, TenBandLayout::defaultQ);
    EXPECT_NEAR(test::toDb(test::fittedAmplitude(x, 2, 0, 1000, fs, 22050, 22050) / 0.05), cascadeReferenceDb(g0, qs, fs, 1000), 0.02);
    EXPECT_NEAR(test::toDb(test::fittedAmplitude(x, 2, 1, 1000, fs, 22050, 22050) / 0.05), cascadeReferenceDb(g1, qs, fs, 1000), 0.02);
    EXPECT_EQ(eq.effectiveGains(1)[5], 9);
    EXPECT_EQ(eq.effectiveGains(-1)[5], 3);
}

TEST(TenBandEQ, GainsClampAndUnknownBandsAreIgnored) {
    TenBandEQ eq(2, 48000);
    int changes = 0;
    eq.setOnChange([&] { ++changes; });
    eq.setGain(20, 3);
    EXPECT_EQ(eq.bands()[3].gainDb, 12);
    eq.setGain(-30, 3);
    EXPECT_EQ(eq.bands()[3].gainDb, -12);
    eq.setGain(5, 10);
    eq.setChannelDelta(5, 2, 2);
    eq.setChannelDelta(5, 11, 0);
    EXPECT_EQ(changes, 2);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.currentCoefficients()[3], 250, 48000), -12, 1e-9);
}

TEST(TenBandEQ, BypassFlagFollowsNegligibleGainsDeltasAndTheUser) {
    TenBandEQ eq(2, 48000);
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    for (int i = 0; i < 10; ++i) eq.setGain(1e-10, i);
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    eq.setChannelDelta(0.5, 4, 1);
    EXPECT_FALSE(eq.processingSnapshot().isBypassed);
    eq.setChannelDeltas({});
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    eq.setGain(3, 0);
    EXPECT_FALSE(eq.processingSnapshot().isBypassed);
    eq.setBypassed(true);
    EXPECT_TRUE(eq.processingSnapshot().isBypassed);
    std::vector<float> x = {0.1f, -0.2f, 0.3f, 0.4f};
    const auto copy = x;
    eq.processBlock(x.data(), 2, 0, 2, eq.processingSnapshot());
    EXPECT_EQ(x, copy);
}

TEST(TenBandEQ, WorstCaseBandsTakeTheLargestMagnitudeFirstOnTies) {
    TenBandEQ eq(2, 48000);
    EXPECT_EQ(eq.worstCaseBands(), eq.bands());
    eq.setGain(10, 2);
    eq.setChannelDelta(6, 2, 1);
    eq.setChannelDelta(-8, 7, 0);
    eq.setChannelDelta(8, 7, 1);
    const auto worst = eq.worstCaseBands();
    EXPECT_EQ(worst[2].gainDb, 12);
    EXPECT_EQ(worst[7].gainDb, -8);
    EXPECT_EQ(worst[0].gainDb, 0);
    EXPECT_EQ(eq.bands()[2].gainDb, 10) << "the shared gain is not changed";
}

TEST(TenBandEQ, QVectorsOfTheWrongLengthChangeNothing) {
    TenBandEQ eq(1, 48000);
    eq.setGain(6, 5);
    const auto before = eq.currentCoefficients();
    eq.applyQVector(std::vector<double>(9, 0.5));
    EXPECT_EQ(eq.currentCoefficients(), before);
    eq.applyQVector(std::vector<double>(10, 0.5));
    EXPECT_EQ(eq.bands()[5].q, 0.5);
    EXPECT_NE(eq.currentCoefficients(), before);
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
    EXPECT_EQ(eq.retainedChannelBanks().size(), 3u);
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
    eq.rebuild(0);
    eq.rebuild(-44100);
    EXPECT_EQ(eq.sampleRate(), 48000);
    eq.rebuild(44100);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.currentCoefficients()[9], 16000, 44100), 6, 1e-9);
}

} // namespace
} // namespace tarn
