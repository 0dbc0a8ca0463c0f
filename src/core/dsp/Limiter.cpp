#include "core/dsp/Limiter.hpp"

#include "core/dsp/CpuDispatch.hpp"

#include <algorithm>
#include <cmath>

// The vector helpers below are always inlined into their dispatched callers, so the
// 32-byte vector argument ABI note does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

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

namespace {
typedef float Vec __attribute__((vector_size(32)));
typedef int IVec __attribute__((vector_size(32)));

// The peaks below are taken over magnitudes that are never NaN, so std::max does; std::fmax would
// be a library call per lane.

// The peak of a block that lies wholly at or below the knee (and holds no NaN), where the limiter
// changes nothing; a negative result when some sample needs the limiter.
inline __attribute__((always_inline)) float peakBelowKnee(const float* samples, int count) {
    constexpr int width = 8;
    Vec peak{};
    IVec outside{};
    int i = 0;
    for (; i + width <= count; i += width) {
        Vec x;
        __builtin_memcpy(&x, samples + i, sizeof x);
        const Vec m = (Vec)((IVec)x & 0x7fffffff);
        outside |= !(m <= 0.83f); // NaN compares false
        peak = m > peak ? m : peak;
    }
    float result = 0.0f;
    for (int k = 0; k < width; ++k) {
        if (outside[k]) return -1.0f;
        result = std::max(result, peak[k]);
    }
    for (; i < count; ++i) {
        const float m = std::fabs(samples[i]);
        if (!(m <= 0.83f)) return -1.0f;
        result = std::max(result, m);
    }
    return result;
}

// Lane by lane exactly Limiter::saturate, plus the NaN rule; returns the output peak. Most blocks
// of music stay below the knee: one read-only pass finds that, and the rational curve is left out.
inline __attribute__((always_inline)) float limitBlockBody(float* samples, int count, bool& anyOverKnee) {
    if (const float quiet = peakBelowKnee(samples, count); quiet >= 0.0f) {
        anyOverKnee = false;
        return quiet;
    }
    constexpr int width = 8;
    Vec peak{};
    IVec over{};
    int i = 0;
    for (; i + width <= count; i += width) {
        Vec x;
        __builtin_memcpy(&x, samples + i, sizeof x);
        const Vec m = (Vec)((IVec)x & 0x7fffffff);
        const IVec isOver = m > 0.83f;
        const Vec u = (m - 0.83f) * 6.6666665f;
        const Vec u2 = u * u;
        const Vec t = u * (135135.0f + u2 * (17325.0f + u2 * (378.0f + u2))) /
                      (135135.0f + u2 * (62370.0f + u2 * (3150.0f + 28.0f * u2)));
        const Vec knee = 0.83f + 0.15f * t;
        Vec magnitude = knee < 0.98f ? knee : Vec{} + 0.98f;
        magnitude = u >= 4.971787f ? Vec{} + 0.98f : magnitude;
        Vec y = isOver ? (x >= 0.0f ? magnitude : -magnitude) : x;
        y = x == x ? y : Vec{};   // NaN
        const Vec ay = (Vec)((IVec)y & 0x7fffffff);
        peak = ay > peak ? ay : peak;
        over |= isOver;
        __builtin_memcpy(samples + i, &y, sizeof y);
    }
    float result = 0.0f;
    bool anyOver = false;
    for (int k = 0; k < width; ++k) {
        result = std::max(result, peak[k]);
        anyOver |= over[k] != 0;
    }
    for (; i < count; ++i) {
        const float x = samples[i];
        const bool isOver = std::fabs(x) > 0.83f;
        const float y = std::isnan(x) ? 0.0f : Limiter::saturate(x);
        anyOver |= isOver;
        result = std::max(result, std::fabs(y));
        samples[i] = y;
    }
    anyOverKnee = anyOver;
    return result;
}

float limitBlockPortable(float* samples, int count, bool& any) { return limitBlockBody(samples, count, any); }
TARN_TARGET_AVX2 float limitBlockAvx2(float* samples, int count, bool& any) { return limitBlockBody(samples, count, any); }
} // namespace

float Limiter::processBlock(float* samples, int sampleCount) {
    bool any = false;
    const float peak = CpuDispatch::hasAvx2() ? limitBlockAvx2(samples, sampleCount, any)
                                              : limitBlockPortable(samples, sampleCount, any);
    clipping_.store(any);
    return peak;
}

} // namespace tarn
