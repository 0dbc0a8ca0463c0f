#include <string>

#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/models/ListeningGenreHistory.hpp"

namespace tarn {
namespace {

using nlohmann::json;

const Date kNoon{800000000.0};

TEST(ListeningGenreHistory, SuggestsFromTheTenthTrack) {
    ListeningGenreHistory h;
    for (int i = 0; i < 9; ++i) h.record(i < 6 ? "Hip-Hop/Rap" : "Jazz", "Artist", kNoon);
    EXPECT_FALSE(h.suggestedPreset());
    h.record("  Hip-Hop/Rap\t", std::nullopt, Date{kNoon.secondsSinceReferenceDate + 60});
    auto suggestion = h.suggestedPreset();
    ASSERT_TRUE(suggestion);
    EXPECT_EQ(suggestion->first, GenrePreset::hipHop);
    EXPECT_EQ(suggestion->second, "Hip-Hop/Rap");
    EXPECT_EQ(h.trackCount, 10);
    EXPECT_EQ(h.genreCounts.at("Hip-Hop/Rap"), 7); // trimmed before counting
    EXPECT_EQ(h.lastUpdate, Date{kNoon.secondsSinceReferenceDate + 60});
    EXPECT_EQ(h.dominantArtist(), "Artist");
}

TEST(ListeningGenreHistory, BlankGenresAndArtistsAreNotCounted) {
    ListeningGenreHistory h;
    h.record("   ", "Somebody", kNoon);
    EXPECT_EQ(h.trackCount, 0);
    EXPECT_TRUE(h.genreCounts.empty());
    EXPECT_TRUE(h.artistCounts.empty());
    EXPECT_FALSE(h.lastUpdate);

    h.record("Rock", "  ", kNoon);
    EXPECT_EQ(h.trackCount, 1);
    EXPECT_TRUE(h.artistCounts.empty());
}

TEST(ListeningGenreHistory, CapsDropTheLeastCountedOtherEntry) {
    ListeningGenreHistory h;
    for (int g = 0; g < 100; ++g) {
        const std::string name = "Genre " + std::to_string(1000 + g);
        for (int n = 0; n < (g == 42 ? 1 : 2); ++n) h.record(name, std::nullopt, kNoon);
    }
    ASSERT_EQ(h.genreCounts.size(), 100u);
    h.record("Brand New", std::nullopt, kNoon); // count 1, as low as Genre 1042: must survive
    EXPECT_EQ(h.genreCounts.size(), 100u);
    EXPECT_EQ(h.genreCounts.count("Brand New"), 1u);
    EXPECT_EQ(h.genreCounts.count("Genre 1042"), 0u);

    for (int a = 0; a < 200; ++a) h.record("Rock", "Artist " + std::to_string(1000 + a), kNoon);
    h.record("Rock", "Artist 1000", kNoon);
    h.record("Rock", "Newcomer", kNoon);
    EXPECT_EQ(h.artistCounts.size(), 200u);
    EXPECT_EQ(h.artistCounts.count("Newcomer"), 1u);
    EXPECT_EQ(h.artistCounts.at("Artist 1000"), 2);
    EXPECT_EQ(h.artistCounts.count("Artist 1001"), 0u); // first of the least-counted, by name
}

TEST(ListeningGenreHistory, DismissingTheDominantGenreSuppressesTheSuggestion) {
    ListeningGenreHistory h;
    for (int i = 0; i < 8; ++i) h.record("Classical", std::nullopt, kNoon);
    for (int i = 0; i < 4; ++i) h.record("Pop", std::nullopt, kNoon);
    ASSERT_EQ(h.suggestedPreset()->first, GenrePreset::classical);
    h.dismissedGenres.insert("Classical");
    EXPECT_FALSE(h.suggestedPreset()); // no fallback to Pop
    EXPECT_EQ(h.dominantGenre(), "Classical");
}

TEST(ListeningGenreHistory, JSONRoundTripAndOlderShapes) {
    ListeningGenreHistory h;
    for (int i = 0; i < 3; ++i) h.record("Électronique", "Daft Punk", Date{812345678.123456789});
    h.dismissedGenres = {"Pop", "K-Pop"};
    EXPECT_EQ(json::parse(json(h).dump()).get<ListeningGenreHistory>(), h);
    EXPECT_EQ(std::string(ListeningGenreHistory::key), "Tarn.listeningGenreHistory.v1"); // where it is saved

    const auto old = json::parse(R"({"trackCount": 12, "genreCounts": {"Rock": 9, "Pop": 3}})").get<ListeningGenreHistory>();
    EXPECT_EQ(old.trackCount, 12);
    EXPECT_EQ(old.genreCounts.at("Rock"), 9);
    EXPECT_TRUE(old.artistCounts.empty());
    EXPECT_FALSE(old.lastUpdate);
    EXPECT_TRUE(old.dismissedGenres.empty());
    EXPECT_EQ(old.suggestedPreset()->first, GenrePreset::rock);

    EXPECT_ANY_THROW(json::parse(R"({"genreCounts": {}})").get<ListeningGenreHistory>());
    EXPECT_ANY_THROW(json::parse(R"({"trackCount": 1})").get<ListeningGenreHistory>());
    EXPECT_ANY_THROW(json::parse(R"({"trackCount": 1, "genreCounts": {"Rock": "many"}})").get<ListeningGenreHistory>());
}

} // namespace
} // namespace tarn
