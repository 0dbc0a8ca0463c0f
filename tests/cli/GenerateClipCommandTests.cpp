#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "support/ProcessRunner.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

TEST(GenerateClipCommand, WritesTheAskedFormatTheSameEveryTimeAndRejectsImpossibleOnes) {
    test::TemporaryDirectory dir;
    const auto a = (dir / "a.wav").string(), b = (dir / "b.wav").string();
    for (const auto& path : {a, b})
        ASSERT_EQ(test::runProcess({TARN_CLI_PATH, "generate-clip", path, "--seconds", "2.5", "--rate", "44100",
                                    "--channels", "3"}).exitCode, 0);
    SF_INFO info{};
    const auto clip = test::readSoundFile(a, &info);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.channels, 3);
    EXPECT_EQ(clip.frameCount(), 110250u);
    EXPECT_EQ(test::readSoundFile(b).samples, clip.samples);
    // Loud enough to hear, never clipping, and a real stereo image (left and right differ).
    float peak = 0, difference = 0;
    for (std::size_t i = 0; i < clip.frameCount(); ++i) {
        for (int c = 0; c < 3; ++c) peak = std::max(peak, std::abs(clip.at(i, c)));
        difference = std::max(difference, std::abs(clip.at(i, 0) - clip.at(i, 1)));
    }
    EXPECT_GT(peak, 0.3f);
    EXPECT_LT(peak, 1.0f);
    EXPECT_GT(difference, 0.01f);

    const auto bad = test::runProcess({TARN_CLI_PATH, "generate-clip", (dir / "x.wav").string(), "--rate", "100"});
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_NE(bad.standardError.find("--rate"), std::string::npos) << bad.standardError;
    EXPECT_FALSE(std::filesystem::exists(dir / "x.wav"));
}

} // namespace
} // namespace tarn
