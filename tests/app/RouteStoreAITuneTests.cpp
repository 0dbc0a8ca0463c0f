// AI Tune on a live route of the simulated platform: a synthetic song whose band balance is
// known (one band 9 dB over the others, one 20 dB under) moves the route's AI layer by the rule
// engine's rules, inside its caps, with locked bands left alone; song memory replays the curve.

#include <cmath>
#include <numbers>

#include "StoreFixture.hpp"
#include "core/recommendation/SongMemoryStore.hpp"
#include "core/recommendation/BandProminenceAnalyzer.hpp"

namespace tarn::test {
namespace {

constexpr double partialAmplitude = 0.02;
constexpr int prominentBand = 5; // 1 kHz, +9 dB
constexpr int faintBand = 7;     // 4 kHz, −20 dB

// Equal sines at the ten band centres, but for the two bands above.
SimulatedAudioPlatform::CaptureSource song(bool balanced) {
    SimulatedAudioPlatform::CaptureSource source;
    source.sample = [balanced](std::uint64_t frame, std::uint32_t) {
        double x = 0.0;
        for (int band = 0; band < TenBandLayout::bandCount; ++band) {
            double a = partialAmplitude;
            if (!balanced && band == prominentBand) a *= std::pow(10.0, 9.0 / 20.0);
            if (!balanced && band == faintBand) a *= std::pow(10.0, -20.0 / 20.0);
            x += a * std::sin(2 * std::numbers::pi * TenBandLayout::centerFrequenciesHz[std::size_t(band)] *
                              double(frame) / StoreTest::rate);
        }
        return float(x);
    };
    return source;
}

class StoreAITune : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        store.reset();
        memory = std::make_unique<SongMemoryStore>(folder / "SongMemories.json");
        store = std::make_unique<RouteStore>(platform, queue, PreferencesStore(folder.path()),
                                             RouteStore::Options{queue.clock(), &tree, memory.get()});
        store->start();
        settle();
        store->activateRestoredRoutes();
    }

    void TearDown() override {
        StoreTest::TearDown();
        memory.reset();
    }

    // Lets the analyser hear the route until it is confident, then runs one AI Tune pass and
    // lets the bands glide there.
    void listen(const UUID& id) {
        for (int i = 0; i < 400 && !store->aiTune().snapshot(id).isConfident; ++i) {
            ASSERT_TRUE(platform.waitForCaptureCycles(platform.captureCycles() + 16));
            store->aiTune().drainNow(id);
        }
        ASSERT_TRUE(store->aiTune().snapshot(id).isConfident);
        store->applyAITune();
        queue.advance(0.3);
    }

    std::unique_ptr<SongMemoryStore> memory;
};

TEST_F(StoreAITune, AProminentAndAFaintBandMoveTheAILayerWithinItsCapsAndLockedBandsStay) {
    platform.setCaptureSource(song(false));
    const UUID id = store->addRoute(music, "Music");
    store->setBandAILocked(id, 2, true);
    store->requestBandGain(prominentBand, 10.0, id, false);
    store->startAudio(id, false);
    store->setAITuneScope(id, RecommendationScope::song);
    listen(id);

    const auto prominence = store->aiTune().snapshot(id).prominenceDb;
    EXPECT_NEAR(prominence[prominentBand], 9.0, 1.0);
    EXPECT_NEAR(prominence[faintBand], -20.0, 1.5);

    // +9 dB prominent, neutral headphone: a light boost of 3 dB, which is also what the boost
    // room of a band already 9 dB hot allows (12 − 9). Nearly absent: cut by 4 dB.
    const auto& tweaks = routeOf(id).aiTuneTweaksDb;
    EXPECT_EQ(tweaks[prominentBand], 3.0);
    EXPECT_EQ(tweaks[faintBand], -4.0);
    for (int band : {0, 1, 3, 4, 6, 8, 9}) EXPECT_EQ(tweaks[std::size_t(band)], 0.0) << "band " << band;
    EXPECT_EQ(tweaks[2], 0.0) << "a locked band moved";

    // Heard: the user's +10 and AI Tune's +3, inside the band range.
    auto* chain = store->dspChain(id);
    EXPECT_DOUBLE_EQ(chain->customEQ().bands()[prominentBand].gainDb, 12.0);
    EXPECT_DOUBLE_EQ(chain->customEQ().bands()[faintBand].gainDb, -4.0);

    const auto reasons = store->aiTuneReasons(id);
    ASSERT_FALSE(reasons[prominentBand].empty());
    EXPECT_EQ(reasons[prominentBand].front().rfind("S2:", 0), 0u) << reasons[prominentBand].front();
    EXPECT_EQ(reasons[faintBand].front().rfind("S6:", 0), 0u) << reasons[faintBand].front();

    // Off: every band goes back to the user's own gain.
    store->setAITuneScope(id, std::nullopt);
    queue.advance(0.5);
    EXPECT_DOUBLE_EQ(chain->customEQ().bands()[prominentBand].gainDb, 10.0);
    EXPECT_DOUBLE_EQ(chain->customEQ().bands()[faintBand].gainDb, 0.0);
}

TEST_F(StoreAITune, SongMemoryReplaysALearntCurveWhenTheSongComesBackAndTheGenreHistorySuggests) {
    platform.setCaptureSource(song(false));
    const UUID id = store->addRoute(music, "Music");
    store->startAudio(id, false);
    store->setAITuneScope(id, RecommendationScope::song);
    const RouteAITune::NowPlaying first{"Night Drive", "The Examples", "Hip-Hop", 180.0};
    store->setNowPlaying(music, first);
    listen(id);
    const auto learnt = routeOf(id).aiTuneTweaksDb;
    ASSERT_EQ(learnt[prominentBand], 3.0);

    // The next song is balanced: AI Tune flattens.
    store->setNowPlaying(music, RouteAITune::NowPlaying{"Daylight", "The Examples", "Hip-Hop", 200.0});
    ASSERT_TRUE(memory->memory(SongMemoryStore::key("Night Drive", "The Examples")).has_value())
        << "the song that ended was not learnt";
    platform.setCaptureSource(song(true));
    store->startAudio(id, true);
    listen(id);
    EXPECT_EQ(routeOf(id).aiTuneTweaksDb, std::vector<double>(10, 0.0));

    // The first song again: its curve is back before any analysis.
    store->setNowPlaying(music, first);
    EXPECT_EQ(routeOf(id).aiTuneTweaksDb, learnt);
    EXPECT_TRUE(store->aiTune().snapshot(id).prominenceDb.empty());

    for (int i = 0; i < 10; ++i)
        store->setNowPlaying(music, RouteAITune::NowPlaying{"Track " + std::to_string(i), "Someone", "Hip-Hop/Rap", {}});
    EXPECT_EQ(store->suggestedGenre(), GenrePreset::hipHop);
    EXPECT_GE(store->aiTune().genreHistory().trackCount, 12);
}

} // namespace
} // namespace tarn::test
