#include "core/dsp/ParametricFilterSpec.hpp"

namespace tarn {

BiquadKind ParametricFilterSpec::biquadKind(Shape shape) {
    switch (shape) {
    case Shape::peaking: return BiquadKind::peaking;
    case Shape::lowShelf: return BiquadKind::lowShelf;
    case Shape::highShelf: return BiquadKind::highShelf;
    }
    return BiquadKind::peaking;
}

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
