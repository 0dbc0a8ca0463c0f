#include <gtest/gtest.h>

#include <vector>

#include "cli/Applications.hpp"

namespace tarn::cli {
namespace {

using Entry = ProcessDiscoveryService::Entry;

std::vector<std::uint32_t> ids(const std::vector<Entry>& entries) {
    std::vector<std::uint32_t> out;
    for (const auto& e : entries) out.push_back(e.objectID);
    return out;
}

const std::vector<Entry> desk{
    {1, 100, "firefox", "Firefox", true},
    {2, 200, "com.spotify.Client", "Spotify", true},
    {3, 300, "pw-cat", "pw-play", true},
    {4, 301, "pw-cat", "pw-play", false},
    {5, 400, "", "PID 400", false}, // identity unknown
};

TEST(Applications, AppNamesAPidOrAnIdentityOrANameWholeAndWithoutRegardToCase) {
    EXPECT_EQ(ids(Applications::matching(desk, "200")), (std::vector<std::uint32_t>{2}));
    EXPECT_EQ(ids(Applications::matching(desk, "COM.SPOTIFY.CLIENT")), (std::vector<std::uint32_t>{2}));
    EXPECT_EQ(ids(Applications::matching(desk, "spotify")), (std::vector<std::uint32_t>{2}));
    EXPECT_EQ(ids(Applications::matching(desk, "FireFox")), (std::vector<std::uint32_t>{1}));
    // Two instances are both named, so the caller can ask for a pid.
    EXPECT_EQ(ids(Applications::matching(desk, "PW-PLAY")), (std::vector<std::uint32_t>{3, 4}));
    EXPECT_EQ(ids(Applications::matching(desk, "pid 400")), (std::vector<std::uint32_t>{5}));
    // No prefixes, no substrings, and an empty argument names nothing (not the unknown identity).
    EXPECT_TRUE(Applications::matching(desk, "20").empty());
    EXPECT_TRUE(Applications::matching(desk, "spot").empty());
    EXPECT_TRUE(Applications::matching(desk, "").empty());
}

TEST(Applications, CategoryPutsWebAppsBeforeTheirBrowserAndVideoBeforeEntertainment) {
    auto category = [](std::string identity, std::string name) {
        return Applications::category(Entry{1, 1, std::move(identity), std::move(name), true});
    };
    EXPECT_EQ(category("com.google.Chrome.app.abc", "YouTube Music"), "musicWebApp");
    EXPECT_EQ(category("com.google.Chrome.app.abc", "YouTube"), "videoWebApp");
    EXPECT_EQ(category("com.google.Chrome.app.abc", "Some Site"), "webApp");
    EXPECT_EQ(category("com.google.Chrome", "Google Chrome"), "browser");
    EXPECT_EQ(category("firefox", "Firefox"), "browser");
    EXPECT_EQ(category("totem", "Videos"), "video");
    EXPECT_EQ(category("vlc", "VLC media player"), "entertainment"); // plays music as often as films
    EXPECT_EQ(category("pw-cat", "pw-play"), "other");
    EXPECT_EQ(category("", "PID 12"), "other");
}

} // namespace
} // namespace tarn::cli
