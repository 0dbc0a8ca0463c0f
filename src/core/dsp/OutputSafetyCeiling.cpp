#include "core/dsp/OutputSafetyCeiling.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/dsp/FrequencyResponse.hpp"

namespace tarn::OutputSafetyCeiling {

double estimatedPeakGainDb(double routeGainDb, double outputTrimDb,
                           const std::vector<EQBandState>& customEQBands, double customEQSampleRate,
                           double correctionPreampDb, const std::vector<ParametricFilterSpec>& correctionFilters,
                           double correctionSampleRate,
                           double userParametricPreampDb, const std::vector<ParametricFilterSpec>& userParametricFilters,
                           double userParametricSampleRate) {
    // Each section is designed at its own stage's rate, so the cascades are evaluated per stage
    // and summed in dB per frequency.
    std::vector<BiquadCoefficients> custom, correction, parametric;
    for (const auto& b : customEQBands)
        custom.emplace_back(BiquadKind::peaking, customEQSampleRate, b.frequencyHz, b.gainDb, b.q);
    for (const auto& f : correctionFilters) correction.push_back(f.coefficients(correctionSampleRate));
    for (const auto& f : userParametricFilters) parametric.push_back(f.coefficients(userParametricSampleRate));

    double peak = -std::numeric_limits<double>::infinity();
    if (!custom.empty() || !correction.empty() || !parametric.empty()) {
        for (double hz : FrequencyResponse::logSpacedFrequencies(estimateFromHz, estimateToHz, estimateFrequencyCount)) {
            const double combined = FrequencyResponse::magnitudeDb(custom, hz, customEQSampleRate) +
                                    FrequencyResponse::magnitudeDb(correction, hz, correctionSampleRate) +
                                    FrequencyResponse::magnitudeDb(parametric, hz, userParametricSampleRate);
            if (combined > peak) peak = combined;
        }
    }
    const double peakTerm = std::isinf(peak) && peak < 0 ? 0.0 : peak;
    return routeGainDb + outputTrimDb + correctionPreampDb + userParametricPreampDb + peakTerm;
}

double makeupAttenuationLinear(double estimatedPeakGainDb) {
    if (!(estimatedPeakGainDb > maxCombinedGainDb)) return 1.0;
    return std::max(std::pow(10.0, -estimatedPeakGainDb / 20.0), attenuationFloorLinear);
}

} // namespace tarn::OutputSafetyCeiling
