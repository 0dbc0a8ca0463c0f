// What a song file says about itself, as the deck reads it.

#include <gtest/gtest.h>

#include "player/AudioFileTags.hpp"
#include "support/ProcessRunner.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

TEST(AudioFileTags, TagsCoverAndLengthComeFromTheFileAndItsNameStandsInForAMissingTitle) {
    test::TemporaryDirectory dir;
    test::writeSoundFile(dir / "plain.wav", test::sineWave(440, 0.1, 48000, 2, 48000 * 2));
    const auto plain = AudioFileTags::read(dir / "plain.wav");
    EXPECT_EQ(plain.title, "plain");
    EXPECT_TRUE(plain.artist.empty());
    ASSERT_TRUE(plain.durationSeconds);
    EXPECT_NEAR(*plain.durationSeconds, 2.0, 0.01);
    EXPECT_TRUE(plain.coverArt.empty());

    if (!test::hasProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed: no tagged file to read";
    ASSERT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "color=c=green:s=64x64", "-frames:v", "1",
                                (dir / "cover.png").string()}).exitCode, 0);
    ASSERT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-y", "-i", (dir / "plain.wav").string(), "-i", (dir / "cover.png").string(),
                                "-map", "0:a", "-map", "1:v", "-c:a", "flac", "-disposition:v", "attached_pic",
                                "-metadata", "title=Morning Tide", "-metadata", "artist=The Tarns", "-metadata", "album=Still Water",
                                "-metadata", "genre=Jazz", "-metadata", "track=3/12", "-metadata", "lyrics=[00:01.00]hello",
                                (dir / "tagged.flac").string()}).exitCode, 0);
    const auto tagged = AudioFileTags::read(dir / "tagged.flac");
    EXPECT_EQ(tagged.title, "Morning Tide");
    EXPECT_EQ(tagged.artist, "The Tarns");
    EXPECT_EQ(tagged.album, "Still Water");
    EXPECT_EQ(tagged.genre, "Jazz");
    EXPECT_EQ(tagged.trackNumber, 3) << "\"3/12\" is track 3";
    EXPECT_EQ(tagged.lyrics, "[00:01.00]hello");
    EXPECT_FALSE(tagged.coverArt.empty());
    EXPECT_EQ(tagged.coverArtMimeType, "image/png");

    // Not audio at all: the name, and nothing made up.
    test::writeText(dir / "notes.mp3", "just words");
    const auto notes = AudioFileTags::read(dir / "notes.mp3");
    EXPECT_EQ(notes.title, "notes");
    EXPECT_FALSE(notes.durationSeconds);
}

} // namespace
} // namespace tarn
