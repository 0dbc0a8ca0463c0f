#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/io/RouteStatePersistence.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

TEST(RouteStatePersistence, SavedStateLoadsBackEqualWithItsRawData) {
    test::TemporaryDirectory dir;
    RouteStatePersistence persistence{PreferencesStore(dir.path())};
    EXPECT_FALSE(persistence.load());

    RouteStatePersistence::State state;
    state.routes.push_back(AppRoute(UUID::random(), "com.spotify.Client", "Spotify", "sink", 0u));
    state.routes.push_back(AppRoute(UUID::random(), std::string(localPlayerBundleID), "Player deck"));
    state.routes[1].kind = RouteKind::localPlayer;
    state.routes[1].customEQBands.resize(1); // taken as decoded, no count check
    state.selectedRouteID = state.routes[1].id;
    persistence.save(state);
    const auto loaded = persistence.load();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->first, state);
    EXPECT_EQ(loaded->second, RouteStatePersistence::encode(state));
}

TEST(RouteStatePersistence, OneBadRouteOrBadDataGivesNoneAndLeavesTheFile) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir.path());
    RouteStatePersistence persistence(store);
    RouteStatePersistence::State state;
    state.routes.push_back(AppRoute(UUID::random(), "a", "A"));
    state.routes.push_back(AppRoute(UUID::random(), "b", "B"));
    auto desk = nlohmann::json::parse(RouteStatePersistence::encode(state));
    desk["routes"][1]["health"] = "sleeping";

    for (const std::string& bad : {desk.dump(), std::string("{"), std::string(R"({"selectedRouteID": "nope", "routes": []})")}) {
        store.setData(RouteStatePersistence::key, bad);
        EXPECT_FALSE(persistence.load()) << bad;
        EXPECT_EQ(store.data(RouteStatePersistence::key), bad);
    }
}

} // namespace
} // namespace tarn
