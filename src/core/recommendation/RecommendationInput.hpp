#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/models/GenrePreset.hpp"
#include "core/recommendation/HeadphoneTraits.hpp"

namespace tarn {

// Everything the rule engine weighs for one proposal. Per-band lists may be shorter than ten
// entries; missing entries count as 0.
struct RecommendationInput {
    std::vector<double> prominenceDb;
    bool prominenceConfident = false;
    HeadphoneTraits headphone;
    std::vector<double> userBiasDb;
    // A curve learnt for this song (song memory); when present it is the taste curve.
    std::optional<std::vector<double>> learnedWarmupCurveDb;
    std::string learnedWarmupProvenance;
    std::vector<double> currentGainsDb;
    // Bands the user locked. The engine proposes for every band; whoever applies the proposals
    // leaves these untouched.
    std::set<int> lockedBands;

    GenrePreset genre = GenrePreset::flat;
    std::optional<std::string> genreDisplayName;          // overrides displayName(genre)
    std::optional<std::vector<double>> genreTargetCurveDb; // overrides targetGainCurve(genre)
    double genreLeanWeight = 0.0;                          // 0 = no genre lean
};

} // namespace tarn
