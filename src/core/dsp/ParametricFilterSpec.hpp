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

    // The largest boost or cut a filter or a preamp may carry. Real corrections stay within
    // ±20 dB; anything past this is a typo or a damaged file, and would only drive the limiter.
    static constexpr double maxAbsGainDb = 30.0;
    // Why these values cannot make a usable filter ("frequency 0 Hz is not above 0 Hz"), or
    // none. Values that are not finite, a frequency or Q not above 0, a gain beyond the limit.
    std::optional<std::string> valueProblem() const;
    // The same for a preamp in dB.
    static std::optional<std::string> preampProblem(double preampDb);
    // The same for any other gain in dB, named `what` in the message ("band gain").
    static std::optional<std::string> gainProblem(std::string_view what, double db);

    bool operator==(const ParametricFilterSpec&) const = default;
};

// Raw values "peaking", "lowShelf", "highShelf"; matching is exact (case-sensitive).
std::string_view toString(ParametricFilterSpec::Shape shape);
std::optional<ParametricFilterSpec::Shape> parametricShapeFromString(std::string_view raw);

} // namespace tarn
