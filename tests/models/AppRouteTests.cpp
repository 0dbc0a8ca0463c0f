#include <cmath>
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
constexpr const char* kFirstVersionRoute = R"({
  "id": "8D2C4B7E-1F3A-4C5D-9E8F-0A1B2C3D4E5F",
  "bundleID": "org.mozilla.firefox",
  "displayName": "Firefox",
  "targetOutputDeviceID": "alsa_output.usb-FiiO_K5-00.analog-stereo",
  "gainDb": -2.5,
  "isMuted": false,
  "customEQBands": [
    {"id": 0, "frequencyHz": 31, "gainDb": 3, "q": 1.4142135623730951},
    {"id": 1, "frequencyHz": 62, "gainDb": 2, "q": 1.4142135623730951},
    {"id": 2, "frequencyHz": 125, "gainDb": 0, "q": 1.4142135623730951},
    {"id": 3, "frequencyHz": 250, "gainDb": 0, "q": 1.4142135623730951},
    {"id": 4, "frequencyHz": 500, "gainDb": 0, "q": 1.4142135623730951},
    {"id": 5, "frequencyHz": 1000, "gainDb": 0, "q": 1.4142135623730951},
    {"id": 6, "frequencyHz": 2000, "gainDb": -1, "q": 1.4142135623730951},
    {"id": 7, "frequencyHz": 4000, "gainDb": 0, "q": 1.4142135623730951},
    {"id": 8, "frequencyHz": 8000, "gainDb": 1.5, "q": 1.4142135623730951},
    {"id": 9, "frequencyHz": 16000, "gainDb": 0, "q": 1.4142135623730951}
  ],
  "customEQBypassed": false,
  "outputTrimDb": 0,
  "correctionBypassed": false,
  "selectedGenre": "rock"
})";

json firstVersion() { return json::parse(kFirstVersionRoute); }

AppRoute decode(const json& j) { return j.get<AppRoute>(); }

AppRoute richRoute() {
    AppRoute r(*UUID::fromString("0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F7"), "com.spotify.Client", "Spotify",
               "alsa_output.pci-0000_00_1f.3.analog-stereo", 1u);
    r.kind = RouteKind::appTap;
    r.gainDb = 0.1 + 0.2; // not representable in short decimal: must still read back identical
    r.isMuted = true;
    r.customEQBands[3].gainDb = -7.25;
    r.customEQBands[9].q = 0.7071067811865476;
    r.customEQBypassed = true;
    r.outputTrimDb = -3.0000000000000004;
    HeadphoneProfile hp;
    hp.id = "oratory1990.over-ear.sennheiser-hd-600";
    hp.modelName = "Sennheiser HD 600";
    hp.sourceProject = "AutoEq";
    hp.preampDb = -6.2;
    hp.filters = {{ParametricFilterSpec::Shape::lowShelf, 105, 6.5, 0.7}};
    hp.wearStyle = HeadphoneWearStyle::overEar;
    r.setCorrectionProfile(hp);
    r.correctionBypassed = true;
    r.selectedGenre = GenrePreset::hipHop;
    r.health = RouteHealth::verified;
    r.effectiveOutputChannelCount = 6;
    r.effectiveOutputLayoutDescription = "5.1 Surround";
    r.lastCaptureMode = RouteCaptureMode::multichannelStream;
    r.importedProfileName = "My IEM";
    r.importedParametricFilters = {{ParametricFilterSpec::Shape::peaking, 61, -10.1, 0.34},
                                   {ParametricFilterSpec::Shape::highShelf, 10000, 2.2, 0.7}};
    r.importedParametricPreampDb = -6.7;
    r.activationMode = RouteActivationMode::automatic;
    r.aiTuneScope = RecommendationScope::taste;
    r.aiTuneTweaksDb = {1, 0, -1, 0, 2, 0, 0, 0, -2, 3};
    r.aiLockedBands = {true, false, false, true, false, false, false, false, false, true};
    r.channelEQDeltasDb = {{0.5, -0.5}, {}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}};
    r.aiGenrePreference = GenrePreset::trap;
    return r;
}

TEST(AppRouteJSON, EveryFieldReadsBackEqual) {
    const AppRoute original = richRoute();
    const std::string text = json(original).dump();
    EXPECT_EQ(json::parse(text).get<AppRoute>(), original);

    const AppRoute fresh(UUID::random(), "org.videolan.vlc", "VLC");
    EXPECT_EQ(json::parse(json(fresh).dump()).get<AppRoute>(), fresh);
}

TEST(AppRouteJSON, WritesTheAgreedForm) {
    const json written = richRoute();
    EXPECT_EQ(written["id"], "0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F7");
    EXPECT_EQ(written["kind"], "appTap");
    EXPECT_EQ(written["activationMode"], "auto");
    EXPECT_EQ(written["aiTuneScope"], "taste");
    EXPECT_EQ(written["health"], "verified");
    EXPECT_EQ(written["selectedGenre"], "hipHop");
    EXPECT_EQ(written["lastCaptureMode"], "multichannelStream");
    EXPECT_EQ(written["correctionProfileSnapshot"]["wearStyle"], "over-ear");
    EXPECT_EQ(written["targetOutputStreamIndex"], 1);

    // A new route leaves out exactly its absent optionals and writes everything else.
    const json fresh = AppRoute(UUID::random(), "org.videolan.vlc", "VLC");
    for (const char* absent : {"targetOutputDeviceID", "targetOutputStreamIndex", "correctionProfileID",
                               "correctionProfileSnapshot", "importedProfileName", "aiTuneScope", "aiGenrePreference"})
        EXPECT_FALSE(fresh.contains(absent)) << absent;
    for (const char* present : {"id", "kind", "bundleID", "displayName", "gainDb", "isMuted", "customEQBands",
                                "customEQBypassed", "outputTrimDb", "correctionBypassed", "selectedGenre", "health",
                                "effectiveOutputChannelCount", "effectiveOutputLayoutDescription", "lastCaptureMode",
                                "importedParametricFilters", "importedParametricPreampDb", "activationMode",
                                "aiTuneTweaksDb", "aiLockedBands", "channelEQDeltasDb"})
        EXPECT_TRUE(fresh.contains(present)) << present;
    EXPECT_EQ(fresh.size(), 21u);
}

// Every key added after the first release takes a new route's default, and the bands written
// out by that release are exactly the ones a new route starts with.
TEST(AppRouteJSON, FirstVersionDocumentGetsTheDefaultsOfANewRoute) {
    AppRoute expected(*UUID::fromString("8D2C4B7E-1F3A-4C5D-9E8F-0A1B2C3D4E5F"), "org.mozilla.firefox", "Firefox",
                      "alsa_output.usb-FiiO_K5-00.analog-stereo");
    expected.gainDb = -2.5;
    for (auto [band, gain] : {std::pair{0, 3.0}, {1, 2.0}, {6, -1.0}, {8, 1.5}}) expected.customEQBands[band].gainDb = gain;
    expected.selectedGenre = GenrePreset::rock;
    EXPECT_EQ(decode(firstVersion()), expected);
    // The defaults behaviour rests on: a new route is off and idle, with ten neutral AI values.
    EXPECT_EQ(expected.activationMode, RouteActivationMode::off);
    EXPECT_EQ(expected.health, RouteHealth::idle);
    EXPECT_EQ(expected.aiTuneTweaksDb, std::vector<double>(10, 0.0));
    EXPECT_EQ(expected.aiLockedBands, std::vector<bool>(10, false));
}

TEST(AppRouteJSON, HardRequiredKeysFailTheRouteWhenMissingOrMalformed) {
    for (const char* key : {"id", "bundleID", "displayName", "gainDb", "isMuted", "customEQBands", "customEQBypassed",
                            "outputTrimDb", "correctionBypassed", "selectedGenre"}) {
        json missing = firstVersion();
        missing.erase(key);
        EXPECT_ANY_THROW(decode(missing)) << "missing " << key;
        json nulled = firstVersion();
        nulled[key] = nullptr;
        EXPECT_ANY_THROW(decode(nulled)) << "null " << key;
    }
    const std::pair<const char*, json> malformed[] = {
        {"id", "not-a-uuid"},     {"id", "8D2C4B7E1F3A4C5D9E8F0A1B2C3D4E5F"}, {"gainDb", true},
        {"gainDb", "-2.5"},       {"isMuted", 0},                            {"customEQBypassed", "false"},
        {"selectedGenre", "Rock"}, {"selectedGenre", "metal"},               {"customEQBands", json::object()},
        {"customEQBands", json::array({json{{"id", 0.5}, {"frequencyHz", 31}, {"gainDb", 0}, {"q", 1}}})},
    };
    for (const auto& [key, value] : malformed) {
        json j = firstVersion();
        j[key] = value;
        EXPECT_ANY_THROW(decode(j)) << key << " = " << value.dump();
    }
    EXPECT_ANY_THROW(decode(json::array()));
}

TEST(AppRouteJSON, OptionalKeysDefaultWhenMissingButFailWhenMalformed) {
    json j = firstVersion();
    j["kind"] = "localPlayer";
    j["health"] = "paused";
    j["targetOutputStreamIndex"] = 2;
    j["correctionProfileID"] = "oratory1990.over-ear.sennheiser-hd-650";
    j["importedProfileName"] = "Moondrop Aria";
    const AppRoute r = decode(j);
    EXPECT_EQ(r.kind, RouteKind::localPlayer);
    EXPECT_EQ(r.health, RouteHealth::paused);
    EXPECT_EQ(r.targetOutputStreamIndex, 2u);
    EXPECT_EQ(r.correctionProfileID, "oratory1990.over-ear.sennheiser-hd-650");
    EXPECT_EQ(r.importedProfileName, "Moondrop Aria");

    const std::pair<const char*, json> malformed[] = {
        {"kind", "unknown"},         {"kind", 0},
        {"health", "sleeping"},      {"health", "Verified"},
        {"targetOutputStreamIndex", -1}, {"targetOutputStreamIndex", 1.5}, {"targetOutputStreamIndex", "0"},
        {"targetOutputDeviceID", 7}, {"correctionProfileID", false},       {"importedProfileName", json::array()},
    };
    for (const auto& [key, value] : malformed) {
        json bad = firstVersion();
        bad[key] = value;
        EXPECT_ANY_THROW(decode(bad)) << key << " = " << value.dump();
    }
}

TEST(AppRouteJSON, ForgivingKeysFallBackToDefaultsOnAnyError) {
    json j = firstVersion();
    j["correctionProfileSnapshot"] = {{"id", "x"}, {"modelName", "broken"}}; // lacks most keys
    j["effectiveOutputChannelCount"] = "six";
    j["effectiveOutputLayoutDescription"] = 51;
    j["lastCaptureMode"] = "quadraphonic";
    j["importedParametricFilters"] = json::array({json{{"shape", "bandPass"}, {"frequencyHz", 1}, {"gainDb", 1}, {"q", 1}}});
    j["importedParametricPreampDb"] = "-3";
    j["activationMode"] = "sometimes";
    j["aiTuneScope"] = "album";
    j["aiTuneTweaksDb"] = json::array({1, 2, 3, 4, 5, 6, 7, 8, 9, "ten"});
    j["aiLockedBands"] = json::array({1, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    j["aiGenrePreference"] = "polka";
    j["channelEQDeltasDb"] = json::array({1, 2});
    const AppRoute r = decode(j);
    const AppRoute expected = decode(firstVersion());
    EXPECT_EQ(r, expected);

    json snapshotOnly = firstVersion();
    snapshotOnly["correctionProfileID"] = "oratory1990.over-ear.sennheiser-hd-600";
    snapshotOnly["correctionProfileSnapshot"] = "gone";
    const AppRoute kept = decode(snapshotOnly);
    EXPECT_FALSE(kept.correctionProfileSnapshot);
    EXPECT_EQ(kept.correctionProfileID, "oratory1990.over-ear.sennheiser-hd-600");
}

TEST(AppRouteJSON, AITuneVectorsAreKeptOnlyWithExactlyTenEntries) {
    const std::vector<double> ten = {1, -1, 2, -2, 0.5, 0, 0, 0, 3, -3};
    for (std::size_t n : {0u, 9u, 11u}) {
        json j = firstVersion();
        j["aiTuneTweaksDb"] = std::vector<double>(n, 1.0);
        j["aiLockedBands"] = std::vector<bool>(n, true);
        const AppRoute r = decode(j);
        EXPECT_EQ(r.aiTuneTweaksDb, std::vector<double>(10, 0.0)) << n;
        EXPECT_EQ(r.aiLockedBands, std::vector<bool>(10, false)) << n;
    }
    json j = firstVersion();
    j["aiTuneTweaksDb"] = ten;
    j["aiLockedBands"] = std::vector<bool>{true, false, true, false, false, false, false, false, false, true};
    const AppRoute r = decode(j);
    EXPECT_EQ(r.aiTuneTweaksDb, ten);
    EXPECT_TRUE(r.isBandAILocked(0));
    EXPECT_FALSE(r.isBandAILocked(1));
    EXPECT_TRUE(r.isBandAILocked(9));
}

TEST(AppRouteJSON, ChannelDeltasAreCutToTenFiniteValues) {
    json j = firstVersion();
    // null is how a JSON writer puts out NaN and infinity.
    j["channelEQDeltasDb"] = json::parse(R"([[1,2,3,4,5,6,7,8,9,10,11,12], [0.5, null, null, -1], [], [-2]])");
    j["channelEQDeltasDb"][1][2] = std::numeric_limits<double>::infinity(); // as held in memory
    const AppRoute r = decode(j);
    ASSERT_EQ(r.channelEQDeltasDb.size(), 4u);
    EXPECT_EQ(r.channelEQDeltasDb[0], (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(r.channelEQDeltasDb[1], (std::vector<double>{0.5, 0, 0, -1}));
    EXPECT_TRUE(r.channelEQDeltasDb[2].empty());
    EXPECT_EQ(r.channelEQDeltasDb[3], std::vector<double>{-2});

    json bad = firstVersion();
    bad["channelEQDeltasDb"] = json::parse(R"([[1, 2], [3, "x"]])");
    EXPECT_TRUE(decode(bad).channelEQDeltasDb.empty());
}

TEST(AppRouteDerived, ChannelGainsAndLocksStayInRange) {
    AppRoute r(UUID::random(), "app", "App");
    r.customEQBands[0].gainDb = 10;
    r.customEQBands[1].gainDb = -10;
    r.customEQBands[2].gainDb = 4;
    r.channelEQDeltasDb = {{5, -5, 1.5}, {0, 0}};
    EXPECT_EQ(r.channelEffectiveGainDb(0, 0), 12.0);
    EXPECT_EQ(r.channelEffectiveGainDb(1, 0), -12.0);
    EXPECT_EQ(r.channelEffectiveGainDb(2, 0), 5.5);
    EXPECT_EQ(r.channelEffectiveGainDb(2, 1), 4.0);  // channel 1 has no entry for band 2
    EXPECT_EQ(r.channelEffectiveGainDb(2, 7), 4.0);  // no such channel
    EXPECT_EQ(r.channelEffectiveGainDb(10, 0), 0.0); // no such band
    EXPECT_EQ(r.channelEffectiveGainDb(-1, 0), 0.0);
    EXPECT_EQ(r.channelEQDelta(1, 0), -5.0);
    EXPECT_EQ(r.channelEQDelta(-1, 0), 0.0);
    EXPECT_EQ(r.channelEQDelta(0, -1), 0.0);
    EXPECT_FALSE(r.isBandAILocked(-1));
    EXPECT_FALSE(r.isBandAILocked(10));

    EXPECT_TRUE(r.hasChannelEQDeltas());
    r.channelEQDeltasDb = {{0, 1e-10}, {-1e-10}};
    EXPECT_FALSE(r.hasChannelEQDeltas());
    r.channelEQDeltasDb = {{0}, {-2e-9}};
    EXPECT_TRUE(r.hasChannelEQDeltas());
}

TEST(AppRouteDerived, ImportedProfileNeedsFiltersAndRestoreResetsHealthOnly) {
    AppRoute r = richRoute();
    EXPECT_TRUE(r.hasImportedParametricProfile());
    r.importedParametricFilters.clear();
    EXPECT_FALSE(r.hasImportedParametricProfile()); // the name alone does not count

    const AppRoute restored = r.restoredForCurrentSession();
    EXPECT_EQ(restored.health, RouteHealth::idle);
    AppRoute expected = r;
    expected.health = RouteHealth::idle;
    EXPECT_EQ(restored, expected);
}

TEST(AppRouteDerived, CorrectionProfilePrefersTheSnapshotThenTheCatalogue) {
    const BundledProfileCatalog catalog(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    AppRoute r(UUID::random(), "app", "App");
    EXPECT_FALSE(r.correctionProfile(catalog));

    r.correctionProfileID = "oratory1990.over-ear.sennheiser-hd-600";
    auto fromCatalogue = r.correctionProfile(catalog);
    ASSERT_TRUE(fromCatalogue);
    EXPECT_EQ(fromCatalogue->modelName, "Sennheiser HD 600");

    r.correctionProfileID = "no.such.profile";
    EXPECT_FALSE(r.correctionProfile(catalog));

    HeadphoneProfile custom = *fromCatalogue;
    custom.preampDb = -1.25;
    r.setCorrectionProfile(custom);
    EXPECT_EQ(r.correctionProfileID, custom.id);
    EXPECT_EQ(r.correctionProfile(catalog), custom); // the snapshot wins over the catalogue copy
    r.setCorrectionProfile(std::nullopt);
    EXPECT_FALSE(r.correctionProfileID);
    EXPECT_FALSE(r.correctionProfile(catalog));
}

TEST(RouteActivityPolicy, PausesSilentLiveRoutesAndResumesOnlyItsOwnPauses) {
    using T = RouteActivityTransition;
    EXPECT_EQ(RouteActivityPolicy::transition(RouteHealth::paused, false, true), T::autoResume);
    EXPECT_EQ(RouteActivityPolicy::transition(RouteHealth::paused, false, false), T::none);
    for (auto h : allRouteHealths) {
        EXPECT_EQ(RouteActivityPolicy::transition(h, true, false), T::autoPause);
        EXPECT_EQ(RouteActivityPolicy::transition(h, true, true), T::none);
        if (h != RouteHealth::paused) EXPECT_EQ(RouteActivityPolicy::transition(h, false, true), T::none);
    }
}

TEST(UUID, GeneratesDistinctVersionFourIdsInUpperCase) {
    const UUID a = UUID::random(), b = UUID::random();
    EXPECT_NE(a, b);
    const std::string text = a.string();
    ASSERT_EQ(text.size(), 36u);
    EXPECT_EQ(text[14], '4');
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos);
    for (char c : text) EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || c == '-') << text;
    EXPECT_EQ(UUID::fromString(text), a);
    EXPECT_EQ(UUID::fromString("0f8e2a3b-4c5d-4e6f-8091-a2b3c4d5e6f7")->string(), "0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F7");
    for (const char* bad : {"", "0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F", "0F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6FG",
                            "0F8E2A3B4-C5D-4E6F-8091-A2B3C4D5E6F7", "{F8E2A3B-4C5D-4E6F-8091-A2B3C4D5E6F7}"})
        EXPECT_FALSE(UUID::fromString(bad)) << bad;
}

} // namespace
} // namespace tarn
