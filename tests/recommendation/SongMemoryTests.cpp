#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include <nlohmann/json.hpp>

#include "core/recommendation/SongMemoryCapacity.hpp"
#include "core/recommendation/SongMemoryStore.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using test::TemporaryDirectory;
using Bytes = std::vector<std::int8_t>;
constexpr std::int8_t X = SongMemory::noDataSentinel;

std::vector<double> flat(double v) { return std::vector<double>(10, v); }
Bytes seconds(int count, std::int8_t value) { return Bytes(std::size_t(count) * 10, value); }
Date at(double seconds) { return Date{seconds}; }

// Expected digests from `printf 'hello|world' | sha256sum` and friends.
TEST(SongMemoryKey, IsTheSha256OfTrimmedLowercasedTitleAndArtist) {
    EXPECT_EQ(SongMemoryStore::key("hello", "world"),
              "55a3db6314a88ae7f97bdbc9133e215f32ee5c93a84d600a5a003ccd9d82c305");
    EXPECT_EQ(SongMemoryStore::key("  HeLLo\n", "\tWORLD \r\n"), SongMemoryStore::key("hello", "world"));
    // Case folding and white space beyond ASCII: capital Ö, a no-break space.
    EXPECT_EQ(SongMemoryStore::key("BJÖRK\u00a0", "Army Of Me"),
              "684bf4511537fbefb4310dac76407de977e9274e2b558b73b609d6b589201049");
}

TEST(SongMemory, TimelineSlicesCoverageAndQuantisation) {
    SongMemory m;
    m.timeline = Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, X, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, 7}; // trailing byte ignored
    EXPECT_EQ(m.timelineSeconds(), 2);
    ASSERT_TRUE(m.timelineSlice(0));
    EXPECT_EQ((*m.timelineSlice(0))[8], 4.5);
    EXPECT_TRUE(std::isnan((*m.timelineSlice(0))[9]));
    EXPECT_EQ((*m.timelineSlice(1))[3], -2.0);
    EXPECT_FALSE(m.timelineSlice(2));

    EXPECT_FALSE(m.coverageFraction());
    m.timeline = seconds(180, 0);
    m.expectedDurationSeconds = 200;
    EXPECT_DOUBLE_EQ(*m.coverageFraction(), 0.9);
    EXPECT_TRUE(m.isSufficientlyCovered());
    m.expectedDurationSeconds = 201;
    EXPECT_FALSE(m.isSufficientlyCovered());
    // A 20-minute track can never hold more than 600 s of timeline: a full timeline covers it.
    m.timeline = seconds(600, 0);
    m.expectedDurationSeconds = 1200;
    EXPECT_DOUBLE_EQ(*m.coverageFraction(), 1.0);

    std::vector<std::optional<std::array<double, 10>>> analysed(2);
    analysed[0] = std::array<double, 10>{0.24, 0.26, -0.74, 100, -100, NAN, 0, 0, 0, 0};
    const auto bytes = SongMemory::quantizedTimeline(analysed);
    ASSERT_EQ(bytes.size(), 20u);
    // Half-steps round away from zero, the range ends at ±127 (never the sentinel), and NaN or an
    // absent second is the sentinel.
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 6), (Bytes{0, 1, -1, 127, -127, X}));
    EXPECT_EQ(bytes[10], X);
    EXPECT_EQ(SongMemory::quantizedTimeline(decltype(analysed)(700)).size(), 6000u);
}

TEST(SongMemoryStore, MergedTimelineKeepsWhatOnlyOneSideKnows) {
    const Bytes old = {10, 10, X, X, 0, 0, 0, 0, 0, 0};
    const Bytes incoming = {20, X, 4, X, 0, 0, 0, 0, 0, 0, /* second 1 */ 6, 6, 6, 6, 6, 6, 6, 6, 6, 6};
    const auto merged = SongMemoryStore::mergedTimeline(old, incoming, 0.25);
    // 10 + 0.25 × 10 rounds away from zero; a value known on one side only is kept.
    EXPECT_EQ(merged, (Bytes{13, 10, 4, X, 0, 0, 0, 0, 0, 0, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6}));
    EXPECT_EQ(SongMemoryStore::mergedTimeline(std::nullopt, seconds(650, 1), 1.0).size(), 6000u);
}

TEST(SongMemoryStore, MergesPlaysIntoARunningThenMovingAverage) {
    TemporaryDirectory dir;
    SongMemoryStore store(dir / "SongMemories.json", 10);
    const auto key = SongMemoryStore::key("Song", "Artist");
    EXPECT_FALSE(store.memory(key));

    store.record(key, flat(4), flat(2), seconds(3, 8), "Rock", 180.0, at(100));
    auto m = store.memory(key);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->playCount, 1);
    EXPECT_EQ(m->profileDb, flat(4));

    // Second play: the mean of both. No genre, no duration, no timeline: the old ones stay.
    store.record(key, flat(8), flat(-2), std::nullopt, std::nullopt, std::nullopt, at(200));
    m = store.memory(key);
    EXPECT_EQ(m->playCount, 2);
    EXPECT_EQ(m->profileDb, flat(6));
    EXPECT_EQ(m->curveDb, flat(0));
    EXPECT_EQ(m->timeline, seconds(3, 8));
    EXPECT_EQ(m->genre, "Rock");
    EXPECT_EQ(m->lastPlayedAt, at(200));

    // Out-of-range values are held at ±24, non-numbers and missing values count as 0; a long
    // genre is cut to 40 characters.
    store.record(key, {100.0, NAN}, {}, seconds(4, 20), std::string(50, 'g') + "é", 181.0, at(300));
    m = store.memory(key);
    EXPECT_NEAR(m->profileDb[0], 6 + (24 - 6) / 3.0, 1e-12);
    EXPECT_NEAR(m->profileDb[1], 6 - 6 / 3.0, 1e-12);
    EXPECT_EQ((*m->timeline)[0], 12); // 8 + (20 − 8) / 3
    EXPECT_EQ((*m->timeline)[35], 20);
    EXPECT_EQ(m->genre, std::string(40, 'g'));

    // After the convergence plays every new play weighs 1/8.
    for (int play = 4; play <= 8; ++play) store.record(key, flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt);
    const double before = store.memory(key)->profileDb[5];
    store.record(key, flat(8), flat(0), std::nullopt, std::nullopt, std::nullopt);
    EXPECT_NEAR(store.memory(key)->profileDb[5], before + (8 - before) / 8.0, 1e-12);
    EXPECT_EQ(store.memory(key)->playCount, 9);
}

TEST(SongMemoryStore, EvictsTheLeastRecentlyPlayedBeyondCapacity) {
    TemporaryDirectory dir;
    SongMemoryStore store(dir / "SongMemories.json", 3);
    store.record("a", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(10));
    store.record("b", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(30));
    store.record("c", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(20));
    store.record("a", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(40)); // a played again
    store.record("d", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(50));
    EXPECT_EQ(store.count(), 3);
    EXPECT_FALSE(store.memory("c")); // the least recently played
    EXPECT_TRUE(store.memory("a"));
    // The song just played is never the one evicted, even with an old date.
    store.record("e", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(1));
    EXPECT_TRUE(store.memory("e"));
    EXPECT_FALSE(store.memory("b"));
    store.removeMemories({"a", "nope"});
    EXPECT_EQ(store.count(), 2);
}

TEST(SongMemoryStore, PersistsAndReadsBackEveryField) {
    TemporaryDirectory dir;
    const auto file = dir / "data" / "tarn" / "SongMemories.json";
    SongMemory expected;
    {
        SongMemoryStore store(file, 10);
        store.record("k1", {1.5, -2.25, 0, 0, 0, 0, 0, 0, 0, 23.9}, flat(3), Bytes{1, X, -3, 4, 5, 6, 7, 8, 9, 10},
                     "Jazz", 245.5, at(12345.678));
        store.record("k2", flat(0), flat(0), std::nullopt, std::nullopt, std::nullopt, at(1));
        expected = *store.memory("k1");
        store.flush();
        EXPECT_FALSE(store.lastError()) << *store.lastError();
    }
    const auto document = nlohmann::json::parse(test::readText(file));
    EXPECT_FALSE(document["k2"].contains("genre")); // absent optionals are omitted

    SongMemoryStore reread(file, 10);
    EXPECT_EQ(reread.count(), 2);
    EXPECT_EQ(reread.memory("k1"), expected);
    // Only the file itself is left in the folder: no temporary files.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);
}

TEST(SongMemoryStore, AnUnreadableFileIsMovedAsideNotOverwritten) {
    TemporaryDirectory dir;
    const auto file = dir / "SongMemories.json";
    test::writeText(file, "{ this is not json");
    {
        SongMemoryStore store(file, 10);
        EXPECT_EQ(store.count(), 0);
        ASSERT_TRUE(store.lastError());
        EXPECT_NE(store.lastError()->find("SongMemories.json"), std::string::npos);
        EXPECT_EQ(test::readText(file), "{ this is not json"); // reading never touches it
        store.record("k", flat(1), flat(1), std::nullopt, std::nullopt, std::nullopt);
        store.flush();
        ASSERT_TRUE(store.setAsidePath());
        EXPECT_EQ(test::readText(*store.setAsidePath()), "{ this is not json");
    }
    EXPECT_EQ(SongMemoryStore(file, 10).count(), 1);
}

TEST(SongMemoryStore, ClassifiesHealth) {
    SongMemory m;
    m.profileDb = flat(1);
    m.curveDb = flat(1);
    m.playCount = 1;
    m.timeline = seconds(90, 0);
    m.expectedDurationSeconds = 100;
    EXPECT_EQ(SongMemoryStore::classify(m), SongMemoryHealth::healthy);

    auto incomplete = m;
    incomplete.timeline = seconds(89, 0);
    EXPECT_EQ(SongMemoryStore::classify(incomplete), SongMemoryHealth::incomplete);

    const std::function<void(SongMemory&)> damages[] = {
        [](SongMemory& b) { b.timeline->push_back(0); }, // not whole seconds
        [](SongMemory& b) { b.genre = std::string(41, 'x'); }, [](SongMemory& b) { b.playCount = 0; },
        // A play dated years ahead would never count as idle.
        [](SongMemory& b) { b.lastPlayedAt = Date{Date::now().secondsSinceReferenceDate + 3 * 365 * 86400.0}; },
        [](SongMemory& b) { b.lastPlayedAt = Date{1e300}; }};
    for (std::size_t i = 0; i < std::size(damages); ++i) {
        auto broken = m;
        damages[i](broken);
        EXPECT_EQ(SongMemoryStore::classify(broken), SongMemoryHealth::broken) << "damage " << i;
    }
    // A clock a few minutes ahead of this one is not damage.
    auto ahead = m;
    ahead.lastPlayedAt = Date{Date::now().secondsSinceReferenceDate + 600};
    EXPECT_EQ(SongMemoryStore::classify(ahead), SongMemoryHealth::healthy);
}

TEST(SongMemoryStore, DamagedEntriesLoadAsBrokenAndSweepRemovesThem) {
    TemporaryDirectory dir;
    const auto file = dir / "SongMemories.json";
    const std::string ten = "[0,0,0,0,0,0,0,0,0,0]";
    test::writeText(file, R"({
      "nine":   {"profileDb": [0,0,0,0,0,0,0,0,0], "curveDb": )" + ten + R"(, "playCount": 1, "lastPlayedAt": 5},
      "nan":    {"profileDb": [0,0,0,null,0,0,0,0,0,0], "curveDb": )" + ten + R"(, "playCount": 1, "lastPlayedAt": 5},
      "old":    {"profileDb": )" + ten + R"(, "curveDb": )" + ten + R"(, "playCount": 1, "lastPlayedAt": 100},
      "recent": {"profileDb": )" + ten + R"(, "curveDb": )" + ten + R"(, "playCount": 1, "lastPlayedAt": 900},
      "mine":   {"profileDb": )" + ten + R"(, "curveDb": )" + ten + R"(, "playCount": 1, "lastPlayedAt": 1},
      "full":   {"profileDb": )" + ten + R"(, "curveDb": )" + ten + R"(, "playCount": 2, "lastPlayedAt": 1,
                 "timeline": "AAAAAAAAAAAAAA==", "expectedDurationSeconds": 1.0}
    })");
    SongMemoryStore store(file, 10);
    ASSERT_FALSE(store.lastError()) << *store.lastError();
    const auto audit = store.audit();
    EXPECT_EQ(audit.at("nine"), SongMemoryHealth::broken);
    EXPECT_EQ(audit.at("nan"), SongMemoryHealth::broken);
    EXPECT_EQ(audit.at("old"), SongMemoryHealth::incomplete);
    EXPECT_EQ(audit.at("full"), SongMemoryHealth::healthy);

    // Keeping broken ones: only idle incomplete memories go, and never a protected one.
    auto report = store.sweep(false, at(500), {"mine"});
    EXPECT_EQ(report, (SongMemorySweepReport{1, 0, 2, 1, 2}));
    EXPECT_FALSE(store.memory("old"));

    report = store.sweep(true, std::nullopt, {"nan"});
    EXPECT_EQ(report, (SongMemorySweepReport{1, 1, 1, 0, 2}));
    store.flush();
    const auto document = nlohmann::json::parse(test::readText(file));
    EXPECT_FALSE(document.contains("nine"));
    EXPECT_TRUE(document.contains("nan"));
    EXPECT_TRUE(document["nan"]["profileDb"][3].is_null()); // kept exactly as damaged as it was

    // A new play of a broken memory starts it afresh.
    store.record("nan", flat(2), flat(2), std::nullopt, std::nullopt, std::nullopt);
    EXPECT_EQ(store.memory("nan")->playCount, 1);
    EXPECT_EQ(store.memory("nan")->profileDb, flat(2));
}

TEST(SongMemoryStore, DefaultFileFollowsXdgDataHome) {
    {
        const test::ScopedEnvironment xdg("XDG_DATA_HOME", "/srv/data");
        EXPECT_EQ(SongMemoryStore::defaultFileURL(), "/srv/data/tarn/SongMemories.json");
    }
    const test::ScopedEnvironment xdg("XDG_DATA_HOME", "relative/ignored"), home("HOME", "/home/ada");
    EXPECT_EQ(SongMemoryStore::defaultFileURL(), "/home/ada/.local/share/tarn/SongMemories.json");
    EXPECT_THROW(SongMemoryStore(std::filesystem::path("/tmp/memories.txt"), 10), std::invalid_argument);
    // A relative name is taken from the current folder once, at construction.
    EXPECT_EQ(SongMemoryStore("no-such-folder/SongMemories.json", 10).fileURL(),
              std::filesystem::current_path() / "no-such-folder/SongMemories.json");
}

TEST(SongMemoryCapacity, ResolvesTiersFromChipAndModel) {
    using Tier = SongMemoryCapacity::Tier;
    EXPECT_EQ(SongMemoryCapacity::resolved("Apple M2", "MacBookAir10,1"), Tier::entry);
    EXPECT_EQ(SongMemoryCapacity::resolved("Apple M10", "MacBookAir99,1"), Tier::recentAir);
    EXPECT_EQ(SongMemoryCapacity::resolved("Apple Silicon", "MacBookAir99,1"), Tier::entry); // no generation
    EXPECT_EQ(SongMemoryCapacity::resolved("Apple M1", "iMac21,1"), Tier::capable);
    EXPECT_EQ(SongMemoryCapacity::resolved("AMD Ryzen 7 5800X 8-Core Processor", "MacBookAir8,1"), Tier::entry);
}

TEST(SongMemoryCapacity, ReadsTheMachineFromProcAndSysfsFiles) {
    TemporaryDirectory dir;
    test::writeText(dir / "cpuinfo", "processor\t: 0\nvendor_id\t: GenuineIntel\nmodel name\t: Intel(R) Core(TM) i5\n"
                               "\nprocessor\t: 1\nmodel name\t: Intel(R) Core(TM) i5\n");
    test::writeText(dir / "product_name", "MacBookAir8,1\n");
    EXPECT_EQ(SongMemoryCapacity::chipBrand(dir / "cpuinfo"), "Intel(R) Core(TM) i5");
    EXPECT_EQ(SongMemoryCapacity::modelIdentifier(dir / "product_name"), "MacBookAir8,1");
    EXPECT_EQ(SongMemoryCapacity::chipBrand(dir / "missing"), "");
}

} // namespace
} // namespace tarn
