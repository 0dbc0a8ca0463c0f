// `tarn render` end to end: the built command is run on files made here, and its output is
// checked against independent numbers (analog-prototype responses, sample maxima).

#include <cmath>
#include <fstream>
#include <limits>
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

double peakingDb(double f0, double gainDb, double q, double f) {
    return test::prototypeMagnitudeDb(BiquadKind::peaking, 48000, f0, gainDb, q, f);
}
double linear(double db) { return std::pow(10.0, db / 20.0); }

float samplePeak(const SoundData& d) {
    float peak = 0;
    for (float x : d.samples) peak = std::max(peak, std::abs(x));
    return peak;
}

// 1 kHz (a band centre) on the left, 2 kHz (an octave off it) on the right.
SoundData twoTones(double amplitude = 0.25) { return test::sineWave(1000, amplitude, 48000, 2, 36000, true); }

class RenderCommand : public ::testing::Test {
protected:
    test::TemporaryDirectory dir;
    const std::string in = (dir / "in.wav").string(), out = (dir / "out.wav").string();

    test::ProcessResult render(std::vector<std::string> args) {
        args.insert(args.begin(), {TARN_CLI_PATH, "render"});
        return test::runProcess(args);
    }

    // Renders in.wav to out.wav with --json; fails the test unless it succeeds.
    nlohmann::json renderJson(const SoundData& input, std::vector<std::string> options) {
        test::writeSoundFile(in, input);
        options.insert(options.begin(), {in, out, "--json"});
        const auto result = render(options);
        EXPECT_EQ(result.exitCode, 0) << result.standardError;
        EXPECT_EQ(result.standardError, "");
        return nlohmann::json::parse(result.standardOutput, nullptr, false);
    }

    // Steady-state amplitude of a tone in the rendered file (the first 0.25 s are left to settle).
    double outputTone(int channel, double frequencyHz) {
        const auto rendered = test::readSoundFile(out);
        const std::size_t first = rendered.sampleRate / 4;
        return test::toneAmplitude(rendered, channel, frequencyHz, first, rendered.frameCount() - first);
    }

    std::string write(const std::string& name, const std::string& text) { return test::writeText(dir / name, text).string(); }

    // A clean failure: the exit code and one line naming what was wrong; nothing written.
    void expectFailure(std::vector<std::string> args, int exitCode, const std::string& named) {
        const auto result = render(args);
        EXPECT_EQ(result.exitCode, exitCode) << named << ": " << result.standardError;
        EXPECT_NE(result.standardError.find(named), std::string::npos) << result.standardError;
        EXPECT_EQ(std::count(result.standardError.begin(), result.standardError.end(), '\n'), 1) << result.standardError;
        EXPECT_EQ(result.standardOutput, "") << named;
    }
};

TEST_F(RenderCommand, BandCutMatchesTheCookbookResponseAndTheSummaryTheFile) {
    const auto input = twoTones();
    const auto json = renderJson(input, {"--band", "5=-12", "--no-ceiling", "--block", "100"});
    const double q = qVector(GenrePreset::flat)[5];
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(peakingDb(1000, -12, q, 1000) + makeupDb), 1e-4);
    EXPECT_NEAR(outputTone(1, 2000), 0.25 * linear(peakingDb(1000, -12, q, 2000) + makeupDb), 1e-4);
    EXPECT_EQ(json["frames"], input.frameCount());
    EXPECT_FLOAT_EQ(json["inputPeak"].get<double>(), samplePeak(input));
    EXPECT_FLOAT_EQ(json["outputPeak"].get<double>(), samplePeak(test::readSoundFile(out)));
    EXPECT_EQ(json["isSafetyCeilingActive"], false);
}

TEST_F(RenderCommand, TheSafetyCeilingScalesTheOutputByWhatItReports) {
    const auto json = renderJson(twoTones(), {"--band", "5=-12", "--band", "6=6"});
    ASSERT_EQ(json["isSafetyCeilingActive"], true);
    const double attenuation = json["ceilingAttenuationLinear"].get<double>();
    const double q5 = qVector(GenrePreset::flat)[5], q6 = qVector(GenrePreset::flat)[6];
    // The estimate: the largest combined response over 240 log-spaced frequencies, plus the make-up.
    double peak = -INFINITY;
    for (int i = 0; i < 240; ++i) {
        const double f = 20.0 * std::pow(1000.0, i / 239.0);
        peak = std::max(peak, peakingDb(1000, -12, q5, f) + peakingDb(2000, 6, q6, f));
    }
    EXPECT_NEAR(json["estimatedPeakGainDb"].get<double>(), peak + makeupDb, 1e-6);
    EXPECT_NEAR(attenuation, linear(-(peak + makeupDb)), 1e-9);
    const double chainDb = peakingDb(1000, -12, q5, 2000) + peakingDb(2000, 6, q6, 2000) + makeupDb;
    EXPECT_NEAR(outputTone(1, 2000), 0.25 * linear(chainDb) * attenuation, 1e-4);
}

TEST_F(RenderCommand, GainTrimGenreMuteAndChannelDeltasReachTheChain) {
    renderJson(twoTones(), {"--gain", "-6", "--trim", "2", "--no-ceiling"}); // cancels the make-up exactly
    EXPECT_NEAR(outputTone(0, 1000), 0.25, 1e-5);

    // A genre changes the bands' Q, not their gains.
    renderJson(twoTones(), {"--band", "5=-12", "--genre", "rock", "--no-ceiling"});
    const double rockQ = qVector(GenrePreset::rock)[5];
    EXPECT_NEAR(outputTone(1, 2000), 0.25 * linear(peakingDb(1000, -12, rockQ, 2000) + makeupDb), 1e-4);

    renderJson(test::sineWave(1000, 0.25, 48000, 2, 36000), {"--band", "5=-3", "--channel-delta", "1:5=-6", "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(-3 + makeupDb), 1e-4);
    EXPECT_NEAR(outputTone(1, 1000), 0.25 * linear(-9 + makeupDb), 1e-4);

    renderJson(twoTones(), {"--band", "5=-12", "--eq-bypass", "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(makeupDb), 1e-4);

    EXPECT_EQ(renderJson(twoTones(), {"--mute"})["outputPeak"], 0.0);
    EXPECT_EQ(samplePeak(test::readSoundFile(out)), 0.0f);
}

TEST_F(RenderCommand, ProfileAndParametricFilesRunInTheirStages) {
    const auto profile = write("hp.json", R"({"preampDb": -6.0, "filters": [
        {"shape": "peaking", "frequencyHz": 1000.0, "gainDb": 6.0, "q": 2.0}]})");
    renderJson(twoTones(), {"--profile", profile, "--no-ceiling"});
    EXPECT_NEAR(outputTone(0, 1000), 0.25 * linear(makeupDb), 1e-4);
    EXPECT_NEAR(outputTone(1, 2000), 0.25 * linear(-6 + peakingDb(1000, 6, 2, 2000) + makeupDb), 1e-4);
    renderJson(twoTones(), {"--profile", profile, "--correction-bypass", "--no-ceiling"});
    EXPECT_NEAR(outputTone(1, 2000), 0.25 * linear(makeupDb), 1e-4);

    const auto parametric = write("My Headphones.txt", "Preamp: -3 dB\r\nFilter 1: ON PK Fc 2000 Hz Gain -5 dB Q 1.5\r\n"
                                                       "Filter 2: ON LP Fc 10000 Hz Gain 0 dB Q 0.7\r\n");
    test::writeSoundFile(in, twoTones());
    const auto withSkippedLine = render({in, out, "--parametric", parametric, "--profile", profile, "--no-ceiling"});
    EXPECT_EQ(withSkippedLine.exitCode, 0);
    EXPECT_EQ(withSkippedLine.standardError, "tarn: warning: " + parametric +
                                                 ":3: skipped: filter type \"LP\" is not one of PK, LS, LSC, HS, HSC\n");
    EXPECT_NEAR(outputTone(1, 2000), 0.25 * linear(-6 + peakingDb(1000, 6, 2, 2000) - 3 - 5 + makeupDb), 1e-4);

    // A whole catalogue record, with all its extra keys, is a profile too.
    std::ifstream catalogue(std::string(TARN_SOURCE_DIR) + "/data/profiles/catalog.json");
    const auto full = write("full.json", nlohmann::json::parse(catalogue).at("profiles").at(0).dump());
    EXPECT_GT(renderJson(twoTones(), {"--profile", full})["outputPeak"].get<double>(), 0.0);
}

// A headset in call mode runs at 16 kHz: the shipped HD 650 correction has two filters above
// 0.45 of that rate, which used to hold the output in full-scale oscillation. (The levels that
// remain are checked against the cookbook in the chain's own tests.)
TEST_F(RenderCommand, AtSixteenKilohertzTheCorrectionStaysStableAndTheSummarySaysWhatWasLeftOut) {
    std::ifstream catalogue(std::string(TARN_SOURCE_DIR) + "/data/profiles/catalog.json");
    const auto profiles = nlohmann::json::parse(catalogue).at("profiles");
    std::string profile;
    for (const auto& p : profiles)
        if (p["id"] == "oratory1990.over-ear.sennheiser-hd-650") profile = write("hd650.json", p.dump());
    ASSERT_FALSE(profile.empty());

    const auto input = test::sineWave(1000, 0.1, 16000, 2, 32000);
    const auto json = renderJson(input, {"--profile", profile, "--no-ceiling"});
    EXPECT_EQ(json["leftOutSectionCount"], 2);
    EXPECT_LT(json["outputPeak"].get<double>(), 0.1) << "the preamp of -6.1 dB keeps a 1 kHz tone below its input";
    EXPECT_GT(json["outputPeak"].get<double>(), 0.05);

    test::writeSoundFile(in, input);
    const auto text = render({in, out, "--profile", profile});
    EXPECT_NE(text.standardOutput.find("left out       2 filter settings that cannot run at 16000 Hz"), std::string::npos)
        << text.standardOutput;
}

TEST_F(RenderCommand, SamplesThatAreNotNumbersArePlayedAsSilenceAndCounted) {
    auto input = twoTones();
    input.samples[10] = std::numeric_limits<float>::quiet_NaN();
    input.samples[5001] = std::numeric_limits<float>::infinity();
    const auto json = renderJson(input, {"--band", "3=4"});
    EXPECT_EQ(json["nonFiniteInputSamples"], 2);
    EXPECT_NEAR(json["inputPeak"].get<double>(), 0.25, 1e-3) << "the peak counts numbers only";
    for (float x : test::readSoundFile(out).samples) ASSERT_TRUE(std::isfinite(x));
    test::writeSoundFile(in, input);
    EXPECT_NE(render({in, out}).standardOutput.find("2 samples were not a finite number (NaN or infinity), played as silence"),
              std::string::npos);
}

TEST_F(RenderCommand, AFileCutShortRendersWhatItHasWithAWarning) {
    const auto flac = dir / "whole.flac";
    test::writeSoundFile(flac, twoTones(), SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    const std::string bytes = test::readText(flac);
    const auto cut = write("cut.flac", bytes.substr(0, bytes.size() / 2));
    const auto result = render({cut, out, "--json"});
    EXPECT_EQ(result.exitCode, 0) << result.standardError;
    EXPECT_NE(result.standardError.find("tarn: warning: " + cut + ": the audio ends after"), std::string::npos)
        << result.standardError;
    const auto json = nlohmann::json::parse(result.standardOutput);
    ASSERT_EQ(json["warnings"].size(), 1u);
    EXPECT_LT(json["durationSeconds"].get<double>(), 0.6);
    EXPECT_EQ(renderJson(twoTones(), {})["warnings"], nlohmann::json::array()) << "a whole file has none";
}

TEST_F(RenderCommand, BlockSizeDoesNotChangeTheFilteredSignal) {
    const auto input = twoTones(0.2);
    renderJson(input, {"--band", "3=5", "--band", "7=-4", "--block", "4096", "--no-ceiling"});
    const auto big = test::readSoundFile(out);
    renderJson(input, {"--band", "3=5", "--band", "7=-4", "--block", "1", "--no-ceiling"});
    const auto small = test::readSoundFile(out);
    ASSERT_EQ(small.samples.size(), big.samples.size());
    for (std::size_t i = 0; i < big.samples.size(); ++i) ASSERT_NEAR(small.samples[i], big.samples[i], 1e-5) << i;
}

TEST_F(RenderCommand, RateAndChannelCountArePreserved) {
    // Six 16-bit channels at 44.1 kHz, each with its own tone.
    const auto input = test::sineWave(300, 0.2, 44100, 6, 44100, true);
    test::writeSoundFile(in, input, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    ASSERT_EQ(render({in, out, "--no-ceiling"}).exitCode, 0);
    SF_INFO info{};
    const auto rendered = test::readSoundFile(out, &info);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_EQ(rendered.frameCount(), input.frameCount());
    for (int c = 0; c < 6; ++c)
        EXPECT_NEAR(test::toneAmplitude(rendered, c, 300.0 * (c + 1), 11025, 22050), 0.2 * linear(makeupDb), 1e-3) << c;
}

TEST_F(RenderCommand, FailuresExitOneNameTheFileAndLeaveNoOutput) {
    test::writeSoundFile(in, twoTones());
    std::ofstream(out) << "the previous render";
    // Noise named like an MP3: probing it must not let any library chatter on stderr.
    std::string noise(4000, '\0');
    std::uint32_t x = 12345;
    for (auto& c : noise) c = char((x = x * 1664525u + 1013904223u) >> 24);
    const auto notAudio = write("noise.mp3", noise);
    const auto noFilters = write("nofilters.txt", "Preamp: -3 dB\nFilter 1: OFF PK Fc 100 Hz Gain 3 dB Q 1\n");
    const auto badJson = write("bad.json", "{\"preampDb\": -3, ");
    test::writeSoundFile(dir / "nine.wav", test::sineWave(100, 0.1, 8000, 9, 800));

    expectFailure({(dir / "missing.wav").string(), out}, 1, "missing.wav");
    expectFailure({notAudio, out}, 1, "noise.mp3");
    expectFailure({(dir / "nine.wav").string(), out}, 1, "nine.wav");
    expectFailure({in, out, "--parametric", noFilters}, 1, "nofilters.txt");
    expectFailure({in, out, "--profile", badJson}, 1, "bad.json");
    // Files that never end are refused by size instead of filling memory.
    expectFailure({in, out, "--profile", "/dev/zero"}, 1, "/dev/zero: larger than 1 MiB");
    expectFailure({in, out, "--parametric", "/dev/zero"}, 1, "/dev/zero: larger than 1 MiB");
    // Only what was there before: no temporary files, the old output untouched.
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"bad.json", "in.wav", "nine.wav", "nofilters.txt", "noise.mp3", "out.wav"}));
    EXPECT_EQ(test::readText(out), "the previous render");
}

TEST_F(RenderCommand, BadUsageExitsTwoWithOneLineNamingTheOption) {
    test::writeSoundFile(in, twoTones());
    for (const auto& [option, value] : std::vector<std::pair<std::string, std::string>>{
             {"--band", "10=1"}, {"--band", "5=13"}, {"--block", "4097"}, {"--genre", "HipHop"}, {"--gain", "nan"},
             {"--channel-delta", "2:5=-3"}}) // the file has channels 0 and 1
        expectFailure({in, out, option, value}, 2, option);
    expectFailure({in, out, "--frobnicate"}, 2, "--frobnicate");
    expectFailure({in}, 2, "OUTPUT");
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"in.wav"});

    const auto help = render({"--help"});
    for (const char* option : {"--band", "--channel-delta", "--gain", "--trim", "--genre", "--profile", "--parametric",
                               "--eq-bypass", "--correction-bypass", "--no-ceiling", "--mute", "--block", "--json"})
        EXPECT_NE(help.standardOutput.find(option), std::string::npos) << option;
}

TEST_F(RenderCommand, AnInterruptedRenderLeavesNothingBehind) {
    if (!test::hasProgram("timeout")) GTEST_SKIP() << "coreutils timeout is not available";
    // Two minutes of a constant level, quick to write; one-frame blocks make the render take long
    // enough to be interrupted part way.
    test::writeSoundFile(in, SoundData{48000, 2, std::vector<float>(48000 * 2 * 120, 0.1f)});
    const auto result = test::runProcess({"timeout", "--preserve-status", "-s", "INT", "0.3", TARN_CLI_PATH, "render",
                                          in, out, "--block", "1", "--band", "3=2"});
    if (result.exitCode == 0) GTEST_SKIP() << "the render finished before the interrupt";
    EXPECT_EQ(result.exitCode, 130) << result.standardError;
    EXPECT_NE(result.standardError.find("interrupted"), std::string::npos) << result.standardError;
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"in.wav"});
}

// A render killed outright cannot clean up; its temporary file (gigabytes, for a long render)
// used to stay for ever. The next writer in that folder removes it.
TEST_F(RenderCommand, TheTemporaryFileOfAKilledRenderIsRemovedByTheNextOne) {
    if (!test::hasProgram("timeout")) GTEST_SKIP() << "coreutils timeout is not available";
    test::writeSoundFile(in, SoundData{48000, 2, std::vector<float>(48000 * 2 * 120, 0.1f)});
    const auto killed = test::runProcess({"timeout", "-s", "KILL", "0.5", TARN_CLI_PATH, "render", in, out, "--block",
                                          "1", "--band", "3=2"});
    if (killed.exitCode == 0) GTEST_SKIP() << "the render finished before it was killed";
    std::vector<std::string> left = dir.entries();
    ASSERT_EQ(left.size(), 2u) << "the killed render left its temporary file";
    EXPECT_TRUE(left[0].starts_with(".out.wav.tarn-")) << left[0];

    const auto next = render({in, (dir / "short.wav").string(), "--mute"});
    // Reading the whole input again takes a while; what matters is what the folder holds now.
    EXPECT_EQ(next.exitCode, 0) << next.standardError;
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.wav", "short.wav"}));
}

// `tarn render a.wav a.wav` used to replace its input with its own output; so did an output that
// was the input under another name, or one of the chain's own files.
TEST_F(RenderCommand, TheOutputIsNeverOneOfTheInputsAndNeverADevice) {
    test::writeSoundFile(in, twoTones());
    const std::string before = test::readText(in);
    const auto eq = write("eq.txt", "Filter 1: ON PK Fc 100 Hz Gain 3 dB Q 1\n");
    std::filesystem::create_symlink(in, dir / "link.wav");
    expectFailure({in, in}, 1, in + ": is the same file as the input " + in);
    expectFailure({in, (dir / "link.wav").string()}, 1, "is the same file as the input");
    expectFailure({in, (dir / "." / "in.wav").string()}, 1, "is the same file as the input");
    expectFailure({in, eq, "--parametric", eq}, 1, eq + ": is the same file as the input " + eq);
    expectFailure({in, "/dev/null"}, 1, "/dev/null: is a device, not a regular file");
    EXPECT_EQ(test::readText(in), before);
    EXPECT_EQ(test::readText(eq), "Filter 1: ON PK Fc 100 Hz Gain 3 dB Q 1\n");
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"eq.txt", "in.wav", "link.wav"}));
}

} // namespace
} // namespace tarn
