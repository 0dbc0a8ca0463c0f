#pragma once

#include <vector>

namespace tarn::test {

// Interleaved sine: every channel in `channels` carries the same sine; the others are silent.
std::vector<float> interleavedSine(double freqHz, double sampleRate, double amplitude, int frameCount,
                                   int channelCount, std::vector<int> channels = {}, long startFrame = 0);

// Amplitude of the component at freqHz in samples[first, first+count) of one channel of an
// interleaved buffer, by least-squares fit of a sine and a cosine at that frequency (plus DC).
// Independent of the product's own measuring functions.
double fittedAmplitude(const std::vector<float>& interleaved, int channelCount, int channel, double freqHz,
                       double sampleRate, long first, long count, long startFrame = 0);

// |H(f)| in dB of an RBJ cookbook peaking filter, from its textbook formula: the independent
// reference that band levels are checked against.
double peakingResponseDb(double f0, double gainDb, double q, double f, double rate);

double toDb(double linear);
double fromDb(double db);

} // namespace tarn::test
