#include <cmath>
#include <fstream>
#include <string>

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
    for (int block : {1, 333, 4096, 20000}) {
        const auto out = decodeAll(dir / "in.wav", block);
        EXPECT_EQ(out.sampleRate, 44100);
        EXPECT_EQ(out.channelCount, 3);
        EXPECT_EQ(out.samples, input.samples) << "block " << block;
    }
}

TEST_F(AudioFileDecoderTest, IntegerFormatsAreScaledToUnitFullScale) {
    // Written as integers so the expected floats are exact: full scale is 2^(bits-1).
    const short pcm[] = {16384, -8192, -32768, 0, 4096, 32767};
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open((dir / "pcm16.wav").c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr);
    sf_writef_short(f, pcm, 3);
    sf_close(f);
    const auto out = decodeAll(dir / "pcm16.wav");
    const std::vector<float> expected = {0.5f, -0.25f, -1.0f, 0.0f, 0.125f, 32767.0f / 32768.0f};
    EXPECT_EQ(out.samples, expected);

    SoundData input{48000, 2, {0.5f, -0.25f, -0.999f, 0.0f, 0.125f, 0.75f}};
    for (int format : {SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_PCM_U8, SF_FORMAT_DOUBLE}) {
        test::writeSoundFile(dir / "pcm.wav", input, SF_FORMAT_WAV | format);
        const auto back = decodeAll(dir / "pcm.wav");
        ASSERT_EQ(back.samples.size(), input.samples.size()) << std::hex << format;
        const double tolerance = format == SF_FORMAT_PCM_U8 ? 1.0 / 64 : 1e-6;
        for (std::size_t i = 0; i < input.samples.size(); ++i)
            EXPECT_NEAR(back.samples[i], input.samples[i], tolerance) << "format " << std::hex << format << " sample " << i;
    }
}

TEST_F(AudioFileDecoderTest, SixChannelAiffKeepsItsChannelsApart) {
    const auto input = test::sineWave(200, 0.5, 48000, 6, 4800, true);
    test::writeSoundFile(dir / "six.aiff", input, SF_FORMAT_AIFF | SF_FORMAT_PCM_24);
    const auto out = decodeAll(dir / "six.aiff");
    ASSERT_EQ(out.channelCount, 6);
    ASSERT_EQ(out.frameCount(), 4800u);
    for (int c = 0; c < 6; ++c)
        EXPECT_NEAR(test::toneAmplitude(out, c, 200.0 * (c + 1), 0, 4800), 0.5, 1e-4) << "channel " << c;
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
    struct Case { const char* name; std::vector<std::string> codec; bool isLossless; };
    const Case cases[] = {
        {"out.flac", {}, true},
        {"alac.m4a", {"-c:a", "alac"}, true},
        {"out.aiff", {}, true},
        {"out.mp3", {"-b:a", "192k"}, false},
        {"aac.m4a", {"-c:a", "aac", "-b:a", "192k"}, false},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"-i", (dir / "source.wav").string()};
        args.insert(args.end(), c.codec.begin(), c.codec.end());
        args.push_back((dir / c.name).string());
        ASSERT_EQ(ffmpeg(args), 0) << c.name;

        const auto out = decodeAll(dir / c.name, 777);
        EXPECT_EQ(out.sampleRate, 44100) << c.name;
        EXPECT_EQ(out.channelCount, 2) << c.name;
        if (c.isLossless) {
            EXPECT_EQ(out.samples, source16.samples) << c.name;
        } else {
            // The reference is FFmpeg's own command-line decode of the same file.
            ASSERT_EQ(ffmpeg({"-i", (dir / c.name).string(), "-c:a", "pcm_f32le", (dir / "reference.wav").string()}), 0);
            const auto reference = test::readSoundFile(dir / "reference.wav");
            ASSERT_EQ(out.samples.size(), reference.samples.size()) << c.name;
            for (std::size_t i = 0; i < out.samples.size(); ++i)
                ASSERT_NEAR(out.samples[i], reference.samples[i], 1e-6) << c.name << " sample " << i;
            // And the tones are still on their own channels.
            EXPECT_NEAR(test::toneAmplitude(out, 0, 1000, 8192, 16384), 0.5, 0.03) << c.name;
            EXPECT_NEAR(test::toneAmplitude(out, 1, 2000, 8192, 16384), 0.5, 0.03) << c.name;
        }
    }
}

TEST_F(AudioFileDecoderTest, FailuresNameTheFile) {
    std::ofstream(dir / "notes.wav") << "this is not audio at all, just some text that goes on for a while";
    EXPECT_NE(errorOf(dir / "notes.wav").find("notes.wav"), std::string::npos);
    EXPECT_NE(errorOf(dir / "missing.flac").find("missing.flac"), std::string::npos);
    EXPECT_NE(errorOf(dir.path()).find(dir.path().string()), std::string::npos);

    test::writeSoundFile(dir / "ten.wav", test::sineWave(100, 0.1, 8000, 10, 800));
    const auto tooMany = errorOf(dir / "ten.wav");
    EXPECT_NE(tooMany.find("ten.wav"), std::string::npos);
    EXPECT_NE(tooMany.find("10 channels"), std::string::npos) << tooMany;
}

TEST_F(AudioFileDecoderTest, EstimatesTheLengthFromTheHeader) {
    test::writeSoundFile(dir / "len.wav", test::sineWave(100, 0.1, 22050, 1, 22050 * 3));
    AudioFileDecoder decoder(dir / "len.wav");
    ASSERT_TRUE(decoder.estimatedFrameCount().has_value());
    EXPECT_NEAR(double(*decoder.estimatedFrameCount()), 22050.0 * 3, 2);
}

} // namespace
} // namespace tarn
