#include "core/dsp/CorrectionAwareQ.hpp"

#include <cstdlib>

namespace tarn::CorrectionAwareQ {

double effectiveQ(int bandIdx, double baselineQ, GenrePreset genre, bool hasCorrection) {
    const GenreBandVector& qs = tarn::qVector(genre);
    if (bandIdx < 0 || bandIdx >= int(qs.size())) std::abort();
    const double s = hasCorrection ? blendStrengthWithCorrection : blendStrengthNoCorrection;
    return qs[bandIdx] * s + baselineQ * (1.0 - s);
}

std::vector<double> qVector(GenrePreset genre, const HeadphoneProfile* correctionProfile, double baselineQ) {
    const GenreBandVector& qs = tarn::qVector(genre);
    std::vector<double> result;
    result.reserve(qs.size());
    for (int i = 0; i < int(qs.size()); ++i)
        result.push_back(effectiveQ(i, baselineQ, genre, correctionProfile != nullptr));
    return result;
}

} // namespace tarn::CorrectionAwareQ
