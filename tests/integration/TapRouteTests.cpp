// `tarn tap` on a real private sound server: pw-play is the application, pw-record on the sinks'
// monitors hears what reaches them. Expected levels come from the cookbook peaking filter computed
// here, not from the product's own numbers.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <csignal>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "SoundSession.hpp"
#include "support/ProcessRunner.hpp"
#include "support/Signals.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

constexpr double toneAmplitudeIn = 0.25;

double level(const SoundData& data, int channel, double frequencyHz = 1000.0) {
    size_t first = std::min<size_t>(data.frameCount(), 9600); // the recorder's own start
    size_t count = data.frameCount() - first;
    return count < 4800 ? -1.0 : toneAmplitude(data, channel, frequencyHz, first, count);
}

bool isListed(pid_t pid) {
    auto apps = nlohmann::json::parse(runProcess({TARN_CLI_PATH, "apps", "--json"}).standardOutput, nullptr, false);
    if (!apps.is_array()) return false;
    for (auto& app : apps)
        if (app.value("pid", 0) == pid && app.value("isRunningOutput", false)) return true;
    return false;
}

class TapRouteTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(session.isRunning()) << session.failure();
        writeSoundFile(folder / "tone.wav", sineWave(1000.0, toneAmplitudeIn, 48000, 2, 48000 * 40));
    }

    void startPlayer(const std::vector<std::string>& extra = {}, const std::string& file = "tone.wav") {
        std::vector<std::string> argv{"pw-play"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        argv.push_back((folder / file).string());
        player = std::make_unique<BackgroundProcess>(argv);
        // Playing on the speakers before anything is routed.
        ASSERT_TRUE(eventually([&] { return isListed(player->pid()); }, 5s));
    }

    // Starts `tarn tap` on the player (or another pid) and waits for its "started" event.
    void startTap(const std::vector<std::string>& options, pid_t pid = 0) {
        std::vector<std::string> argv{TARN_CLI_PATH, "tap", std::to_string(pid ? pid : player->pid()), "--json"};
        argv.insert(argv.end(), options.begin(), options.end());
        tap = std::make_unique<BackgroundProcess>(argv);
        ASSERT_TRUE(eventually([&] { return tap->standardOutput().find("\"started\"") != std::string::npos ||
                                            !tap->isRunning(); },
                               10s));
        ASSERT_TRUE(tap->isRunning()) << tap->standardError();
        std::istringstream lines(tap->standardOutput());
        for (std::string line; std::getline(lines, line);) {
            auto event = nlohmann::json::parse(line, nullptr, false);
            if (event.is_object() && event.value("event", "") == "started") started = event;
        }
        ASSERT_TRUE(started.is_object()) << tap->standardOutput();
        std::this_thread::sleep_for(400ms); // the moved stream settles and the fade-in is over
    }

    bool metadataMentionsPlayer() {
        auto out = runProcess({"pw-metadata", "-n", "default"}).standardOutput;
        return out.find("target.object") != std::string::npos;
    }

    SoundSession session;
    TemporaryDirectory folder;
    std::unique_ptr<BackgroundProcess> player;
    std::unique_ptr<BackgroundProcess> tap;
    nlohmann::json started;
};

TEST_F(TapRouteTest, BandFiveCutReachesTheSpeakersAtTheDesignedLevelAndStopReturnsTheApplication) {
    startPlayer();
    startTap({"--band", "5=-12", "--no-ceiling"});
    EXPECT_EQ(started["device"], "test-speakers");
    EXPECT_EQ(started["channelCount"], 2);

    // −12 dB peaking at 1 kHz, Q √2, plus the fixed +4 dB make-up.
    const double expectedDb = toDb(toneAmplitudeIn) + peakingResponseDb(1000, -12, std::sqrt(2.0), 1000, 48000) + 4.0;
    auto routed = recordSink("test-speakers", 2, 1.5);
    for (int c = 0; c < 2; ++c) {
        double measured = toDb(level(routed, c));
        std::printf("channel %d: routed tone %.2f dBFS, designed %.2f dBFS\n", c, measured, expectedDb);
        // An unprocessed copy of the tone (−12 dBFS) on the speakers would move this by several dB.
        EXPECT_NEAR(measured, expectedDb, 0.5) << "channel " << c;
    }

    tap->signal(SIGINT);
    auto code = tap->waitFor(5s);
    ASSERT_TRUE(code.has_value()) << "tarn tap did not stop on SIGINT";
    EXPECT_EQ(*code, 0) << tap->standardError();
    EXPECT_FALSE(metadataMentionsPlayer());
    std::this_thread::sleep_for(200ms);
    auto back = recordSink("test-speakers", 2, 1.0);
    EXPECT_NEAR(toDb(level(back, 0)), toDb(toneAmplitudeIn), 0.5) << "the application is not back, unprocessed";
}

TEST_F(TapRouteTest, RouteToHeadphonesPlaysThereAndNotOnTheSpeakers) {
    startPlayer();
    startTap({"--device", "test-headphones", "--no-ceiling"});
    EXPECT_EQ(started["device"], "test-headphones");
    auto speakers = recordSink("test-speakers", 2, 1.0);
    auto headphones = recordSink("test-headphones", 2, 1.0);
    EXPECT_NEAR(toDb(level(headphones, 0)), toDb(toneAmplitudeIn) + 4.0, 0.5); // flat chain: the make-up only
    EXPECT_LT(level(speakers, 0), 0.0005);
    EXPECT_LT(level(speakers, 1), 0.0005);
}

TEST_F(TapRouteTest, ApplicationQuittingEndsItsRoute) {
    startPlayer();
    startTap({});
    player->signal(SIGTERM);
    auto code = tap->waitFor(5s);
    ASSERT_TRUE(code.has_value()) << "tarn tap did not notice that the application quit";
    EXPECT_EQ(*code, 0);
    EXPECT_NE(tap->standardOutput().find("\"appQuit\""), std::string::npos);
}

TEST_F(TapRouteTest, SinkThatDisappearsEndsTheRouteWithAClearError) {
    auto created = runProcess({"pw-cli", "create-node", "adapter",
                               "{ factory.name = support.null-audio-sink node.name = test-vanishing "
                               "node.description = \"Test Vanishing\" media.class = Audio/Sink object.linger = true "
                               "audio.position = [ FL FR ] }"});
    ASSERT_EQ(created.exitCode, 0) << created.standardError;
    ASSERT_TRUE(eventually([] { return runProcess({TARN_CLI_PATH, "devices"}).standardOutput.find("test-vanishing") !=
                                       std::string::npos; },
                           3s));
    startPlayer();
    startTap({"--device", "test-vanishing"});

    auto devices = nlohmann::json::parse(runProcess({TARN_CLI_PATH, "devices", "--json"}).standardOutput);
    std::string id;
    for (auto& d : devices)
        if (d["uid"] == "test-vanishing") id = std::to_string(d["nodeID"].get<int>());
    ASSERT_FALSE(id.empty());
    ASSERT_EQ(runProcess({"pw-cli", "destroy", id}).exitCode, 0);

    auto code = tap->waitFor(5s);
    ASSERT_TRUE(code.has_value()) << "the route did not end when its sink went away";
    EXPECT_EQ(*code, 1);
    EXPECT_NE(tap->standardError().find("\"Test Vanishing\" (test-vanishing) went away"), std::string::npos)
        << tap->standardError();
    // The application is not left on a dead capture sink.
    std::this_thread::sleep_for(300ms);
    EXPECT_NEAR(toDb(level(recordSink("test-speakers", 2, 1.0), 0)), toDb(toneAmplitudeIn), 0.5);
}

TEST_F(TapRouteTest, SixChannelStreamIsCapturedChannelByChannel) {
    // Channel c carries 300·(c+1) Hz.
    writeSoundFile(folder / "surround.wav", sineWave(300.0, 0.1, 48000, 6, 48000 * 40, true));
    startPlayer({"--channels", "6", "--channel-map", "FL,FR,FC,LFE,RL,RR"}, "surround.wav");
    startTap({"--device", "test-surround"});
    EXPECT_EQ(started["channelCount"], 6);
    EXPECT_EQ(started["layout"], "5.1");

    auto recorded = recordSink("test-surround", 6, 1.5);
    ASSERT_EQ(recorded.channelCount, 6);
    for (int c = 0; c < 6; ++c) {
        double own = level(recorded, c, 300.0 * (c + 1));
        EXPECT_GT(own, 0.05) << "channel " << c << " lost its tone";
        for (int other = 0; other < 6; ++other) {
            if (other == c) continue;
            EXPECT_LT(level(recorded, c, 300.0 * (other + 1)), own * 0.01)
                << "channel " << c << " carries channel " << other << "'s tone";
        }
    }
}

TEST_F(TapRouteTest, KilledTapLeavesNoMetadataAndTheApplicationReturns) {
    startPlayer();
    startTap({});
    ASSERT_TRUE(metadataMentionsPlayer());
    tap->signal(SIGKILL);
    tap->waitFor(2s);
    EXPECT_TRUE(eventually([&] { return !metadataMentionsPlayer(); }, 15s))
        << "the target.object entry outlived tarn:\n" << runProcess({"pw-metadata", "-n", "default"}).standardOutput;
    std::this_thread::sleep_for(300ms);
    EXPECT_NEAR(toDb(level(recordSink("test-speakers", 2, 1.0), 0)), toDb(toneAmplitudeIn), 0.5);
}

TEST_F(TapRouteTest, RoutedImpulseArrivesWithinOneQuantumOfTheDirectPath) {
    // Both players put impulses on the same graph-clock positions: the direct one on the left
    // channel, the routed one on the right.
    constexpr long period = 24000;
    BackgroundProcess direct({TARN_IMPULSE_PLAYER_PATH, "0", std::to_string(period), "tarn-impulse-direct"});
    BackgroundProcess routed({TARN_IMPULSE_PLAYER_PATH, "1", std::to_string(period), "tarn-impulse-routed"});
    ASSERT_TRUE(eventually([&] { return isListed(direct.pid()) && isListed(routed.pid()); }, 5s));
    startTap({}, routed.pid());
    const long quantum = started.value("quantumFrames", 0);
    ASSERT_GT(quantum, 0);
    std::this_thread::sleep_for(500ms);

    auto recording = recordSink("test-speakers", 2, 2.5);
    std::vector<long> delays;
    for (size_t start = 0; start + period <= recording.frameCount(); start += period) {
        size_t left = start, right = start;
        for (size_t i = start; i < start + period; ++i) {
            if (std::abs(recording.at(i, 0)) > std::abs(recording.at(left, 0))) left = i;
            if (std::abs(recording.at(i, 1)) > std::abs(recording.at(right, 1))) right = i;
        }
        if (std::abs(recording.at(left, 0)) < 0.1 || std::abs(recording.at(right, 1)) < 0.1) continue;
        long delay = (long(right) - long(left)) % period;
        if (delay < -period / 2) delay += period;
        if (delay >= period / 2) delay -= period;
        delays.push_back(delay);
    }
    ASSERT_GE(delays.size(), 2u) << "no impulse pairs were recorded";
    std::sort(delays.begin(), delays.end());
    const long added = delays[delays.size() / 2];
    std::printf("added latency of the route: %ld frames (%.2f ms) at a quantum of %ld frames\n", added,
                added / 48.0, quantum);
    EXPECT_GE(added, 0);
    EXPECT_LE(added, 2 * quantum);
}

double peak(const SoundData& data, int channel) {
    double out = 0;
    for (size_t i = std::min<size_t>(data.frameCount(), 9600); i < data.frameCount(); ++i)
        out = std::max(out, double(std::abs(data.at(i, channel))));
    return out;
}

size_t streamCount(pid_t pid) {
    auto apps = nlohmann::json::parse(runProcess({TARN_CLI_PATH, "apps", "--json"}).standardOutput, nullptr, false);
    if (apps.is_array())
        for (auto& app : apps)
            if (app.value("pid", 0) == pid) return app["streams"].size();
    return 0;
}

TEST_F(TapRouteTest, StreamTheApplicationOpensWhileRoutedFollowsTheRoute) {
    // Impulses every 10 ms; a second stream of the same process opens 2.5 s in.
    BackgroundProcess app({TARN_IMPULSE_PLAYER_PATH, "0", "480", "tarn-two-streams", "2500"});
    ASSERT_TRUE(eventually([&] { return isListed(app.pid()); }, 5s));
    startTap({"--device", "test-headphones"}, app.pid());
    ASSERT_EQ(streamCount(app.pid()), 1u) << "the second stream opened too early for this test";
    ASSERT_TRUE(eventually([&] { return streamCount(app.pid()) == 2; }, 6s));
    std::this_thread::sleep_for(300ms);

    auto speakers = recordSink("test-speakers", 2, 1.0);
    auto headphones = recordSink("test-headphones", 2, 1.0);
    EXPECT_LT(peak(speakers, 0), 0.001) << "the new stream played on the speakers, unrouted";
    // Both streams' impulses coincide on the headphones.
    EXPECT_GT(peak(headphones, 0), 0.6);
}

// The JSON events of one kind that the tap printed so far.
std::vector<nlohmann::json> events(BackgroundProcess& tap, const std::string& kind) {
    std::vector<nlohmann::json> out;
    std::istringstream lines(tap.standardOutput());
    for (std::string line; std::getline(lines, line);) {
        auto event = nlohmann::json::parse(line, nullptr, false);
        if (event.is_object() && event.value("event", "") == kind) out.push_back(event);
    }
    return out;
}

TEST_F(TapRouteTest, RouteWithoutADeviceFollowsTheDefaultOutput) {
    startPlayer();
    startTap({"--band", "5=-12", "--no-ceiling"});
    ASSERT_EQ(started["device"], "test-speakers");

    auto changed = runProcess({"pw-metadata", "-n", "default", "0", "default.configured.audio.sink",
                               R"({ "name": "test-headphones" })", "Spa:String:JSON"});
    ASSERT_EQ(changed.exitCode, 0) << changed.standardError;
    ASSERT_TRUE(eventually([&] { return !events(*tap, "deviceChanged").empty(); }, 5s)) << tap->standardOutput();
    auto event = events(*tap, "deviceChanged").front();
    EXPECT_EQ(event["device"], "test-headphones");
    EXPECT_EQ(event["deviceName"], "Test Headphones");
    EXPECT_EQ(event["pid"], player->pid());
    std::this_thread::sleep_for(400ms);

    // Processed (−8 dB from the tone) on the headphones; nothing, processed or not, on the speakers.
    const double expectedDb = toDb(toneAmplitudeIn) + peakingResponseDb(1000, -12, std::sqrt(2.0), 1000, 48000) + 4.0;
    auto speakers = recordSink("test-speakers", 2, 1.0);
    auto headphones = recordSink("test-headphones", 2, 1.0);
    for (int c = 0; c < 2; ++c) {
        EXPECT_NEAR(toDb(level(headphones, c)), expectedDb, 0.5) << "channel " << c;
        EXPECT_LT(level(speakers, c), 0.0005) << "channel " << c;
    }
    ASSERT_TRUE(tap->isRunning()) << tap->standardError();
    tap->signal(SIGINT);
    auto code = tap->waitFor(5s);
    ASSERT_TRUE(code.has_value());
    EXPECT_EQ(*code, 0) << tap->standardError();
}

TEST_F(TapRouteTest, DefaultOutputThatGoesAwayWithNoOtherEndsTheRouteClearly) {
    startPlayer();
    startTap({});
    auto devices = nlohmann::json::parse(runProcess({TARN_CLI_PATH, "devices", "--json"}).standardOutput);
    std::map<std::string, std::string> ids;
    for (auto& d : devices) ids[d["uid"]] = std::to_string(d["nodeID"].get<int>());
    // The others first, so that the default is the last output to go.
    for (const char* uid : {"test-surround", "test-headphones", "test-speakers"}) {
        ASSERT_TRUE(ids.count(uid)) << uid;
        ASSERT_EQ(runProcess({"pw-cli", "destroy", ids[uid]}).exitCode, 0) << uid;
    }
    auto code = tap->waitFor(8s);
    ASSERT_TRUE(code.has_value()) << "the route outlived every output";
    EXPECT_EQ(*code, 1);
    EXPECT_NE(tap->standardError().find("\"Test Speakers\" (test-speakers) went away and there is no default output "
                                        "device to follow"),
              std::string::npos)
        << tap->standardError();
    EXPECT_TRUE(events(*tap, "deviceChanged").empty()) << tap->standardOutput();
}

TEST_F(TapRouteTest, UnknownApplicationAndDeviceFailClearly) {
    auto noApp = runProcess({TARN_CLI_PATH, "tap", "no-such-app", "--seconds", "1"});
    EXPECT_EQ(noApp.exitCode, 1);
    EXPECT_NE(noApp.standardError.find("no application playing audio matches \"no-such-app\""), std::string::npos);
    startPlayer();
    // Names match without regard to case, as `tarn apps` prints them.
    auto noDevice = runProcess({TARN_CLI_PATH, "tap", "PW-PLAY", "--device", "nowhere", "--seconds", "1"});
    EXPECT_EQ(noDevice.exitCode, 1);
    EXPECT_NE(noDevice.standardError.find("no output device \"nowhere\""), std::string::npos);
}

} // namespace
} // namespace tarn::test
