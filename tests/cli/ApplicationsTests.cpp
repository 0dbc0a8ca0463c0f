#include <gtest/gtest.h>

#include <vector>

#include "cli/Applications.hpp"

namespace tarn::cli {
namespace {

using Entry = ProcessDiscoveryService::Entry;

TEST(Applications, AppNamesAPidOrAnIdentityOrANameWholeAndWithoutRegardToCase) {
    const std::vector<Entry> desk{{1, 100, "firefox", "Firefox", true},
                                  {2, 200, "com.spotify.Client", "Spotify", true},
                                  {3, 300, "pw-cat", "pw-play", true},
                                  {4, 301, "pw-cat", "pw-play", false},
                                  {5, 400, "", "PID 400", false}}; // identity unknown
    auto ids = [&](const std::string& app) {
        std::vector<std::uint32_t> out;
        for (const auto& e : Applications::matching(desk, app)) out.push_back(e.objectID);
        return out;
    };
    EXPECT_EQ(ids("200"), std::vector<std::uint32_t>{2});
    EXPECT_EQ(ids("spotify"), std::vector<std::uint32_t>{2});
    EXPECT_EQ(ids("PW-PLAY"), (std::vector<std::uint32_t>{3, 4})); // both, so the caller can ask for a pid
    // No prefixes, and an empty argument names nothing (not the unknown identity).
    EXPECT_TRUE(ids("spot").empty());
    EXPECT_TRUE(ids("").empty());
}

// A browser's sound comes from a helper; the pid a user knows is the main window's.
class Family : public ProcessTree {
public:
    std::optional<std::int32_t> parent(std::int32_t pid) const override {
        if (pid == 300) return 200;
        if (pid == 200) return 100;
        return std::nullopt;
    }
};

TEST(Applications, APidNamesItsOwnStreamsElseThoseOfItsHelpers) {
    const std::vector<Entry> desk{{1, 300, "org.example.Browser", "Browser", true},
                                  {2, 400, "org.example.Player", "Player", true},
                                  {3, 200, "org.example.Zygote", "Zygote", false}};
    Family family;
    auto pids = [&](const std::string& app) {
        std::vector<std::int32_t> out;
        for (const auto& e : Applications::matching(desk, app, family)) out.push_back(e.pid);
        return out;
    };
    // Its own streams first: the helper in between does not pull the grandchild in.
    EXPECT_EQ(pids("200"), std::vector<std::int32_t>{200});
    EXPECT_EQ(pids("100"), (std::vector<std::int32_t>{300, 200}));
    EXPECT_TRUE(pids("500").empty());
}

TEST(Applications, CategoryPutsWebAppsBeforeTheirBrowserAndVideoBeforeEntertainment) {
    auto category = [](std::string identity, std::string name) {
        return Applications::category(Entry{1, 1, std::move(identity), std::move(name), true});
    };
    EXPECT_EQ(category("com.google.Chrome.app.abc", "YouTube Music"), "musicWebApp");
    EXPECT_EQ(category("com.google.Chrome", "Google Chrome"), "browser");
    EXPECT_EQ(category("totem", "Videos"), "video");
    EXPECT_EQ(category("vlc", "VLC media player"), "entertainment"); // plays music as often as films
}

} // namespace
} // namespace tarn::cli
