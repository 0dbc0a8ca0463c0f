#include <string>

#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/models/ListeningGenreHistory.hpp"

namespace tarn {
namespace {

using nlohmann::json;

const Date kNoon{800000000.0};

TEST(ListeningGenreHistory, SuggestsFromTheTenthCountedTrackUnlessDismissed) {
    ListeningGenreHistory h;
    h.record("   ", "Somebody", kNoon); // blank genres are not counted
    for (int i = 0; i < 9; ++i) h.record(i < 6 ? "Hip-Hop/Rap" : "Jazz", "Artist", kNoon);
    EXPECT_FALSE(h.suggestedPreset());
    h.record("  Hip-Hop/Rap\t", "  ", kNoon);
    ASSERT_TRUE(h.suggestedPreset());
    EXPECT_EQ(h.suggestedPreset()->first, GenrePreset::hipHop);
    EXPECT_EQ(h.genreCounts.at("Hip-Hop/Rap"), 7); // trimmed before counting
    EXPECT_EQ(h.artistCounts.size(), 1u); // not the blank-genre track's artist, nor a blank one

    h.dismissedGenres.insert("Hip-Hop/Rap");
    EXPECT_FALSE(h.suggestedPreset()); // no fallback to the next genre
}

TEST(ListeningGenreHistory, CapsDropTheLeastCountedOtherEntry) {
    ListeningGenreHistory h;
    for (int g = 0; g < 100; ++g)
        for (int n = 0; n < (g == 42 ? 1 : 2); ++n) h.record("Genre " + std::to_string(1000 + g), std::nullopt, kNoon);
    h.record("Brand New", std::nullopt, kNoon); // count 1, as low as Genre 1042: must survive
    EXPECT_EQ(h.genreCounts.size(), 100u);
    EXPECT_EQ(h.genreCounts.count("Brand New"), 1u);
    EXPECT_EQ(h.genreCounts.count("Genre 1042"), 0u);

    for (int a = 0; a < 200; ++a) h.record("Rock", "Artist " + std::to_string(1000 + a), kNoon);
    h.record("Rock", "Artist 1000", kNoon);
    h.record("Rock", "Newcomer", kNoon);
    EXPECT_EQ(h.artistCounts.size(), 200u);
    EXPECT_EQ(h.artistCounts.count("Artist 1001"), 0u); // first of the least-counted, by name
}

TEST(ListeningGenreHistory, JSONRoundTripAndOlderShapes) {
    ListeningGenreHistory h;
    for (int i = 0; i < 3; ++i) h.record("Électronique", "Daft Punk", Date{812345678.123456789});
    h.dismissedGenres = {"Pop", "K-Pop"};
    EXPECT_EQ(json::parse(json(h).dump()).get<ListeningGenreHistory>(), h);

    const auto old = json::parse(R"({"trackCount": 12, "genreCounts": {"Rock": 9, "Pop": 3}})").get<ListeningGenreHistory>();
    EXPECT_EQ(old.suggestedPreset()->first, GenrePreset::rock);
    EXPECT_ANY_THROW(json::parse(R"({"trackCount": 1})").get<ListeningGenreHistory>());
    EXPECT_ANY_THROW(json::parse(R"({"trackCount": 1, "genreCounts": {"Rock": "many"}})").get<ListeningGenreHistory>());
}

} // namespace
} // namespace tarn
