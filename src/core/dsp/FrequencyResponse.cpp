#include "core/dsp/FrequencyResponse.hpp"

#include <cmath>
#include <complex>
#include <limits>

namespace tarn::FrequencyResponse {

namespace {
constexpr double twoPi = 6.283185307179586;

double magnitudeSquared(const BiquadCoefficients& c, double w) {
    const std::complex<double> z1 = std::polar(1.0, -w);
    const std::complex<double> z2 = std::polar(1.0, -2.0 * w);
    const std::complex<double> n = c.b0 + c.b1 * z1 + c.b2 * z2;
    const std::complex<double> d = 1.0 + c.a1 * z1 + c.a2 * z2;
    return std::norm(n) / std::norm(d);
}
} // namespace

double magnitude(const BiquadCoefficients& section, double hz, double sampleRate) {
    return std::sqrt(magnitudeSquared(section, twoPi * hz / sampleRate));
}

double magnitudeDb(const BiquadCoefficients& section, double hz, double sampleRate) {
    return 20.0 * std::log10(magnitude(section, hz, sampleRate));
}

double magnitudeDb(std::span<const BiquadCoefficients> cascade, double hz, double sampleRate) {
    double sum = 0.0;
    for (const auto& c : cascade) sum += magnitudeDb(c, hz, sampleRate);
    return sum;
}

double peakMagnitudeDb(std::span<const BiquadCoefficients> cascade, double sampleRate, std::span<const double> frequencies) {
    double peak = -std::numeric_limits<double>::infinity();
    for (double f : frequencies) {
        const double m = magnitudeDb(cascade, f, sampleRate);
        if (m > peak) peak = m;
    }
    return peak;
}

std::vector<double> logSpacedFrequencies(double from, double to, int count) {
    if (count < 2) return {from};
    std::vector<double> fs(count);
    const double l1 = std::log10(from), l2 = std::log10(to);
    for (int i = 0; i < count; ++i) fs[i] = std::pow(10.0, l1 + i * (l2 - l1) / (count - 1));
    return fs;
}

double measureAmplitude(double freqHz, double sampleRate, double warmupSeconds,
                        const std::function<double(double)>& process) {
    const double w = twoPi * freqHz / sampleRate;
    const long warmup = std::lround(std::max(0.0, warmupSeconds) * sampleRate);
    const long measured = std::max(std::lround(0.25 * sampleRate), std::lround(20.0 * sampleRate / freqHz));
    long n = 0;
    for (; n < warmup; ++n) process(measurementAmplitude * std::sin(w * double(n)));
    double re = 0.0, im = 0.0, windowSum = 0.0;
    for (long i = 0; i < measured; ++i, ++n) {
        const double y = process(measurementAmplitude * std::sin(w * double(n)));
        const double hann = 0.5 - 0.5 * std::cos(twoPi * double(i) / double(measured));
        re += hann * y * std::cos(w * double(n));
        im += hann * y * std::sin(w * double(n));
        windowSum += hann;
    }
    return 2.0 * std::hypot(re, im) / windowSum;
}

double measureGainDb(double freqHz, double sampleRate, double warmupSeconds,
                     const std::function<double(double)>& process) {
    return 20.0 * std::log10(measureAmplitude(freqHz, sampleRate, warmupSeconds, process) / measurementAmplitude);
}

} // namespace tarn::FrequencyResponse
