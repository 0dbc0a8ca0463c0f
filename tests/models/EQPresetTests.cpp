#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/models/EQPreset.hpp"

namespace tarn {
namespace {

using nlohmann::json;

constexpr const char* kSavedPreset = R"({
  "id": "3C1A9E2B-7D4F-4A6B-8C0D-1E2F3A4B5C6D",
  "name": "Late night",
  "createdAt": 784111777.25,
  "bandGains": [2, 1.5, 0, 0, -1, 0, 0, 1, 2, 2.5],
  "selectedGenre": "acoustic",
  "correctionProfileID": "oratory1990.over-ear.hifiman-sundara",
  "outputTrimDb": -1
})";

TEST(EQPresetJSON, OlderPresetWithoutParametricKeysLoads) {
    const auto p = json::parse(kSavedPreset).get<EQPreset>();
    EXPECT_EQ(p.name, "Late night");
    EXPECT_EQ(p.createdAt, Date{784111777.25});
    EXPECT_EQ(p.bandGains[9], 2.5);
    EXPECT_EQ(p.selectedGenre, GenrePreset::acoustic);
    EXPECT_EQ(p.correctionProfileID, "oratory1990.over-ear.hifiman-sundara");
    EXPECT_FALSE(p.hasParametricFilters());
    EXPECT_EQ(p.parametricPreampDb, 0.0);

    json garbled = json::parse(kSavedPreset);
    garbled["parametricFilters"] = "lost";
    garbled["parametricPreampDb"] = nullptr;
    EXPECT_EQ(garbled.get<EQPreset>(), p);
}

TEST(EQPresetJSON, RequiredKeysFailThePreset) {
    for (const char* key : {"id", "name", "createdAt", "bandGains", "selectedGenre", "outputTrimDb"}) {
        json j = json::parse(kSavedPreset);
        j.erase(key);
        EXPECT_ANY_THROW(j.get<EQPreset>()) << key;
    }
    json j = json::parse(kSavedPreset);
    j["correctionProfileID"] = 3;
    EXPECT_ANY_THROW(j.get<EQPreset>());
}

TEST(EQPresetJSON, RoundTripWritesEveryKeyButAnAbsentProfile) {
    EQPreset p = EQPreset::imported(ImportedEQ{"Moondrop Aria", -6.7,
                                               {{ParametricFilterSpec::Shape::lowShelf, 105, 12.2, 0.7},
                                                {ParametricFilterSpec::Shape::peaking, 61, -10.1, 0.34}}},
                                    Date{700000000.123});
    const json written = p;
    EXPECT_FALSE(written.contains("correctionProfileID"));
    EXPECT_EQ(written.size(), 8u);
    EXPECT_EQ(written["createdAt"], 700000000.123);
    EXPECT_EQ(written["id"].get<std::string>(), p.id.string());
    EXPECT_EQ(json::parse(written.dump()).get<EQPreset>(), p);

    p.correctionProfileID = "x";
    EXPECT_EQ(json::parse(json(p).dump()).get<EQPreset>(), p);
}

} // namespace
} // namespace tarn
