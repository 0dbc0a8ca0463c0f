#include <gtest/gtest.h>

#include "core/dsp/TenBandLayout.hpp"
#include "core/models/GenrePreset.hpp"

namespace tarn {
namespace {

TEST(GenrePreset, KeywordTableOrderDecides) {
    EXPECT_EQ(fromAppleMusicGenre("K-Pop"), GenrePreset::pop);
    EXPECT_EQ(fromAppleMusicGenre("Pop Punk"), GenrePreset::rock);      // punk is tested before pop
    EXPECT_EQ(fromAppleMusicGenre("Trap Soul"), GenrePreset::trap);
    EXPECT_EQ(fromAppleMusicGenre("Grime"), GenrePreset::flat);
    EXPECT_EQ(fromAppleMusicGenre("Hip-Hop/Rap"), GenrePreset::hipHop);
    EXPECT_EQ(fromAppleMusicGenre("Progressive House"), GenrePreset::edm);
    EXPECT_EQ(fromAppleMusicGenre("PODCASTS"), GenrePreset::vocal);
    EXPECT_EQ(fromAppleMusicGenre(""), GenrePreset::flat);
}

TEST(GenrePreset, LabelsAndRawValues) {
    EXPECT_EQ(shortLabel(GenrePreset::trap), "TRAP / PHONK");
    EXPECT_EQ(shortLabel(GenrePreset::hipHop), "HIP-HOP");
    EXPECT_EQ(toString(GenrePreset::hipHop), "hipHop");
    for (auto g : allGenrePresets) EXPECT_EQ(genrePresetFromString(toString(g)), g);
    EXPECT_FALSE(genrePresetFromString("HipHop").has_value());
}

// The flat preset's Q is the exact root two a new route's bands carry, so choosing it changes nothing.
TEST(GenrePreset, FlatUsesTheExactRootTwo) {
    for (double q : qVector(GenrePreset::flat)) EXPECT_EQ(q, TenBandLayout::defaultQ);
}

} // namespace
} // namespace tarn
