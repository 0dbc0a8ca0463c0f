// The player deck end to end on a private sound server: files in each format the deck takes,
// queued with `tarn deck`, played through the deck's route to its device and measured there.

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "SoundSession.hpp"
#include "support/ProcessRunner.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

constexpr double toneIn = 0.25;
constexpr double toneHz = 1000;

double toDb(double linear) { return 20 * std::log10(linear); }

ProcessResult tarn(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TARN_CLI_PATH);
    return runProcess(arguments);
}

class DeckSession : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(session.isRunning()) << session.failure();
        daemon = std::make_unique<BackgroundProcess>(std::vector<std::string>{TARN_CLI_PATH, "daemon"});
        ASSERT_TRUE(eventually([] { return runProcess({TARN_CLI_PATH, "route", "list"}).exitCode == 0; }, 10s));
    }
    void TearDown() override {
        if (!daemon) return;
        daemon->signal(SIGTERM);
        daemon->waitFor(10s);
    }

    nlohmann::json deck() { return nlohmann::json::parse(tarn({"deck", "status", "--json"}).standardOutput); }

    SoundSession session;
    TemporaryDirectory home;
    ScopedEnvironment config{"TARN_CONFIG_DIR", (home / "config").string()};
    std::unique_ptr<BackgroundProcess> daemon;
};

TEST_F(DeckSession, EachFormatPlaysThroughTheDeckRouteAtTheFilesLevel) {
    const bool hasFFmpeg = hasProgram("ffmpeg");
    writeSoundFile(home / "tone.wav", sineWave(toneHz, toneIn, 48000, 2, 48000 * 3), SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    std::vector<std::pair<std::string, double>> files{{"tone.wav", 0.3}};
    writeSoundFile(home / "tone.flac", sineWave(toneHz, toneIn, 48000, 2, 48000 * 3), SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    writeSoundFile(home / "tone.aiff", sineWave(toneHz, toneIn, 44100, 2, 44100 * 3), SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
    files.push_back({"tone.flac", 0.3});
    files.push_back({"tone.aiff", 0.3});
    if (hasFFmpeg) {
        for (auto [name, codec] : {std::pair{"tone.mp3", "libmp3lame"}, std::pair{"tone-aac.m4a", "aac"},
                                   std::pair{"tone-alac.m4a", "alac"}}) {
            ASSERT_EQ(runProcess({"ffmpeg", "-v", "error", "-y", "-i", (home / "tone.wav").string(), "-c:a", codec,
                                  (home / name).string()}).exitCode, 0) << name;
            files.push_back({name, std::string(codec) == "alac" ? 0.3 : 0.8});
        }
    }
    for (const auto& [name, tolerance] : files) {
        const auto opened = tarn({"deck", "open", (home / name).string()});
        ASSERT_EQ(opened.exitCode, 0) << name << ": " << opened.standardError;
        ASSERT_TRUE(eventually([&] { return deck().value("state", "") == "playing"; }, 5s)) << name;
        std::this_thread::sleep_for(300ms);
        const auto heard = recordSink("test-speakers", 2, 1.0);
        EXPECT_NEAR(toneLevelDb(heard, toneHz), toDb(toneIn), tolerance) << name << " at the device";
        EXPECT_EQ(tarn({"deck", "stop"}).exitCode, 0);
    }
    if (!hasFFmpeg) GTEST_SKIP() << "ffmpeg is not installed: MP3 and AAC were not made";
}

TEST_F(DeckSession, TwoTracksCutFromOneSineJoinWithoutAGapAtTheDevice) {
    // 1.5 s and 2 s of one 441 Hz tone, split where no block size would split it.
    const auto whole = sineWave(441, toneIn, 48000, 2, 48000 * 3 + 48000 / 2);
    const std::size_t cut = 72011;
    SoundData a{48000, 2, {whole.samples.begin(), whole.samples.begin() + cut * 2}};
    SoundData b{48000, 2, {whole.samples.begin() + cut * 2, whole.samples.end()}};
    std::filesystem::create_directories(home / "album");
    writeSoundFile(home / "album" / "01 a.flac", a, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    writeSoundFile(home / "album" / "02 b.flac", b, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    ASSERT_EQ(tarn({"deck", "open", (home / "album").string()}).exitCode, 0);
    const auto heard = recordSink("test-speakers", 2, 3.0);
    // Where the tone is, the sine's recurrence holds sample to sample; a gap or a click breaks it.
    const double c = 2 * std::cos(2 * M_PI * 441 / 48000);
    std::size_t first = 0, last = heard.frameCount();
    while (first < last && std::abs(heard.at(first, 0)) < 0.01f) ++first;
    while (last > first && std::abs(heard.at(last - 1, 0)) < 0.01f) --last;
    ASSERT_GT(last, first + 96000) << "the album was heard for at least 2 s";
    double worst = 0;
    for (std::size_t n = first + 2400; n + 1 < last - 2400; ++n)
        worst = std::max(worst, std::abs(double(heard.at(n + 1, 0)) - c * heard.at(n, 0) + double(heard.at(n - 1, 0))));
    EXPECT_LT(worst, 0.01) << "the join is not seamless";
    const auto status = deck();
    EXPECT_EQ(status.value("trackIndex", -1), 1) << "the second track plays by now";
}

TEST_F(DeckSession, ADamagedFileIsSkippedWithAMessageOnTheRouteAndTheNextPlays) {
    writeSoundFile(home / "a.wav", sineWave(toneHz, toneIn, 48000, 2, 24000));
    { std::ofstream(home / "b.flac") << "fLaC and nothing a decoder could read"; }
    writeSoundFile(home / "c.wav", sineWave(toneHz, toneIn, 48000, 2, 48000 * 4));
    ASSERT_EQ(tarn({"deck", "open", (home / "a.wav").string(), (home / "b.flac").string(), (home / "c.wav").string()}).exitCode, 0);
    ASSERT_TRUE(eventually([&] { return deck().value("trackIndex", -1) == 2; }, 5s)) << deck().dump();
    const auto routes = nlohmann::json::parse(tarn({"route", "list", "--json"}).standardOutput);
    std::string message;
    for (const auto& r : routes)
        if (r.value("bundleID", "") == "sorvi.player.local" && r["lastStartError"].is_string()) message = r["lastStartError"];
    EXPECT_NE(message.find("b.flac"), std::string::npos) << message;
    const auto heard = recordSink("test-speakers", 2, 1.0);
    EXPECT_NEAR(toneLevelDb(heard, toneHz), toDb(toneIn), 0.3) << "the file after the damaged one plays";
}

TEST_F(DeckSession, CommandsRefuseWhatTheyCannotDoWithAReason) {
    const auto empty = tarn({"deck", "play"});
    EXPECT_EQ(empty.exitCode, 1);
    EXPECT_NE(empty.standardError.find("queue is empty"), std::string::npos) << empty.standardError;
    const auto missing = tarn({"deck", "open", (home / "nothing-here").string()});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.standardError.find("nothing-here"), std::string::npos) << missing.standardError;
}

} // namespace
} // namespace tarn::test
