// The response a route's graph is drawn from, checked against what its chain does to a sine, and
// split into the user's bands, the AI Tune layer, the correction and the imported EQ.

#include <cmath>
#include <vector>

#include "StoreFixture.hpp"
#include "app/RouteChainSettings.hpp"
#include "core/dsp/FrequencyResponse.hpp"
#include "core/io/RouteStatePersistence.hpp"
#include "core/models/GenrePreset.hpp"
#include "support/Signals.hpp"

namespace tarn::test {
namespace {

using Shape = ParametricFilterSpec::Shape;

// Band centres, the points halfway between them (where neighbouring bands overlap most) and the
// two ends of the audible range.
std::vector<double> probeFrequencies() {
    std::vector<double> hz{20.0};
    for (int band = 0; band < TenBandLayout::bandCount; ++band) {
        const double centre = TenBandLayout::centerFrequenciesHz[std::size_t(band)];
        hz.push_back(centre);
        if (band + 1 < TenBandLayout::bandCount)
            hz.push_back(std::sqrt(centre * TenBandLayout::centerFrequenciesHz[std::size_t(band) + 1]));
    }
    hz.push_back(19000.0);
    return hz;
}

// What the chain does to a sine at `hz` on `channel`, in dB (everything included: flat gains too).
double measuredGainDb(RouteDSPChain& chain, int channel, double hz) {
    return FrequencyResponse::measureGainDb(hz, chain.sampleRate(), 0.5, [&](double x) {
        return channel == 0 ? chain.process(x) : chain.processStereo(x, x).second;
    });
}

// The flat factors after the equalisers, which the graph leaves out: route gain, trim, the fixed
// make-up every route carries and the safety ceiling's attenuation.
double flatGainDb(const AppRoute& route, const RouteDSPChain& chain) {
    return route.gainDb + route.outputTrimDb + RouteDSPChain::outputMakeupDb + toDb(chain.ceilingAttenuationLinear());
}

HeadphoneProfile correctionProfile() {
    HeadphoneProfile p;
    p.id = "test.correction";
    p.modelName = "Test Headphones";
    p.sourceProject = "test";
    p.preampDb = -4.5;
    p.filters = {{Shape::lowShelf, 105, 5.5, 0.7}, {Shape::peaking, 2900, -3.5, 2.0}, {Shape::highShelf, 9000, 2.0, 0.7}};
    return p;
}

ImportedEQ importedEQ() {
    ImportedEQ eq;
    eq.modelName = "My EQ";
    eq.preampDb = -1.5;
    eq.filters = {{Shape::peaking, 700, 2.5, 1.2}, {Shape::peaking, 6200, -4.0, 3.0}};
    return eq;
}

class StoreResponse : public StoreTest {
protected:
    // A route shaped by every stage: user bands, a genre's Qs, a correction, an imported EQ, and
    // a right channel that differs from the left.
    UUID shapedRoute() {
        const UUID id = store->addRoute(music, "Music");
        const std::vector<double> bands = {4, -3, 2.5, 0, -2, 3, -4.5, 1.5, 5, -2};
        for (int band = 0; band < TenBandLayout::bandCount; ++band)
            store->requestBandGain(band, bands[std::size_t(band)], id, false);
        store->setGenre(GenrePreset::rock, id);
        store->setCorrectionProfile(id, correctionProfile());
        store->setImportedEQ(id, importedEQ());
        store->setChannelDelta(id, 1, 2, -5.0);
        store->setChannelDelta(id, 1, 7, 3.5);
        store->setGain(id, 2.0);
        store->requestTrim(id, -2.0);
        return id;
    }

    // AI Tune's layer as a listening pass leaves it (the analysis has tests of its own): written
    // into the saved desk, which the store then restores.
    void restoreWithAILayer(const UUID& id, const std::vector<double>& tweaksDb) {
        store.reset(); // writes what is pending
        RouteStatePersistence persistence{PreferencesStore(folder.path())};
        auto state = persistence.load();
        ASSERT_TRUE(state.has_value());
        for (auto& r : state->first.routes)
            if (r.id == id) {
                r.aiTuneScope = RecommendationScope::song;
                r.aiTuneTweaksDb = tweaksDb;
            }
        persistence.save(state->first);
        makeStore();
    }

    RouteResponseCurve curveOf(const UUID& id, int channel, const std::vector<double>& hz) {
        auto curve = store->responseCurve(id, channel, hz);
        EXPECT_TRUE(curve.has_value());
        return curve.value_or(RouteResponseCurve{});
    }

    // The total the graph shows, plus the flat gains, against a sine through a chain that runs
    // the route, at every probe frequency of both channels.
    void expectTotalMatchesChain(const UUID& id, RouteDSPChain& chain) {
        const auto hz = probeFrequencies();
        for (int channel = 0; channel < 2; ++channel) {
            const RouteResponseCurve curve = curveOf(id, channel, hz);
            ASSERT_EQ(curve.totalDb.size(), hz.size());
            for (std::size_t i = 0; i < hz.size(); ++i)
                EXPECT_NEAR(curve.totalDb[i] + flatGainDb(routeOf(id), chain), measuredGainDb(chain, channel, hz[i]), 0.1)
                    << "channel " << channel << " at " << hz[i] << " Hz";
        }
    }
};

TEST_F(StoreResponse, TheTotalOfEveryStageIsWhatTheRouteDoesToASineOnEachChannel) {
    const UUID id = shapedRoute();
    restoreWithAILayer(id, {0, 2, 0, 0, -3, 0, 0, 1, 0, 3});
    ASSERT_FALSE(isLive(id));

    // The route as it would play: through the one mapping of settings to a chain.
    const AppRoute& route = routeOf(id);
    RouteDSPChain chain(2, rate);
    RouteChainSettings::applyTo(route, chain);
    ASSERT_TRUE(chain.isSafetyCeilingActive()) << "the ceiling's attenuation is part of what is measured";
    expectTotalMatchesChain(id, chain);

    // The right channel's offsets are its own: at 125 Hz it sits about 5 dB under the left.
    const std::vector<double> at125{125.0};
    EXPECT_NEAR(curveOf(id, 0, at125).userDb[0] - curveOf(id, 1, at125).userDb[0], 5.0, 0.5);
}

TEST_F(StoreResponse, ALiveRouteIsDrawnAtTheRateItPlaysAtAndWhereItsGlidesLand) {
    SimulatedAudioPlatform::CaptureSource source;
    source.sampleRate = 44100;
    source.sample = [](std::uint64_t frame, std::uint32_t) {
        return float(0.1 * std::sin(2 * std::numbers::pi * 1000.0 * double(frame) / 44100.0));
    };
    platform.setCaptureSource(source);
    const UUID id = shapedRoute();
    store->requestBandGain(9, 8.0, id, false); // 16 kHz, where the two rates part most
    store->startAudio(id, false);
    ASSERT_TRUE(isLive(id));
    ASSERT_EQ(store->dspChain(id)->sampleRate(), 44100.0);

    RouteDSPChain chain(2, 44100);
    RouteChainSettings::applyTo(routeOf(id), chain);
    expectTotalMatchesChain(id, chain);
    // The check above tells the rates apart: the same route at 48 kHz sounds otherwise up there.
    RouteDSPChain at48k(2, 48000);
    RouteChainSettings::applyTo(routeOf(id), at48k);
    EXPECT_GT(std::abs(measuredGainDb(at48k, 0, 19000.0) - measuredGainDb(chain, 0, 19000.0)), 0.5);

    // A band on its way: the graph shows where it lands, and stays put once it has.
    store->requestBandGain(5, 12.0, id, true);
    queue.advance(0.05);
    ASSERT_LT(store->dspChain(id)->customEQ().bands()[5].gainDb, 12.0) << "the glide has already landed";
    const RouteResponseCurve gliding = curveOf(id, 0, probeFrequencies());
    queue.advance(1.0);
    ASSERT_EQ(store->dspChain(id)->customEQ().bands()[5].gainDb, 12.0);
    const RouteResponseCurve landed = curveOf(id, 0, probeFrequencies());
    for (std::size_t i = 0; i < landed.totalDb.size(); ++i) EXPECT_NEAR(gliding.totalDb[i], landed.totalDb[i], 1e-9);
}

TEST_F(StoreResponse, UserBandsFollowTheTextbookPeakingCurveWithTheRoutesEffectiveQ) {
    const UUID id = store->addRoute(music, "Music");
    constexpr int band = 2; // 125 Hz
    const double f0 = TenBandLayout::centerFrequenciesHz[band];
    store->requestBandGain(band, 6.0, id, false);
    store->setGenre(GenrePreset::trap, id);
    const double genreQ = qVector(GenrePreset::trap)[band];
    ASSERT_NE(genreQ, TenBandLayout::defaultQ) << "a genre whose Q differs from the default tells the two apart";

    const std::vector<double> hz{f0, f0 / 1.5, f0 * 1.5, f0 / 4, f0 * 4};
    auto expectPeaking = [&](double q, const char* what) {
        const auto curve = curveOf(id, 0, hz);
        for (std::size_t i = 0; i < hz.size(); ++i)
            EXPECT_NEAR(curve.userDb[i], peakingResponseDb(f0, 6.0, q, hz[i], rate), 1e-6) << what << " at " << hz[i];
        EXPECT_NEAR(curve.userDb[0], 6.0, 1e-9) << what;
    };
    expectPeaking(genreQ, "the genre's own Q");
    // A correction softens the genre's Q: a quarter of the way from the default towards it.
    store->setCorrectionProfile(id, correctionProfile());
    expectPeaking(0.25 * genreQ + 0.75 * TenBandLayout::defaultQ, "the Q softened by a correction");
}

TEST_F(StoreResponse, TheAILayerIsWhatItAddsToTheUsersBandsAndNothingWhenAITuneIsOff) {
    const UUID id = store->addRoute(music, "Music");
    store->requestBandGain(9, 10.0, id, false); // 16 kHz
    store->requestBandGain(4, -2.0, id, false); // 500 Hz
    const std::vector<double> hz{500.0, 16000.0, 3000.0};

    const auto off = curveOf(id, 0, hz);
    // +5 dB on a band at +10 plays only up to the band range's +12: the layer is the 2 dB heard.
    restoreWithAILayer(id, {0, 0, 0, 0, 3, 0, 0, 0, 0, 5});
    const auto on = curveOf(id, 0, hz);
    auto bandsDb = [&](double at500, double at16k, double f) {
        const auto& q = qVector(GenrePreset::flat);
        return peakingResponseDb(500, at500, q[4], f, rate) + peakingResponseDb(16000, at16k, q[9], f, rate);
    };
    for (std::size_t i = 0; i < hz.size(); ++i) {
        EXPECT_EQ(off.aiDb[i], 0.0) << "a layer while AI Tune is off";
        EXPECT_NEAR(on.userDb[i], bandsDb(-2, 10, hz[i]), 1e-6) << hz[i];
        EXPECT_NEAR(off.userDb[i], on.userDb[i], 1e-12) << "the layer changed the user's own trace";
        EXPECT_NEAR(on.aiDb[i], bandsDb(1, 12, hz[i]) - bandsDb(-2, 10, hz[i]), 1e-6) << hz[i];
        EXPECT_NEAR(on.userDb[i] + on.aiDb[i] + on.correctionDb[i] + on.parametricDb[i], on.totalDb[i], 1e-9);
    }
    EXPECT_NEAR(on.aiDb[1], 2.0, 0.01);
}

TEST_F(StoreResponse, BypassedStagesDrawFlatAndTheImportedEQKeepsItsPreamp) {
    const UUID id = shapedRoute();
    const std::vector<double> hz = probeFrequencies();
    const auto before = curveOf(id, 0, hz);

    store->setEQBypassed(id, true);
    store->setCorrectionBypassed(id, true);
    const auto bypassed = curveOf(id, 0, hz);
    RouteDSPChain chain(2, rate);
    RouteChainSettings::applyTo(routeOf(id), chain);
    for (std::size_t i = 0; i < hz.size(); ++i) {
        EXPECT_EQ(bypassed.userDb[i], 0.0);
        EXPECT_EQ(bypassed.aiDb[i], 0.0);
        EXPECT_EQ(bypassed.correctionDb[i], 0.0);
        EXPECT_EQ(bypassed.parametricDb[i], before.parametricDb[i]);
        EXPECT_NEAR(bypassed.totalDb[i] + flatGainDb(routeOf(id), chain), measuredGainDb(chain, 0, hz[i]), 0.1)
            << hz[i] << " Hz";
    }
    // Far from its two filters, the imported EQ is its preamp.
    EXPECT_NEAR(bypassed.parametricDb.front(), importedEQ().preampDb, 0.05);
}

TEST_F(StoreResponse, AChannelTheRouteDoesNotHaveIsRefusedAndAnUnknownRouteHasNoCurve) {
    const UUID id = store->addRoute(music, "Music");
    const std::vector<double> hz{1000.0};
    EXPECT_THROW(store->responseCurve(id, 2, hz), std::out_of_range);
    EXPECT_THROW(store->responseCurve(id, -1, hz), std::out_of_range);
    EXPECT_FALSE(store->responseCurve(UUID::random(), 0, hz).has_value());
}

} // namespace
} // namespace tarn::test
