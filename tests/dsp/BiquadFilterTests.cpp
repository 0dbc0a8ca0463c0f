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
    const DesignCase cases[] = {{BiquadKind::peaking, 16000, 9, 2.5}, {BiquadKind::peaking, 31, -12, 0.7},
                                {BiquadKind::lowShelf, 105, 5.5, 0.71}, {BiquadKind::highShelf, 8000, -4, 0.71},
                                {BiquadKind::peaking, 440, 0, 0.9}};
    for (double fs : {44100.0, 96000.0}) {
        for (const auto& c : cases) {
            const BiquadCoefficients coeffs(c.kind, fs, c.f0, c.gainDb, c.q);
            for (double f : FrequencyResponse::logSpacedFrequencies(10, 0.49 * fs, 60)) {
                EXPECT_NEAR(FrequencyResponse::magnitudeDb(coeffs, f, fs), prototypeMagnitudeDb(c.kind, fs, c.f0, c.gainDb, c.q, f), 1e-9)
                    << "kind " << int(c.kind) << " f0 " << c.f0 << " at " << f << " Hz, fs " << fs;
            }
        }
    }
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
}

} // namespace
} // namespace tarn
