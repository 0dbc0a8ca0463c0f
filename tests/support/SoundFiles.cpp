#include "support/SoundFiles.hpp"

#include "support/Signals.hpp"

#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

namespace tarn::test {

SoundData sineWave(double frequencyHz, double amplitude, int sampleRate, int channelCount, std::size_t frameCount,
                   bool distinctChannels) {
    SoundData d{sampleRate, channelCount, std::vector<float>(frameCount * channelCount)};
    for (std::size_t i = 0; i < frameCount; ++i)
        for (int c = 0; c < channelCount; ++c) {
            const double f = distinctChannels ? frequencyHz * (c + 1) : frequencyHz;
            d.samples[i * channelCount + c] =
                static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * f * double(i) / sampleRate));
        }
    return d;
}

void writeSoundFile(const std::filesystem::path& path, const SoundData& data, int format) {
    SF_INFO info{};
    info.samplerate = data.sampleRate;
    info.channels = data.channelCount;
    info.format = format;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f) throw std::runtime_error("cannot write " + path.string() + ": " + sf_strerror(nullptr));
    const auto frames = static_cast<sf_count_t>(data.frameCount());
    const bool ok = sf_writef_float(f, data.samples.data(), frames) == frames;
    sf_close(f);
    if (!ok) throw std::runtime_error("short write to " + path.string());
}

SoundData readSoundFile(const std::filesystem::path& path, SF_INFO* infoOut) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) throw std::runtime_error("cannot read " + path.string() + ": " + sf_strerror(nullptr));
    SoundData d{info.samplerate, info.channels, std::vector<float>(static_cast<std::size_t>(info.frames) * info.channels)};
    const sf_count_t got = sf_readf_float(f, d.samples.data(), info.frames);
    sf_close(f);
    d.samples.resize(static_cast<std::size_t>(got) * info.channels);
    if (infoOut) *infoOut = info;
    return d;
}

double toneAmplitude(const SoundData& data, int channel, double frequencyHz, std::size_t first, std::size_t count) {
    return fittedAmplitude(data.samples, data.channelCount, channel, frequencyHz, data.sampleRate, long(first),
                           long(count));
}

} // namespace tarn::test
