#include "core/recommendation/HeadphoneTraits.hpp"

#include <cmath>
#include <vector>

#include "core/dsp/FrequencyResponse.hpp"
#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

HeadphoneTraits HeadphoneTraits::from(const HeadphoneProfile& profile, double sampleRate) {
    HeadphoneTraits traits;
    traits.profileName = profile.modelName;
    std::vector<BiquadCoefficients> cascade;
    cascade.reserve(profile.filters.size());
    for (const auto& filter : profile.filters) cascade.push_back(filter.coefficients(sampleRate));
    for (int band = 0; band < TenBandLayout::bandCount; ++band) {
        const double correctionDb =
            FrequencyResponse::magnitudeDb(cascade, TenBandLayout::centerFrequenciesHz[band], sampleRate);
        // 0.0 − x rather than −x: a flat band reads +0.0, never "-0.0" in a reason.
        traits.deviationDb[band] = std::isfinite(correctionDb) ? 0.0 - correctionDb : 0.0;
    }
    return traits;
}

} // namespace tarn
