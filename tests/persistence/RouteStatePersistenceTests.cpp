#include <fstream>

#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/io/RouteStatePersistence.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using nlohmann::json;

constexpr const char* kSavedDesk = R"({
  "selectedRouteID": "8D2C4B7E-1F3A-4C5D-9E8F-0A1B2C3D4E5F",
  "routes": [
    {"id": "8D2C4B7E-1F3A-4C5D-9E8F-0A1B2C3D4E5F", "bundleID": "org.mozilla.firefox", "displayName": "Firefox",
     "gainDb": 0, "isMuted": false, "customEQBypassed": false, "outputTrimDb": 0, "correctionBypassed": false,
     "selectedGenre": "flat", "health": "verified", "activationMode": "auto",
     "customEQBands": [{"id": 0, "frequencyHz": 31, "gainDb": 4, "q": 1.4142135623730951}]},
    {"id": "1A2B3C4D-5E6F-4A1B-8C2D-3E4F5A6B7C8D", "kind": "localPlayer", "bundleID": "sorvi.player.local",
     "displayName": "Player deck", "gainDb": -3, "isMuted": true, "customEQBypassed": true, "outputTrimDb": -1,
     "correctionBypassed": false, "selectedGenre": "classical", "customEQBands": []}
  ]
})";

TEST(RouteStatePersistence, LoadsASavedDeskWithItsRawData) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir.path());
    store.setData(RouteStatePersistence::key, kSavedDesk);
    RouteStatePersistence persistence(store);
    const auto loaded = persistence.load();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->second, kSavedDesk);
    const auto& state = loaded->first;
    ASSERT_EQ(state.routes.size(), 2u);
    EXPECT_EQ(state.selectedRouteID, state.routes[0].id);
    EXPECT_EQ(state.routes[0].health, RouteHealth::verified); // as saved; the store restores it
    EXPECT_EQ(state.routes[0].restoredForCurrentSession().health, RouteHealth::idle);
    EXPECT_EQ(state.routes[0].activationMode, RouteActivationMode::automatic);
    EXPECT_EQ(state.routes[0].customEQBands.size(), 1u); // taken as decoded, no count check
    EXPECT_EQ(state.routes[1].kind, RouteKind::localPlayer);
    EXPECT_TRUE(state.routes[1].customEQBands.empty());
}

TEST(RouteStatePersistence, SavedStateLoadsBackEqual) {
    test::TemporaryDirectory dir;
    RouteStatePersistence persistence{PreferencesStore(dir.path())};
    EXPECT_FALSE(persistence.load());

    RouteStatePersistence::State state;
    state.routes.push_back(AppRoute(UUID::random(), "com.spotify.Client", "Spotify", "sink", 0u));
    state.routes.push_back(AppRoute(UUID::random(), std::string(localPlayerBundleID), "Player deck"));
    state.routes[1].kind = RouteKind::localPlayer;
    state.routes[1].channelEQDeltasDb = {{0.1, 0.2}, {0.3}};
    persistence.save(state);
    auto loaded = persistence.load();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->first, state);
    EXPECT_FALSE(json::parse(loaded->second).contains("selectedRouteID"));

    state.selectedRouteID = state.routes[1].id;
    persistence.save(state);
    EXPECT_EQ(persistence.load()->first, state);
}

TEST(RouteStatePersistence, OneBadRouteOrBadDataGivesNoneAndLeavesTheFile) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir.path());
    RouteStatePersistence persistence(store);

    json desk = json::parse(kSavedDesk);
    desk["routes"][1]["health"] = "sleeping";
    const std::string badRoute = desk.dump();
    store.setData(RouteStatePersistence::key, badRoute);
    EXPECT_FALSE(persistence.load());
    EXPECT_EQ(store.data(RouteStatePersistence::key), badRoute);

    for (const char* bad : {"", "{", "[]", R"({"routes": {}})", R"({"selectedRouteID": "nope", "routes": []})", "\xff\xfe"}) {
        store.setData(RouteStatePersistence::key, bad);
        EXPECT_FALSE(persistence.load()) << bad;
        EXPECT_EQ(store.data(RouteStatePersistence::key), bad);
    }
}

} // namespace
} // namespace tarn
