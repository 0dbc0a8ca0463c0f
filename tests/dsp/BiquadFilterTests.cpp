#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "core/dsp/BiquadFilter.hpp"
#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/FrequencyResponse.hpp"
#include "dsp/CookbookReference.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

using test::prototypeMagnitudeDb;

struct DesignCase {
    BiquadKind kind;
    double f0, gainDb, q;
};

TEST(BiquadDesign, MatchesTheAnalogPrototypeAcrossTheBand) {
    const DesignCase cases[] = {{BiquadKind::peaking, 1000, 6, 1.41}, {BiquadKind::peaking, 31, -12, 0.7},
                                {BiquadKind::peaking, 16000, 9, 2.5},  {BiquadKind::lowShelf, 105, 5.5, 0.71},
                                {BiquadKind::lowShelf, 300, -7, 1.2},   {BiquadKind::highShelf, 8000, -4, 0.71},
                                {BiquadKind::highShelf, 3000, 10, 0.5}};
    for (double fs : {44100.0, 48000.0, 96000.0}) {
        for (const auto& c : cases) {
            const BiquadCoefficients coeffs(c.kind, fs, c.f0, c.gainDb, c.q);
            for (double f : FrequencyResponse::logSpacedFrequencies(10, 0.49 * fs, 60)) {
                EXPECT_NEAR(FrequencyResponse::magnitudeDb(coeffs, f, fs), prototypeMagnitudeDb(c.kind, fs, c.f0, c.gainDb, c.q, f), 1e-9)
                    << "kind " << int(c.kind) << " f0 " << c.f0 << " at " << f << " Hz, fs " << fs;
            }
        }
    }
}

TEST(BiquadDesign, LandmarksOfEachShape) {
    const double fs = 48000;
    // Peaking: full gain at the centre, unity at DC.
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(BiquadCoefficients(BiquadKind::peaking, fs, 1000, 7.5, 2), 1000, fs), 7.5, 1e-9);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(BiquadCoefficients(BiquadKind::peaking, fs, 1000, 7.5, 2), 0, fs), 0, 1e-9);
    // Shelves: full gain at the shelved end, unity at the other, half gain at the corner.
    const BiquadCoefficients low(BiquadKind::lowShelf, fs, 200, 6, 0.707);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(low, 0, fs), 6, 1e-9);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(low, fs / 2, fs), 0, 1e-9);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(low, 200, fs), 3, 1e-9);
    const BiquadCoefficients high(BiquadKind::highShelf, fs, 5000, -8, 0.707);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(high, fs / 2, fs), -8, 1e-9);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(high, 0, fs), 0, 1e-9);
}

TEST(BiquadDesign, ZeroGainIsAPassThroughForEveryKind) {
    for (auto kind : {BiquadKind::peaking, BiquadKind::lowShelf, BiquadKind::highShelf}) {
        const BiquadCoefficients c(kind, 48000, 440, 0, 0.9);
        EXPECT_NEAR(c.b0, 1.0, 1e-15);
        EXPECT_NEAR(c.b1, c.a1, 1e-15);
        EXPECT_NEAR(c.b2, c.a2, 1e-15);
    }
    EXPECT_EQ(BiquadFloatCoefficients(BiquadCoefficients::identity()), BiquadFloatCoefficients());
}

TEST(BiquadFilter, StartsAsIdentityWithAtLeastOneChannel) {
    BiquadFilter f(0);
    EXPECT_EQ(f.channelCount(), 1);
    EXPECT_EQ(f.coefficients(), BiquadCoefficients::identity());
    EXPECT_EQ(f.activeFloatSnapshot(), BiquadFloatCoefficients());
    EXPECT_EQ(f.process(0.25), 0.25);
}

// Direct form I, single precision, written out independently of the filter.
std::vector<float> referenceDirectFormI(const std::vector<float>& x, const BiquadFloatCoefficients& c) {
    std::vector<float> y(x.size());
    float x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        float acc = c.b0 * x[i];
        acc = acc + c.b1 * x1;
        acc = acc + c.b2 * x2;
        acc = acc - c.a1 * y1;
        acc = acc - c.a2 * y2;
        y[i] = acc;
        x2 = x1, x1 = x[i], y2 = y1, y1 = acc;
    }
    return y;
}

TEST(BiquadFilter, BlockAndSampleEntryPointsRunTheSameRecurrenceOnTheirOwnChannel) {
    const double fs = 48000;
    const BiquadCoefficients c(BiquadKind::peaking, fs, 250, 9, 1.1);
    const BiquadFloatCoefficients fc(c);
    auto stereo = test::interleavedSine(180, fs, 0.5, 700, 2, {0});
    for (int i = 0; i < 700; ++i) stereo[2 * i + 1] = float(0.3 * std::cos(0.01 * i));
    std::vector<float> left(700), right(700);
    for (int i = 0; i < 700; ++i) left[i] = stereo[2 * i], right[i] = stereo[2 * i + 1];

    BiquadFilter block(2), single(2);
    block.setCoefficients(c);
    single.setCoefficients(c);
    // Two blocks of uneven size: the state must carry over.
    block.processBlock(stereo.data(), 300, 0, 2, fc);
    block.processBlock(stereo.data() + 600, 400, 0, 2, fc);
    block.processBlock(stereo.data(), 700, 1, 2, fc);
    const auto expectL = referenceDirectFormI(left, fc), expectR = referenceDirectFormI(right, fc);
    for (int i = 0; i < 700; ++i) {
        ASSERT_EQ(stereo[2 * i], expectL[i]) << i;
        ASSERT_EQ(stereo[2 * i + 1], expectR[i]) << i;
        ASSERT_EQ(single.process(left[i], 0), expectL[i]);
        ASSERT_EQ(single.process(double(right[i]), 1), double(expectR[i]));
    }
}

TEST(BiquadFilter, MeasuredSineGainMatchesTheDesignedResponse) {
    const double fs = 48000;
    for (double f : {100.0, 1000.0, 1500.0, 6000.0}) {
        BiquadFilter filter(1);
        const BiquadCoefficients c(BiquadKind::peaking, fs, 1000, 6, 1.41);
        filter.setCoefficients(c);
        auto x = test::interleavedSine(f, fs, 0.25, 24000, 1);
        filter.processBlock(x.data(), 24000, 0, 1, filter.activeFloatSnapshot());
        const double gain = test::toDb(test::fittedAmplitude(x, 1, 0, f, fs, 12000, 12000) / 0.25);
        EXPECT_NEAR(gain, prototypeMagnitudeDb(BiquadKind::peaking, fs, 1000, 6, 1.41, f), 0.01) << f;
    }
}

TEST(BiquadFilter, NonFiniteBlockStateIsClearedAndTheNextBlockStartsClean) {
    const BiquadCoefficients c(BiquadKind::peaking, 48000, 100, 6, 1);
    BiquadFilter hit(2), fresh(2);
    hit.setCoefficients(c);
    fresh.setCoefficients(c);
    std::vector<float> warm = test::interleavedSine(100, 48000, 0.5, 64, 2);
    hit.processBlock(warm.data(), 64, 0, 2, BiquadFloatCoefficients(c));
    hit.processBlock(warm.data(), 64, 1, 2, BiquadFloatCoefficients(c));
    std::vector<float> bad(128, 0.1f);
    bad[2 * 10] = std::numeric_limits<float>::quiet_NaN();
    hit.processBlock(bad.data(), 64, 0, 2, BiquadFloatCoefficients(c));
    EXPECT_TRUE(std::isnan(bad[2 * 63])) << "samples already written stay as computed";
    EXPECT_EQ(hit.channelState(0), BiquadFilter::ChannelState{});
    EXPECT_NE(hit.channelState(1), BiquadFilter::ChannelState{}) << "the other channel keeps its memory";

    auto a = test::interleavedSine(300, 48000, 0.5, 64, 2), b = a;
    hit.processBlock(a.data(), 64, 0, 2, BiquadFloatCoefficients(c));
    fresh.processBlock(b.data(), 64, 0, 2, BiquadFloatCoefficients(c));
    for (int i = 0; i < 64; ++i) ASSERT_EQ(a[2 * i], b[2 * i]);

    // Infinite state (not NaN) is caught as well.
    std::vector<float> huge(8, std::numeric_limits<float>::max());
    hit.processBlock(huge.data(), 8, 0, 1, BiquadFloatCoefficients(c));
    EXPECT_EQ(hit.channelState(0), BiquadFilter::ChannelState{});
}

TEST(BiquadFilter, SingleSampleOverflowReturnsTheInputAndClearsTheChannel) {
    BiquadFilter f(1);
    f.setCoefficients(BiquadCoefficients(1e30, 0, 0, 0, 0));
    EXPECT_EQ(f.process(0.5f, 0), 5e29f);
    EXPECT_EQ(f.process(1e20f, 0), 1e20f);
    EXPECT_EQ(f.channelState(0), BiquadFilter::ChannelState{});
    EXPECT_EQ(f.process(1e20, 0), 1e20);
}

TEST(BiquadFilter, CoefficientChangeKeepsTheState) {
    BiquadFilter f(1);
    f.setCoefficients(BiquadCoefficients(BiquadKind::peaking, 48000, 1000, 6, 1));
    f.process(0.5, 0);
    f.process(-0.25, 0);
    const auto before = f.channelState(0);
    f.setCoefficients(BiquadCoefficients(BiquadKind::peaking, 48000, 1000, -6, 1));
    EXPECT_EQ(f.channelState(0), before);
    f.resetChannel(0);
    EXPECT_EQ(f.channelState(0), BiquadFilter::ChannelState{});
}

TEST(DenormalGuard, SetsFlushToZeroAndFlushesDenormalResults) {
    DenormalGuard::enableFlushToZero();
    EXPECT_TRUE(DenormalGuard::isFlushToZeroEnabled());
    volatile float tiny = std::numeric_limits<float>::min();   // smallest normal
    volatile float half = 0.5f;
    EXPECT_EQ(tiny * half, 0.0f) << "a denormal product must flush to zero";
    DenormalGuard::enableFlushToZero();   // idempotent
    EXPECT_TRUE(DenormalGuard::isFlushToZeroEnabled());
}

} // namespace
} // namespace tarn
