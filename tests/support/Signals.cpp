#include "support/Signals.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace tarn::test {

namespace {
constexpr double twoPi = 6.283185307179586;
}

std::vector<float> interleavedSine(double freqHz, double sampleRate, double amplitude, int frameCount,
                                   int channelCount, std::vector<int> channels, long startFrame) {
    if (channels.empty())
        for (int c = 0; c < channelCount; ++c) channels.push_back(c);
    std::vector<float> out(std::size_t(frameCount) * channelCount, 0.0f);
    for (int f = 0; f < frameCount; ++f) {
        const float v = float(amplitude * std::sin(twoPi * freqHz * double(f + startFrame) / sampleRate));
        for (int c : channels) out[std::size_t(f) * channelCount + c] = v;
    }
    return out;
}

double fittedAmplitude(const std::vector<float>& x, int channelCount, int channel, double freqHz, double sampleRate,
                       long first, long count, long startFrame) {
    // Normal equations for y ≈ s·sin + c·cos + d.
    double m[3][4] = {};
    for (long i = first; i < first + count; ++i) {
        const double t = twoPi * freqHz * double(i + startFrame) / sampleRate;
        const double basis[3] = {std::sin(t), std::cos(t), 1.0};
        const double y = x[std::size_t(i) * channelCount + channel];
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) m[r][c] += basis[r] * basis[c];
            m[r][3] += basis[r] * y;
        }
    }
    for (int p = 0; p < 3; ++p) {
        int best = p;
        for (int r = p + 1; r < 3; ++r)
            if (std::abs(m[r][p]) > std::abs(m[best][p])) best = r;
        std::swap(m[p], m[best]);
        for (int r = 0; r < 3; ++r) {
            if (r == p) continue;
            const double k = m[r][p] / m[p][p];
            for (int c = p; c < 4; ++c) m[r][c] -= k * m[p][c];
        }
    }
    const double s = m[0][3] / m[0][0], c = m[1][3] / m[1][1];
    return std::hypot(s, c);
}

double toDb(double linear) { return 20.0 * std::log10(linear); }
double fromDb(double db) { return std::pow(10.0, db / 20.0); }

double peakingResponseDb(double f0, double gainDb, double q, double f, double rate) {
    const double a = std::pow(10.0, gainDb / 40.0);
    const double w0 = 2 * std::numbers::pi * f0 / rate;
    const double alpha = std::sin(w0) / (2 * q);
    const double b0 = 1 + alpha * a, b1 = -2 * std::cos(w0), b2 = 1 - alpha * a;
    const double a0 = 1 + alpha / a, a1 = -2 * std::cos(w0), a2 = 1 - alpha / a;
    const std::complex<double> z = std::polar(1.0, -2 * std::numbers::pi * f / rate);
    const auto h = (b0 + b1 * z + b2 * z * z) / (a0 + a1 * z + a2 * z * z);
    return 20 * std::log10(std::abs(h));
}

} // namespace tarn::test
