#pragma once

#include <cmath>
#include <complex>

#include "core/dsp/BiquadCoefficients.hpp"

namespace tarn::test {

// The cookbook sections are bilinear transforms of analog prototypes with the frequency
// prewarped at the centre, so the digital magnitude at f equals the prototype's at
// Ω = tan(πf/fs) / tan(πf0/fs). Evaluating the prototype is an independent way to the response.
inline double prototypeMagnitudeDb(BiquadKind kind, double fs, double f0, double gainDb, double q, double f) {
    const double A = std::pow(10.0, gainDb / 40.0);
    const double pi = 3.141592653589793;
    const std::complex<double> s(0.0, std::tan(pi * f / fs) / std::tan(pi * f0 / fs));
    std::complex<double> h;
    switch (kind) {
    case BiquadKind::peaking: h = (s * s + s * (A / q) + 1.0) / (s * s + s / (A * q) + 1.0); break;
    case BiquadKind::lowShelf:
        h = A * (s * s + (std::sqrt(A) / q) * s + A) / (A * s * s + (std::sqrt(A) / q) * s + 1.0);
        break;
    case BiquadKind::highShelf:
        h = A * (A * s * s + (std::sqrt(A) / q) * s + 1.0) / (s * s + (std::sqrt(A) / q) * s + A);
        break;
    }
    return 20.0 * std::log10(std::abs(h));
}

} // namespace tarn::test
