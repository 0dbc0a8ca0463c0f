#pragma once

#include <span>
#include <vector>

#include "core/dsp/EQBandState.hpp"
#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/dsp/StageSections.hpp"

namespace tarn {

// A static estimate, made on the control thread whenever a setting changes, of how far a
// route's gains and equaliser curves can lift a full-scale signal, and the fixed make-up
// attenuation that keeps the result at or below full scale.
namespace OutputSafetyCeiling {

inline constexpr double maxCombinedGainDb = 0.0;
inline constexpr double attenuationFloorLinear = 0.063;
inline constexpr double estimateFromHz = 20.0;
inline constexpr double estimateToHz = 20000.0;
inline constexpr int estimateFrequencyCount = 240;

double estimatedPeakGainDb(double routeGainDb, double outputTrimDb,
                           const std::vector<EQBandState>& customEQBands, double customEQSampleRate,
                           double correctionPreampDb, const std::vector<ParametricFilterSpec>& correctionFilters,
                           double correctionSampleRate,
                           double userParametricPreampDb, const std::vector<ParametricFilterSpec>& userParametricFilters,
                           double userParametricSampleRate);

// The same estimate over stages as they run: the gains, every stage's preamp, and the peak of the
// stages' summed section responses (each evaluated at its own rate).
double estimatedPeakGainDb(double routeGainDb, double outputTrimDb, std::span<const StageSections> stages);

double makeupAttenuationLinear(double estimatedPeakGainDb);

} // namespace OutputSafetyCeiling

} // namespace tarn
