// `tarn render` end to end: the built command is run on files made here, and its output is
// checked against independent numbers (analog-prototype responses, sample maxima).

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/models/GenrePreset.hpp"
#include "dsp/CookbookReference.hpp"
#include "support/ProcessRunner.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using test::SoundData;

constexpr double makeupDb = 4.0;
constexpr double rootTwo = 1.4142135623730951;

double peakingDb(double f0, double gainDb, double q, double f, double fs = 48000) {
    return test::prototypeMagnitudeDb(BiquadKind::peaking, fs, f0, gainDb, q, f);
}
double linear(double db) { return std::pow(10.0, db / 20.0); }

float samplePeak(const SoundData& d) {
    float peak = 0;
    for (float x : d.samples) peak = std::max(peak, std::abs(x));
    return peak;
}

// Two tones, one per channel: 1 kHz (a band centre) on the left, 1.5 kHz (between bands) on the right.
SoundData twoTones(double amplitude = 0.25, int rate = 48000, double seconds = 0.75) {
    const std::size_t frames = std::size_t(rate * seconds);
    SoundData d{rate, 2, std::vector<float>(frames * 2)};
    for (std::size_t i = 0; i < frames; ++i) {
        d.samples[2 * i] = float(amplitude * std::sin(2 * M_PI * 1000.0 * double(i) / rate));
        d.samples[2 * i + 1] = float(amplitude * std::sin(2 * M_PI * 1500.0 * double(i) / rate));
    }
    return d;
}

class RenderCommand : public ::testing::Test {
protected:
    test::TemporaryDirectory dir;

    test::ProcessResult render(std::vector<std::string> args) {
        args.insert(args.begin(), {TARN_CLI_PATH, "render"});
        return test::runProcess(args);
    }

    // Renders in.wav to out.wav with --json; fails the test unless it succeeds.
    nlohmann::json renderJson(const SoundData& input, std::vector<std::string> options) {
        test::writeSoundFile(dir / "in.wav", input);
        std::vector<std::string> args = {(dir / "in.wav").string(), (dir / "out.wav").string(), "--json"};
        args.insert(args.end(), options.begin(), options.end());
        const auto result = render(args);
        EXPECT_EQ(result.exitCode, 0) << result.standardError;
        EXPECT_EQ(result.standardError, "");
        try {
            return nlohmann::json::parse(result.standardOutput);
        } catch (const std::exception& e) {
            ADD_FAILURE() << "not JSON: " << result.standardOutput;
            return {};
        }
    }

    // Steady-state amplitude of a tone in the rendered file (the first 0.25 s are left to settle).
    double outputTone(int channel, double frequencyHz) {
        const auto out = test::readSoundFile(dir / "out.wav");
        const std::size_t first = out.sampleRate / 4;
        return test::toneAmplitude(out, channel, frequencyHz, first, out.frameCount() - first);
    }

    std::string write(const std::string& name, const std::string& text) { return test::writeText(dir / name, text).string(); }
};

TEST_F(RenderCommand, BandCutMatchesTheCookbookResponseWithMakeup) {
    const auto json = renderJson(twoTones(), {"--band", "5=-12", "--no-ceiling"});
    const double q = qVector(GenrePreset::flat)[5];
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(peakingDb(1000, -12, q, 1000) + makeupDb), 1e-4);
    EXPECT_NEAR(outputTone(1, 1500), 0.25 * linear(peakingDb(1000, -12, q, 1500) + makeupDb), 1e-4);
    EXPECT_EQ(json["ceilingAttenuationLinear"], 1.0);
    EXPECT_EQ(json["isSafetyCeilingActive"], false);
}

TEST_F(RenderCommand, SummaryReportsTheTrueSampleMaxima) {
    const auto input = twoTones(0.5);
    const auto json = renderJson(input, {"--band", "5=6", "--block", "100"});
    const auto output = test::readSoundFile(dir / "out.wav");
    EXPECT_EQ(json["frames"], input.frameCount());
    EXPECT_EQ(json["sampleRate"], 48000);
    EXPECT_EQ(json["channels"], 2);
    EXPECT_FLOAT_EQ(json["inputPeak"].get<double>(), samplePeak(input));
    EXPECT_FLOAT_EQ(json["outputPeak"].get<double>(), samplePeak(output));
    EXPECT_GT(json["realtimeFactor"].get<double>(), 0.0);
    EXPECT_LE(json["minHeadroomGain"].get<double>(), 1.0);
}

TEST_F(RenderCommand, TheSafetyCeilingScalesTheOutputByWhatItReports) {
    const auto json = renderJson(twoTones(), {"--band", "5=-12", "--band", "6=6"});
    ASSERT_EQ(json["isSafetyCeilingActive"], true);
    const double attenuation = json["ceilingAttenuationLinear"].get<double>();
    EXPECT_LT(attenuation, 1.0);
    const double q5 = qVector(GenrePreset::flat)[5], q6 = qVector(GenrePreset::flat)[6];
    // The estimate: the largest combined response over 240 log-spaced frequencies, plus the make-up.
    double peak = -INFINITY;
    for (int i = 0; i < 240; ++i) {
        const double f = std::pow(10.0, std::log10(20.0) + i * (std::log10(20000.0) - std::log10(20.0)) / 239);
        peak = std::max(peak, peakingDb(1000, -12, q5, f) + peakingDb(2000, 6, q6, f));
    }
    EXPECT_NEAR(json["estimatedPeakGainDb"].get<double>(), peak + makeupDb, 1e-6);
    EXPECT_NEAR(attenuation, linear(-(peak + makeupDb)), 1e-9);
    const double chainDb = peakingDb(1000, -12, q5, 1500) + peakingDb(2000, 6, q6, 1500) + makeupDb;
    EXPECT_NEAR(outputTone(1, 1500), 0.25 * linear(chainDb) * attenuation, 1e-4);
}

TEST_F(RenderCommand, GainTrimGenreAndChannelDeltasReachTheChain) {
    // Route gain and trim cancel the make-up exactly.
    renderJson(twoTones(), {"--gain", "-6", "--trim", "2", "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25, 1e-5);

    // A genre changes the bands' Q, not their gains.
    renderJson(twoTones(), {"--band", "5=-12", "--genre", "rock", "--no-ceiling"});
    const double rockQ = qVector(GenrePreset::rock)[5];
    EXPECT_NEAR(outputTone(1, 1500), 0.25 * linear(peakingDb(1000, -12, rockQ, 1500) + makeupDb), 1e-4);

    // A per-channel delta moves one channel only.
    SoundData same = test::sineWave(1000, 0.25, 48000, 2, 36000);
    renderJson(same, {"--band", "5=-3", "--channel-delta", "1:5=-6", "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(-3 + makeupDb), 1e-4);
    EXPECT_NEAR(outputTone(1, 1000), 0.25 * linear(-9 + makeupDb), 1e-4);

    // Bypassing the EQ takes the band out.
    renderJson(twoTones(), {"--band", "5=-12", "--eq-bypass", "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(makeupDb), 1e-4);
}

TEST_F(RenderCommand, ProfileAndParametricFilesRunInTheirStages) {
    const auto profile = write("hp.json", R"({"preampDb": -6.0, "filters": [
        {"shape": "peaking", "frequencyHz": 1000.0, "gainDb": 6.0, "q": 2.0}]})");
    renderJson(twoTones(), {"--profile", profile, "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(makeupDb), 1e-4);
    EXPECT_NEAR(outputTone(1, 1500), 0.25 * linear(-6 + peakingDb(1000, 6, 2, 1500) + makeupDb), 1e-4);

    renderJson(twoTones(), {"--profile", profile, "--correction-bypass", "--no-ceiling"});
    EXPECT_NEAR(outputTone(1, 1500), 0.25 * linear(makeupDb), 1e-4);

    const auto parametric = write("My Headphones.txt",
                                  "Preamp: -3 dB\r\nFilter 1: ON PK Fc 1500 Hz Gain -5 dB Q 1.5\r\n"
                                  "Filter 2: ON LP Fc 10000 Hz Gain 0 dB Q 0.7\r\n");
    renderJson(twoTones(), {"--parametric", parametric, "--profile", profile, "--no-ceiling"});
    EXPECT_NEAR(outputTone(1, 1500),
                0.25 * linear(-6 + peakingDb(1000, 6, 2, 1500) - 3 - 5 + makeupDb), 1e-4);
}

TEST_F(RenderCommand, AFullCatalogueProfileIsAccepted) {
    std::ifstream in(std::string(TARN_SOURCE_DIR) + "/data/profiles/catalog.json");
    const auto catalogue = nlohmann::json::parse(in);
    const auto& first = catalogue.at("profiles").at(0);
    write("full.json", first.dump());
    const auto json = renderJson(twoTones(), {"--profile", (dir / "full.json").string()});
    EXPECT_GT(json["outputPeak"].get<double>(), 0.0);
}

TEST_F(RenderCommand, BlockSizeDoesNotChangeTheFilteredSignal) {
    const auto input = twoTones(0.2);
    renderJson(input, {"--band", "3=5", "--band", "7=-4", "--block", "4096", "--no-ceiling"});
    const auto big = test::readSoundFile(dir / "out.wav");
    for (const char* block : {"1", "1000"}) {
        renderJson(input, {"--band", "3=5", "--band", "7=-4", "--block", block, "--no-ceiling"});
        const auto small = test::readSoundFile(dir / "out.wav");
        ASSERT_EQ(small.samples.size(), big.samples.size());
        double worst = 0;
        for (std::size_t i = 0; i < big.samples.size(); ++i)
            worst = std::max(worst, double(std::abs(small.samples[i] - big.samples[i])));
        EXPECT_LT(worst, 1e-5) << "block " << block;
    }
}

TEST_F(RenderCommand, RateAndChannelCountArePreserved) {
    // Six 16-bit channels at 44.1 kHz, each with its own tone.
    const auto input = test::sineWave(300, 0.2, 44100, 6, 44100, true);
    test::writeSoundFile(dir / "six.wav", input, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    const auto result = render({(dir / "six.wav").string(), (dir / "out.wav").string(), "--no-ceiling", "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.standardError;
    SF_INFO info{};
    const auto out = test::readSoundFile(dir / "out.wav", &info);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.channels, 6);
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_EQ(out.frameCount(), input.frameCount());
    for (int c = 0; c < 6; ++c)
        EXPECT_NEAR(test::toneAmplitude(out, c, 300.0 * (c + 1), 11025, 22050), 0.2 * linear(makeupDb), 1e-3)
            << "channel " << c;
}

TEST_F(RenderCommand, CompressedInputKeepsItsRate) {
    if (!test::hasProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed";
    test::writeSoundFile(dir / "src.wav", test::sineWave(1000, 0.25, 44100, 1, 44100));
    ASSERT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-y", "-i", (dir / "src.wav").string(), "-c:a", "aac",
                                "-b:a", "128k", (dir / "in.m4a").string()})
                  .exitCode,
              0);
    const auto result = render({(dir / "in.m4a").string(), (dir / "out.wav").string(), "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.standardError;
    const auto json = nlohmann::json::parse(result.standardOutput);
    EXPECT_EQ(json["sampleRate"], 44100);
    EXPECT_EQ(json["channels"], 1);
    EXPECT_EQ(test::readSoundFile(dir / "out.wav").sampleRate, 44100);
}

TEST_F(RenderCommand, MuteWritesSilence) {
    const auto json = renderJson(twoTones(), {"--mute"});
    EXPECT_EQ(json["outputPeak"], 0.0);
    EXPECT_EQ(samplePeak(test::readSoundFile(dir / "out.wav")), 0.0f);
}

TEST_F(RenderCommand, FailuresExitOneNameTheFileAndLeaveNoOutput) {
    test::writeSoundFile(dir / "in.wav", twoTones());
    std::ofstream(dir / "out.wav") << "the previous render";
    const auto in = (dir / "in.wav").string(), out = (dir / "out.wav").string();
    const auto noFilters = write("nofilters.txt", "Preamp: -3 dB\nFilter 1: OFF PK Fc 100 Hz Gain 3 dB Q 1\n");
    const auto badJson = write("bad.json", "{\"preampDb\": -3, ");
    const auto notAProfile = write("wrong.json", "{\"preampDb\": \"loud\", \"filters\": []}");
    const auto notAudio = write("notes.wav", "plain text, not audio, long enough to be probed");
    // Noise named like an MP3: probing it must not let any library chatter on stderr.
    std::string noise(4000, '\0');
    std::uint32_t x = 12345;
    for (auto& c : noise) c = char((x = x * 1664525u + 1013904223u) >> 24);
    write("noise.mp3", noise);
    test::writeSoundFile(dir / "nine.wav", test::sineWave(100, 0.1, 8000, 9, 800));

    struct Case {
        std::vector<std::string> args;
        std::string named;
    };
    const Case cases[] = {
        {{(dir / "missing.wav").string(), out}, "missing.wav"},
        {{notAudio, out}, "notes.wav"},
        {{(dir / "noise.mp3").string(), out}, "noise.mp3"},
        {{(dir / "nine.wav").string(), out}, "nine.wav"},
        {{in, out, "--parametric", noFilters}, "nofilters.txt"},
        {{in, out, "--parametric", (dir / "none.txt").string()}, "none.txt"},
        {{in, out, "--profile", badJson}, "bad.json"},
        {{in, out, "--profile", notAProfile}, "wrong.json"},
        {{in, (dir / "no" / "such" / "dir.wav").string()}, "dir.wav"},
    };
    for (const auto& c : cases) {
        const auto result = render(c.args);
        EXPECT_EQ(result.exitCode, 1) << c.named << ": " << result.standardError;
        EXPECT_NE(result.standardError.find(c.named), std::string::npos) << result.standardError;
        EXPECT_EQ(result.standardOutput, "") << c.named;
        EXPECT_EQ(std::count(result.standardError.begin(), result.standardError.end(), '\n'), 1) << c.named;
    }
    // Only what was there before: no temporary files, the old output untouched.
    std::vector<std::string> expected = {"bad.json", "in.wav", "nine.wav", "nofilters.txt",
                                         "noise.mp3", "notes.wav", "out.wav", "wrong.json"};
    EXPECT_EQ(dir.entries(), expected);
    EXPECT_EQ(test::readText(dir / "out.wav"), "the previous render");
}

TEST_F(RenderCommand, BadUsageExitsTwoWithOneLineNamingTheOption) {
    test::writeSoundFile(dir / "in.wav", twoTones());
    const auto in = (dir / "in.wav").string(), out = (dir / "out.wav").string();
    struct Case {
        std::vector<std::string> args;
        std::string named;
    };
    const Case cases[] = {
        {{in, out, "--band", "10=1"}, "--band"},
        {{in, out, "--band", "5=13"}, "--band"},
        {{in, out, "--band", "5"}, "--band"},
        {{in, out, "--band", "x=1"}, "--band"},
        {{in, out, "--block", "0"}, "--block"},
        {{in, out, "--block", "4097"}, "--block"},
        {{in, out, "--block", "many"}, "--block"},
        {{in, out, "--genre", "polka"}, "--genre"},
        {{in, out, "--genre", "HipHop"}, "--genre"},
        {{in, out, "--gain", "nan"}, "--gain"},
        {{in, out, "--trim", "loud"}, "--trim"},
        {{in, out, "--channel-delta", "1:5"}, "--channel-delta"},
        {{in, out, "--channel-delta", "2:5=-3"}, "--channel-delta"},   // the file has channels 0 and 1
        {{in, out, "--frobnicate"}, "--frobnicate"},
        {{in}, "OUTPUT"},
    };
    for (const auto& c : cases) {
        const auto result = render(c.args);
        std::string shown;
        for (const auto& a : c.args) shown += a + " ";
        EXPECT_EQ(result.exitCode, 2) << shown << "\n" << result.standardError;
        EXPECT_NE(result.standardError.find(c.named), std::string::npos) << shown << "\n" << result.standardError;
        EXPECT_EQ(std::count(result.standardError.begin(), result.standardError.end(), '\n'), 1)
            << shown << "\n" << result.standardError;
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"in.wav"});
}

TEST_F(RenderCommand, AnInterruptedRenderLeavesNothingBehind) {
    if (!test::hasProgram("timeout")) GTEST_SKIP() << "coreutils timeout is not available";
    const auto in = (dir / "long.wav").string(), out = (dir / "out.wav").string();
    // Two minutes of a constant level, quick to write; one-frame blocks make the render take long
    // enough to be interrupted part way.
    test::writeSoundFile(in, SoundData{48000, 2, std::vector<float>(48000 * 2 * 120, 0.1f)});
    const auto result = test::runProcess({"timeout", "--preserve-status", "-s", "INT", "0.3", TARN_CLI_PATH, "render",
                                          in, out, "--block", "1", "--band", "3=2"});
    if (result.exitCode == 0) GTEST_SKIP() << "the render finished before the interrupt";
    EXPECT_EQ(result.exitCode, 130) << result.standardError;
    EXPECT_NE(result.standardError.find("interrupted"), std::string::npos) << result.standardError;
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"long.wav"});
}

TEST_F(RenderCommand, EveryOptionIsInTheHelp) {
    const auto result = render({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    for (const char* option : {"--band", "--channel-delta", "--gain", "--trim", "--genre", "--profile", "--parametric",
                               "--eq-bypass", "--correction-bypass", "--no-ceiling", "--mute", "--block", "--json"})
        EXPECT_NE(result.standardOutput.find(option), std::string::npos) << option;
}

} // namespace
} // namespace tarn
