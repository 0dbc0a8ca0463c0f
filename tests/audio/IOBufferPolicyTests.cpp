#include <gtest/gtest.h>

#include <cmath>

#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/ProcessCategory.hpp"
#include "core/audio/RouteAudioFormat.hpp"

namespace tarn {
namespace {

using IOBufferPolicy::preferredFrames;

TEST(IOBufferPolicy, PreferredFramesForMacOSIdentities) {
    EXPECT_EQ(preferredFrames(std::nullopt, std::nullopt), 2048u);
    EXPECT_EQ(preferredFrames("", "Netflix"), 2048u);
    EXPECT_EQ(preferredFrames("com.netflix.Netflix", std::nullopt), 512u);
    EXPECT_EQ(preferredFrames("com.example.unknown", std::nullopt), 2048u);
    // Matching is case-sensitive: a different spelling is not the video app.
    EXPECT_EQ(preferredFrames("com.netflix.netflix", std::nullopt), 2048u);
}

TEST(IOBufferPolicy, WebAppsAreClassifiedByNameBeforeTheBrowserRule) {
    EXPECT_EQ(preferredFrames("com.google.Chrome.app.abc", "YouTube MUSIC"), 2048u);
    EXPECT_EQ(preferredFrames("com.google.Chrome.app.abc", "YouTube"), 512u);
    EXPECT_EQ(preferredFrames("com.google.Chrome.app.abc", "Notes"), 512u);
    EXPECT_EQ(preferredFrames("com.google.Chrome.app.abc", std::nullopt), 512u);
    EXPECT_EQ(preferredFrames("com.google.Chrome.helper", "Spotify"), 512u) << "a browser's own process";
    EXPECT_EQ(preferredFrames("com.apple.Safari.WebApp.X", "Tidal"), 2048u);
    EXPECT_EQ(preferredFrames("com.apple.Safari", "Tidal"), 512u);
}

TEST(IOBufferPolicy, LinuxIdentitiesFollowTheSameRules) {
    for (auto browser : {"org.mozilla.firefox", "com.google.Chrome", "org.chromium.Chromium", "com.brave.Browser",
                         "firefox", "firefox-esr", "chromium", "google-chrome", "brave", "brave-browser"}) {
        EXPECT_EQ(preferredFrames(browser, std::nullopt), 512u) << browser;
    }
    for (auto video : {"io.mpv.Mpv", "mpv", "totem", "tv.plex.PlexDesktop"}) {
        EXPECT_TRUE(ProcessCategory::isVideo(video)) << video;
        EXPECT_TRUE(ProcessCategory::isEntertainment(video)) << video;
        EXPECT_EQ(preferredFrames(video, std::nullopt), 512u) << video;
    }
    for (auto music : {"com.spotify.Client", "spotify", "rhythmbox", "elisa", "org.videolan.VLC", "vlc"}) {
        EXPECT_TRUE(ProcessCategory::isEntertainment(music)) << music;
        EXPECT_FALSE(ProcessCategory::isVideo(music)) << music;
        EXPECT_EQ(preferredFrames(music, std::nullopt), 2048u) << music;
    }
}

TEST(IOBufferPolicy, ClampRaisesLowersAndCaps) {
    using IOBufferPolicy::clamp;
    EXPECT_EQ(clamp(2048, 14.5, 512), 512u);
    EXPECT_EQ(clamp(512, 4096, 8192), 4096u);
    EXPECT_EQ(clamp(100, 0, 8192), 100u);
    EXPECT_EQ(clamp(8000, 1, 8192), 4096u);
    EXPECT_EQ(clamp(300, 600, 500), 300u);
    EXPECT_EQ(clamp(9000, 600, 500), 4096u);
    EXPECT_EQ(clamp(10, 14.5, 512), 15u) << "the minimum is rounded up";
    EXPECT_EQ(clamp(0, 0, 0), 1u);
}

TEST(IOBufferPolicyDeathTest, ClampRejectsImpossibleBounds) {
    EXPECT_DEATH(IOBufferPolicy::clamp(512, std::nan(""), 1024), "out of range");
    EXPECT_DEATH(IOBufferPolicy::clamp(512, 0, 5e9), "out of range");
    EXPECT_DEATH(IOBufferPolicy::clamp(512, -2, 1024), "out of range");
}

TEST(ProcessCategory, VideoIsASubsetOfEntertainment) {
    EXPECT_TRUE(ProcessCategory::isEntertainment("org.xbmc.kodi"));
    EXPECT_FALSE(ProcessCategory::isVideo("org.xbmc.kodi"));
    for (auto id : ProcessCategory::videoBundleIDs()) EXPECT_TRUE(ProcessCategory::isEntertainment(id)) << id;
}

TEST(ProcessCategory, ClassifyWebApp) {
    using K = ProcessCategory::WebAppKind;
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.spotify.client", "Spotify"), std::nullopt);
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.brave.Browser.app.x", "music.youtube.com"), K::music);
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.microsoft.edgemac.app.x", "Watch on Twitch"), K::video);
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.microsoft.edgemac.app.x", "Discovery+"), K::video);
    EXPECT_EQ(ProcessCategory::classifyWebApp("com.microsoft.edgemac.app.x", ""), K::unknown);
}

TEST(RouteAudioFormat, StereoFallbackKeepsTheDeviceOnly) {
    RouteAudioFormat surround{7, "sink.surround", 0u, 6, "5.1", RouteCaptureMode::multichannelStream};
    auto stereo = RouteAudioFormat::stereoFallback(surround);
    EXPECT_EQ(stereo, (RouteAudioFormat{7, "sink.surround", std::nullopt, 2, "Stereo Fallback",
                                        RouteCaptureMode::stereoFallback}));
}

} // namespace
} // namespace tarn
