// The route store's lifecycle on the simulated platform: starting, failing to start, pausing
// and resuming with the application, following it across its streams, and automatic activation.

#include "StoreFixture.hpp"

namespace tarn::test {
namespace {

using Health = RouteHealth;

TEST_F(StoreTest, StartFailuresLeaveAHealthAndAFixedTextAndNothingRunning) {
    // An application that does not play anything.
    const UUID absent = store->addRoute("org.example.Absent", "Absent");
    store->startAudio(absent, false);
    EXPECT_EQ(routeOf(absent).health, Health::lost);
    EXPECT_EQ(errorOf(absent), "app not running");
    EXPECT_FALSE(isLive(absent));

    // No output device at all.
    const UUID id = store->addRoute(music, "Music");
    platform.fail(SimulatedAudioPlatform::Step::defaultOutputDevice, SimulatedAudioPlatform::notFound);
    store->startAudio(id, false);
    EXPECT_EQ(routeOf(id).health, Health::blocked);
    EXPECT_EQ(errorOf(id), "no output device");
    platform.clearFailures();

    // The sound server refuses capture: the permission probe fails too.
    platform.fail(SimulatedAudioPlatform::Step::createProcessTap, -13);
    store->startAudio(id, false);
    EXPECT_EQ(routeOf(id).health, Health::blocked);
    EXPECT_EQ(errorOf(id), std::string(RouteStore::captureRefusedText));
    EXPECT_EQ(platform.liveTaps(), 0u);
    platform.clearFailures();

    // Asked again once the refusal is lifted, and the error goes.
    store->startAudio(id, false);
    EXPECT_TRUE(isLive(id));
    EXPECT_EQ(routeOf(id).health, Health::active);
    EXPECT_EQ(errorOf(id), "");
    EXPECT_EQ(store->routes().size(), 2u);
}

TEST_F(StoreTest, ChosenDeviceThatIsMissingPlaysOnTheDefaultUntilItComesBack) {
    const UUID id = store->addRoute(music, "Music", std::string("usb-dac"));
    store->startAudio(id, false);
    ASSERT_TRUE(isLive(id));
    EXPECT_EQ(routeOf(id).health, Health::attention);
    EXPECT_EQ(errorOf(id), "output device unavailable");
    EXPECT_EQ(store->liveRoute(id)->format().outputDeviceUID, "speakers");

    platform.addDevice({12, "usb-dac", "USB DAC", {2}, 512});
    platform.notifyDeviceListChanged();
    settle();
    EXPECT_EQ(store->liveRoute(id)->format().outputDeviceUID, "usb-dac");
    EXPECT_EQ(routeOf(id).health, Health::active);
    EXPECT_EQ(errorOf(id), "");
    EXPECT_GT(playedPeak(12), 0.1) << "the route plays on the device that came back";
}

TEST_F(StoreTest, RouteFollowsItsApplicationAcrossStreamsAndEndsOnlyWhenItQuits) {
    const UUID id = store->addRoute(music, "Music");
    store->setActivationMode(RouteActivationMode::on, id);
    ASSERT_TRUE(isLive(id));
    EXPECT_FALSE(platform.isHeardUnprocessed(musicPID));

    // The player closes its stream (a browser after a pause): the route pauses and keeps the
    // application's streams away from the speakers.
    platform.removeProcess(musicObject);
    processesChanged();
    EXPECT_EQ(routeOf(id).health, Health::paused);
    EXPECT_EQ(errorOf(id), "");
    EXPECT_FALSE(isLive(id));

    // A new stream at another rate: held the moment it appears, before the store hears of it,
    // then taken back into the route.
    auto source = SimulatedAudioPlatform::CaptureSource{};
    source.sampleRate = 44100;
    platform.setCaptureSource(source);
    addProcess(103, musicPID, music, "Music");
    EXPECT_FALSE(platform.isHeardUnprocessed(musicPID)) << "the new stream reached the speakers unprocessed";
    processesChanged();
    EXPECT_TRUE(isLive(id));
    EXPECT_EQ(routeOf(id).health, Health::active);
    EXPECT_FALSE(platform.isHeardUnprocessed(musicPID));
    EXPECT_DOUBLE_EQ(store->liveRoute(id)->sampleRate(), 44100.0);

    // Only the application's exit makes the route lost.
    platform.removeProcess(103);
    tree.alive.erase(musicPID);
    processesChanged();
    EXPECT_EQ(routeOf(id).health, Health::lost);
    EXPECT_EQ(errorOf(id), "source app stopped");
    EXPECT_FALSE(isLive(id));
    EXPECT_EQ(platform.liveAggregateDevices(), 0u) << "a route of a gone application still holds a capture";

    // Relaunched (a new pid): the lost route picks it up again.
    addProcess(104, 601, music, "Music");
    processesChanged();
    EXPECT_TRUE(isLive(id));
    EXPECT_EQ(routeOf(id).health, Health::active);
    EXPECT_EQ(errorOf(id), "");
}

TEST_F(StoreTest, ActivityPolicyPausesASilentApplicationAndResumesItWhenItPlays) {
    const UUID id = store->addRoute(music, "Music");
    store->setActivationMode(RouteActivationMode::on, id);
    ASSERT_TRUE(isLive(id));

    platform.setRunningOutput(musicObject, false);
    processesChanged();
    EXPECT_EQ(routeOf(id).health, Health::paused);
    EXPECT_FALSE(isLive(id));
    EXPECT_EQ(platform.liveIOProcs(), 0u) << "a paused route still processes";

    platform.setRunningOutput(musicObject, true);
    EXPECT_FALSE(platform.isHeardUnprocessed(musicPID));
    processesChanged();
    EXPECT_TRUE(isLive(id));

    // A route the user stopped is not resumed by the policy.
    store->stopAudio(id);
    EXPECT_EQ(routeOf(id).health, Health::idle);
    platform.setRunningOutput(musicObject, false);
    processesChanged();
    platform.setRunningOutput(musicObject, true);
    processesChanged();
    EXPECT_FALSE(isLive(id));
    EXPECT_TRUE(platform.isHeardUnprocessed(musicPID)) << "a stopped route gives the application back";
}

TEST_F(StoreTest, AutoModeFollowsNowPlayingAtItsPollAndOffLeavesAPausedRouteIdle) {
    const UUID id = store->addRoute(music, "Music");
    store->setActivationMode(RouteActivationMode::automatic, id);
    EXPECT_TRUE(isLive(id)) << "auto starts a sounding application at once";

    // The player keeps its stream running but reports paused: the next 5-second tick stops it.
    store->setBroadcastPaused(music, true);
    queue.advance(4.0);
    EXPECT_TRUE(isLive(id));
    queue.advance(1.1);
    EXPECT_FALSE(isLive(id));
    EXPECT_EQ(routeOf(id).health, Health::paused);
    EXPECT_FALSE(platform.isHeardUnprocessed(musicPID));

    store->setBroadcastPaused(music, false);
    queue.advance(5.1);
    EXPECT_TRUE(isLive(id));

    store->setBroadcastPaused(music, true);
    queue.advance(5.1);
    ASSERT_EQ(routeOf(id).health, Health::paused);
    store->setActivationMode(RouteActivationMode::off, id);
    EXPECT_EQ(routeOf(id).health, Health::idle);
    EXPECT_EQ(errorOf(id), "");
    EXPECT_EQ(platform.liveAggregateDevices(), 0u);
}

TEST_F(StoreTest, ListEditsKeepTheSelectionOnARoute) {
    const UUID a = store->addRoute(music, "Music");
    const UUID b = store->addRoute(video, "Video");
    EXPECT_EQ(store->selectedRouteID(), a);
    EXPECT_THROW(store->addRoute(music, "Music again"), std::invalid_argument);
    EXPECT_THROW(store->addRoute("", "Nameless"), std::invalid_argument);

    EXPECT_TRUE(store->moveRoute(b, 0));
    EXPECT_EQ(store->routes().front().id, b);
    EXPECT_TRUE(store->selectRoute(b));
    EXPECT_FALSE(store->selectRoute(UUID::random()));
    EXPECT_EQ(store->selectedRouteID(), b);

    store->startAudio(b, false);
    EXPECT_TRUE(store->removeRoute(b));
    EXPECT_EQ(store->selectedRouteID(), a) << "the neighbour takes the removed route's place";
    EXPECT_EQ(platform.liveAggregateDevices(), 0u);
    EXPECT_FALSE(store->removeRoute(b));
    EXPECT_EQ(store->siriAdjustLoudness(true, b), "That route doesn't exist anymore.");
}

} // namespace
} // namespace tarn::test
