#include "core/recommendation/HeadphoneTraits.hpp"

#include <cmath>
#include <complex>

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

namespace {

// Exact magnitude of one biquad section at `frequencyHz`, in dB.
double sectionMagnitudeDb(const BiquadCoefficients& c, double frequencyHz, double sampleRate) {
    const double w = 2.0 * M_PI * frequencyHz / sampleRate;
    const std::complex<double> z1 = std::polar(1.0, -w);
    const std::complex<double> z2 = z1 * z1;
    const auto num = c.b0 + c.b1 * z1 + c.b2 * z2;
    const auto den = 1.0 + c.a1 * z1 + c.a2 * z2;
    return 20.0 * std::log10(std::abs(num) / std::abs(den));
}

} // namespace

HeadphoneTraits HeadphoneTraits::from(const HeadphoneProfile& profile, double sampleRate) {
    HeadphoneTraits traits;
    traits.profileName = profile.modelName;
    for (int band = 0; band < TenBandLayout::bandCount; ++band) {
        const double fc = TenBandLayout::centerFrequenciesHz[band];
        double correctionDb = 0.0;
        for (const auto& filter : profile.filters)
            correctionDb += sectionMagnitudeDb(filter.coefficients(sampleRate), fc, sampleRate);
        traits.deviationDb[band] = std::isfinite(correctionDb) ? -correctionDb : 0.0;
    }
    return traits;
}

} // namespace tarn
