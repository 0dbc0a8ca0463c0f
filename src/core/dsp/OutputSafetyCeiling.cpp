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
    const StageSections stages[] = {
        StageSections::tenBand(customEQBands, customEQSampleRate),
        StageSections::parametric(correctionPreampDb, correctionFilters, correctionSampleRate),
        StageSections::parametric(userParametricPreampDb, userParametricFilters, userParametricSampleRate),
    };
    return estimatedPeakGainDb(routeGainDb, outputTrimDb, stages);
}

double estimatedPeakGainDb(double routeGainDb, double outputTrimDb, std::span<const StageSections> stages) {
    // The preamps are flat, so they stay outside the peak search; a route with no sections at
    // all has no peak term rather than −infinity.
    double result = routeGainDb + outputTrimDb;
    bool hasSections = false;
    for (const StageSections& stage : stages) {
        result += stage.preampDb;
        hasSections = hasSections || !stage.sections.empty();
    }
    if (!hasSections) return result;
    double peak = -std::numeric_limits<double>::infinity();
    for (double hz : FrequencyResponse::logSpacedFrequencies(estimateFromHz, estimateToHz, estimateFrequencyCount)) {
        double combined = 0.0;
        for (const StageSections& stage : stages) combined += stage.sectionsResponseDb(hz);
        if (combined > peak) peak = combined;
    }
    return result + peak;
}

double makeupAttenuationLinear(double estimatedPeakGainDb) {
    if (!(estimatedPeakGainDb > maxCombinedGainDb)) return 1.0;
    return std::max(std::pow(10.0, -estimatedPeakGainDb / 20.0), attenuationFloorLinear);
}

} // namespace tarn::OutputSafetyCeiling
