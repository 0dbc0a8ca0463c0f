#pragma once

#include <cstddef>
#include <functional>

namespace tarn {

// The three second-order section shapes every equaliser of a route is built from.
enum class BiquadKind { peaking, lowShelf, highShelf };

// Five normalised coefficients (a0 divided out) in double precision.
struct BiquadCoefficients {
    double b0 = 1.0;
    double b1 = 0.0;
    double b2 = 0.0;
    double a1 = 0.0;
    double a2 = 0.0;

    BiquadCoefficients() = default;
    BiquadCoefficients(double b0_, double b1_, double b2_, double a1_, double a2_)
        : b0(b0_), b1(b1_), b2(b2_), a1(a1_), a2(a2_) {}

    // Audio-cookbook design with the Q form of bandwidth. No argument is clamped: callers clamp.
    BiquadCoefficients(BiquadKind kind, double sampleRate, double frequencyHz, double gainDb, double q);

    static BiquadCoefficients identity() { return {}; }

    bool operator==(const BiquadCoefficients&) const = default;
};

// The same five coefficients narrowed to single precision, as the real-time path runs them.
struct BiquadFloatCoefficients {
    float b0 = 1.0f;
    float b1 = 0.0f;
    float b2 = 0.0f;
    float a1 = 0.0f;
    float a2 = 0.0f;

    BiquadFloatCoefficients() = default;
    BiquadFloatCoefficients(float b0_, float b1_, float b2_, float a1_, float a2_)
        : b0(b0_), b1(b1_), b2(b2_), a1(a1_), a2(a2_) {}
    explicit BiquadFloatCoefficients(const BiquadCoefficients& c)
        : b0(float(c.b0)), b1(float(c.b1)), b2(float(c.b2)), a1(float(c.a1)), a2(float(c.a2)) {}

    bool operator==(const BiquadFloatCoefficients&) const = default;
};

} // namespace tarn

template <> struct std::hash<tarn::BiquadCoefficients> {
    std::size_t operator()(const tarn::BiquadCoefficients& c) const noexcept;
};
template <> struct std::hash<tarn::BiquadFloatCoefficients> {
    std::size_t operator()(const tarn::BiquadFloatCoefficients& c) const noexcept;
};
