#include <limits>

#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/RouteActivityPolicy.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn {
namespace {

using nlohmann::json;

// A route as saved by the first released version: none of the keys that came later.
json firstVersion() {
    json j = json::parse(R"({"id": "8D2C4B7E-1F3A-4C5D-9E8F-0A1B2C3D4E5F", "bundleID": "org.mozilla.firefox",
        "displayName": "Firefox", "targetOutputDeviceID": "alsa_output.usb-FiiO_K5-00.analog-stereo", "gainDb": -2.5,
        "isMuted": false, "customEQBypassed": false, "outputTrimDb": 0, "correctionBypassed": false,
        "selectedGenre": "rock", "customEQBands": []})");
    const double hz[] = {31, 62, 125, 250, 500, 1000, 2000, 4000, 8000, 16000}, gains[] = {3, 2, 0, 0, 0, 0, -1, 0, 1.5, 0};
    for (int b = 0; b < 10; ++b)
        j["customEQBands"].push_back({{"id", b}, {"frequencyHz", hz[b]}, {"gainDb", gains[b]}, {"q", 1.4142135623730951}});
    return j;
}

AppRoute decode(const json& j) { return j.get<AppRoute>(); }

AppRoute richRoute() {
    AppRoute r(*UUID::fromString("0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F7"), "com.spotify.Client", "Spotify", "sink", 1u);
    r.gainDb = 0.1 + 0.2; // not representable in short decimal: must still read back identical
    r.isMuted = r.customEQBypassed = r.correctionBypassed = true;
    r.customEQBands[3].gainDb = -7.25;
    r.outputTrimDb = -3.0000000000000004;
    HeadphoneProfile hp;
    hp.id = "oratory1990.over-ear.sennheiser-hd-600";
    hp.modelName = "Sennheiser HD 600";
    hp.preampDb = -6.2;
    hp.filters = {{ParametricFilterSpec::Shape::lowShelf, 105, 6.5, 0.7}};
    hp.wearStyle = HeadphoneWearStyle::overEar;
    r.setCorrectionProfile(hp);
    r.selectedGenre = GenrePreset::hipHop;
    r.health = RouteHealth::verified;
    r.effectiveOutputChannelCount = 6;
    r.effectiveOutputLayoutDescription = "5.1 Surround";
    r.lastCaptureMode = RouteCaptureMode::multichannelStream;
    r.importedProfileName = "My IEM";
    r.importedParametricFilters = {{ParametricFilterSpec::Shape::highShelf, 10000, 2.2, 0.7}};
    r.importedParametricPreampDb = -6.7;
    r.activationMode = RouteActivationMode::automatic;
    r.aiTuneScope = RecommendationScope::taste;
    r.aiTuneTweaksDb = {1, 0, -1, 0, 2, 0, 0, 0, -2, 3};
    r.aiLockedBands = {true, false, false, true, false, false, false, false, false, true};
    r.channelEQDeltasDb = {{0.5, -0.5}, {}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
    r.aiGenrePreference = GenrePreset::trap;
    return r;
}

TEST(AppRouteJSON, EveryFieldReadsBackEqualInTheAgreedForm) {
    const AppRoute original = richRoute();
    const json written = original;
    EXPECT_EQ(json::parse(written.dump()).get<AppRoute>(), original);
    // Raw values that differ from the names in the code.
    EXPECT_EQ(written["activationMode"], "auto");
    EXPECT_EQ(written["correctionProfileSnapshot"]["wearStyle"], "over-ear");

    // A new route leaves out exactly its absent optionals.
    const json fresh = AppRoute(UUID::random(), "org.videolan.vlc", "VLC");
    for (const char* absent : {"targetOutputDeviceID", "targetOutputStreamIndex", "correctionProfileID",
                               "correctionProfileSnapshot", "importedProfileName", "aiTuneScope", "aiGenrePreference"})
        EXPECT_FALSE(fresh.contains(absent)) << absent;
    EXPECT_EQ(fresh.size(), 21u);
}

// Every key added after the first release takes a new route's default.
TEST(AppRouteJSON, FirstVersionDocumentGetsTheDefaultsOfANewRoute) {
    AppRoute expected(*UUID::fromString("8D2C4B7E-1F3A-4C5D-9E8F-0A1B2C3D4E5F"), "org.mozilla.firefox", "Firefox",
                      "alsa_output.usb-FiiO_K5-00.analog-stereo");
    expected.gainDb = -2.5;
    for (auto [band, gain] : {std::pair{0, 3.0}, {1, 2.0}, {6, -1.0}, {8, 1.5}}) expected.customEQBands[band].gainDb = gain;
    expected.selectedGenre = GenrePreset::rock;
    EXPECT_EQ(decode(firstVersion()), expected);
}

TEST(AppRouteJSON, RequiredAndOptionalKeysFailTheRouteWhenMissingOrMalformed) {
    for (const char* key : {"id", "bundleID", "displayName", "gainDb", "isMuted", "customEQBands", "customEQBypassed",
                            "outputTrimDb", "correctionBypassed", "selectedGenre"}) {
        json missing = firstVersion();
        missing.erase(key);
        EXPECT_ANY_THROW(decode(missing)) << "missing " << key;
    }
    for (const auto& [key, value] : std::initializer_list<std::pair<const char*, json>>{
             {"id", "8D2C4B7E1F3A4C5D9E8F0A1B2C3D4E5F"}, {"gainDb", "-2.5"}, {"selectedGenre", "Rock"},
             {"customEQBands", json::array({{{"id", 0.5}, {"frequencyHz", 31}, {"gainDb", 0}, {"q", 1}}})},
             {"kind", "unknown"}, {"health", "Verified"}, {"targetOutputStreamIndex", -1}, {"correctionProfileID", false}}) {
        json j = firstVersion();
        j[key] = value;
        EXPECT_ANY_THROW(decode(j)) << key << " = " << value.dump();
    }
}

TEST(AppRouteJSON, ForgivingKeysFallBackToDefaultsOnAnyError) {
    json j = firstVersion();
    j["correctionProfileID"] = "oratory1990.over-ear.sennheiser-hd-600";
    const AppRoute expected = decode(j);
    j["correctionProfileSnapshot"] = {{"id", "x"}, {"modelName", "broken"}}; // lacks most keys
    j["effectiveOutputChannelCount"] = "six";
    j["effectiveOutputLayoutDescription"] = 51;
    j["lastCaptureMode"] = "quadraphonic";
    j["importedParametricFilters"] = json::array({{{"shape", "bandPass"}, {"frequencyHz", 1}, {"gainDb", 1}, {"q", 1}}});
    j["importedParametricPreampDb"] = "-3";
    j["activationMode"] = "sometimes";
    j["aiTuneScope"] = "album";
    j["aiTuneTweaksDb"] = std::vector<double>(11, 1.0); // kept only with exactly ten entries
    j["aiLockedBands"] = std::vector<bool>(9, true);
    j["aiGenrePreference"] = "polka";
    EXPECT_EQ(decode(j), expected); // the profile id survives a broken snapshot

    // Channel deltas are cut to ten finite values; null is how a JSON writer puts out NaN.
    j["channelEQDeltasDb"] = json::parse(R"([[1,2,3,4,5,6,7,8,9,10,11,12], [0.5, null, null, -1], []])");
    j["channelEQDeltasDb"][1][2] = std::numeric_limits<double>::infinity();
    EXPECT_EQ(decode(j).channelEQDeltasDb,
              (std::vector<std::vector<double>>{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {0.5, 0, 0, -1}, {}}));
    j["channelEQDeltasDb"] = json::parse(R"([[1, 2], [3, "x"]])");
    EXPECT_TRUE(decode(j).channelEQDeltasDb.empty());

    // A saved route keeps filters no reader would accept today: its chain leaves them out and
    // says so, rather than the route (or the whole desk) being refused for one value.
    j["importedParametricFilters"] = json::array({{{"shape", "peaking"}, {"frequencyHz", 0}, {"gainDb", 3}, {"q", 0}}});
    j["importedParametricPreampDb"] = 90;
    EXPECT_EQ(decode(j).importedParametricFilters,
              (std::vector<ParametricFilterSpec>{{ParametricFilterSpec::Shape::peaking, 0, 3, 0}}));
    EXPECT_EQ(decode(j).importedParametricPreampDb, 90);
}

TEST(AppRouteDerived, ChannelGainsClampAndMissingEntriesAreNeutral) {
    AppRoute r(UUID::random(), "app", "App");
    r.customEQBands[0].gainDb = 10;
    r.customEQBands[1].gainDb = -10;
    r.customEQBands[2].gainDb = 4;
    r.channelEQDeltasDb = {{5, -5, 1.5}, {1e-10}};
    EXPECT_EQ(r.channelEffectiveGainDb(0, 0), 12.0);
    EXPECT_EQ(r.channelEffectiveGainDb(1, 0), -12.0);
    EXPECT_EQ(r.channelEffectiveGainDb(2, 0), 5.5);
    EXPECT_EQ(r.channelEffectiveGainDb(2, 1), 4.0); // channel 1 has no entry for band 2
    EXPECT_TRUE(r.hasChannelEQDeltas());
    r.channelEQDeltasDb = {{0, 1e-10}, {-1e-10}};
    EXPECT_FALSE(r.hasChannelEQDeltas());
}

TEST(AppRouteDerived, RestoringResetsHealthOnlyAndTheSnapshotWinsOverTheCatalogue) {
    AppRoute r = richRoute();
    AppRoute expected = r;
    expected.health = RouteHealth::idle;
    EXPECT_EQ(r.restoredForCurrentSession(), expected);

    const BundledProfileCatalog catalog(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    r.setCorrectionProfile(std::nullopt);
    EXPECT_FALSE(r.correctionProfile(catalog));
    r.correctionProfileID = "oratory1990.over-ear.sennheiser-hd-600";
    auto fromCatalogue = r.correctionProfile(catalog);
    ASSERT_TRUE(fromCatalogue);
    EXPECT_EQ(fromCatalogue->modelName, "Sennheiser HD 600");
    fromCatalogue->preampDb = -1.25;
    r.setCorrectionProfile(fromCatalogue);
    EXPECT_EQ(r.correctionProfile(catalog), fromCatalogue);
    r.correctionProfileID = "no.such.profile";
    r.correctionProfileSnapshot.reset();
    EXPECT_FALSE(r.correctionProfile(catalog));
}

TEST(RouteActivityPolicy, PausesSilentLiveRoutesAndResumesOnlyItsOwnPauses) {
    using T = RouteActivityTransition;
    EXPECT_EQ(RouteActivityPolicy::transition(RouteHealth::paused, false, true), T::autoResume);
    EXPECT_EQ(RouteActivityPolicy::transition(RouteHealth::paused, false, false), T::none);
    for (auto h : allRouteHealths) {
        EXPECT_EQ(RouteActivityPolicy::transition(h, true, false), T::autoPause);
        EXPECT_EQ(RouteActivityPolicy::transition(h, true, true), T::none);
        if (h != RouteHealth::paused) {
            EXPECT_EQ(RouteActivityPolicy::transition(h, false, true), T::none);
        }
    }
}

TEST(UUID, GeneratesDistinctVersionFourIdsAndParsesOnlyTheCanonicalForm) {
    const std::string text = UUID::random().string();
    EXPECT_NE(text, UUID::random().string());
    EXPECT_EQ(text[14], '4');
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos);
    EXPECT_EQ(UUID::fromString("0f8e2a3b-4c5d-4e6f-8091-a2b3c4d5e6f7")->string(), "0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F7");
    for (const char* bad : {"0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6FG", "0F8E2A3B4-C5D-4E6F-8091-A2B3C4D5E6F7"})
        EXPECT_FALSE(UUID::fromString(bad)) << bad;
}

} // namespace
} // namespace tarn
