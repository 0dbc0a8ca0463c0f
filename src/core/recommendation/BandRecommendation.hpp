#pragma once

#include <string>
#include <vector>

namespace tarn {

// One proposed band gain and the reasons behind it, in the order the rules fired.
struct BandRecommendation {
    int bandIndex = 0;
    double gainDb = 0.0;
    std::vector<std::string> rationale;

    bool operator==(const BandRecommendation&) const = default;
};

} // namespace tarn
