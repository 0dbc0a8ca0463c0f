// What the store's routes play, measured on the simulated devices and checked against the
// cookbook peaking response and the fixed +4 dB make-up, not against the chain's own numbers.

#include <cmath>

#include "StoreFixture.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "support/Signals.hpp"

namespace tarn::test {
namespace {

constexpr double makeupDb = 4.0;
// The safety ceiling never attenuates more than this (its 0.063 floor).
constexpr double ceilingFloorDb = 24.0;

// The level a 1 kHz tone of the fixture's amplitude leaves a route at, with band 5 (1 kHz) at
// `bandDb`, everything else flat, and the safety ceiling on: the chain's peak gain over the
// audible range (20 Hz … 20 kHz, 240 log-spaced points), make-up included, is held to 0 dB.
double expectedToneDb(double bandDb, double gainDb = 0.0, double trimDb = 0.0) {
    const double q = TenBandLayout::defaultQ, rate = StoreTest::rate;
    double peakResponse = -1e9;
    for (int i = 0; i < 240; ++i)
        peakResponse = std::max(peakResponse, peakingResponseDb(1000.0, bandDb, q, 20.0 * std::pow(1000.0, i / 239.0), rate));
    const double scalarDb = gainDb + trimDb + makeupDb;
    const double ceilingDb = std::clamp(scalarDb + peakResponse, 0.0, ceilingFloorDb);
    return toDb(StoreTest::toneAmplitude) + peakingResponseDb(1000.0, bandDb, q, StoreTest::toneHz, rate) + scalarDb -
           ceilingDb;
}

TEST_F(StoreTest, TwoRoutesOnTwoDevicesRunTheirOwnChainsAndAnEditReachesOnlyItsDevice) {
    const UUID a = store->addRoute(music, "Music", std::string("speakers"));
    const UUID b = store->addRoute(video, "Video", std::string("headphones"));
    store->requestBandGain(5, -12.0, a, false);
    store->setActivationMode(RouteActivationMode::on, a);
    store->setActivationMode(RouteActivationMode::on, b);
    ASSERT_TRUE(isLive(a) && isLive(b));
    EXPECT_NE(store->dspChain(a), store->dspChain(b));

    EXPECT_NEAR(toDb(playedPeak(speakers)), expectedToneDb(-12.0), 0.3);
    EXPECT_NEAR(toDb(playedPeak(headphones)), expectedToneDb(0.0), 0.3);

    // A glided edit on the headphones' route while both play.
    store->requestBandGain(5, -6.0, b, true);
    queue.advance(0.5);
    EXPECT_FALSE(store->glides().isInFlight());
    EXPECT_NEAR(toDb(playedPeak(headphones)), expectedToneDb(-6.0), 0.3);
    EXPECT_NEAR(toDb(playedPeak(speakers)), expectedToneDb(-12.0), 0.3) << "the other route heard the edit";

    // Gain and trim land on their route only; below the ceiling the make-up is heard.
    store->setGain(a, -6.0);
    store->requestTrim(a, -4.0);
    queue.advance(0.5);
    EXPECT_NEAR(toDb(playedPeak(speakers)), expectedToneDb(-12.0, -6.0, -4.0), 0.3);
    EXPECT_NEAR(toDb(playedPeak(headphones)), expectedToneDb(-6.0), 0.3);

    store->setMuted(b, true);
    EXPECT_LT(playedPeak(headphones), 1e-6);
}

TEST_F(StoreTest, VoiceShapingLandsOnTheLiveRouteWithItsLevelCompensation) {
    const UUID id = store->addRoute(music, "Music");
    store->startAudio(id, false);
    // Low enough that the safety ceiling stays out of the way and the trim is heard.
    store->setGain(id, -12.0);
    store->requestBandGain(5, -10.0, id, false);
    EXPECT_EQ(store->siriShapeBands({{5, -5.0}}, id),
              "Done: upper mids (1 kHz) -12 — band hit its floor, so the level comes up +2 dB to land the cut");
    EXPECT_EQ(routeOf(id).customEQBands[5].gainDb, -12.0);
    EXPECT_EQ(routeOf(id).outputTrimDb, 2.0);
    queue.advance(0.5);
    EXPECT_DOUBLE_EQ(store->dspChain(id)->outputTrimDb(), 2.0);
    EXPECT_NEAR(toDb(playedPeak(speakers)), expectedToneDb(-12.0, -12.0, 2.0), 0.3);
    // The hand-set band became a habit AI Tune will weigh.
    EXPECT_LT(store->aiTune().habits().biasDb[5], 0.0);

    EXPECT_EQ(store->siriAdjustLoudness(false, id), "Easing the level down.");
    EXPECT_EQ(routeOf(id).outputTrimDb, 0.0);
    queue.advance(0.5);
    EXPECT_NEAR(toDb(playedPeak(speakers)), expectedToneDb(-12.0, -12.0, 0.0), 0.3);
}

} // namespace
} // namespace tarn::test
