#include <gtest/gtest.h>

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

TEST(GenrePreset, FlatUsesExactRootTwoOthersTheRoundedValues) {
    for (double q : qVector(GenrePreset::flat)) EXPECT_EQ(q, 1.4142135623730951);
    EXPECT_EQ(qVector(GenrePreset::pop)[0], 1.414);
    EXPECT_EQ(qVector(GenrePreset::reference)[9], 0.707);
    EXPECT_EQ(qVector(GenrePreset::vocal)[4], 2.0);
    EXPECT_EQ(targetGainCurve(GenrePreset::trap)[0], 7.0);
    EXPECT_EQ(targetGainCurve(GenrePreset::vocal)[0], -3.0);
    EXPECT_EQ(signatureLeanDb(GenrePreset::trap)[0], 4.0);
    for (double v : signatureLeanDb(GenrePreset::classical)) EXPECT_EQ(v, 0.0);
}

} // namespace
} // namespace tarn
