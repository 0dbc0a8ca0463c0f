#include <gtest/gtest.h>

#include <cmath>

#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/ProcessCategory.hpp"

namespace tarn {
namespace {

using IOBufferPolicy::preferredFrames;

// Small buffers for what must stay in sync with a picture (browsers, video players, web apps that
// are not music), large ones for music.
TEST(IOBufferPolicy, PreferredFramesFollowTheApplicationKind) {
    EXPECT_EQ(preferredFrames(std::nullopt, std::nullopt), 2048u);
    EXPECT_EQ(preferredFrames("com.netflix.Netflix", std::nullopt), 512u);
    EXPECT_EQ(preferredFrames("com.netflix.netflix", std::nullopt), 2048u) << "matching is case-sensitive";
    EXPECT_EQ(preferredFrames("firefox-esr", std::nullopt), 512u);
    EXPECT_EQ(preferredFrames("mpv", std::nullopt), 512u);
    EXPECT_EQ(preferredFrames("spotify", std::nullopt), 2048u);
    EXPECT_EQ(preferredFrames("com.google.Chrome.app.abc", "YouTube MUSIC"), 2048u) << "a music web app";
    EXPECT_EQ(preferredFrames("com.google.Chrome.app.abc", "YouTube"), 512u);
    EXPECT_EQ(preferredFrames("com.google.Chrome.helper", "Spotify"), 512u) << "a browser's own process";
    EXPECT_EQ(preferredFrames("com.apple.Safari.WebApp.X", "Tidal"), 2048u);
}

TEST(ProcessCategory, ClassifiesWebAppsByName) {
    using K = ProcessCategory::WebAppKind;
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.spotify.client", "Spotify"), std::nullopt) << "not a web app";
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.brave.Browser.app.x", "music.youtube.com"), K::music);
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.microsoft.edgemac.app.x", "Watch on Twitch"), K::video);
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.microsoft.edgemac.app.x", ""), K::unknown);
    EXPECT_TRUE(ProcessCategory::isEntertainment("org.xbmc.kodi"));
    EXPECT_FALSE(ProcessCategory::isVideo("org.xbmc.kodi"));
}

TEST(IOBufferPolicy, ClampRaisesLowersAndCaps) {
    using IOBufferPolicy::clamp;
    EXPECT_EQ(clamp(2048, 14.5, 512), 512u);
    EXPECT_EQ(clamp(512, 4096, 8192), 4096u);
    EXPECT_EQ(clamp(8000, 1, 8192), 4096u) << "never above 4096";
    EXPECT_EQ(clamp(300, 600, 500), 300u) << "a range upside down is ignored";
    EXPECT_EQ(clamp(9000, 600, 500), 4096u) << "but not the cap";
    EXPECT_EQ(clamp(10, 14.5, 512), 15u) << "the minimum is rounded up";
    EXPECT_EQ(clamp(0, 0, 0), 1u);
}

TEST(IOBufferPolicyDeathTest, ClampRejectsImpossibleBounds) {
    EXPECT_DEATH(IOBufferPolicy::clamp(512, std::nan(""), 1024), "out of range");
    EXPECT_DEATH(IOBufferPolicy::clamp(512, -2, 1024), "out of range");
}

} // namespace
} // namespace tarn
