#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "support/ProcessRunner.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

TEST(GenerateClipCommand, WritesTheAskedFormatTheSameEveryTime) {
    test::TemporaryDirectory dir;
    const auto a = (dir / "a.wav").string(), b = (dir / "b.wav").string();
    for (const auto& path : {a, b})
        ASSERT_EQ(test::runProcess({TARN_CLI_PATH, "generate-clip", path, "--seconds", "2.5", "--rate", "44100",
                                    "--channels", "3"})
                      .exitCode,
                  0);
    SF_INFO info{};
    const auto clip = test::readSoundFile(a, &info);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.channels, 3);
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_EQ(clip.frameCount(), 110250u);
    EXPECT_EQ(test::readSoundFile(b).samples, clip.samples);

    // Loud enough to hear, never clipping, and a real stereo image (left and right differ).
    float peak = 0;
    double difference = 0;
    for (std::size_t i = 0; i < clip.frameCount(); ++i) {
        for (int c = 0; c < 3; ++c) peak = std::max(peak, std::abs(clip.at(i, c)));
        difference = std::max(difference, double(std::abs(clip.at(i, 0) - clip.at(i, 1))));
    }
    EXPECT_GT(peak, 0.3f);
    EXPECT_LT(peak, 1.0f);
    EXPECT_GT(difference, 0.01);
}

TEST(GenerateClipCommand, RejectsImpossibleFormats) {
    test::TemporaryDirectory dir;
    for (auto option : {std::vector<std::string>{"--channels", "9"}, {"--rate", "100"}, {"--seconds", "0"}}) {
        std::vector<std::string> args = {TARN_CLI_PATH, "generate-clip", (dir / "x.wav").string()};
        args.insert(args.end(), option.begin(), option.end());
        const auto result = test::runProcess(args);
        EXPECT_EQ(result.exitCode, 2) << option[0];
        EXPECT_NE(result.standardError.find(option[0]), std::string::npos) << result.standardError;
    }
    EXPECT_TRUE(dir.entries().empty());
}

} // namespace
} // namespace tarn
