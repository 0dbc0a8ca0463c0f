#pragma once

#include <array>
#include <string>

#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

// What the rule engine knows of the listener's headphone: how many dB it over- (+) or
// under- (−) delivers each of the ten bands.
struct HeadphoneTraits {
    std::array<double, 10> deviationDb{};
    std::string profileName;

    static HeadphoneTraits neutral() { return {}; }

    // The deviation at each band centre is the correction's response there with its sign turned:
    // a correction that cuts 3 dB at 8 kHz means the headphone over-delivers +3 dB at 8 kHz.
    // Only the filters count; the preamp is a broadband headroom shift, not a tonal trait.
    static HeadphoneTraits from(const HeadphoneProfile& profile, double sampleRate);

    bool operator==(const HeadphoneTraits&) const = default;
};

} // namespace tarn
