#include "core/dsp/ParametricFilterSpec.hpp"

#include <cmath>

#include <fmt/format.h>

namespace tarn {

BiquadKind ParametricFilterSpec::biquadKind(Shape shape) {
    switch (shape) {
    case Shape::peaking: return BiquadKind::peaking;
    case Shape::lowShelf: return BiquadKind::lowShelf;
    case Shape::highShelf: return BiquadKind::highShelf;
    }
    return BiquadKind::peaking;
}

std::optional<std::string> ParametricFilterSpec::valueProblem() const {
    if (!std::isfinite(frequencyHz)) return fmt::format("frequency {} Hz is not a finite number", frequencyHz);
    if (!(frequencyHz > 0)) return fmt::format("frequency {} Hz is not above 0 Hz", frequencyHz);
    if (!std::isfinite(q)) return fmt::format("Q {} is not a finite number", q);
    if (!(q > 0)) return fmt::format("Q {} is not above 0", q);
    return gainProblem("gain", gainDb);
}

std::optional<std::string> ParametricFilterSpec::gainProblem(std::string_view what, double db) {
    if (!std::isfinite(db)) return fmt::format("{} {} dB is not a finite number", what, db);
    if (std::abs(db) > maxAbsGainDb) return fmt::format("{} {} dB is beyond ±{} dB", what, db, maxAbsGainDb);
    return std::nullopt;
}

std::optional<std::string> ParametricFilterSpec::preampProblem(double preampDb) { return gainProblem("preamp", preampDb); }

std::string_view toString(ParametricFilterSpec::Shape shape) {
    switch (shape) {
    case ParametricFilterSpec::Shape::peaking: return "peaking";
    case ParametricFilterSpec::Shape::lowShelf: return "lowShelf";
    case ParametricFilterSpec::Shape::highShelf: return "highShelf";
    }
    return "peaking";
}

std::optional<ParametricFilterSpec::Shape> parametricShapeFromString(std::string_view raw) {
    if (raw == "peaking") return ParametricFilterSpec::Shape::peaking;
    if (raw == "lowShelf") return ParametricFilterSpec::Shape::lowShelf;
    if (raw == "highShelf") return ParametricFilterSpec::Shape::highShelf;
    return std::nullopt;
}

} // namespace tarn
