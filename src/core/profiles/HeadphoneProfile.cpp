#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

std::string_view toString(HeadphoneWearStyle style) {
    switch (style) {
    case HeadphoneWearStyle::inEar: return "in-ear";
    case HeadphoneWearStyle::overEar: return "over-ear";
    case HeadphoneWearStyle::onEar: return "on-ear";
    case HeadphoneWearStyle::earbud: return "earbud";
    }
    return "over-ear";
}

std::optional<HeadphoneWearStyle> headphoneWearStyleFromString(std::string_view raw) {
    if (raw == "in-ear") return HeadphoneWearStyle::inEar;
    if (raw == "over-ear") return HeadphoneWearStyle::overEar;
    if (raw == "on-ear") return HeadphoneWearStyle::onEar;
    if (raw == "earbud") return HeadphoneWearStyle::earbud;
    return std::nullopt;
}

std::string_view toString(HeadphoneProfile::ProfileType type) {
    return type == HeadphoneProfile::ProfileType::fixedBand ? "fixedBand" : "parametric";
}

std::optional<HeadphoneProfile::ProfileType> profileTypeFromString(std::string_view raw) {
    if (raw == "fixedBand") return HeadphoneProfile::ProfileType::fixedBand;
    if (raw == "parametric") return HeadphoneProfile::ProfileType::parametric;
    return std::nullopt;
}

} // namespace tarn
