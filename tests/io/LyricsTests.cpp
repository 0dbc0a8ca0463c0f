// Lyrics as files beside songs and tags hold them: LRC with its quirks, and plain text.

#include <gtest/gtest.h>

#include "core/io/Lyrics.hpp"

namespace tarn {
namespace {

TEST(Lyrics, LrcLinesComeInTimeOrderWithRepeatsOffsetAndTagsLeftOut) {
    const auto lyrics = Lyrics::parse("[ar:Someone]\r\n[ti:A song]\n[offset:+500]\n"
                                      "[00:12.50]first line\n"
                                      "[00:20.00][01:05.25]chorus\n"
                                      "[00:30:10]third, with a colon for hundredths\n"
                                      "[00:40.00]\n"
                                      "[xx:yy]not a time\n");
    ASSERT_TRUE(lyrics.isSynchronised());
    ASSERT_EQ(lyrics.lines.size(), 5u);
    EXPECT_EQ(lyrics.lines[0], (Lyrics::Line{12.0, "first line"})) << "the offset moves every line earlier";
    EXPECT_EQ(lyrics.lines[1], (Lyrics::Line{19.5, "chorus"}));
    EXPECT_NEAR(*lyrics.lines[2].seconds, 29.6, 1e-9);
    EXPECT_EQ(lyrics.lines[3], (Lyrics::Line{39.5, ""})) << "an empty timed line is a pause in the singing";
    EXPECT_EQ(lyrics.lines[4], (Lyrics::Line{64.75, "chorus"})) << "a line with two stamps comes twice";
}

TEST(Lyrics, TheLineBeingSungIsTheLastThatHasStarted) {
    const auto lyrics = Lyrics::parse("[00:01.00]one\n[00:02.00]two\n[00:03.00]three\n");
    EXPECT_FALSE(lyrics.lineAt(0.5).has_value());
    EXPECT_EQ(lyrics.lineAt(1.0), 0u);
    EXPECT_EQ(lyrics.lineAt(2.99), 1u);
    EXPECT_EQ(lyrics.lineAt(600), 2u);
}

TEST(Lyrics, PlainTextStaysPlainAndNonsenseStaysOut) {
    const auto plain = Lyrics::parse("Verse one\n\n  Verse two  \n[not closed\n");
    EXPECT_FALSE(plain.isSynchronised());
    ASSERT_EQ(plain.lines.size(), 3u);
    EXPECT_EQ(plain.lines[1].text, "Verse two");
    EXPECT_FALSE(plain.lineAt(10).has_value());
    EXPECT_TRUE(Lyrics::parse("").empty());
    EXPECT_TRUE(Lyrics::parse("[01:99.00]seconds past 59 make no time: a tag line\n").empty());
}

} // namespace
} // namespace tarn
