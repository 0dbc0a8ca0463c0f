#include "core/dsp/Limiter.hpp"

#include <cmath>

namespace tarn {

namespace {
template <typename T> T softClip(T x, bool& overKnee) {
    const T m = std::abs(x);
    overKnee = !(m <= T(Limiter::kneeStart));
    if (!overKnee) return x;
    const T magnitude = T(Limiter::kneeStart) + T(0.15) * std::tanh((m - T(Limiter::kneeStart)) * T(Limiter::scale));
    return x >= T(0) ? magnitude : -magnitude;
}
} // namespace

double Limiter::process(double x) {
    bool over;
    const double y = softClip(x, over);
    clipping_.store(over);
    return y;
}

float Limiter::process(float x) {
    bool over;
    const float y = softClip(x, over);
    clipping_.store(over);
    return y;
}

std::pair<double, double> Limiter::processStereo(double left, double right) {
    bool overL, overR;
    const double l = softClip(left, overL);
    const double r = softClip(right, overR);
    clipping_.store(overL || overR);
    return {l, r};
}

float Limiter::saturate(float x) {
    const float m = std::fabs(x);
    if (m <= 0.83f) return x;
    const float u = (m - 0.83f) * 6.6666665f;
    float magnitude;
    if (u >= 4.971787f) {
        magnitude = 0.98f;
    } else {
        const float u2 = u * u;
        const float t = u * (135135.0f + u2 * (17325.0f + u2 * (378.0f + u2))) /
                        (135135.0f + u2 * (62370.0f + u2 * (3150.0f + 28.0f * u2)));
        magnitude = std::fmin(0.83f + 0.15f * t, 0.98f);
    }
    return x >= 0.0f ? magnitude : -magnitude;
}

void Limiter::processBlock(float* samples, int sampleCount) {
    bool any = false;
    for (int i = 0; i < sampleCount; ++i) {
        const float x = samples[i];
        if (!(std::fabs(x) <= 0.83f)) {
            any = true;
            samples[i] = saturate(x);
        }
    }
    clipping_.store(any);
}

} // namespace tarn
