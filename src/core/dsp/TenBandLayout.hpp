#pragma once

#include <array>

namespace tarn {

// The fixed octave layout every per-band vector of the system follows (index 0 = 31 Hz).
namespace TenBandLayout {
inline constexpr int bandCount = 10;
inline constexpr std::array<double, bandCount> centerFrequenciesHz = {31, 62, 125, 250, 500, 1000, 2000, 4000, 8000, 16000};
inline constexpr double defaultQ = 1.4142135623730951;
inline constexpr double octaveCleanQ = 1.4142135623730951;
inline constexpr double minGainDb = -12.0;
inline constexpr double maxGainDb = 12.0;
} // namespace TenBandLayout

} // namespace tarn
