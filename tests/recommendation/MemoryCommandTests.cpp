#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "support/ProcessRunner.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using nlohmann::json;

test::ProcessResult memory(std::vector<std::string> args) {
    args.insert(args.begin(), {TARN_CLI_PATH, "memory"});
    return test::runProcess(args);
}

// One memory of each health: "full" covers its song, "partial" does not, "damaged" has nine values.
const std::string kDocument = R"({
  "full":    {"profileDb": [0,0,0,0,0,0,0,0,0,0], "curveDb": [1,1,1,1,1,1,1,1,1,1], "playCount": 3,
              "lastPlayedAt": 700000000, "timeline": "AAAAAAAAAAAAAA==", "expectedDurationSeconds": 1.0,
              "genre": "Jazz"},
  "partial": {"profileDb": [0,0,0,0,0,0,0,0,0,0], "curveDb": [0,0,0,0,0,0,0,0,0,0], "playCount": 1,
              "lastPlayedAt": 100},
  "damaged": {"profileDb": [0,0,0,0,0,0,0,0,0], "curveDb": [0,0,0,0,0,0,0,0,0,0], "playCount": 1,
              "lastPlayedAt": 100}
})";

TEST(MemoryCommand, AuditsAndSweeps) {
    test::TemporaryDirectory dir;
    const auto file = dir / "SongMemories.json";
    std::ofstream(file) << kDocument;

    auto r = memory({"audit", "--file", file.string(), "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.standardError;
    auto out = json::parse(r.standardOutput);
    EXPECT_EQ(out["counts"], json({{"healthy", 1}, {"incomplete", 1}, {"broken", 1}}));
    ASSERT_EQ(out["memories"].size(), 3u);
    EXPECT_EQ(out["memories"][0]["health"], "broken");

    r = memory({"audit", "--file", file.string()});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_NE(r.standardOutput.find("1 healthy, 1 incomplete, 1 broken"), std::string::npos) << r.standardOutput;

    // Idle for over a day, incomplete: "partial" goes (it was played in 2001); "full" is healthy.
    r = memory({"sweep", "--file", file.string(), "--remove-broken", "--idle-days", "1", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.standardError;
    out = json::parse(r.standardOutput);
    EXPECT_EQ(out["totalRemoved"], 2);
    EXPECT_EQ(json::parse(test::readText(file)).size(), 1u);
}

TEST(MemoryCommand, FollowsXdgDataHomeAndRefusesToTouchAnUnreadableFile) {
    test::TemporaryDirectory dir;
    auto r = [&] {
        const test::ScopedEnvironment xdg("XDG_DATA_HOME", dir.path().string());
        return memory({"audit"});
    }();
    ASSERT_EQ(r.exitCode, 0) << r.standardError;
    EXPECT_NE(r.standardOutput.find((dir / "tarn/SongMemories.json").string() + ": 0 of"), std::string::npos)
        << r.standardOutput;

    const auto file = dir / "SongMemories.json";
    std::ofstream(file) << "{ damaged";
    r = memory({"sweep", "--file", file.string(), "--remove-broken"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.standardError.find("left as it is"), std::string::npos) << r.standardError;
    EXPECT_EQ(test::readText(file), "{ damaged");

    EXPECT_EQ(memory({"sweep", "--file", file.string()}).exitCode, 2); // nothing asked for
    EXPECT_EQ(memory({"sweep", "--idle-days", "-3"}).exitCode, 2);
}

} // namespace
} // namespace tarn
