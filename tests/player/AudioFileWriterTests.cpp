#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

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

// The writer's message for a target, or "" when it was accepted.
std::string refusal(const std::filesystem::path& target, const std::vector<std::filesystem::path>& inputs = {}) {
    try {
        AudioFileWriter writer(target, 48000, 2, inputs);
        const float frame[2] = {0.5f, 0.5f};
        writer.write(frame, 1);
        writer.commit();
    } catch (const AudioFileWriter::Error& e) {
        return e.what();
    }
    return "";
}

// `tarn render a.wav a.wav` used to replace its input with its own output.
TEST_F(AudioFileWriterTest, NeverReplacesAnInputHoweverItIsSpelt) {
    namespace fs = std::filesystem;
    const auto input = dir / "in.wav";
    test::writeText(input, "the user's recording");
    fs::create_directory(dir / "sub");
    fs::create_symlink(input, dir / "link.wav");
    fs::create_hard_link(input, dir / "hard.wav");
    for (const auto& target : {input, dir / "sub" / ".." / "in.wav", dir / "link.wav", dir / "hard.wav"}) {
        const std::string message = refusal(target, {dir / "other.txt", input});
        EXPECT_NE(message.find(target.string() + ": is the same file as the input " + input.string()), std::string::npos)
            << message;
    }
    // Spelt through the link on the input side as well.
    EXPECT_NE(refusal(input, {dir / "link.wav"}), "");
    EXPECT_EQ(test::readText(input), "the user's recording");
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"hard.wav", "in.wav", "link.wav", "sub"}));
    EXPECT_EQ(refusal(dir / "new.wav", {input}), "") << "any other file is fine";
}

// A render to a device node used to replace the node with a regular file.
TEST_F(AudioFileWriterTest, OnlyRegularFilesAreReplaced) {
    namespace fs = std::filesystem;
    const auto fifo = dir / "pipe.wav";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_NE(refusal(fifo).find(fifo.string() + ": is a pipe, not a regular file"), std::string::npos) << refusal(fifo);
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_NE(refusal("/dev/null").find("/dev/null: is a device, not a regular file"), std::string::npos);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));

    // Made a pipe while the writer ran: the commit refuses it too, and leaves nothing behind.
    const auto late = dir / "late.wav";
    AudioFileWriter writer(late, 48000, 1);
    ASSERT_EQ(::mkfifo(late.c_str(), 0600), 0);
    EXPECT_THROW(writer.commit(), AudioFileWriter::Error);
    EXPECT_TRUE(fs::is_fifo(late));
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"late.wav", "pipe.wav"}));
}

// A writer killed outright (SIGKILL, a power cut) cannot remove its temporary file; the next
// writer in that folder does, once the process that made it is gone.
TEST_F(AudioFileWriterTest, TemporaryFilesOfWritersThatNoLongerRunAreRemoved) {
    namespace fs = std::filesystem;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);   // a pid that no longer runs

    AudioFileWriter running(dir / "a.wav", 48000, 1);
    const std::string ownName = running.temporaryPath().filename().string();
    const std::string ownPid = "-" + std::to_string(::getpid()) + "-";
    ASSERT_NE(ownName.find(ownPid), std::string::npos) << ownName << " does not carry the writer's pid";
    std::string deadName = ownName;
    deadName.replace(deadName.find(ownPid), ownPid.size(), "-" + std::to_string(child) + "-");
    test::writeText(dir / deadName, "gigabytes, once");
    test::writeText(dir / ("x" + deadName), "not hidden: not a writer's");
    test::writeText(dir / "notes.txt", "unrelated");

    AudioFileWriter next(dir / "b.wav", 48000, 1);
    EXPECT_FALSE(fs::exists(dir / deadName));
    EXPECT_TRUE(fs::exists(running.temporaryPath())) << "a running writer's file is left alone";
    EXPECT_TRUE(fs::exists(dir / ("x" + deadName)));
    EXPECT_TRUE(fs::exists(dir / "notes.txt"));
}

} // namespace
} // namespace tarn
