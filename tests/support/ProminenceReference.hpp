#pragma once

// Closed-form references for band prominence tests, independent of the analyser's FFT.
//
// A "multisine" is a sum of cosines placed exactly on the DFT bins of a 4096-sample window
// (x[n] = Σ a_k cos(2πkn/N + φ_k)), repeated period after period. Every analysis window aligned
// to a period sees exactly one period, whose Hann-windowed spectrum is known in closed form:
//   X[k] = N/2 · a_k · e^{jφ_k},   Xw[m] = s · (X[m] − X[m−1]/2 − X[m+1]/2),   s = √(2/3).
// Band powers, the median reference and prominences follow from those by the band edges
// (centre/√2 … centre·√2, never the DC bin, never above 0.49 × the sample rate).

#include <array>
#include <utility>
#include <vector>

namespace tarn::test {

inline constexpr int prominenceWindow = 4096;

struct Multisine {
    std::vector<double> amplitude = std::vector<double>(prominenceWindow / 2, 0.0); // a_k (a_0 unused)
    std::vector<double> phase = std::vector<double>(prominenceWindow / 2, 0.0);

    std::vector<float> period() const;        // one period, 4096 samples
    std::vector<double> windowedPower() const; // |Xw[m]|², m = 0 … 2047
};

// Pink (equal power per octave: a_k² ∝ 1/k) with seeded random phases and `boostDb` added to
// the bins of one band (none when boostedBand < 0).
Multisine pinkMultisine(double sampleRate, int boostedBand = -1, double boostDb = 0, unsigned seed = 7,
                        double level = 0.02);

// Band powers from bin powers; NaN for an unusable band.
std::array<double, 10> bandPowers(const std::vector<double>& binPower, double sampleRate);
// Levels against the median of the levels above −110 dB; 0 for a band at or below it.
std::array<double, 10> expectedProminence(const std::array<double, 10>& powers);

} // namespace tarn::test
