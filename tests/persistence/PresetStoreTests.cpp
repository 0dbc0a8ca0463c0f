#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/io/PresetStore.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using nlohmann::json;

EQPreset preset(const std::string& name, double createdAt) {
    EQPreset p;
    p.id = UUID::random();
    p.name = name;
    p.createdAt = Date{createdAt};
    p.bandGains.assign(10, 0.0);
    return p;
}

std::vector<std::string> names(const std::vector<EQPreset>& presets) {
    std::vector<std::string> out;
    for (const auto& p : presets) out.push_back(p.name);
    return out;
}

TEST(PresetStore, KeepsNewestFirstStablyAndPersists) {
    test::TemporaryDirectory dir;
    PreferencesStore prefs(dir.path());
    PresetStore store(prefs);
    EXPECT_TRUE(store.presets().empty());
    EXPECT_FALSE(store.loadProblem());

    store.save(preset("old", 100));
    store.save(preset("tie A", 200));
    store.save(preset("newest", 300));
    store.save(preset("tie B", 200)); // same moment as tie A: keeps its later place
    EXPECT_EQ(names(store.presets()), (std::vector<std::string>{"newest", "tie A", "tie B", "old"}));

    PresetStore reopened(prefs);
    EXPECT_EQ(reopened.presets(), store.presets());
    EXPECT_TRUE(json::parse(*prefs.data(PresetStore::key)).is_array());
}

TEST(PresetStore, SaveReplacesByIdAndDeleteRemoves) {
    test::TemporaryDirectory dir;
    PreferencesStore prefs(dir.path());
    PresetStore store(prefs);
    int notifications = 0;
    std::vector<EQPreset> lastSeen;
    store.setObserver([&](const std::vector<EQPreset>& list) {
        ++notifications;
        lastSeen = list;
    });

    EQPreset a = preset("Bass", 10);
    store.save(a);
    store.save(preset("Vocal", 20));
    a.name = "Bass (renamed)";
    store.save(a);
    EXPECT_EQ(names(store.presets()), (std::vector<std::string>{"Vocal", "Bass (renamed)"}));
    EXPECT_EQ(notifications, 3);
    EXPECT_EQ(lastSeen, store.presets());

    EXPECT_EQ(store.remove(a.id), 1u);
    EXPECT_EQ(store.remove(a.id), 0u);
    EXPECT_EQ(notifications, 4);
    EXPECT_EQ(names(PresetStore(prefs).presets()), std::vector<std::string>{"Vocal"});
}

TEST(PresetStore, OlderListsLoadAndOneBrokenPresetEmptiesTheStoreWithoutLosingTheFile) {
    test::TemporaryDirectory dir;
    PreferencesStore prefs(dir.path());
    const std::string older = R"([
      {"id": "3C1A9E2B-7D4F-4A6B-8C0D-1E2F3A4B5C6D", "name": "Late night", "createdAt": 784111777.25,
       "bandGains": [2, 1.5, 0, 0, -1, 0, 0, 1, 2, 2.5], "selectedGenre": "acoustic", "outputTrimDb": -1}
    ])";
    prefs.setData(PresetStore::key, older);
    PresetStore loaded(prefs);
    ASSERT_EQ(loaded.presets().size(), 1u);
    EXPECT_FALSE(loaded.presets()[0].hasParametricFilters());
    EXPECT_EQ(loaded.presets()[0].parametricPreampDb, 0.0);

    json broken = json::parse(older);
    broken.push_back(broken[0]);
    broken[1].erase("outputTrimDb");
    broken[1]["id"] = UUID::random().string();
    prefs.setData(PresetStore::key, broken.dump());
    PresetStore store(prefs);
    EXPECT_TRUE(store.presets().empty());
    ASSERT_TRUE(store.loadProblem());
    EXPECT_NE(store.loadProblem()->find("outputTrimDb"), std::string::npos) << *store.loadProblem();
    EXPECT_EQ(prefs.data(PresetStore::key), broken.dump()); // a reader leaves it alone

    store.save(preset("Fresh", 1));
    ASSERT_TRUE(store.setAsidePath());
    EXPECT_EQ(json::parse(*PreferencesStore(dir.path()).data(PresetStore::key)).size(), 1u);
    EXPECT_EQ(test::readText(*store.setAsidePath()), broken.dump());

    store.save(preset("Second", 2)); // only the unreadable original is ever moved aside
    EXPECT_EQ(PresetStore(prefs).presets().size(), 2u);
    EXPECT_EQ(dir.entries().size(), 2u);
}

} // namespace
} // namespace tarn
