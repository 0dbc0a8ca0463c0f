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

} // namespace
} // namespace tarn
