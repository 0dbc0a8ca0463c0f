#pragma once

#include <functional>
#include <span>
#include <vector>

#include "core/dsp/BiquadCoefficients.hpp"

namespace tarn {

// Closed-form responses of designed sections, and two measuring functions that drive a sine
// through any sample-processing function (diagnostics).
namespace FrequencyResponse {

// Linear magnitude |H(e^jw)| of one section.
double magnitude(const BiquadCoefficients& section, double hz, double sampleRate);
double magnitudeDb(const BiquadCoefficients& section, double hz, double sampleRate);
// Sum of the sections' dB responses; 0 for an empty cascade.
double magnitudeDb(std::span<const BiquadCoefficients> cascade, double hz, double sampleRate);
// Largest cascade response over the list (first of equal maxima); -infinity for no frequencies.
double peakMagnitudeDb(std::span<const BiquadCoefficients> cascade, double sampleRate,
                       std::span<const double> frequencies);
std::vector<double> logSpacedFrequencies(double from, double to, int count);

// The sine fed by the measuring functions: −20 dBFS, well below the limiter knee even after
// +12 dB of boost and the route's make-up gain.
inline constexpr double measurementAmplitude = 0.1;

// Feeds `warmupSeconds` of sine (discarded), then measures the output over at least 0.25 s
// and 20 periods with a Hann-windowed quadrature (lock-in) estimate at the drive frequency,
// which ignores DC, noise and harmonics. Returns the output amplitude (linear).
double measureAmplitude(double freqHz, double sampleRate, double warmupSeconds,
                        const std::function<double(double)>& process);
// The same measurement as gain relative to the input sine, in dB.
double measureGainDb(double freqHz, double sampleRate, double warmupSeconds,
                     const std::function<double(double)>& process);

} // namespace FrequencyResponse

} // namespace tarn
