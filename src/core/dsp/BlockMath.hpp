#pragma once

namespace tarn {

// Whole-block helpers of the route chain's real-time path, written as SIMD loops (dispatched
// to AVX2 where available) so per-sample bookkeeping costs a fraction of the filtering.
// Peaks count finite samples only: one stray infinity must not pin a meter for ever.
namespace BlockMath {

// Largest finite |x| per channel of an interleaved block; peaks must hold `channels` entries.
void channelPeaks(const float* samples, int frameCount, int channels, float* peaks);

// x ← (x · preGain) · postGain for every sample; returns the largest finite |x · preGain|.
float scaleAndPeak(float* samples, int count, float preGain, float postGain);

// Largest finite |x|.
float peak(const float* samples, int count);

// Replaces every NaN and infinity by 0; returns how many there were.
int silenceNonFinite(float* samples, int count);

} // namespace BlockMath

} // namespace tarn
