// The route store on a real private sound server, driven on its own control loop as the desk
// service runs it: two applications with their own routes, chains and devices, edited while they
// play, and an application that closes its stream and opens another. Levels are measured on the
// sinks' monitors and checked against the cookbook peaking response, not the product's numbers.

#include <chrono>
#include <cmath>
#include <csignal>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "SoundSession.hpp"
#include "app/RouteStore.hpp"
#include "core/audio/ControlLoop.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"
#include "support/Signals.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

constexpr double toneAmplitudeIn = 0.25;

double peak(const SoundData& data) {
    double out = 0;
    for (std::size_t i = std::min<std::size_t>(data.frameCount(), 9600); i < data.frameCount(); ++i)
        for (int c = 0; c < 2; ++c) out = std::max(out, double(std::abs(data.at(i, c))));
    return out;
}

// With the safety ceiling on (as routes have it), a chain whose bands only cut is held to 0 dB
// overall: the tone leaves at its own level plus the band's response at its frequency.
double expectedCutDb(double bandHz, double bandDb, double toneHz) {
    return toDb(toneAmplitudeIn) + peakingResponseDb(bandHz, bandDb, TenBandLayout::defaultQ, toneHz, 48000.0);
}

class StoreSession : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(session.isRunning()) << session.failure();
        loopThread = std::thread([this] { loop.run(); });
        onLoop([&] {
            platform = std::make_unique<PipeWirePlatform>();
            store = std::make_unique<RouteStore>(*platform, loop, PreferencesStore(folder.path()));
            store->start();
            store->activateRestoredRoutes();
        });
    }

    void TearDown() override {
        onLoop([&] {
            store.reset();
            platform.reset();
        });
        loop.quit();
        loopThread.join();
    }

    // Runs `work` on the store's control thread and waits for it.
    template <typename Work> void onLoop(Work&& work) {
        std::promise<void> done;
        loop.async([&] {
            try {
                work();
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
        done.get_future().get();
    }

    std::unique_ptr<BackgroundProcess> play(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv{TARN_REOPENING_PLAYER_PATH};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        auto player = std::make_unique<BackgroundProcess>(argv);
        const std::string identity = arguments.front();
        EXPECT_TRUE(eventually(
            [&] {
                bool found = false;
                onLoop([&] {
                    for (const auto& e : store->availableProcesses())
                        found = found || (e.bundleID == identity && e.isRunningOutput);
                });
                return found;
            },
            5s))
            << identity << " never showed up playing";
        return player;
    }

    bool isLive(const UUID& id) {
        bool live = false;
        onLoop([&] { live = store->liveEngines().count(id) > 0; });
        return live;
    }

    RouteHealth health(const UUID& id) {
        RouteHealth h{};
        onLoop([&] { h = store->route(id)->health; });
        return h;
    }

    SoundSession session;
    TemporaryDirectory folder;
    ControlLoop loop;
    std::thread loopThread;
    std::unique_ptr<PipeWirePlatform> platform;
    std::unique_ptr<RouteStore> store;
};

TEST_F(StoreSession, TwoApplicationsPlayOnTheirOwnDevicesThroughTheirOwnChainsAndAnEditReachesOneOnly) {
    auto one = play({"org.tarn.ToneOne", "1000", "0.25"});
    auto two = play({"org.tarn.ToneTwo", "2000", "0.25"});
    UUID a, b;
    onLoop([&] {
        a = store->addRoute("org.tarn.ToneOne", "Tone One", std::string("test-speakers"));
        b = store->addRoute("org.tarn.ToneTwo", "Tone Two", std::string("test-headphones"));
        store->requestBandGain(5, -12.0, a, false); // 1 kHz
        store->setActivationMode(RouteActivationMode::on, a);
        store->setActivationMode(RouteActivationMode::on, b);
    });
    ASSERT_TRUE(isLive(a) && isLive(b));
    std::this_thread::sleep_for(500ms);

    auto speakers = recordSink("test-speakers", 2, 1.5);
    auto headphones = recordSink("test-headphones", 2, 1.5);
    EXPECT_NEAR(toneLevelDb(speakers, 1000), expectedCutDb(1000, -12, 1000), 0.5);
    EXPECT_NEAR(toneLevelDb(headphones, 2000), toDb(toneAmplitudeIn), 0.5);
    EXPECT_LT(toneLevelDb(speakers, 2000), -60.0) << "tone two reached the speakers";
    EXPECT_LT(toneLevelDb(headphones, 1000), -60.0) << "tone one reached the headphones";

    // Band 6 (2 kHz) of the headphones' route, glided while both play.
    onLoop([&] { store->requestBandGain(6, -9.0, b, true); });
    std::this_thread::sleep_for(700ms);
    speakers = recordSink("test-speakers", 2, 1.5);
    headphones = recordSink("test-headphones", 2, 1.5);
    EXPECT_NEAR(toneLevelDb(headphones, 2000), expectedCutDb(2000, -9, 2000), 0.5);
    EXPECT_NEAR(toneLevelDb(speakers, 1000), expectedCutDb(1000, -12, 1000), 0.5) << "the edit reached the other route";
}

TEST_F(StoreSession, AnApplicationThatReopensItsStreamAtAnotherRateStaysOnItsRouteAndNeverOnTheSpeakers) {
    // Closes its stream 2.5 s in and opens another at 44.1 kHz 1 s later.
    auto player = play({"org.tarn.Reopening", "1000", "0.25", "2500", "3500", "44100"});
    UUID id;
    onLoop([&] {
        id = store->addRoute("org.tarn.Reopening", "Reopening", std::string("test-headphones"));
        store->setActivationMode(RouteActivationMode::on, id);
    });
    ASSERT_TRUE(isLive(id));

    // From before the close until well after the new stream opened, nothing on the speakers.
    auto speakers = recordSink("test-speakers", 2, 4.0);
    EXPECT_GT(speakers.frameCount(), 48000u * 3);
    EXPECT_LT(peak(speakers), 0.001) << "the application was heard unprocessed on its normal output";

    ASSERT_TRUE(eventually([&] { return isLive(id); }, 5s)) << "the route did not take the new stream back";
    EXPECT_NE(health(id), RouteHealth::lost);
    std::this_thread::sleep_for(300ms);
    auto headphones = recordSink("test-headphones", 2, 1.5);
    EXPECT_NEAR(toneLevelDb(headphones, 1000), toDb(toneAmplitudeIn), 0.5);

    // The application's exit is what ends the route.
    player->signal(SIGTERM);
    ASSERT_TRUE(player->waitFor(5s).has_value());
    ASSERT_TRUE(eventually([&] { return health(id) == RouteHealth::lost; }, 5s));
    std::string error;
    onLoop([&] { error = store->lastStartError().at(id); });
    EXPECT_EQ(error, "source app stopped");
    EXPECT_FALSE(isLive(id));
}

} // namespace
} // namespace tarn::test
