#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "core/dsp/FrequencyResponse.hpp"

namespace tarn {
namespace {

// Diagnostics drive arbitrary processes through the measuring functions, so they are checked on
// processes whose gain is known in closed form.
TEST(FrequencyResponse, MeasuringFunctionsReadOnlyTheDriveFrequencyAfterTheWarmUp) {
    const double fs = 48000;
    for (double f : {50.0, 1000.0, 15000.0}) {
        // A two-tap average, |H| = cos(πf/fs), with a DC offset and a squared term (DC and 2f)
        // that the measurement must not count.
        double previous = 0;
        auto averageWithJunk = [&](double x) {
            const double y = 0.5 * (x + previous) + 0.2 + 5.0 * x * x;
            previous = x;
            return y;
        };
        const double expected = std::cos(M_PI * f / fs);
        EXPECT_NEAR(FrequencyResponse::measureGainDb(f, fs, 0.1, averageWithJunk), 20 * std::log10(expected), 0.01) << f;
        EXPECT_NEAR(FrequencyResponse::measureAmplitude(f, fs, 0.1, averageWithJunk),
                    FrequencyResponse::measurementAmplitude * expected, 1e-3 * FrequencyResponse::measurementAmplitude)
            << f;
    }

    // A process that stays silent for its first 0.1 s: only a warm-up longer than that reads 0 dB.
    long samples = 0;
    auto lateStarter = [&](double x) { return samples++ < 4800 ? 0.0 : x; };
    EXPECT_NEAR(FrequencyResponse::measureGainDb(1000, fs, 0.15, lateStarter), 0.0, 1e-6);
}

TEST(FrequencyResponse, PeakIsTheLargestResponseOverTheListAndMinusInfinityForNone) {
    // A cookbook peaking section reaches exactly its gain at its centre and less elsewhere.
    const BiquadCoefficients bell(BiquadKind::peaking, 48000, 1000, 6, 1.0);
    const std::vector<double> around = {200, 1000, 5000};
    EXPECT_NEAR(FrequencyResponse::peakMagnitudeDb({&bell, 1}, 48000, around), 6.0, 1e-9);
    EXPECT_EQ(FrequencyResponse::peakMagnitudeDb({&bell, 1}, 48000, {}), -std::numeric_limits<double>::infinity());
}

} // namespace
} // namespace tarn
