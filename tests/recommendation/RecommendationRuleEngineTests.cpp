#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string_view>

#include "core/recommendation/RecommendationRuleEngine.hpp"
#include "support/Signals.hpp"

namespace tarn {

// Readable failures: the gain and every reason (gtest finds this by argument-dependent lookup).
void PrintTo(const BandRecommendation& r, std::ostream* os) {
    *os << "band " << r.bandIndex << ": " << r.gainDb << " dB";
    for (const auto& reason : r.rationale) *os << "\n  " << reason;
}

namespace {

using Engine = RecommendationRuleEngine;
using Reasons = std::vector<std::string>;

// A confident song, a neutral headphone, no taste and no bias: nothing fires anywhere.
RecommendationInput quietInput() {
    RecommendationInput in;
    in.prominenceDb.assign(10, 0.0);
    in.prominenceConfident = true;
    in.userBiasDb.assign(10, 0.0);
    in.genre = GenrePreset::flat;
    return in;
}

RecommendationInput withBand(int band, double p, double d) {
    auto in = quietInput();
    in.prominenceDb[band] = p;
    in.headphone.deviationDb[band] = d;
    return in;
}

BandRecommendation songBand(const RecommendationInput& in, int band) {
    return Engine::recommend(in, RecommendationScope::song).at(band);
}

BandRecommendation rec(int band, double gainDb, Reasons rationale) { return {band, gainDb, std::move(rationale)}; }

TEST(RecommendationRuleEngine, NothingFiresOnANeutralSetup) {
    const auto recs = Engine::recommend(quietInput(), RecommendationScope::song);
    ASSERT_EQ(recs.size(), 10u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(recs[i], rec(i, 0.0, {"neutral — no rule fired"}));

    // Short lists are padded with zeros.
    RecommendationInput in;
    in.prominenceConfident = true;
    in.prominenceDb = {4.0}; // only 31 Hz known
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::song)[0].gainDb, 2.0); // S2
}

TEST(RecommendationRuleEngine, NonFiniteInputsCountAsZero) {
    auto in = quietInput();
    in.prominenceDb[2] = NAN;
    in.headphone.deviationDb[3] = INFINITY;
    in.userBiasDb[4] = NAN;
    in.learnedWarmupCurveDb = std::vector<double>{0, 0, 0, 0, 0, NAN};
    for (auto scope : {RecommendationScope::song, RecommendationScope::taste})
        for (const auto& r : Engine::recommend(in, scope)) {
            EXPECT_EQ(r.gainDb, 0.0) << r.bandIndex;
            for (const auto& reason : r.rationale) EXPECT_EQ(reason.find("nan"), std::string::npos) << reason;
        }
}

TEST(RecommendationRuleEngine, SongRulesOnASingleBand) {
    struct Case { int band; double p, d; BandRecommendation expected; };
    const Case cases[] = {
        {4, 9.0, 3.0, rec(4, -1.0, {"S0: mids (500 Hz) is over-delivered on this setup (song 9.0, headphone 3.0 = "
                                    "+12.0 combined) → dampened"})},
        {4, 20.0, 3.0, rec(4, -4.0, {"S0: mids (500 Hz) is over-delivered on this setup (song 20.0, headphone 3.0 = "
                                     "+23.0 combined) → dampened"})}, // never below the floor
        // p + d = 10: headroom 2/3 tempers 7 to 4.67, and G8 then leaves only 12 − 10 = 2 dB of room.
        {4, 12.5, -2.5, rec(4, 2.0, {"S1: mids (500 Hz) is prominent in this song and your headphone under-delivers "
                                     "it (-2.5 dB) → strong boost (tempered — the track is already hot here)",
                                     "G8: mids (500 Hz) already runs +10.0 dB hot — boost limited to +2.0"})},
        {4, 4.0, 0.0, rec(4, 2.0, {"S2: mids (500 Hz) is prominent in this song → light boost"})},
        // p = 10: headroom 2/3 of 3 dB is exactly the 2 dB of room G8 allows, so G8 stays silent.
        {4, 10.0, 0.0, rec(4, 2.0, {"S2: mids (500 Hz) is prominent in this song → light boost (tempered)"})},
        {4, 5.0, 3.0, rec(4, -1.0, {"S3: mids (500 Hz) is prominent but your headphone already over-delivers it "
                                    "(+3.0 dB) → slight cut"})},
        {7, -3.0, 0.0, rec(7, -3.0, {"S5: definition (4 kHz) is not prominent in this song → −3"})},
        {7, -6.9, -4.0, rec(7, -3.0, {"S5: definition (4 kHz) is not prominent in this song → −3"})},
        {7, -8.0, 0.0, rec(7, -4.0, {"S6: definition (4 kHz) is nearly absent in this song → cut"})},
        {7, -7.0, -3.0, rec(7, -2.0, {"S6: definition (4 kHz) is nearly absent in this song → cut (softened — "
                                      "headphone is weak here too)"})},
    };
    for (const auto& c : cases) EXPECT_EQ(songBand(withBand(c.band, c.p, c.d), c.band), c.expected) << c.p << " " << c.d;

    // S1 untempered: neighbours on the same boost keep the smoothing guard out of the way.
    auto in = quietInput();
    for (int band : {3, 4, 5}) {
        in.prominenceDb[band] = 4.0;
        in.headphone.deviationDb[band] = -2.5;
    }
    EXPECT_EQ(songBand(in, 4), rec(4, 7.0, {"S1: mids (500 Hz) is prominent in this song and your headphone "
                                            "under-delivers it (-2.5 dB) → strong boost"}));
}

TEST(RecommendationRuleEngine, S4NeutralSongUsesHalfTheTasteCurveBiasAndGentleHeadphoneCompensation) {
    auto in = quietInput();
    in.genre = GenrePreset::rock; // 4 kHz target +4
    const std::string s4 = "S4: song is neutral at definition (4 kHz) → half-weight taste curve";
    EXPECT_EQ(songBand(in, 7), rec(7, 2.0, {s4}));
    in.userBiasDb[7] = 1.0;
    EXPECT_EQ(songBand(in, 7), rec(7, 3.0, {s4, "P1: your usual preference at definition (4 kHz) (+1.0)"}));
    in.userBiasDb[7] = 0.4; // below the preference threshold: ignored
    EXPECT_EQ(songBand(in, 7), rec(7, 2.0, {s4}));


    // H1: min(0.8 × 6, 4) + 0.5 × 4 − 1.0 = 5.
    in.userBiasDb[7] = -1.0;
    in.headphone.deviationDb[7] = -6.0;
    EXPECT_EQ(songBand(in, 7), rec(7, 5.0, {s4, "P1: your usual preference at definition (4 kHz) (-1.0)",
                                            "H1: headphone under-delivers definition (4 kHz) (-6.0 dB) → compensate"}));

    // H2: 2 − min(0.6 × 10, 3) = −1; no taste at 500 Hz for rock, so only H2 speaks.
    in = quietInput();
    in.genre = GenrePreset::rock;
    in.headphone.deviationDb[7] = 10.0;
    in.prominenceDb[7] = -2.0; // keeps p + d below the S0 threshold
    auto r = songBand(in, 7);
    EXPECT_EQ(r.gainDb, -1.0);
    EXPECT_EQ(r.rationale.back(), "H2: headphone over-delivers definition (4 kHz) (+10.0 dB) → ease off");
    in.headphone.deviationDb[4] = -2.5;
    EXPECT_EQ(songBand(in, 4), rec(4, 2.0, {"H1: headphone under-delivers mids (500 Hz) (-2.5 dB) → compensate"}));
}

TEST(RecommendationRuleEngine, TasteLayerFollowsTheCurveAndCompensatesMoreFirmly) {
    auto in = quietInput();
    in.genre = GenrePreset::rock;
    in.userBiasDb[7] = 1.0;
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::taste)[7],
              rec(7, 5.0, {"P1: your usual preference at definition (4 kHz) (+1.0)",
                           "T1: your listening leans Rock curve at definition (4 kHz)"}));

    // H1 up to 6 dB (the song layer stops at 4).
    in = quietInput();
    in.headphone.deviationDb[4] = -8.0;
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::taste)[4],
              rec(4, 6.0, {"H1: headphone under-delivers mids (500 Hz) (-8.0 dB) → compensate"}));
    EXPECT_EQ(songBand(in, 4).gainDb, 4.0);

    // H2 eases off up to 4 dB (the song layer stops at 3).
    in.headphone.deviationDb[4] = 6.0;
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::taste)[4].gainDb, -4.0); // 0 − min(4.8, 4)
    EXPECT_EQ(songBand(in, 4).gainDb, -3.0);                                       // 0 − min(3.6, 3)

    // Taste scope ignores the song entirely, confident or not.
    in = withBand(4, -9.0, 0.0);
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::taste)[4].rationale, Reasons{"neutral — no rule fired"});
}

TEST(RecommendationRuleEngine, LearnedCurveIsTheTasteAndItsProvenanceNamesIt) {
    auto in = quietInput();
    in.genre = GenrePreset::rock;
    in.learnedWarmupCurveDb = std::vector<double>{0, 0, 0, 0, 0, 3.0}; // padded
    in.learnedWarmupProvenance = "this song's memory";
    const auto recs = Engine::recommend(in, RecommendationScope::taste);
    EXPECT_EQ(recs[5].gainDb, 3.0);
    EXPECT_EQ(recs[5].rationale, Reasons{"T1: your listening leans this song's memory curve at upper mids (1 kHz)"});
    EXPECT_EQ(recs[7].gainDb, 0.0); // the rock curve is not used at all

    // Without one, a genre's own name and curve override the preset's.
    in.learnedWarmupCurveDb.reset();
    in.genreDisplayName = "Garage Rock";
    in.genreTargetCurveDb = std::vector<double>{0, 0, 0, 0, 0, 0, 0, -2.0};
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::taste)[7],
              rec(7, -2.0, {"T1: your listening leans Garage Rock curve at definition (4 kHz)"}));
}

TEST(RecommendationRuleEngine, SongScopeWarmsUpOnTheTasteLayer) {
    auto in = quietInput();
    in.prominenceConfident = false;
    in.genre = GenrePreset::rock;
    in.prominenceDb[7] = 9.0; // ignored while not confident
    const auto recs = Engine::recommend(in, RecommendationScope::song);
    EXPECT_EQ(recs[7], rec(7, 4.0, {"song analysis warming up", "T1: your listening leans Rock curve at definition (4 kHz)"}));
    EXPECT_EQ(recs[4], rec(4, 0.0, {"song analysis warming up"}));
}

TEST(RecommendationRuleEngine, GenreLeanAddsTheSignatureMinusWhatTheCurveAlreadyLifts) {
    auto in = quietInput();
    in.genre = GenrePreset::hipHop; // lean 3 3 2 0 0 1 1 0 0 0, curve 6 5 3 0 −1 1 1 1 2 2
    in.genreLeanWeight = 1.0;
    auto recs = Engine::recommend(in, RecommendationScope::song);
    // 31 Hz: 3 − 0.5 × 6 = 0 → no lean, only S4's half curve. 62 Hz: 3 − 2.5 = 0.5 → lean; 2.5 + 0.5 = 3.
    EXPECT_EQ(recs[0], rec(0, 3.0, {"S4: song is neutral at sub-bass (31 Hz) → half-weight taste curve"}));
    EXPECT_EQ(recs[1], rec(1, 3.0, {"S4: song is neutral at bass (62 Hz) → half-weight taste curve",
                                    "GN1: Hip-Hop leans on bass (62 Hz) → +0.5 dB genre lean"}));
    EXPECT_EQ(recs[4].rationale.size(), 1u); // 500 Hz has no signature: nothing added

    // p + d ≥ 9 skips the band.
    in.prominenceDb[0] = 6.0;
    in.headphone.deviationDb[0] = 3.0;
    recs = Engine::recommend(in, RecommendationScope::song);
    for (const auto& reason : recs[0].rationale) EXPECT_NE(reason.rfind("GN1", 0), 0u) << reason;

    // While warming up the prominence counts as 0 (so 6 dB of song prominence doesn't skip the band).
    in = quietInput();
    in.genre = GenrePreset::hipHop;
    in.genreLeanWeight = 2.0;
    in.prominenceConfident = false;
    in.prominenceDb[5] = 12.0;
    recs = Engine::recommend(in, RecommendationScope::song);
    EXPECT_EQ(recs[5].rationale.back(), "GN1: Hip-Hop leans on upper mids (1 kHz) → +1.0 dB genre lean"); // 2 − 1
    // The taste layer never leans.
    EXPECT_EQ(Engine::recommend(in, RecommendationScope::taste)[5].rationale.back().rfind("GN1", 0), std::string::npos);
}

TEST(RecommendationRuleEngine, G5SmoothsSteepNeighbourSteps) {
    auto in = withBand(0, 3.0, -5.0); // S1: 4 + 6 = 10 next to a neutral 0
    const auto recs = Engine::recommend(in, RecommendationScope::song);
    EXPECT_EQ(recs[0].gainDb, 8.0);
    EXPECT_EQ(recs[0].rationale.back(), "G5: smoothed toward bass (62 Hz)");
    EXPECT_EQ(recs[1], rec(1, 2.0, {"G5: smoothed toward sub-bass (31 Hz)"}));

    // A step of exactly 6 dB is left alone.
    in = quietInput();
    in.learnedWarmupCurveDb = std::vector<double>{6.0};
    const auto taste = Engine::recommend(in, RecommendationScope::taste);
    EXPECT_EQ(taste[0].gainDb, 6.0);
    EXPECT_EQ(taste[1].gainDb, 0.0);
}

// The taste layer on a learned curve, neutral headphone, no bias: the curve is the pre-guard gain.
std::vector<BandRecommendation> tasteRecs(std::vector<double> curve) {
    auto in = quietInput();
    in.learnedWarmupCurveDb = std::move(curve);
    return Engine::recommend(in, RecommendationScope::taste);
}

std::vector<double> gains(const std::vector<BandRecommendation>& recs) {
    std::vector<double> g;
    for (const auto& r : recs) g.push_back(r.gainDb);
    return g;
}

bool hasReason(const BandRecommendation& r, std::string_view code) {
    return std::any_of(r.rationale.begin(), r.rationale.end(), [&](const auto& s) { return s.starts_with(code); });
}

TEST(RecommendationRuleEngine, TasteCurveGuardsCapClampAndRound) {
    // G1 holds 250 Hz at +4 and G2 the treble at +6.
    auto recs = tasteRecs({0, 0, 0, 8.0, 3.0, 0, 0, 3.0, 9.0, 9.0});
    EXPECT_EQ(recs[3].gainDb, 4.0);
    EXPECT_EQ(recs[8].gainDb, 6.0);
    EXPECT_EQ(recs[9].gainDb, 6.0);
    EXPECT_EQ(recs[3].rationale.back(), "G1: capped at +4.0 — 250 Hz boosts turn muddy fast");
    EXPECT_EQ(recs[8].rationale.back(), "G2: treble boost capped at +6.0");
    // The final clamp to ±12 and rounding away from zero, never to −0.
    const auto clamped = gains(tasteRecs({-15.0, -12.4, -7.0, -2.5, 2.5, -0.4, 0, 0, 0, 0}));
    EXPECT_EQ(clamped, (std::vector<double>{-12, -12, -7, -3, 3, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(std::signbit(clamped[5]));
}

TEST(RecommendationRuleEngine, G4ScalesBoostsToExactlyTheBudgetKeepingTheirRatios) {
    // Boosts sum to 56, so every boost is halved. 500 Hz and 1 kHz sit just either side of a
    // rounding edge: 11.004 → 5.502 (6) and 10.996 → 5.498 (5). A budget B instead of 28 gives
    // 5.502·B/28 < 5.5 for B < 27.9898 and 5.498·B/28 > 5.5 for B > 28.0102, so either flips.
    // Taking the same amount off every boost instead of scaling gives 1 1 3 1 5 8 8 3 −1; the cut
    // at 16 kHz is neither scaled nor counted.
    const auto recs = tasteRecs({4, 4, 6, 4, 8, 11.004, 10.996, 6, 2, -2});
    EXPECT_EQ(gains(recs), (std::vector<double>{2, 2, 3, 2, 4, 6, 5, 3, 1, -2}));
    for (int i = 0; i < 9; ++i) EXPECT_EQ(recs[i].rationale.back(), "G4: scaled down — total boost budget") << i;
    EXPECT_FALSE(hasReason(recs[9], "G4"));

    // A total just under, or at, the budget is left alone.
    for (double last : {3.99, 4.0}) {
        const auto kept = tasteRecs({4, 4, 4, 4, 4, 4, last, 0, 0, 0});
        for (const auto& r : kept) EXPECT_FALSE(hasReason(r, "G4")) << "7th boost " << last << ", band " << r.bandIndex;
        EXPECT_EQ(kept[6].gainDb, 4.0);
    }
}

TEST(RecommendationRuleEngine, GuardsSmoothThenCapThenBudgetThenClamp) {
    // A steep taste step: 250 Hz +12, 500 Hz +12 plus 5 dB of headphone compensation (H1), 1 kHz +12.
    auto in = quietInput();
    in.learnedWarmupCurveDb = std::vector<double>{0, 0, 0, 12, 12, 12};
    in.headphone.deviationDb[4] = -5.0;
    const auto recs = Engine::recommend(in, RecommendationScope::taste);
    // Smoothing, low to high, moves each side of a step over 6 dB by half the excess:
    //   125|250: 0|12 → 3|9;  250|500: 9|17 → 10|16;  1k|2k: 12|0 → 9|3   ⇒ 0 0 3 10 16 9 3 0 0 0
    // G1 then caps 250 Hz: 10 → 4 (G8 leaves all: 9 dB of room low, 12 + 5 at 500 Hz).
    // G4: boosts 3 + 4 + 16 + 9 + 3 = 35 → ×0.8 = 2.4 3.2 12.8 7.2 2.4.
    // Final: 12.8 clamps to 12, the rest round         ⇒ 0 0 2 3 12 7 2 0 0 0
    // Capping before smoothing would end 250 Hz at 6 (4|17 → 7.5|13.5, then ×28/33); the budget
    // before the cap gives 2 4 11 6 2; clamping before the budget gives 3 4 11 8 3.
    EXPECT_EQ(gains(recs), (std::vector<double>{0, 0, 2, 3, 12, 7, 2, 0, 0, 0}));
    EXPECT_EQ(recs[3].rationale, (Reasons{"T1: your listening leans Flat curve at low mids (250 Hz)",
                                          "G5: smoothed toward upper bass (125 Hz)", "G5: smoothed toward mids (500 Hz)",
                                          "G1: capped at +4.0 — 250 Hz boosts turn muddy fast",
                                          "G4: scaled down — total boost budget"}));
}

TEST(RecommendationRuleEngine, G2CutsTrebleWhereSongAndHeadphoneAreBothHot) {
    auto in = withBand(8, 4.0, 3.0); // S3 −1, then G2 to −3
    EXPECT_EQ(songBand(in, 8),
              rec(8, -3.0, {"S3: brilliance (8 kHz) is prominent but your headphone already over-delivers it (+3.0 dB) → "
                            "slight cut",
                            "G2: song and headphone are both hot at brilliance (8 kHz) → cut to protect against harshness"}));
    // Already at −4 (S0 with p + d = 17): G2 leaves it.
    auto r = songBand(withBand(9, 14.0, 3.0), 9);
    EXPECT_EQ(r.gainDb, -4.0);
    EXPECT_EQ(r.rationale.size(), 1u);
    // Not confident: the hot-treble cut does not apply.
    in.prominenceConfident = false;
    EXPECT_EQ(songBand(in, 8).gainDb, -2.0); // taste H2: 0 − min(2.4, 4), rounded
}

TEST(RecommendationRuleEngine, G3LiftsCutsOnPresentVocalBands) {
    EXPECT_EQ(songBand(withBand(5, 4.0, 3.0), 5).rationale.back(), "G3: vocal band is present in this song — cut lifted to 0");
    EXPECT_EQ(songBand(withBand(5, 4.0, 3.0), 5).gainDb, 0.0);
    // Same rule outside the vocal bands: the cut stays.
    EXPECT_EQ(songBand(withBand(4, 4.0, 3.0), 4).gainDb, -1.0);
}

TEST(RecommendationRuleEngine, G8LimitsBoostsToTheRoomLeft) {
    // Confident: low bands have 9 dB of room. S1 at 125 Hz: p 8, d −2.5 → load 5.5, allowance 3.5.
    auto r = songBand(withBand(2, 8.0, -2.5), 2);
    EXPECT_EQ(r.gainDb, 4.0); // 3.5 rounded away from zero
    EXPECT_EQ(r.rationale.back(), "G8: upper bass (125 Hz) already runs +5.5 dB hot — boost limited to +3.5");

    // Not confident: the headphone's own positive deviation sets the room.
    auto in = quietInput();
    in.prominenceConfident = false;
    in.learnedWarmupCurveDb = std::vector<double>{10.0};
    in.headphone.deviationDb[0] = 4.0; // H2: 10 − 3.2 = 6.8 > 9 − 4
    r = Engine::recommend(in, RecommendationScope::taste)[0];
    EXPECT_EQ(r.gainDb, 5.0);
    EXPECT_EQ(r.rationale.back(), "G8: your headphone already runs +4.0 dB on this setup — boost limited to +5.0");
}

RecommendationInput randomInput(std::mt19937& rng) {
    std::uniform_real_distribution<double> prom(-15, 15), dev(-8, 8), curve(-12, 12), bias(-3, 3);
    RecommendationInput in;
    for (int i = 0; i < 10; ++i) {
        in.prominenceDb.push_back(prom(rng));
        in.headphone.deviationDb[i] = dev(rng);
        in.userBiasDb.push_back(bias(rng));
    }
    in.prominenceConfident = rng() % 2;
    in.genre = allGenrePresets[rng() % 10];
    in.genreLeanWeight = (rng() % 3) * 0.75;
    if (rng() % 2) {
        std::vector<double> c;
        for (int i = 0; i < 10; ++i) c.push_back(curve(rng));
        in.learnedWarmupCurveDb = c;
    }
    return in;
}

TEST(RecommendationRuleEngine, DeterministicAndAlwaysWithinTheProductLimits) {
    std::mt19937 rng(1234);
    for (int trial = 0; trial < 2000; ++trial) {
        const auto in = randomInput(rng);
        for (auto scope : {RecommendationScope::song, RecommendationScope::taste}) {
            const auto recs = Engine::recommend(in, scope);
            ASSERT_EQ(recs, Engine::recommend(in, scope));
            double boost = 0;
            for (const auto& r : recs) {
                EXPECT_EQ(r.gainDb, std::round(r.gainDb));
                EXPECT_GE(r.gainDb, -12.0);
                EXPECT_LE(r.gainDb, 12.0);
                if (r.gainDb > 0) boost += r.gainDb;
            }
            EXPECT_LE(recs[3].gainDb, 4.0);
            EXPECT_LE(recs[8].gainDb, 6.0);
            EXPECT_LE(recs[9].gainDb, 6.0);
            EXPECT_LE(boost, 28.0 + 10 * 0.5); // budget, plus what rounding may add
        }
    }
}

TEST(RecommendationRuleEngine, SanitizeRefinementKeepsDeltasInsideTheLimits) {
    auto baseline = Engine::recommend(quietInput(), RecommendationScope::song); // all 0
    baseline[3].gainDb = 3.0;
    baseline[8].gainDb = 5.0;
    baseline[4].gainDb = 9.0;
    baseline[5].gainDb = 11.0; // already past the +10 limit
    baseline[6].gainDb = -11.0;
    const std::vector<double> deltas = {0.74, -0.76, 4.0, 1.5, 1.5, 1.0, -1.5, NAN, 1.5};
    const auto out = Engine::sanitizeRefinement(deltas, baseline);
    ASSERT_EQ(out.size(), 10u);
    EXPECT_EQ(out[0], 0.5);  // nearest 0.5 step
    EXPECT_EQ(out[1], -1.0);
    // ±1.5 at most, 250 Hz to 4 and 8 kHz to 6, no band above +10 or below −12, none climbing
    // further past the limit, and a missing or non-number delta is 0.
    EXPECT_EQ(out, (std::vector<double>{0.5, -1.0, 1.5, 1.0, 1.0, 0.0, -1.0, 0.0, 1.0, 0.0}));
    EXPECT_EQ(Engine::sanitizeRefinement({0, 0, 0, 0, 0, -1.5}, baseline)[5], -1.5); // coming down is fine
}

// Steady-state gain of a filter cascade on a sine, measured by running it: independent of the
// closed-form response the traits use.
double measuredGainDb(const std::vector<ParametricFilterSpec>& filters, double frequencyHz, double sampleRate) {
    const int n = int(sampleRate) * 2;
    auto x = test::interleavedSine(frequencyHz, sampleRate, 1.0, n, 1);
    for (const auto& f : filters) {
        const auto c = f.coefficients(sampleRate);
        double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
        for (float& v : x) {
            const double y = c.b0 * v + c.b1 * x1 + c.b2 * x2 - c.a1 * y1 - c.a2 * y2;
            x2 = x1; x1 = v; y2 = y1; y1 = y;
            v = float(y);
        }
    }
    return test::toDb(test::fittedAmplitude(x, 1, 0, frequencyHz, sampleRate, n / 2, n / 2));
}

TEST(HeadphoneTraits, DeviationIsTheCorrectionTurnedAround) {
    HeadphoneProfile profile;
    profile.modelName = "Test Can";
    profile.preampDb = -6.0; // headroom only: not part of the deviation
    profile.filters = {{ParametricFilterSpec::Shape::peaking, 8000.0, -3.0, 1.0},
                       {ParametricFilterSpec::Shape::peaking, 1400.0, 5.0, 1.5},
                       {ParametricFilterSpec::Shape::lowShelf, 105.0, 6.0, 0.7}};
    const double rate = 48000.0;
    const auto traits = HeadphoneTraits::from(profile, rate);
    // The example the traits exist for: a correction cutting 3 dB at 8 kHz means +3 dB over-delivery.
    HeadphoneProfile single;
    single.filters = {profile.filters[0]};
    EXPECT_NEAR(HeadphoneTraits::from(single, rate).deviationDb[8], 3.0, 1e-9);
    const std::array<double, 10> centres = {31, 62, 125, 250, 500, 1000, 2000, 4000, 8000, 16000};
    for (int band = 0; band < 10; ++band)
        EXPECT_NEAR(traits.deviationDb[band], -measuredGainDb(profile.filters, centres[band], rate), 0.05) << band;
    EXPECT_EQ(HeadphoneTraits::from(HeadphoneProfile{}, rate), HeadphoneTraits::neutral());
}

} // namespace
} // namespace tarn
