#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "app/VoiceShaping.hpp"

namespace tarn {
namespace {

using Gains = std::map<int, double>;
using Bands = std::vector<int>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
const std::string kNothing = "Nothing to change — give me at least one band.";

VoiceShapingState flat() { return {}; }

VoiceShapingState withBand(int band, double gainDb, double trimDb = 0.0) {
    VoiceShapingState s;
    s.bandGainsDb[band] = gainDb;
    s.trimDb = trimDb;
    return s;
}

VoiceShapingState aiTune() {
    VoiceShapingState s;
    s.isAITuneEngaged = true;
    return s;
}

void expectUntouched(const VoiceShapingResult& r) {
    EXPECT_TRUE(r.bandGainsDb.empty());
    EXPECT_TRUE(r.aiTweaksDb.empty());
    EXPECT_FALSE(r.trimDb.has_value());
    EXPECT_TRUE(r.habitBands.empty());
}

TEST(ShapeBands, StepIsTheRequestClampedToTwoToFourDb) {
    struct Case { double request, expectedGain; };
    // 31 Hz from flat; the counterweight may add 500 Hz, so only 31 Hz is checked.
    for (const Case c : {Case{1, 2}, {-1, -2}, {10, 4}, {-10, -4}, {3, 3}, {-3, -3}, {2.6, 3}, {0.01, 2}}) {
        const auto r = shapeBands({{0, c.request}}, flat());
        EXPECT_EQ(r.bandGainsDb.at(0), c.expectedGain) << c.request;
        EXPECT_EQ(r.habitBands, Bands{0}) << c.request;
    }
}

TEST(ShapeBands, TargetsRoundHalvesAwayFromZeroAndFlatReadsPlusZero) {
    // 500 Hz itself, so that no counterweight joins in.
    auto r = shapeBands({{4, 2}}, withBand(4, 0.5));
    EXPECT_EQ(r.bandGainsDb, (Gains{{4, 3}}));
    EXPECT_EQ(r.answer, "Done: mids (500 Hz) +3");

    r = shapeBands({{4, -2}}, withBand(4, -0.5));
    EXPECT_EQ(r.bandGainsDb, (Gains{{4, -3}}));
    EXPECT_EQ(r.answer, "Done: mids (500 Hz) -3");

    // -2.4 + 2 rounds to a negative zero, which must neither be stored nor read as "-0".
    r = shapeBands({{4, 2}}, withBand(4, -2.4));
    EXPECT_EQ(r.bandGainsDb.at(4), 0.0);
    EXPECT_FALSE(std::signbit(r.bandGainsDb.at(4)));
    EXPECT_EQ(r.answer, "Done: mids (500 Hz) +0");
}

TEST(ShapeBands, NothingUsableChangesNothing) {
    const std::map<int, double> requests[] = {
        {}, {{3, 0.0}}, {{3, -0.0}}, {{10, 3}}, {{-1, 3}}, {{3, kNaN}}, {{3, kInf}}, {{3, -kInf}},
        {{-5, 2}, {2, 0.0}, {12, -4}},
    };
    for (const auto& request : requests) {
        const auto r = shapeBands(request, withBand(3, 5, 1));
        EXPECT_EQ(r.answer, kNothing);
        expectUntouched(r);
    }

    // Unusable entries next to a usable one are skipped; the 3 dB boost is counterweighted by
    // half of it, 1.5 rounded away from zero.
    const auto r = shapeBands({{-1, 4}, {2, 3}, {7, kNaN}, {10, 3}}, flat());
    EXPECT_EQ(r.answer, "Done: upper bass (125 Hz) +3 — balance stick -2 as counterweight");
    EXPECT_EQ(r.bandGainsDb, (Gains{{2, 3}, {4, -2}}));
    EXPECT_EQ(r.habitBands, Bands{2});
}

TEST(ShapeBands, BoostPastTheCeilingLowersTheTrim) {
    // 11 + 4 = 15: set to 12, 3 dB over; the applied +1 is too little for a counterweight.
    auto r = shapeBands({{5, 10}}, withBand(5, 11));
    EXPECT_EQ(r.answer, "Done: upper mids (1 kHz) +12 — band was maxed, so the level drops -3 dB to keep the boost honest");
    EXPECT_EQ(r.bandGainsDb, (Gains{{5, 12}}));
    EXPECT_EQ(r.trimDb, -3.0);
    EXPECT_EQ(r.habitBands, Bands{5});

    // The trim stops at its floor, and the note tells the drop that actually happened.
    r = shapeBands({{5, 10}}, withBand(5, 11, -10));
    EXPECT_EQ(r.trimDb, -12.0);
    EXPECT_EQ(r.answer, "Done: upper mids (1 kHz) +12 — band was maxed, so the level drops -2 dB to keep the boost honest");

    r = shapeBands({{5, 10}}, withBand(5, 11, -12));
    EXPECT_FALSE(r.trimDb.has_value());
    EXPECT_EQ(r.answer, "Done: upper mids (1 kHz) +12");
}

TEST(ShapeBands, CutPastTheFloorRaisesTheTrimUnlessAtTheCeiling) {
    // -10 - 4 = -14: set to -12, 2 dB under.
    auto state = withBand(2, -10);
    auto r = shapeBands({{2, -5}}, state);
    EXPECT_EQ(r.answer, "Done: upper bass (125 Hz) -12 — band hit its floor, so the level comes up +2 dB to land the cut");
    EXPECT_EQ(r.bandGainsDb, (Gains{{2, -12}}));
    EXPECT_EQ(r.trimDb, 2.0);

    state.outputPeak = 0.97;
    state.trimDb = 5;
    r = shapeBands({{2, -5}}, state);
    EXPECT_EQ(r.trimDb, 6.0);
    EXPECT_EQ(r.answer, "Done: upper bass (125 Hz) -12 — band hit its floor, so the level comes up +1 dB to land the cut");

    state.trimDb = 6;
    r = shapeBands({{2, -5}}, state);
    EXPECT_FALSE(r.trimDb.has_value());
    EXPECT_EQ(r.answer, "Done: upper bass (125 Hz) -12");

    // At the ceiling (or with a meter that cannot be trusted) the cut still lands in the band.
    state.trimDb = 0;
    for (double peak : {0.98, 1.0, kNaN}) {
        state.outputPeak = peak;
        r = shapeBands({{2, -5}}, state);
        EXPECT_FALSE(r.trimDb.has_value()) << peak;
        EXPECT_EQ(r.bandGainsDb, (Gains{{2, -12}})) << peak;
        EXPECT_EQ(r.answer, "Done: upper bass (125 Hz) -12 — wanted to lift the level to finish the cut, but it's "
                            "already at the loudness ceiling")
            << peak;
    }
}

TEST(ShapeBands, LevelFollowsTheLargestOvershootAndUndershoot) {
    // Over by 3 and by 1: the trim follows the larger, not the sum. Applied +1 and +2 make 3, so
    // 500 Hz gives back 1.5, rounded to 2.
    VoiceShapingState s;
    s.bandGainsDb[0] = 11;
    s.bandGainsDb[1] = 10;
    auto r = shapeBands({{0, 10}, {1, 3}}, s);
    EXPECT_EQ(r.answer, "Done: sub-bass (31 Hz) +12, bass (62 Hz) +12 — balance stick -2 as counterweight — band was "
                        "maxed, so the level drops -3 dB to keep the boost honest");
    EXPECT_EQ(r.bandGainsDb, (Gains{{0, 12}, {1, 12}, {4, -2}}));
    EXPECT_EQ(r.trimDb, -3.0);
    EXPECT_EQ(r.habitBands, (Bands{0, 1}));

    // 3 over and 3 under cancel out: the level stays.
    s.bandGainsDb[1] = -11;
    r = shapeBands({{0, 10}, {1, -4}}, s);
    EXPECT_EQ(r.answer, "Done: sub-bass (31 Hz) +12, bass (62 Hz) -12");
    EXPECT_FALSE(r.trimDb.has_value());
}

TEST(ShapeBands, CounterweightOnTheMids) {
    auto r = shapeBands({{1, 3}, {2, 3}}, flat());
    EXPECT_EQ(r.answer, "Done: bass (62 Hz) +3, upper bass (125 Hz) +3 — balance stick -3 as counterweight");
    EXPECT_EQ(r.bandGainsDb, (Gains{{1, 3}, {2, 3}, {4, -3}}));
    EXPECT_EQ(r.habitBands, (Bands{1, 2})); // the counterweight is no habit of the user's
    EXPECT_FALSE(r.trimDb.has_value());

    // The counterweight stops at the floor and reports what it really moved.
    r = shapeBands({{1, 3}, {2, 3}}, withBand(4, -11));
    EXPECT_EQ(r.bandGainsDb.at(4), -12.0);
    EXPECT_EQ(r.answer, "Done: bass (62 Hz) +3, upper bass (125 Hz) +3 — balance stick -1 as counterweight");

    // Exactly 2 dB is enough ...
    r = shapeBands({{1, 2}}, flat());
    EXPECT_EQ(r.answer, "Done: bass (62 Hz) +2 — balance stick -1 as counterweight");

    // ... less is not, ...
    r = shapeBands({{1, 3}, {2, -2}}, flat());
    EXPECT_EQ(r.answer, "Done: bass (62 Hz) +3, upper bass (125 Hz) -2");
    EXPECT_EQ(r.bandGainsDb.count(4), 0u);

    // ... and neither is the user moving 500 Hz too.
    r = shapeBands({{1, 3}, {4, 3}}, flat());
    EXPECT_EQ(r.answer, "Done: bass (62 Hz) +3, mids (500 Hz) +3");
    EXPECT_EQ(r.bandGainsDb, (Gains{{1, 3}, {4, 3}}));
}

TEST(ShapeBands, AITuneTakesTheChangeInsideItsWindow) {
    auto s = aiTune();
    s.bandGainsDb = {-9, 0, 0, 2, 0, 8, 1, 0, 3, 2};
    s.aiTweaksDb = {-2, 0, 0, 1, 0, 0, 0.5, 0, 1, 3};
    s.trimDb = 1;
    // Heard gain (user + tweak) + step, clamped by band; the new tweak is that minus the user gain:
    //   31 Hz  -11 - 4 = -15 → -12, tweak -3      250 Hz 3 + 3 = 6 → +4, tweak 2
    //   1 kHz    8 + 4 = 12 → +10, tweak 2        2 kHz  1.5 + 2 = 3.5 → +4, tweak 3
    //   8 kHz    4 + 4 = 8 → +6, tweak 3          16 kHz 5 + 2 = 7 → +6, tweak 4
    const auto r = shapeBands({{0, -4}, {3, 3}, {5, 4}, {6, 2}, {8, 4}, {9, 2}}, s);
    EXPECT_EQ(r.answer, "Done: sub-bass (31 Hz) -12, low mids (250 Hz) +4, upper mids (1 kHz) +10, presence (2 kHz) +4, "
                        "brilliance (8 kHz) +6, air (16 kHz) +6 — kept inside AI Tune's window");
    EXPECT_EQ(r.aiTweaksDb, (Gains{{0, -3}, {3, 2}, {5, 2}, {6, 3}, {8, 3}, {9, 4}}));
    // The user's bands, the mids counterweight, the trim and the habits are all left alone.
    EXPECT_TRUE(r.bandGainsDb.empty());
    EXPECT_FALSE(r.trimDb.has_value());
    EXPECT_TRUE(r.habitBands.empty());

    const auto none = shapeBands({{3, 0.0}}, s);
    EXPECT_EQ(none.answer, kNothing);
    expectUntouched(none);

    // The user set 250 Hz above AI Tune's cap: "more" leaves it there rather than pulling it down.
    s.bandGainsDb[3] = 8;
    s.aiTweaksDb[3] = 0;
    const auto above = shapeBands({{3, 2}}, s);
    EXPECT_EQ(above.aiTweaksDb, (Gains{{3, 0}}));
    EXPECT_EQ(above.answer, "Done: low mids (250 Hz) +8 — kept inside AI Tune's window");
}

TEST(AdjustLoudness, MovesOnlyTheTrimWithinItsLimits) {
    struct Case { bool up; double trim, peak; std::optional<double> expectedTrim; std::string answer; };
    const std::string ceiling = "It's already at the loudness ceiling — turning up further would only squash the "
                                "sound. Try lowering another app instead.";
    const Case cases[] = {
        {false, 0, 0.5, -2.0, "Easing the level down."},
        {false, -11, 0.5, -12.0, "Easing the level down."},
        {false, 0, 1.0, -2.0, "Easing the level down."}, // quieter is always allowed
        {false, -12, 0.5, std::nullopt, "Trim is already at its floor."},
        {false, -13, 0.5, std::nullopt, "Trim is already at its floor."},
        {true, 0, 0.5, 2.0, "Easing the level up."},
        {true, 5, 0.97, 6.0, "Easing the level up."},
        {true, 6, 0.5, std::nullopt, "Trim is already generous at +6 dB — going higher would eat all the headroom."},
        {true, 7, 0.5, std::nullopt, "Trim is already generous at +7 dB — going higher would eat all the headroom."},
        {true, 0, 0.98, std::nullopt, ceiling},
        {true, -12, 1.2, std::nullopt, ceiling},
        {true, 0, kNaN, std::nullopt, ceiling},
    };
    for (const auto& c : cases) {
        auto s = withBand(3, 5, c.trim);
        s.outputPeak = c.peak;
        const auto r = adjustLoudness(c.up, s);
        EXPECT_EQ(r.answer, c.answer) << c.up << " " << c.trim << " " << c.peak;
        EXPECT_EQ(r.trimDb, c.expectedTrim) << c.up << " " << c.trim << " " << c.peak;
        EXPECT_TRUE(r.bandGainsDb.empty());
        EXPECT_TRUE(r.aiTweaksDb.empty());
        EXPECT_TRUE(r.habitBands.empty());
    }
}

} // namespace
} // namespace tarn
