#pragma once

// Test audio written and read with libsndfile directly, independent of the project's own
// decoder and writer, so that those can be checked against it.

#include <filesystem>
#include <vector>

#include <sndfile.h>

namespace tarn::test {

struct SoundData {
    int sampleRate = 48000;
    int channelCount = 2;
    std::vector<float> samples;   // interleaved

    std::size_t frameCount() const { return channelCount ? samples.size() / channelCount : 0; }
    float at(std::size_t frame, int channel) const { return samples[frame * channelCount + channel]; }
};

// Channel c carries amplitude * sin(2π f_c t) with f_c = frequencyHz * (c + 1) when
// `distinctChannels`, else the same tone on every channel.
SoundData sineWave(double frequencyHz, double amplitude, int sampleRate, int channelCount, std::size_t frameCount,
                   bool distinctChannels = false);

// format: a libsndfile format such as SF_FORMAT_WAV | SF_FORMAT_PCM_16. Throws on failure.
void writeSoundFile(const std::filesystem::path& path, const SoundData& data,
                    int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT);
SoundData readSoundFile(const std::filesystem::path& path, SF_INFO* infoOut = nullptr);

// Amplitude of the tone at frequencyHz in one channel over frames [first, first + count).
double toneAmplitude(const SoundData& data, int channel, double frequencyHz, std::size_t first, std::size_t count);

} // namespace tarn::test
