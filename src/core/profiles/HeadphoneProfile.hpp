#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/models/Date.hpp"

namespace tarn {

enum class HeadphoneWearStyle { inEar, overEar, onEar, earbud };

// Raw values "in-ear", "over-ear", "on-ear", "earbud".
std::string_view toString(HeadphoneWearStyle style);
std::optional<HeadphoneWearStyle> headphoneWearStyleFromString(std::string_view raw);

// One measured headphone's correction: the preamp and filters that flatten it, and where the
// measurement came from.
struct HeadphoneProfile {
    enum class ProfileType { fixedBand, parametric };

    std::string id;
    std::string modelName;
    std::string sourceProject;
    std::optional<std::string> measurementProvider;
    ProfileType type = ProfileType::parametric;
    double preampDb = 0.0;
    std::vector<ParametricFilterSpec> filters;
    std::optional<std::string> sourceURL;
    std::optional<Date> downloadTimestamp;
    std::optional<HeadphoneWearStyle> wearStyle;
    bool isFeatured = false;

    bool operator==(const HeadphoneProfile&) const = default;
};

// Raw values "fixedBand", "parametric".
std::string_view toString(HeadphoneProfile::ProfileType type);
std::optional<HeadphoneProfile::ProfileType> profileTypeFromString(std::string_view raw);

} // namespace tarn
