#pragma once

namespace tarn {

// One band of the ten-band equaliser as the user set it.
struct EQBandState {
    int id = 0;              // band index 0..9
    double frequencyHz = 0;
    double gainDb = 0;
    double q = 0;

    bool operator==(const EQBandState&) const = default;
};

} // namespace tarn
