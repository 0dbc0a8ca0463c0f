#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include <nlohmann/json.hpp>

#include "support/ProcessRunner.hpp"
#include "support/ProminenceReference.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using nlohmann::json;
using test::runProcess;

constexpr int N = test::prominenceWindow;

test::ProcessResult analyze(std::vector<std::string> args) {
    args.insert(args.begin(), {TARN_CLI_PATH, "analyze"});
    return runProcess(args);
}

json analyzeJson(std::vector<std::string> args) {
    args.push_back("--json");
    const auto result = analyze(args);
    EXPECT_EQ(result.exitCode, 0) << result.standardError;
    return json::parse(result.standardOutput);
}

// `periods` repetitions of one multisine period on every channel, then `silentFrames` of silence.
test::SoundData repeated(const std::vector<float>& period, int periods, int rate, int channels,
                         std::size_t silentFrames = 0) {
    test::SoundData data;
    data.sampleRate = rate;
    data.channelCount = channels;
    for (int p = 0; p < periods; ++p)
        for (float v : period)
            for (int c = 0; c < channels; ++c) data.samples.push_back(v);
    data.samples.resize(data.samples.size() + silentFrames * channels, 0.0f);
    return data;
}

std::vector<double> gains(const json& out) {
    std::vector<double> g;
    for (const auto& r : out["recommendations"]) g.push_back(r["gainDb"].get<double>());
    return g;
}

class AnalyzeCommand : public ::testing::Test {
protected:
    test::TemporaryDirectory dir;
};

TEST_F(AnalyzeCommand, ReportsTheProminenceOfAFileAgainstTheClosedForm) {
    const int rate = 48000;
    const auto sig = test::pinkMultisine(rate, 6, 6.0);
    const auto file = dir / "pink-presence.wav";
    test::writeSoundFile(file, repeated(sig.period(), 60, rate, 2)); // 5.12 s

    const auto out = analyzeJson({file.string()});
    ASSERT_EQ(out["prominenceDb"].size(), 10u);
    const auto expected = test::expectedProminence(test::bandPowers(sig.windowedPower(), rate));
    for (int b = 0; b < 10; ++b) EXPECT_NEAR(out["prominenceDb"][b].get<double>(), expected[b], 0.02) << b;
    EXPECT_TRUE(out["isConfident"].get<bool>());
    EXPECT_NEAR(out["analyzedSeconds"].get<double>(), 60.0 * N / rate, 1e-9); // every window, no per-tick cap
    ASSERT_EQ(out["recommendations"].size(), 10u);
    // The boosted 2 kHz band is prominent on a neutral headphone: S2's light boost.
    EXPECT_GT(expected[6], 3.0);
    EXPECT_EQ(out["recommendations"][6]["gainDb"], expected[6] >= 6.0 ? 3.0 : 2.0);
    EXPECT_EQ(out["recommendations"][6]["rationale"][0], "S2: presence (2 kHz) is prominent in this song → light boost");
}

TEST_F(AnalyzeCommand, PassesGenreScopeBiasAndLeanToTheRules) {
    const int rate = 44100;
    const auto file = dir / "mono.wav";
    test::writeSoundFile(file, repeated(test::pinkMultisine(rate).period(), 50, rate, 1));

    // Taste scope: the rock curve plus the bias, song ignored. 62 Hz: 3 + 2 = 5.
    auto out = analyzeJson({file.string(), "--scope", "taste", "--genre", "rock", "--bias", "1=+2", "--bias", "9=-1.5"});
    EXPECT_EQ(out["recommendations"][1]["gainDb"], 5.0);
    EXPECT_EQ(out["recommendations"][1]["rationale"],
              json({"P1: your usual preference at bass (62 Hz) (+2.0)", "T1: your listening leans Rock curve at bass (62 Hz)"}));
    EXPECT_EQ(out["recommendations"][9]["gainDb"], 1.0); // 2 − 1.5 = 0.5, rounded away from zero

    // Song scope with a genre lean: GN1 reasons appear only with a weight.
    EXPECT_EQ(analyzeJson({file.string(), "--genre", "trap"}).dump().find("GN1: "), std::string::npos);
    EXPECT_NE(analyzeJson({file.string(), "--genre", "trap", "--lean", "1.5"}).dump().find("GN1: "), std::string::npos);
}

TEST_F(AnalyzeCommand, HeadphoneFromAProfileFileOrTheCatalogue) {
    const int rate = 48000;
    const auto file = dir / "pink.wav";
    test::writeSoundFile(file, repeated(test::pinkMultisine(rate).period(), 60, rate, 2));
    const auto flatGains = gains(analyzeJson({file.string()}));

    // A correction that cuts 6 dB at 8 kHz: the headphone over-delivers there by 6 dB.
    const auto profile = dir / "bright.json";
    std::ofstream(profile) << R"({"preampDb": -1.0, "filters": [{"shape": "peaking", "frequencyHz": 8000, "gainDb": -6.0, "q": 1.0}]})";
    const auto out = analyzeJson({file.string(), "--headphone", profile.string()});
    EXPECT_EQ(out["recommendations"][8]["rationale"].back(), "H2: headphone over-delivers brilliance (8 kHz) (+6.0 dB) → ease off");
    EXPECT_LT(out["recommendations"][8]["gainDb"].get<double>(), flatGains[8]);

    // A catalogue id: a shipped correction changes at least one band against no headphone.
    EXPECT_NE(gains(analyzeJson({file.string(), "--headphone", "oratory1990.over-ear.sennheiser-hd-600"})), flatGains);
}

TEST_F(AnalyzeCommand, TimelineHasOneEntryPerSecondAndNullForSilence) {
    const int rate = 48000;
    const auto sig = test::pinkMultisine(rate, 3, 8.0);
    // 24 periods (2.05 s), 1.5 s of silence, then 24 more periods: second 2 holds only silence.
    test::SoundData data = repeated(sig.period(), 24, rate, 2, std::size_t(1.5 * rate));
    const auto tail = repeated(sig.period(), 24, rate, 2);
    data.samples.insert(data.samples.end(), tail.samples.begin(), tail.samples.end());
    const auto file = dir / "gap.wav";
    test::writeSoundFile(file, data);

    const auto out = analyzeJson({file.string(), "--timeline"});
    ASSERT_TRUE(out["timeline"].is_array());
    // The last window starts at (whole windows − 1) × N; the timeline runs to that window's second.
    EXPECT_EQ(out["timeline"].size(), std::size_t(std::floor((std::floor(data.frameCount() / double(N)) - 1) * N / rate)) + 1);
    EXPECT_TRUE(out["timeline"][2].is_null());

    // The text form shows the same.
    const auto text = analyze({file.string(), "--timeline"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.standardOutput.find("(silent)"), std::string::npos);
}

TEST_F(AnalyzeCommand, SilentAndTinyFilesStillGiveTenRecommendations) {
    const auto silent = dir / "silent.wav";
    test::writeSoundFile(silent, repeated(std::vector<float>(N, 0.0f), 30, 48000, 2));
    auto out = analyzeJson({silent.string()});
    EXPECT_EQ(out["prominenceDb"], json(std::vector<double>(10, 0.0)));
    EXPECT_FALSE(out["isConfident"].get<bool>());
    ASSERT_EQ(out["recommendations"].size(), 10u);
    EXPECT_EQ(out["recommendations"][0]["rationale"][0], "song analysis warming up");

    const auto tiny = dir / "tiny.wav";
    test::writeSoundFile(tiny, test::sineWave(1000, 0.5, 48000, 2, 4000)); // under one window
    const auto text = analyze({tiny.string()});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.standardOutput.find("Nothing to analyse"), std::string::npos);
}

TEST_F(AnalyzeCommand, ClearErrorsAndExitCodes) {
    const auto file = dir / "ok.wav";
    test::writeSoundFile(file, test::sineWave(440, 0.5, 48000, 2, 48000));

    auto r = analyze({(dir / "missing.wav").string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.standardError.find("missing.wav"), std::string::npos) << r.standardError;

    r = analyze({file.string(), "--headphone", "no-such-headphone-id"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.standardError.find("unknown headphone \"no-such-headphone-id\""), std::string::npos) << r.standardError;

    const auto badProfile = dir / "bad.json";
    std::ofstream(badProfile) << "{\"filters\": 3}";
    r = analyze({file.string(), "--headphone", badProfile.string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.standardError.find("bad.json"), std::string::npos) << r.standardError;

    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"--genre", "polka"}, {"--bias", "10=1"}, {"--bias", "1=13"}, {"--lean", "-1"}}) {
        auto args = bad;
        args.insert(args.begin(), file.string());
        r = analyze(args);
        EXPECT_EQ(r.exitCode, 2) << bad[0] << " " << (bad.size() > 1 ? bad[1] : "");
        EXPECT_TRUE(r.standardOutput.empty());
    }

    r = analyze({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_NE(r.standardOutput.find("per-tick window cap"), std::string::npos);
}

} // namespace
} // namespace tarn
