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

TEST(PresetStore, KeepsNewestFirstStablyReplacesByIdAndPersists) {
    test::TemporaryDirectory dir;
    PreferencesStore prefs(dir.path());
    PresetStore store(prefs);
    int notifications = 0;
    store.setObserver([&](const std::vector<EQPreset>&) { ++notifications; });
    EQPreset old = preset("old", 100);
    store.save(old);
    store.save(preset("tie A", 200));
    store.save(preset("newest", 300));
    store.save(preset("tie B", 200)); // same moment as tie A: keeps its later place
    old.name = "old (renamed)";
    store.save(old);
    std::vector<std::string> names;
    for (const auto& p : store.presets()) names.push_back(p.name);
    EXPECT_EQ(names, (std::vector<std::string>{"newest", "tie A", "tie B", "old (renamed)"}));
    EXPECT_EQ(store.remove(old.id), 1u);
    EXPECT_EQ(store.remove(old.id), 0u);
    EXPECT_EQ(notifications, 6);
    EXPECT_EQ(PresetStore(prefs).presets(), store.presets());
}

// One broken preset empties the store, and the unreadable file is moved aside, never lost.
TEST(PresetStore, OneBrokenPresetEmptiesTheStoreWithoutLosingTheFile) {
    test::TemporaryDirectory dir;
    PreferencesStore prefs(dir.path());
    json broken = json::array({preset("Late night", 1), preset("Broken", 2)});
    broken[1].erase("outputTrimDb");
    prefs.setData(PresetStore::key, broken.dump());
    PresetStore store(prefs);
    EXPECT_TRUE(store.presets().empty());
    ASSERT_TRUE(store.loadProblem());
    EXPECT_NE(store.loadProblem()->find("outputTrimDb"), std::string::npos) << *store.loadProblem();
    EXPECT_EQ(prefs.data(PresetStore::key), broken.dump()); // a reader leaves it alone

    store.save(preset("Fresh", 1));
    ASSERT_TRUE(store.setAsidePath());
    EXPECT_NE(store.setAsidePath()->filename().string().find("Tarn.savedPresets.v1.unreadable-"), std::string::npos);
    EXPECT_EQ(test::readText(*store.setAsidePath()), broken.dump());
    store.save(preset("Second", 2)); // only the unreadable original is ever moved aside
    EXPECT_EQ(PresetStore(prefs).presets().size(), 2u);
    EXPECT_EQ(dir.entries().size(), 2u);
}

// Nesting is the input's to choose: a million open brackets must neither crash the reader nor
// lose the file.
TEST(PresetStore, DeeplyNestedDocumentIsAProblemNotACrash) {
    test::TemporaryDirectory dir;
    PreferencesStore prefs(dir.path());
    const std::string nested = std::string(1000000, '[') + std::string(1000000, ']');
    prefs.setData(PresetStore::key, nested);
    PresetStore store(prefs);
    EXPECT_TRUE(store.presets().empty());
    EXPECT_TRUE(store.loadProblem());
    EXPECT_EQ(prefs.data(PresetStore::key), nested);
}

} // namespace
} // namespace tarn
