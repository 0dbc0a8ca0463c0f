#include <functional>
#include <limits>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/models/EQPreset.hpp"

namespace tarn {
namespace {

using nlohmann::json;

TEST(EQPresetJSON, RoundTripsAndOlderPresetsWithoutParametricKeysLoad) {
    const EQPreset p = EQPreset::imported(
        ImportedEQ{"Moondrop Aria", -6.7, {{ParametricFilterSpec::Shape::lowShelf, 105, 12.2, 0.7}}}, Date{700000000.123});
    const json written = p;
    EXPECT_FALSE(written.contains("correctionProfileID"));
    EXPECT_EQ(json::parse(written.dump()).get<EQPreset>(), p);

    json older = written;
    older.erase("parametricFilters");
    older.erase("parametricPreampDb");
    const auto loaded = older.get<EQPreset>();
    EXPECT_FALSE(loaded.hasParametricFilters());
    EXPECT_EQ(loaded.parametricPreampDb, 0.0);
    older["parametricFilters"] = "lost"; // a garbled optional is dropped, not fatal
    EXPECT_EQ(older.get<EQPreset>(), loaded);

    json missing = written;
    missing.erase("outputTrimDb");
    EXPECT_ANY_THROW(missing.get<EQPreset>());
}

// Values no filter can be built from used to load and then drive the cascade unstable, or leave
// a route silent; they are refused naming the value, never quietly dropped.
TEST(ParametricValuesJSON, PresetsAndProfilesRefuseValuesNoFilterCanBeBuiltFrom) {
    const EQPreset p = EQPreset::imported(
        ImportedEQ{"x", -6, {{ParametricFilterSpec::Shape::peaking, 1000, 3, 1}}}, Date{700000000});
    const auto refusal = [](const json& j, auto type) -> std::string {
        try {
            (void)j.get<decltype(type)>();
            return "accepted";
        } catch (const ValueRangeError& e) {
            return e.what();
        }
    };
    const std::pair<std::function<void(json&)>, std::string> damaged[] = {
        {[](json& j) { j["parametricFilters"][0]["frequencyHz"] = 0.0; }, "a filter's frequency 0 Hz is not above 0 Hz"},
        {[](json& j) { j["parametricFilters"][0]["frequencyHz"] = -100.0; }, "a filter's frequency -100 Hz is not above 0 Hz"},
        {[](json& j) { j["parametricFilters"][0]["q"] = 0.0; }, "a filter's Q 0 is not above 0"},
        {[](json& j) { j["parametricFilters"][0]["gainDb"] = 400.0; }, "a filter's gain 400 dB is beyond ±30 dB"},
        {[](json& j) { j["parametricFilters"][0]["gainDb"] = std::numeric_limits<double>::infinity(); }, "a filter's gain inf dB is not a finite number"},
        {[](json& j) { j["parametricPreampDb"] = 1e308; }, "preamp 1e+308 dB is beyond ±30 dB"},
        {[](json& j) { j["bandGains"][3] = -31.0; }, "a band gain -31 dB is beyond ±30 dB"},
        {[](json& j) { j["outputTrimDb"] = 45.0; }, "an output trim 45 dB is beyond ±30 dB"},
    };
    for (const auto& [damage, message] : damaged) {
        json j = p;
        damage(j);
        EXPECT_EQ(refusal(j, EQPreset{}), message);
    }

    HeadphoneProfile profile;
    profile.id = "x";
    profile.preampDb = -3;
    profile.filters = p.parametricFilters;
    json j = profile;
    EXPECT_EQ(j.get<HeadphoneProfile>(), profile);
    j["preampDb"] = -40.0;
    EXPECT_EQ(refusal(j, HeadphoneProfile{}), "preamp -40 dB is beyond ±30 dB");
    j = profile;
    j["filters"][0]["q"] = -1.0;
    EXPECT_EQ(refusal(j, HeadphoneProfile{}), "a filter's Q -1 is not above 0");
}

} // namespace
} // namespace tarn
