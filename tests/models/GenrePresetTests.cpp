#include <gtest/gtest.h>

#include "core/dsp/TenBandLayout.hpp"
#include "core/models/GenrePreset.hpp"

namespace tarn {
namespace {

TEST(GenrePreset, KeywordTableOrderDecides) {
    EXPECT_EQ(fromAppleMusicGenre("Pop Punk"), GenrePreset::rock); // punk is tested before pop
    EXPECT_EQ(fromAppleMusicGenre("Hip-Hop/Rap"), GenrePreset::hipHop);
    EXPECT_EQ(fromAppleMusicGenre("PODCASTS"), GenrePreset::vocal);
    EXPECT_EQ(fromAppleMusicGenre("Grime"), GenrePreset::flat);
}

// The flat preset's Q is the exact root two a new route's bands carry, so choosing it changes nothing.
TEST(GenrePreset, FlatUsesTheExactRootTwo) {
    for (double q : qVector(GenrePreset::flat)) EXPECT_EQ(q, TenBandLayout::defaultQ);
}

} // namespace
} // namespace tarn
