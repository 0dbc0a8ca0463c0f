#include <sys/stat.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "player/AudioFileWriter.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

class AudioFileWriterTest : public ::testing::Test {
protected:
    test::TemporaryDirectory dir;
};

TEST_F(AudioFileWriterTest, CommitWritesFloatWavAndLeavesNothingElse) {
    const auto data = test::sineWave(300, 0.9, 96000, 5, 12345, true);
    {
        AudioFileWriter writer(dir / "out.wav", 96000, 5);
        EXPECT_EQ(writer.temporaryPath().parent_path(), dir.path());
        writer.write(data.samples.data(), 12000);
        writer.write(data.samples.data() + 12000 * 5, 345);
        EXPECT_FALSE(std::filesystem::exists(dir / "out.wav")) << "the target appears only on commit";
        writer.commit();
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"out.wav"});
    SF_INFO info{};
    const auto back = test::readSoundFile(dir / "out.wav", &info);
    EXPECT_EQ(info.format, SF_FORMAT_WAVEX | SF_FORMAT_FLOAT);
    EXPECT_EQ(back.sampleRate, 96000);
    EXPECT_EQ(back.channelCount, 5);
    EXPECT_EQ(back.samples, data.samples);

    // Ordinary permissions, not mkstemp's private 0600.
    struct stat st{};
    ASSERT_EQ(::stat((dir / "out.wav").c_str(), &st), 0);
    EXPECT_NE(st.st_mode & S_IRGRP, 0u);
}

TEST_F(AudioFileWriterTest, WithoutCommitTheOldTargetSurvivesAndTheTemporaryFileGoes) {
    std::ofstream(dir / "keep.wav") << "previous contents";
    {
        AudioFileWriter writer(dir / "keep.wav", 48000, 2);
        const float frame[2] = {0.1f, 0.2f};
        writer.write(frame, 1);
        EXPECT_TRUE(std::filesystem::exists(writer.temporaryPath()));
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"keep.wav"});
    EXPECT_EQ(test::readText(dir / "keep.wav"), "previous contents");

    AudioFileWriter discarded(dir / "other.wav", 48000, 1);
    discarded.discard();
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"keep.wav"});
    EXPECT_THROW(discarded.commit(), AudioFileWriter::Error);
}

TEST_F(AudioFileWriterTest, UnwritablePlacesFailNamingTheFile) {
    auto messageFor = [](const std::filesystem::path& p) -> std::string {
        try {
            AudioFileWriter writer(p, 48000, 2);
        } catch (const AudioFileWriter::Error& e) {
            return e.what();
        }
        return "";
    };
    const auto missingFolder = dir / "no" / "such" / "out.wav";
    EXPECT_NE(messageFor(missingFolder).find(missingFolder.string()), std::string::npos);
    EXPECT_NE(messageFor(dir.path()).find("folder"), std::string::npos);
    EXPECT_TRUE(dir.entries().empty());
}

} // namespace
} // namespace tarn
