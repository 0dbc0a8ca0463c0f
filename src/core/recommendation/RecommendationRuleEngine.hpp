#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "core/recommendation/BandRecommendation.hpp"
#include "core/recommendation/RecommendationInput.hpp"
#include "core/recommendation/RecommendationScope.hpp"

namespace tarn {

// Turns song prominence, headphone deviation and listening taste into ten whole-dB band gains,
// each with readable reasons. Stateless and deterministic: the same input gives the same output.
//
// Every reason starts with its rule code: S0–S6 (song), P1 (preference), T1 (taste),
// H1/H2 (headphone), GN1 (genre lean), G1–G8 (guards).
class RecommendationRuleEngine {
public:
    static constexpr int bandCount = 10;

    // Always ten entries, band order 31 Hz … 16 kHz.
    static std::vector<BandRecommendation> recommend(const RecommendationInput& input, RecommendationScope scope);

    // Keeps an outside refiner's per-band deltas inside the product limits: at most ±1.5 dB per
    // band in 0.5 dB steps, 250 Hz never above +4, 8 and 16 kHz never above +6, no band above +10,
    // nothing outside ±12. Always returns ten deltas; a non-finite delta becomes 0.
    static std::vector<double> sanitizeRefinement(const std::vector<double>& deltas,
                                                  const std::vector<BandRecommendation>& baseline);

    // The highest gain AI Tune ever gives a band: 250 Hz +4 (boosts there turn muddy fast), 8 and
    // 16 kHz +6 (harshness), any other +10. Its lowest is the band floor, −12.
    static double productCapDb(int band);

    // "sub-bass (31 Hz)" … "air (16 kHz)"; any other index gives "band N".
    static std::string bandName(int index);

    // Extends with zeros or cuts to `count` entries.
    static std::vector<double> padded(const std::vector<double>& values, std::size_t count = bandCount);
};

} // namespace tarn
