// Saving and restoring the desk: debounced writes that wait for glides, and restores that
// never lose what the user had.

#include <filesystem>

#include <nlohmann/json.hpp>

#include "StoreFixture.hpp"
#include "core/io/RouteStatePersistence.hpp"

namespace tarn::test {
namespace {

class StorePersistence : public StoreTest {
protected:
    std::filesystem::path stateFile() { return folder / "Tarn.routesState.v1.json"; }
    nlohmann::json saved() { return nlohmann::json::parse(readText(stateFile())); }
};

TEST_F(StorePersistence, ABurstOfEditsIsWrittenOnce035SecondsAfterItsLastEdit) {
    const UUID id = store->addRoute(music, "Music");
    queue.advance(1.0);
    ASSERT_TRUE(std::filesystem::exists(stateFile()));
    std::filesystem::remove(stateFile());

    // Ten edits 30 ms apart, on a route that does not play (no glides).
    for (int i = 1; i <= 10; ++i) {
        store->setGain(id, -double(i));
        queue.advance(0.03);
    }
    queue.advance(0.35 - 0.03 - 0.01);
    EXPECT_FALSE(std::filesystem::exists(stateFile())) << "written before the burst was over";
    queue.advance(0.02);
    ASSERT_TRUE(std::filesystem::exists(stateFile()));
    EXPECT_EQ(saved()["routes"][0]["gainDb"], -10.0);

    // Nothing changed: nothing written (the same bytes are not written again).
    std::filesystem::remove(stateFile());
    store->setGain(id, -10.0);
    queue.advance(1.0);
    EXPECT_FALSE(std::filesystem::exists(stateFile()));
}

TEST_F(StorePersistence, AGlideHoldsTheSaveUntilItLands) {
    const UUID id = store->addRoute(music, "Music");
    store->startAudio(id, false);
    // Audio flows before the first health check, so the route is verified at once and its health
    // does not change (and save) during the glide.
    ASSERT_TRUE(platform.waitForCaptureCycles(platform.captureCycles() + 20));
    queue.advance(2.0);
    ASSERT_EQ(routeOf(id).health, RouteHealth::verified);
    std::filesystem::remove(stateFile());

    // −12 → +12 dB: 48 steps of 0.5 dB, 10 ms apart.
    store->requestBandGain(5, -12.0, id, false);
    store->requestBandGain(5, 12.0, id, true);
    queue.advance(0.1);
    const double midway = store->dspChain(id)->customEQ().bands()[5].gainDb;
    EXPECT_GT(midway, -12.0);
    EXPECT_LT(midway, 0.0) << "the band jumped instead of gliding";
    store->setGain(id, -3.0); // its own save would be due at 0.45 s
    queue.advance(0.36);
    EXPECT_FALSE(std::filesystem::exists(stateFile())) << "saved while the glide was in flight";
    queue.advance(0.1);
    EXPECT_DOUBLE_EQ(store->dspChain(id)->customEQ().bands()[5].gainDb, 12.0);
    EXPECT_FALSE(std::filesystem::exists(stateFile()));
    queue.advance(0.3);
    ASSERT_TRUE(std::filesystem::exists(stateFile()));
    EXPECT_EQ(saved()["routes"][0]["customEQBands"][5]["gainDb"], 12.0);
    EXPECT_EQ(saved()["routes"][0]["gainDb"], -3.0);
}

TEST_F(StorePersistence, RestoreBringsEveryRouteBackIdleAndStartsNoneByItself) {
    const UUID a = store->addRoute(music, "Music", std::string("headphones"));
    const UUID b = store->addRoute(video, "Video");
    store->setActivationMode(RouteActivationMode::on, a);
    store->requestBandGain(2, 4.5, a, false);
    store->selectRoute(b);
    ASSERT_TRUE(isLive(a));
    store.reset(); // a pending save is written on the way out
    EXPECT_TRUE(platform.isHeardUnprocessed(musicPID)) << "the application is not back on its normal output";

    store = std::make_unique<RouteStore>(platform, queue, PreferencesStore(folder.path()),
                                         RouteStore::Options{queue.clock(), &tree});
    store->start();
    settle();
    ASSERT_EQ(store->routes().size(), 2u);
    EXPECT_EQ(store->selectedRouteID(), b);
    EXPECT_EQ(routeOf(a).health, RouteHealth::idle) << "health comes back as a hint only";
    EXPECT_EQ(routeOf(a).customEQBands[2].gainDb, 4.5);
    EXPECT_EQ(routeOf(a).targetOutputDeviceID, std::string("headphones"));
    EXPECT_TRUE(store->liveEngines().empty()) << "the restore itself started a route";

    store->activateRestoredRoutes();
    EXPECT_TRUE(isLive(a)) << "an `on` route starts once the restore is done";
    EXPECT_FALSE(isLive(b));
    EXPECT_EQ(store->liveRoute(a)->format().outputDeviceUID, "headphones");
}

TEST_F(StorePersistence, ACorruptFileIsSetAsideNotOverwrittenAndAPartialRouteGetsDefaults) {
    store.reset();
    writeText(stateFile(), "{\"routes\": [ {\"id\": \"not a uuid\"");
    makeStore();
    EXPECT_TRUE(store->routes().empty());
    EXPECT_EQ(readText(stateFile()), "{\"routes\": [ {\"id\": \"not a uuid\"") << "the restore changed the file";

    store->addRoute(music, "Music");
    queue.advance(1.0);
    int setAside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        if (entry.path().filename().string().find("unreadable") != std::string::npos) {
            ++setAside;
            EXPECT_EQ(readText(entry.path()), "{\"routes\": [ {\"id\": \"not a uuid\"");
        }
    EXPECT_EQ(setAside, 1) << "the unreadable document was not kept";
    EXPECT_EQ(saved()["routes"].size(), 1u);

    // A route written before the later keys existed.
    store.reset();
    auto partial = saved();
    for (const char* key : {"activationMode", "aiTuneTweaksDb", "aiLockedBands", "channelEQDeltasDb", "lastCaptureMode"})
        partial["routes"][0].erase(key);
    partial["routes"][0]["health"] = "verified";
    writeText(stateFile(), partial.dump());
    makeStore();
    ASSERT_EQ(store->routes().size(), 1u);
    const auto& r = store->routes().front();
    EXPECT_EQ(r.activationMode, RouteActivationMode::off);
    EXPECT_EQ(r.health, RouteHealth::idle);
    EXPECT_EQ(r.aiTuneTweaksDb, std::vector<double>(10, 0.0));
}

} // namespace
} // namespace tarn::test
