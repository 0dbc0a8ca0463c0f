#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "core/dsp/Limiter.hpp"
#include "core/dsp/OutputSafetyCeiling.hpp"
#include "core/dsp/PeakMeter.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "dsp/CookbookReference.hpp"

namespace tarn {
namespace {

double law(double x) {
    const double m = std::abs(x);
    if (m <= 0.83) return x;
    return std::copysign(0.83 + 0.15 * std::tanh((m - 0.83) / 0.15), x);
}

TEST(Limiter, LawValues) {
    Limiter l(48000);
    EXPECT_EQ(l.process(0.83), 0.83);
    EXPECT_FALSE(l.isClipping());
    EXPECT_NEAR(l.process(-1.0), law(-1.0), 1e-15);
    EXPECT_TRUE(l.isClipping());
    auto [a, b] = l.processStereo(0.1, -0.95);
    EXPECT_EQ(a, 0.1);
    EXPECT_NEAR(b, law(-0.95), 1e-15);
    EXPECT_TRUE(l.isClipping());
    EXPECT_TRUE(std::isnan(l.process(std::numeric_limits<double>::quiet_NaN())));
}

TEST(Limiter, BlockPathRationalTanhStaysOnTheLawAndUnderTheCeiling) {
    double worst = 0;
    for (int i = 0; i <= 200000; ++i) {
        const float x = -3.0f + 6.0f * float(i) / 200000.0f;
        const float y = Limiter::saturate(x);
        worst = std::max(worst, std::abs(double(y) - law(x)));
        ASSERT_LE(std::abs(y), 0.98f);
        if (std::abs(x) <= 0.83f) {
            ASSERT_EQ(y, x);
        }
    }
    EXPECT_LT(worst, 2e-5) << "the rational tanh is within 2e-5 of the library law";
    // And it is exactly the stated rational function, up to single-precision rounding.
    for (double u = 0; u < 4.97; u += 0.01) {
        const double u2 = u * u;
        const double t = u * (135135 + u2 * (17325 + u2 * (378 + u2))) / (135135 + u2 * (62370 + u2 * (3150 + 28 * u2)));
        ASSERT_NEAR(Limiter::saturate(float(0.83 + u / 6.666666666666666)), std::min(0.83 + 0.15 * t, 0.98), 2e-7) << u;
    }
    EXPECT_EQ(Limiter::saturate(-100.0f), -0.98f);
}

TEST(PeakMeter, DecaysByOneOverEInTheDecayTime) {
    PeakMeter m(300, 48000);
    m.update(1.0);
    for (int i = 0; i < 14400; ++i) m.update(0.0);
    EXPECT_NEAR(m.currentPeak(), std::exp(-1.0), 1e-9);

    // Blocks decay by their length; an empty block and NaN never raise the peak.
    PeakMeter blocks(300, 48000);
    blocks.updateBlockPeak(-1.0, 512);
    blocks.updateBlockPeak(0.9, 0);
    blocks.update(std::numeric_limits<double>::quiet_NaN());
    for (int i = 0; i < 14400 / 480; ++i) blocks.updateBlockPeak(0.0, 480);
    EXPECT_NEAR(blocks.currentPeak(), std::exp(-1.0 - 1.0 / 14400.0), 1e-9);
}

TEST(OutputSafetyCeiling, MakeupAttenuation) {
    EXPECT_EQ(OutputSafetyCeiling::makeupAttenuationLinear(-5), 1.0);
    EXPECT_NEAR(OutputSafetyCeiling::makeupAttenuationLinear(6), 0.501187, 1e-6);
    EXPECT_EQ(OutputSafetyCeiling::makeupAttenuationLinear(30), 0.063);
}

TEST(OutputSafetyCeiling, EstimateSumsTheFlatTermsAndThePeakOfTheCombinedCurve) {
    EXPECT_EQ(OutputSafetyCeiling::estimatedPeakGainDb(1.5, 4, {}, 48000, -3, {}, 48000, -2, {}, 48000), 0.5);

    // Independently: the combined prototype response on the same 240-point grid.
    std::vector<EQBandState> bands;
    for (int i = 0; i < 10; ++i) bands.push_back({i, TenBandLayout::centerFrequenciesHz[i], i == 6 ? 9.0 : 0.0, 1.41});
    const std::vector<ParametricFilterSpec> correction = {{ParametricFilterSpec::Shape::peaking, 2000, 3, 2},
                                                          {ParametricFilterSpec::Shape::lowShelf, 100, 5, 0.7}};
    const std::vector<ParametricFilterSpec> user = {{ParametricFilterSpec::Shape::highShelf, 6000, -4, 0.7}};
    double peak = -1e9;
    for (int i = 0; i < 240; ++i) {
        const double f = std::pow(10.0, std::log10(20.0) + i * 3.0 / 239.0);
        double sum = test::prototypeMagnitudeDb(BiquadKind::peaking, 48000, 2000, 9, 1.41, f);
        sum += test::prototypeMagnitudeDb(BiquadKind::peaking, 44100, 2000, 3, 2, f);
        sum += test::prototypeMagnitudeDb(BiquadKind::lowShelf, 44100, 100, 5, 0.7, f);
        sum += test::prototypeMagnitudeDb(BiquadKind::highShelf, 96000, 6000, -4, 0.7, f);
        peak = std::max(peak, sum);
    }
    EXPECT_GT(peak, 10.0);
    EXPECT_NEAR(OutputSafetyCeiling::estimatedPeakGainDb(-1, 4, bands, 48000, -6, correction, 44100, 0, user, 96000),
                -1 + 4 - 6 + peak, 1e-9);
}

} // namespace
} // namespace tarn
