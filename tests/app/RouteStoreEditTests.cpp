// Edits that reach a route's settings and its live chain: headphone correction from the
// catalogue, imported parametric EQ and presets, genre, per-channel offsets, bypasses.

#include <cmath>

#include "StoreFixture.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "support/Signals.hpp"

namespace tarn::test {
namespace {

constexpr const char* hd650 = "oratory1990.over-ear.sennheiser-hd-650";

TEST_F(StoreTest, HeadphoneCorrectionComesFromTheCatalogueAndStaysWithTheRoute) {
    const UUID id = store->addRoute(music, "Music");
    store->startAudio(id, false);
    ASSERT_TRUE(store->setCorrectionProfile(id, std::string(hd650)));
    const auto* catalogued = BundledProfileCatalog::shared().profile(hd650);
    ASSERT_NE(catalogued, nullptr);
    EXPECT_EQ(routeOf(id).correctionProfileID, std::string(hd650));
    EXPECT_EQ(routeOf(id).correctionProfileSnapshot, *catalogued) << "the route does not keep its own copy";
    ASSERT_TRUE(store->dspChain(id)->correctionEQ().profile().has_value());
    EXPECT_EQ(store->dspChain(id)->correctionEQ().profile()->filters, catalogued->filters);

    EXPECT_THROW(store->setCorrectionProfile(id, std::string("no.such.headphone")), std::invalid_argument);
    EXPECT_EQ(routeOf(id).correctionProfileID, std::string(hd650)) << "a refused id changed the route";

    store->setCorrectionBypassed(id, true);
    EXPECT_TRUE(store->dspChain(id)->correctionEQ().isBypassed());
    store->setCorrectionProfile(id, std::nullopt);
    EXPECT_FALSE(routeOf(id).correctionProfileSnapshot.has_value());
    EXPECT_FALSE(store->dspChain(id)->correctionEQ().profile().has_value());
}

TEST_F(StoreTest, AnImportedEQBecomesAPresetThatAPlayingRouteTakesWithItsTrim) {
    const UUID id = store->addRoute(music, "Music");
    store->startAudio(id, false);
    store->requestBandGain(2, 5.0, id, false);
    const auto file = writeText(folder / "My EQ.txt", "Preamp: -3 dB\nFilter 1: ON PK Fc 1000 Hz Gain -6 dB Q 1.41\n");
    const EQPreset imported = store->importEQFile(file);
    EXPECT_EQ(imported.name, "My EQ");
    ASSERT_EQ(store->presets().size(), 1u);
    EXPECT_THROW(store->importEQFile(writeText(folder / "empty.txt", "nothing here\n")), std::exception);
    EXPECT_EQ(store->presets().size(), 1u);

    ASSERT_TRUE(store->applyPreset(imported.id, id));
    queue.advance(0.5);
    const AppRoute r = routeOf(id);
    EXPECT_EQ(r.customEQBands[2].gainDb, 0.0);
    EXPECT_EQ(r.outputTrimDb, EQPreset::importedOutputTrimDb);
    EXPECT_EQ(r.importedProfileName, std::string("My EQ"));
    ASSERT_EQ(r.importedParametricFilters.size(), 1u);
    // Heard: the file's preamp and its 1 kHz cut, the trim and the make-up, below the ceiling.
    const double expectedDb = toDb(toneAmplitude) - 3.0 + peakingResponseDb(1000, -6, 1.41, toneHz, rate) +
                              EQPreset::importedOutputTrimDb + 4.0;
    EXPECT_NEAR(toDb(playedPeak(speakers)), expectedDb, 0.3);

    // The route as it is now, saved and applied elsewhere.
    const auto saved = store->saveCurrentAsPreset("Evening", id);
    ASSERT_TRUE(saved.has_value());
    EXPECT_EQ(saved->outputTrimDb, EQPreset::importedOutputTrimDb);
    EXPECT_EQ(saved->parametricFilters, r.importedParametricFilters);
    const UUID other = store->addRoute(video, "Video");
    ASSERT_TRUE(store->applyPreset(saved->id, other));
    EXPECT_EQ(routeOf(other).importedParametricFilters, r.importedParametricFilters);
    EXPECT_FALSE(store->applyPreset(UUID::random(), other));
    EXPECT_TRUE(store->deletePreset(saved->id));
    EXPECT_EQ(store->presets().size(), 1u);
}

TEST_F(StoreTest, GenreOffsetsAndBypassesReachTheLiveChain) {
    const UUID id = store->addRoute(music, "Music");
    store->startAudio(id, false);
    auto* chain = store->dspChain(id);

    store->setGenre(GenrePreset::rock, id);
    EXPECT_EQ(routeOf(id).selectedGenre, GenrePreset::rock);
    for (int band = 0; band < 10; ++band)
        EXPECT_DOUBLE_EQ(chain->customEQ().bands()[std::size_t(band)].q, qVector(GenrePreset::rock)[std::size_t(band)]);
    EXPECT_EQ(routeOf(id).customEQBands[5].gainDb, 0.0) << "a genre changed a band's gain";

    EXPECT_TRUE(store->setChannelDelta(id, 1, 5, -6.0));
    EXPECT_FALSE(store->setChannelDelta(id, 1, 10, -6.0));
    EXPECT_EQ(routeOf(id).channelEQDelta(5, 1), -6.0);
    EXPECT_EQ(chain->customEQ().channelDeltasDb(), routeOf(id).channelEQDeltasDb);

    store->setEQBypassed(id, true);
    EXPECT_TRUE(chain->customEQ().isBypassed());
    // Values out of range are kept in range.
    store->setGain(id, 40.0);
    EXPECT_EQ(routeOf(id).gainDb, 12.0);
    store->requestTrim(id, -30.0);
    EXPECT_EQ(routeOf(id).outputTrimDb, -12.0);
}

} // namespace
} // namespace tarn::test
