#include "core/dsp/BiquadCoefficients.hpp"

#include <cmath>

namespace tarn {

BiquadCoefficients::BiquadCoefficients(BiquadKind kind, double sampleRate, double frequencyHz,
                                       double gainDb, double q) {
    constexpr double twoPi = 6.283185307179586;
    const double A = std::pow(10.0, gainDb / 40.0);
    const double w0 = twoPi * frequencyHz / sampleRate;
    const double c = std::cos(w0);
    const double s = std::sin(w0);
    const double alpha = s / (2.0 * q);

    double nb0 = 1, nb1 = 0, nb2 = 0, na0 = 1, na1 = 0, na2 = 0;
    switch (kind) {
    case BiquadKind::peaking:
        nb0 = 1 + alpha * A;
        nb1 = -2 * c;
        nb2 = 1 - alpha * A;
        na0 = 1 + alpha / A;
        na1 = -2 * c;
        na2 = 1 - alpha / A;
        break;
    case BiquadKind::lowShelf: {
        const double r = 2 * std::sqrt(A) * alpha;
        nb0 = A * ((A + 1) - (A - 1) * c + r);
        nb1 = 2 * A * ((A - 1) - (A + 1) * c);
        nb2 = A * ((A + 1) - (A - 1) * c - r);
        na0 = (A + 1) + (A - 1) * c + r;
        na1 = -2 * ((A - 1) + (A + 1) * c);
        na2 = (A + 1) + (A - 1) * c - r;
        break;
    }
    case BiquadKind::highShelf: {
        const double r = 2 * std::sqrt(A) * alpha;
        nb0 = A * ((A + 1) + (A - 1) * c + r);
        nb1 = -2 * A * ((A - 1) + (A + 1) * c);
        nb2 = A * ((A + 1) + (A - 1) * c - r);
        na0 = (A + 1) - (A - 1) * c + r;
        na1 = 2 * ((A - 1) - (A + 1) * c);
        na2 = (A + 1) - (A - 1) * c - r;
        break;
    }
    }
    b0 = nb0 / na0;
    b1 = nb1 / na0;
    b2 = nb2 / na0;
    a1 = na1 / na0;
    a2 = na2 / na0;
}

} // namespace tarn

namespace {
template <typename T> void hashCombine(std::size_t& seed, T v) {
    seed ^= std::hash<T>{}(v) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}
} // namespace

std::size_t std::hash<tarn::BiquadCoefficients>::operator()(const tarn::BiquadCoefficients& c) const noexcept {
    std::size_t h = 0;
    for (double v : {c.b0, c.b1, c.b2, c.a1, c.a2}) hashCombine(h, v);
    return h;
}

std::size_t std::hash<tarn::BiquadFloatCoefficients>::operator()(const tarn::BiquadFloatCoefficients& c) const noexcept {
    std::size_t h = 0;
    for (float v : {c.b0, c.b1, c.b2, c.a1, c.a2}) hashCombine(h, v);
    return h;
}
