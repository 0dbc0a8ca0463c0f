#pragma once

#include <vector>

#include "core/dsp/TenBandLayout.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

// Chooses the ten-band equaliser's Q per band from the genre preset, softened when a headphone
// correction is active so the genre's shaping does not stack sharply on the correction curve.
namespace CorrectionAwareQ {

inline constexpr double blendStrengthWithCorrection = 0.25;
inline constexpr double blendStrengthNoCorrection = 1.0;

// bandIdx must lie inside the genre's Q list; anything else is a programming error and aborts.
double effectiveQ(int bandIdx, double baselineQ, GenrePreset genre, bool hasCorrection);

std::vector<double> qVector(GenrePreset genre, const HeadphoneProfile* correctionProfile,
                            double baselineQ = TenBandLayout::defaultQ);

} // namespace CorrectionAwareQ

} // namespace tarn
