#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/dsp/BiquadCoefficients.hpp"

namespace tarn {

// The one description of a parametric filter, shared by headphone profiles, imported
// parametric equalisers and the safety ceiling.
struct ParametricFilterSpec {
    enum class Shape { peaking, lowShelf, highShelf };

    Shape shape = Shape::peaking;
    double frequencyHz = 1000.0;
    double gainDb = 0.0;
    double q = 1.0;

    BiquadCoefficients coefficients(double sampleRate) const {
        return BiquadCoefficients(biquadKind(shape), sampleRate, frequencyHz, gainDb, q);
    }

    static BiquadKind biquadKind(Shape shape);

    bool operator==(const ParametricFilterSpec&) const = default;
};

// Raw values "peaking", "lowShelf", "highShelf"; matching is exact (case-sensitive).
std::string_view toString(ParametricFilterSpec::Shape shape);
std::optional<ParametricFilterSpec::Shape> parametricShapeFromString(std::string_view raw);

} // namespace tarn
