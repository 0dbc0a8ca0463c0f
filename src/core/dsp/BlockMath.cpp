#include "core/dsp/BlockMath.hpp"

#include "core/dsp/CpuDispatch.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

// The vector helpers below are always inlined into their dispatched callers, so the
// 32-byte vector argument ABI note does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace tarn::BlockMath {

namespace {
typedef float Vec __attribute__((vector_size(32)));
typedef int IVec __attribute__((vector_size(32)));
constexpr int width = 8;
constexpr float largestFinite = std::numeric_limits<float>::max();

inline __attribute__((always_inline)) Vec loadVec(const float* p) {
    Vec v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}
inline __attribute__((always_inline)) void storeVec(float* p, Vec v) { __builtin_memcpy(p, &v, sizeof v); }
inline __attribute__((always_inline)) Vec finiteAbs(Vec v) {
    const IVec bits = (IVec)v & 0x7fffffff;
    const Vec m = (Vec)bits;
    return m <= largestFinite ? m : Vec{};
}
inline __attribute__((always_inline)) Vec vmax(Vec a, Vec b) { return a > b ? a : b; }
inline float finiteAbs(float v) {
    const float m = std::fabs(v);
    return m <= largestFinite ? m : 0.0f;
}
} // namespace

namespace {
inline __attribute__((always_inline)) void channelPeaksBody(const float* samples, int frameCount, int channels, float* peaks) {
    std::fill(peaks, peaks + channels, 0.0f);
    const int n = frameCount * channels;
    int i = 0;
    if (width % channels == 0) {
        // Lane k of every vector holds channel k mod channels.
        Vec acc{};
        for (; i + width <= n; i += width) acc = vmax(acc, finiteAbs(loadVec(samples + i)));
        for (int k = 0; k < width; ++k) peaks[k % channels] = std::max(peaks[k % channels], acc[k]);
    }
    for (; i < n; ++i) peaks[i % channels] = std::max(peaks[i % channels], finiteAbs(samples[i]));
}

inline __attribute__((always_inline)) float scaleAndPeakBody(float* samples, int count, float preGain, float postGain) {
    Vec acc{};
    int i = 0;
    for (; i + width <= count; i += width) {
        const Vec v = loadVec(samples + i) * preGain;
        acc = vmax(acc, finiteAbs(v));
        storeVec(samples + i, v * postGain);
    }
    float result = 0.0f;
    for (int k = 0; k < width; ++k) result = std::max(result, acc[k]);
    for (; i < count; ++i) {
        const float v = samples[i] * preGain;
        result = std::max(result, finiteAbs(v));
        samples[i] = v * postGain;
    }
    return result;
}

inline __attribute__((always_inline)) float peakBody(const float* samples, int count) {
    Vec acc{};
    int i = 0;
    for (; i + width <= count; i += width) acc = vmax(acc, finiteAbs(loadVec(samples + i)));
    float result = 0.0f;
    for (int k = 0; k < width; ++k) result = std::max(result, acc[k]);
    for (; i < count; ++i) result = std::max(result, finiteAbs(samples[i]));
    return result;
}

// A clean block (the usual case) is only read; the rare faulty one is then cleaned in a second pass.
inline __attribute__((always_inline)) int silenceNonFiniteBody(float* samples, int count) {
    IVec bad{};
    int i = 0;
    for (; i + width <= count; i += width) bad -= ((IVec)loadVec(samples + i) & 0x7fffffff) > 0x7f7fffff;
    int found = 0;
    for (int k = 0; k < width; ++k) found += bad[k];
    for (; i < count; ++i) found += !std::isfinite(samples[i]);
    if (found == 0) return 0;
    for (i = 0; i < count; ++i)
        if (!std::isfinite(samples[i])) samples[i] = 0.0f;
    return found;
}

void channelPeaksPortable(const float* s, int f, int c, float* p) { channelPeaksBody(s, f, c, p); }
TARN_TARGET_AVX2 void channelPeaksAvx2(const float* s, int f, int c, float* p) { channelPeaksBody(s, f, c, p); }
float scaleAndPeakPortable(float* s, int n, float a, float b) { return scaleAndPeakBody(s, n, a, b); }
TARN_TARGET_AVX2 float scaleAndPeakAvx2(float* s, int n, float a, float b) { return scaleAndPeakBody(s, n, a, b); }
float peakPortable(const float* s, int n) { return peakBody(s, n); }
TARN_TARGET_AVX2 float peakAvx2(const float* s, int n) { return peakBody(s, n); }
int silenceNonFinitePortable(float* s, int n) { return silenceNonFiniteBody(s, n); }
TARN_TARGET_AVX2 int silenceNonFiniteAvx2(float* s, int n) { return silenceNonFiniteBody(s, n); }
} // namespace

void channelPeaks(const float* samples, int frameCount, int channels, float* peaks) {
    if (CpuDispatch::hasAvx2()) channelPeaksAvx2(samples, frameCount, channels, peaks);
    else channelPeaksPortable(samples, frameCount, channels, peaks);
}

float scaleAndPeak(float* samples, int count, float preGain, float postGain) {
    return CpuDispatch::hasAvx2() ? scaleAndPeakAvx2(samples, count, preGain, postGain)
                                  : scaleAndPeakPortable(samples, count, preGain, postGain);
}

float peak(const float* samples, int count) {
    return CpuDispatch::hasAvx2() ? peakAvx2(samples, count) : peakPortable(samples, count);
}

int silenceNonFinite(float* samples, int count) {
    return CpuDispatch::hasAvx2() ? silenceNonFiniteAvx2(samples, count) : silenceNonFinitePortable(samples, count);
}

} // namespace tarn::BlockMath
