#include <cmath>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "player/AudioFileDecoder.hpp"
#include "support/ProcessRunner.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using test::SoundData;

// Decodes the whole file with reads of `block` frames.
SoundData decodeAll(const std::filesystem::path& path, int block = 1000) {
    AudioFileDecoder decoder(path);
    SoundData d{decoder.sampleRate(), decoder.channelCount(), {}};
    std::vector<float> buffer(static_cast<std::size_t>(block) * decoder.channelCount());
    for (int n; (n = decoder.read(buffer.data(), block)) > 0;)
        d.samples.insert(d.samples.end(), buffer.begin(), buffer.begin() + n * decoder.channelCount());
    EXPECT_EQ(decoder.read(buffer.data(), block), 0) << "reads after the end return nothing";
    return d;
}

std::string errorOf(const std::filesystem::path& path) {
    try {
        AudioFileDecoder decoder(path);
        std::vector<float> buffer(4096 * AudioFileDecoder::maxChannelCount);
        while (decoder.read(buffer.data(), 4096) > 0) {}
    } catch (const AudioFileDecoder::Error& e) {
        return e.what();
    }
    return "";
}

class AudioFileDecoderTest : public ::testing::Test {
protected:
    test::TemporaryDirectory dir;
};

TEST_F(AudioFileDecoderTest, FloatWavComesBackSampleExactWhateverTheBlockSize) {
    const auto input = test::sineWave(441, 0.8, 44100, 3, 10007, true);
    test::writeSoundFile(dir / "in.wav", input);
    for (int block : {1, 4096}) {
        const auto out = decodeAll(dir / "in.wav", block);
        EXPECT_EQ(out.sampleRate, 44100);
        EXPECT_EQ(out.channelCount, 3);
        EXPECT_EQ(out.samples, input.samples) << "block " << block;
    }
}

TEST_F(AudioFileDecoderTest, CompressedFormatsDecodeAtTheirOwnRate) {
    if (!test::hasProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed";
    // 16-bit source: lossless codecs must give it back exactly.
    const auto source = test::sineWave(1000, 0.5, 44100, 2, 44100, true);
    test::writeSoundFile(dir / "source.wav", source, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    const auto source16 = test::readSoundFile(dir / "source.wav");
    auto ffmpeg = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"ffmpeg", "-v", "error", "-y"});
        return test::runProcess(args).exitCode;
    };
    auto encode = [&](const std::string& name, std::vector<std::string> codec) {
        codec.insert(codec.begin(), {"-i", (dir / "source.wav").string()});
        codec.push_back((dir / name).string());
        EXPECT_EQ(ffmpeg(codec), 0) << name;
        const auto out = decodeAll(dir / name, 777);
        EXPECT_EQ(out.sampleRate, 44100) << name;
        EXPECT_EQ(out.channelCount, 2) << name;
        return out;
    };
    EXPECT_EQ(encode("alac.m4a", {"-c:a", "alac"}).samples, source16.samples);

    const auto lossy = encode("out.mp3", {"-b:a", "192k"});
    // The reference is FFmpeg's own command-line decode of the same file.
    ASSERT_EQ(ffmpeg({"-i", (dir / "out.mp3").string(), "-c:a", "pcm_f32le", (dir / "reference.wav").string()}), 0);
    const auto reference = test::readSoundFile(dir / "reference.wav");
    ASSERT_EQ(lossy.samples.size(), reference.samples.size());
    for (std::size_t i = 0; i < lossy.samples.size(); ++i) ASSERT_NEAR(lossy.samples[i], reference.samples[i], 1e-6) << i;
    // And the tones are still on their own channels.
    EXPECT_NEAR(test::toneAmplitude(lossy, 0, 1000, 8192, 16384), 0.5, 0.03);
    EXPECT_NEAR(test::toneAmplitude(lossy, 1, 2000, 8192, 16384), 0.5, 0.03);
}

TEST_F(AudioFileDecoderTest, FailuresNameTheFile) {
    std::ofstream(dir / "notes.wav") << "this is not audio at all, just some text that goes on for a while";
    EXPECT_NE(errorOf(dir / "notes.wav").find("notes.wav"), std::string::npos);
    EXPECT_NE(errorOf(dir / "missing.flac").find("missing.flac"), std::string::npos);

    test::writeSoundFile(dir / "ten.wav", test::sineWave(100, 0.1, 8000, 10, 800));
    const auto tooMany = errorOf(dir / "ten.wav");
    EXPECT_NE(tooMany.find("ten.wav"), std::string::npos);
    EXPECT_NE(tooMany.find("10 channels"), std::string::npos) << tooMany;
}

// A chirp: no stretch of it looks like another, so where a read lands can be found again.
SoundData chirp(int rate, int channels, double seconds) {
    SoundData d{rate, channels, {}};
    const auto frames = static_cast<std::size_t>(seconds * rate);
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i) / rate;
        const float v = float(0.5 * std::sin(2 * M_PI * (200 * t + 400 * t * t)));
        for (int c = 0; c < channels; ++c) d.samples.push_back(c == 0 ? v : -v);
    }
    return d;
}

// Where, within `radius` frames of `expected`, the window read after a seek sits in the whole decode.
std::int64_t landing(const SoundData& whole, const std::vector<float>& window, std::int64_t expected, std::int64_t radius) {
    const int ch = whole.channelCount;
    const auto frames = static_cast<std::int64_t>(window.size()) / ch;
    std::int64_t best = -1;
    double bestError = 1e30;
    for (std::int64_t at = std::max<std::int64_t>(0, expected - radius); at <= expected + radius; ++at) {
        if ((at + frames) * ch > static_cast<std::int64_t>(whole.samples.size())) break;
        double error = 0;
        for (std::int64_t i = 0; i < frames * ch; ++i) error += std::abs(window[i] - whole.samples[at * ch + i]);
        if (error < bestError) bestError = error, best = at;
    }
    return best;
}

TEST_F(AudioFileDecoderTest, SeekingLandsOnTheAskedFrameExactlyForLosslessFilesAndWithin10msForMP3) {
    test::writeSoundFile(dir / "chirp.wav", chirp(44100, 2, 6), SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    test::writeSoundFile(dir / "chirp.flac", chirp(44100, 2, 6), SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    std::vector<std::pair<std::string, std::int64_t>> files{{"chirp.wav", 0}, {"chirp.flac", 0}};
    if (test::hasProgram("ffmpeg")) {
        for (auto [name, codec] : {std::pair{"chirp.m4a", "alac"}, std::pair{"chirp.mp3", "libmp3lame"}})
            ASSERT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-y", "-i", (dir / "chirp.wav").string(), "-c:a", codec,
                                        (dir / name).string()}).exitCode, 0) << name;
        files.push_back({"chirp.m4a", 0});
        files.push_back({"chirp.mp3", 441}); // 10 ms at 44.1 kHz
    }
    for (const auto& [name, tolerance] : files) {
        const auto whole = decodeAll(dir / name);
        AudioFileDecoder decoder(dir / name);
        std::vector<float> window(2048 * 2);
        // Forwards, backwards, into the first packet and near the end.
        for (std::int64_t target : {std::int64_t(100000), std::int64_t(30011), std::int64_t(5), std::int64_t(250000)}) {
            decoder.seek(target);
            ASSERT_EQ(decoder.read(window.data(), 2048), 2048) << name << " at " << target;
            const auto at = landing(whole, window, target, 2000);
            EXPECT_LE(std::abs(at - target), tolerance) << name << ": asked for frame " << target << ", landed on " << at;
        }
        decoder.seek(10'000'000);
        EXPECT_EQ(decoder.read(window.data(), 2048), 0) << name << ": past the end is the end";
        decoder.seek(0);
        EXPECT_EQ(decoder.read(window.data(), 2048), 2048) << name << ": and back to the start";
    }
}

// A compressed file cut short used to decode to its end without a word.
TEST_F(AudioFileDecoderTest, AFileCutShortSaysSoOnceItIsOver) {
    const auto whole = dir / "whole.flac";
    test::writeSoundFile(whole, test::sineWave(440, 0.3, 48000, 2, 48000 * 4), SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    const std::string bytes = test::readText(whole);
    const auto cut = test::writeText(dir / "cut.flac", bytes.substr(0, bytes.size() / 2));

    AudioFileDecoder decoder(cut);
    std::vector<float> buffer(4096 * 2);
    EXPECT_GT(decoder.read(buffer.data(), 4096), 0);
    EXPECT_FALSE(decoder.shortfall()) << "not before the end";
    while (decoder.read(buffer.data(), 4096) > 0) {}
    const auto message = decoder.shortfall();
    ASSERT_TRUE(message);
    EXPECT_NE(message->find(cut.string() + ": the audio ends after "), std::string::npos) << *message;
    EXPECT_NE(message->find("of the 4.0 s its header announces"), std::string::npos) << *message;

    AudioFileDecoder complete(whole);
    while (complete.read(buffer.data(), 4096) > 0) {}
    EXPECT_FALSE(complete.shortfall());

    // Encoder padding is not a shortfall; a lossy file cut short is.
    if (!test::hasProgram("ffmpeg")) return;
    ASSERT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-y", "-i", whole.string(), (dir / "whole.mp3").string()}).exitCode, 0);
    const std::string mp3 = test::readText(dir / "whole.mp3");
    const auto cutMp3 = test::writeText(dir / "cut.mp3", mp3.substr(0, mp3.size() * 3 / 4));
    for (const auto& [file, isShort] : {std::pair{dir / "whole.mp3", false}, std::pair{cutMp3, true}}) {
        AudioFileDecoder lossy(file);
        while (lossy.read(buffer.data(), 4096) > 0) {}
        EXPECT_EQ(lossy.shortfall().has_value(), isShort) << file;
    }
}

TEST_F(AudioFileDecoderTest, EstimatesTheLengthFromTheHeader) {
    test::writeSoundFile(dir / "len.wav", test::sineWave(100, 0.1, 22050, 1, 22050 * 3));
    AudioFileDecoder decoder(dir / "len.wav");
    ASSERT_TRUE(decoder.estimatedFrameCount().has_value());
    EXPECT_NEAR(double(*decoder.estimatedFrameCount()), 22050.0 * 3, 2);
}

} // namespace
} // namespace tarn
