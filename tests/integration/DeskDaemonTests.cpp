// The desk service on a real private sound server, through its own command line: `tarn route`
// talks to `tarn daemon` over the session's bus. Levels are measured on the sinks' monitors and
// checked against the cookbook peaking response.

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "SoundSession.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "support/ProcessRunner.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/Signals.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

constexpr double toneIn = 0.25;

// A route whose bands only cut is held to 0 dB overall by its safety ceiling.
double cutDb(double bandHz, double bandDb, double toneHz) {
    return toDb(toneIn) + peakingResponseDb(bandHz, bandDb, TenBandLayout::defaultQ, toneHz, 48000.0);
}

class DeskDaemon : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.isRunning()) << session.failure(); }

    void TearDown() override {
        if (daemon && daemon->isRunning()) {
            daemon->signal(SIGTERM);
            daemon->waitFor(10s);
        }
    }

    void startDaemon() {
        daemon = std::make_unique<BackgroundProcess>(std::vector<std::string>{TARN_CLI_PATH, "daemon"});
        ASSERT_TRUE(eventually([&] { return route({"list"}).exitCode == 0; }, 10s)) << daemon->standardError();
    }

    ProcessResult route(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {TARN_CLI_PATH, "route"});
        return runProcess(arguments);
    }

    std::string added(const std::vector<std::string>& arguments) {
        auto result = route(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.standardError;
        auto id = result.standardOutput;
        while (!id.empty() && std::isspace(static_cast<unsigned char>(id.back()))) id.pop_back();
        return id;
    }

    nlohmann::json routeState(const std::string& id) {
        auto list = nlohmann::json::parse(route({"list", "--json"}).standardOutput, nullptr, false);
        if (list.is_array())
            for (auto& r : list)
                if (r.value("id", "") == id) return r;
        return {};
    }

    bool isLive(const std::string& id) {
        auto r = routeState(id);
        return r.is_object() && r.value("isLive", false);
    }

    std::unique_ptr<BackgroundProcess> play(const std::string& identity, const std::string& hz) {
        auto player = std::make_unique<BackgroundProcess>(
            std::vector<std::string>{TARN_REOPENING_PLAYER_PATH, identity, hz, "0.25"});
        EXPECT_TRUE(eventually(
            [&] { return runProcess({TARN_CLI_PATH, "apps"}).standardOutput.find(identity) != std::string::npos; },
            5s));
        return player;
    }

    SoundSession session;
    TemporaryDirectory home;
    // The desk keeps its state here, not in the user's folders.
    ScopedEnvironment config{"TARN_CONFIG_DIR", (home / "config").string()};
    ScopedEnvironment data{"XDG_DATA_HOME", (home / "data").string()};
    std::unique_ptr<BackgroundProcess> daemon;
};

TEST_F(DeskDaemon, TheBusStartsTheDeskAndTwoRoutesPlayOnTheirDevicesWithAnEditReachingOneOnly) {
    // D-Bus activation, as an installed desk is started: the first call starts it.
    const auto services = session.folder() / "data" / "dbus-1" / "services";
    std::filesystem::create_directories(services);
    std::ofstream(services / "com.tarn.Desk.service")
        << "[D-BUS Service]\nName=com.tarn.Desk\nExec=/usr/bin/env TARN_CONFIG_DIR=" << (home / "config").string()
        << " XDG_DATA_HOME=" << (home / "data").string() << " " << TARN_CLI_PATH << " daemon\n";

    auto one = play("org.tarn.ToneOne", "1000");
    auto two = play("org.tarn.ToneTwo", "2000");
    const auto a = added({"add", "org.tarn.ToneOne", "--device", "test-speakers", "--mode", "on"});
    const auto b = added({"add", "org.tarn.ToneTwo", "--device", "test-headphones", "--mode", "on"});
    ASSERT_EQ(route({"band", a.substr(0, 8), "5", "-12"}).exitCode, 0);
    ASSERT_TRUE(eventually([&] { return isLive(a) && isLive(b); }, 5s));
    std::this_thread::sleep_for(800ms);

    auto speakers = recordSink("test-speakers", 2, 1.5);
    auto headphones = recordSink("test-headphones", 2, 1.5);
    EXPECT_NEAR(toneLevelDb(speakers, 1000), cutDb(1000, -12, 1000), 0.5);
    EXPECT_NEAR(toneLevelDb(headphones, 2000), toDb(toneIn), 0.5);
    EXPECT_LT(toneLevelDb(speakers, 2000), -60.0);

    ASSERT_EQ(route({"band", "org.tarn.ToneTwo", "6", "-9"}).exitCode, 0);
    std::this_thread::sleep_for(800ms);
    headphones = recordSink("test-headphones", 2, 1.5);
    speakers = recordSink("test-speakers", 2, 1.5);
    EXPECT_NEAR(toneLevelDb(headphones, 2000), cutDb(2000, -9, 2000), 0.5);
    EXPECT_NEAR(toneLevelDb(speakers, 1000), cutDb(1000, -12, 1000), 0.5) << "the edit reached the other route";

    auto shaped = route({"shape", a, "5=+4"});
    EXPECT_EQ(shaped.exitCode, 0);
    EXPECT_EQ(shaped.standardOutput, "Done: upper mids (1 kHz) -8 — balance stick -2 as counterweight\n");

    // The activated desk is stopped the way its unit would be.
    auto owner = runProcess({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus",
                             "/org/freedesktop/DBus", "org.freedesktop.DBus.GetConnectionUnixProcessID",
                             "string:com.tarn.Desk"});
    const auto at = owner.standardOutput.find("uint32 ");
    ASSERT_NE(at, std::string::npos) << owner.standardError;
    const pid_t pid = std::stoi(owner.standardOutput.substr(at + 7));
    ::kill(pid, SIGTERM);
    EXPECT_TRUE(eventually([&] { return ::kill(pid, 0) != 0; }, 10s));
}

TEST_F(DeskDaemon, RoutesComeBackAsSavedAfterARestartAndAKilledDeskGivesTheApplicationsBack) {
    startDaemon();
    auto one = play("org.tarn.ToneOne", "1000");
    auto two = play("org.tarn.ToneTwo", "2000");
    const auto a = added({"add", "org.tarn.ToneOne", "--device", "test-headphones", "--mode", "on"});
    const auto b = added({"add", "org.tarn.ToneTwo"});
    ASSERT_EQ(route({"band", a, "5", "-6"}).exitCode, 0);
    ASSERT_EQ(route({"genre", b, "rock"}).exitCode, 0);
    ASSERT_TRUE(eventually([&] { return isLive(a); }, 5s));

    // SIGTERM: every route stops and the applications are back where they were.
    daemon->signal(SIGTERM);
    ASSERT_TRUE(daemon->waitFor(10s).has_value());
    std::this_thread::sleep_for(300ms);
    EXPECT_NEAR(toneLevelDb(recordSink("test-speakers", 2, 1.0), 1000), toDb(toneIn), 0.5);

    startDaemon();
    ASSERT_TRUE(eventually([&] { return isLive(a); }, 5s)) << "an `on` route did not come back";
    EXPECT_FALSE(isLive(b)) << "an `off` route started by itself";
    EXPECT_EQ(routeState(a)["customEQBands"][5]["gainDb"], -6.0);
    EXPECT_EQ(routeState(b)["selectedGenre"], "rock");
    std::this_thread::sleep_for(800ms);
    EXPECT_NEAR(toneLevelDb(recordSink("test-headphones", 2, 1.5), 1000), cutDb(1000, -6, 1000), 0.5);

    // Killed outright: nothing it made outlives it, so the application plays on its own again.
    daemon->signal(SIGKILL);
    ASSERT_TRUE(daemon->waitFor(5s).has_value());
    std::this_thread::sleep_for(1500ms);
    EXPECT_NEAR(toneLevelDb(recordSink("test-speakers", 2, 1.0), 1000), toDb(toneIn), 0.5);
    EXPECT_LT(toneLevelDb(recordSink("test-headphones", 2, 1.0), 1000), -60.0);
}

TEST_F(DeskDaemon, LiveRoutesRecoverWhenTheSoundServerRestarts) {
    startDaemon();
    auto player = play("org.tarn.ToneOne", "1000");
    const auto a = added({"add", "org.tarn.ToneOne", "--device", "test-headphones", "--mode", "on"});
    ASSERT_EQ(route({"band", a, "5", "-6"}).exitCode, 0);
    ASSERT_TRUE(eventually([&] { return isLive(a); }, 5s));

    auto restarted = runProcess({std::string(TARN_SOURCE_DIR) + "/scripts/sound-session", "restart-server"});
    ASSERT_EQ(restarted.exitCode, 0) << restarted.standardError;
    const auto back = std::chrono::steady_clock::now();
    // The application reconnects too (its old stream died with the server).
    player = play("org.tarn.ToneOne", "1000");
    ASSERT_TRUE(eventually([&] { return isLive(a); }, 5s)) << "the route did not come back with the server";
    EXPECT_LT(std::chrono::steady_clock::now() - back, 5s);
    ASSERT_TRUE(daemon->isRunning());
    std::this_thread::sleep_for(800ms);
    EXPECT_NEAR(toneLevelDb(recordSink("test-headphones", 2, 1.5), 1000), cutDb(1000, -6, 1000), 0.5);
    EXPECT_LT(toneLevelDb(recordSink("test-speakers", 2, 1.0), 1000), -60.0);
}

TEST_F(DeskDaemon, BadArgumentsGetTheirErrorsAndTheDeskGoesOn) {
    startDaemon();
    auto player = play("org.tarn.ToneOne", "1000");
    const auto a = added({"add", "org.tarn.ToneOne"});
    const std::string before = routeState(a).dump();

    auto send = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"dbus-send", "--session", "--print-reply", "--dest=com.tarn.Desk",
                                             "/com/tarn/Desk"});
        return runProcess(arguments);
    };
    auto unknown = send({"com.tarn.Desk1.SetBand", "string:0D0D0D0D-0000-4000-8000-000000000000", "int32:3", "double:1"});
    EXPECT_NE(unknown.standardError.find("That route doesn't exist anymore."), std::string::npos) << unknown.standardError;
    auto garbage = send({"com.tarn.Desk1.StartRoute", "string:not a route"});
    EXPECT_NE(garbage.standardError.find("That route doesn't exist anymore."), std::string::npos);
    auto band = send({"com.tarn.Desk1.SetBand", "string:" + a, "int32:99", "double:1"});
    EXPECT_NE(band.standardError.find("band must be 0..9, got 99"), std::string::npos) << band.standardError;
    auto nan = send({"com.tarn.Desk1.SetGain", "string:" + a, "double:nan"});
    EXPECT_NE(nan.standardError.find("gain must be within"), std::string::npos) << nan.standardError;
    auto longLine = send({"com.tarn.Desk1.ImportEQ", "string:" + a, "string:x", "string:" + std::string(5000, 'F')});
    EXPECT_NE(longLine.standardError.find("longer than"), std::string::npos) << longLine.standardError;
    auto shape = send({"com.tarn.Desk1.Shape", "string:" + a, "string:5=lots"});
    EXPECT_NE(shape.standardError.find("I=DB"), std::string::npos);
    auto wrongTypes = send({"com.tarn.Desk1.SetGain", "int32:7", "string:loud"});
    EXPECT_NE(wrongTypes.exitCode, 0);

    auto gain = route({"gain", a, "40"});
    EXPECT_EQ(gain.exitCode, 1);
    EXPECT_EQ(gain.standardError, "tarn: gain must be within -60..12 dB, got 40\n");
    EXPECT_EQ(route({"mode", a, "sideways"}).exitCode, 2);
    EXPECT_EQ(route({"stop", "nothing-like-it"}).exitCode, 1);

    ASSERT_TRUE(daemon->isRunning()) << daemon->standardError();
    EXPECT_EQ(routeState(a).dump(), before) << "a refused call changed the route";
    std::this_thread::sleep_for(600ms); // the debounced save
    auto saved = nlohmann::json::parse(std::ifstream(home / "config" / "Tarn.routesState.v1.json"), nullptr, false);
    EXPECT_TRUE(saved.is_object() && saved["routes"].size() == 1u);
}

TEST_F(DeskDaemon, APlayerThatReportsPausedPausesItsAutoRoute) {
    startDaemon();
    BackgroundProcess player({TARN_MPRIS_TONE_PLAYER_PATH, "org.tarn.Mpris", "500", "0.2", "Song", "Artist", "Rock"});
    ASSERT_TRUE(eventually([&] { return player.standardOutput().find("org.mpris.MediaPlayer2") != std::string::npos; },
                           5s));
    std::string busName = player.standardOutput();
    busName = busName.substr(0, busName.find('\n'));
    const auto a = added({"add", "org.tarn.Mpris", "--mode", "auto"});
    ASSERT_TRUE(eventually([&] { return isLive(a); }, 6s));

    // Its stream keeps running, but it says it is paused: the next 5-second poll pauses the route.
    runProcess({"dbus-send", "--session", "--print-reply", "--dest=" + busName, "/org/mpris/MediaPlayer2",
                "org.mpris.MediaPlayer2.Player.Pause"});
    ASSERT_TRUE(eventually([&] { return routeState(a).value("health", "") == "paused"; }, 8s));
    EXPECT_FALSE(isLive(a));

    // The desk's own play reaches the player, and the route comes back at the next poll.
    EXPECT_EQ(route({"play", a}).exitCode, 0);
    EXPECT_TRUE(eventually([&] { return isLive(a); }, 8s));
}

} // namespace
} // namespace tarn::test
