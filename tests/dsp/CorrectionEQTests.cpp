#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "core/dsp/CorrectionEQ.hpp"
#include "core/dsp/FrequencyResponse.hpp"
#include "dsp/CookbookReference.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

using Shape = ParametricFilterSpec::Shape;

HeadphoneProfile makeProfile(double preampDb, std::vector<ParametricFilterSpec> filters) {
    HeadphoneProfile p;
    p.id = "test";
    p.preampDb = preampDb;
    p.filters = std::move(filters);
    return p;
}

void runBlocks(CorrectionEQ& eq, std::vector<float>& x, int channels, int frames, int block) {
    for (int done = 0; done < frames; done += block) {
        const int n = std::min(block, frames - done);
        const auto snap = eq.processingSnapshot();
        for (int ch = 0; ch < channels; ++ch) eq.processBlock(x.data() + std::size_t(done) * channels, n, ch, channels, snap);
    }
}

TEST(CorrectionEQ, PreampThenFiltersMatchTheDesignedResponse) {
    const double fs = 48000;
    const std::vector<ParametricFilterSpec> filters = {
        {Shape::lowShelf, 105, 6.5, 0.7}, {Shape::peaking, 180, -3.2, 1.1}, {Shape::peaking, 2800, 4.0, 2.2},
        {Shape::highShelf, 10000, -2.5, 0.7}};
    CorrectionEQ eq(2, fs);
    eq.loadProfile(makeProfile(-6.8, filters));
    for (double f : {60.0, 180.0, 1000.0, 2800.0, 12000.0}) {
        eq.resetStateOnly();
        const int frames = 48000;
        auto x = test::interleavedSine(f, fs, 0.05, frames, 2);
        runBlocks(eq, x, 2, frames, 480);
        double expect = -6.8;
        for (const auto& s : filters)
            expect += test::prototypeMagnitudeDb(ParametricFilterSpec::biquadKind(s.shape), fs, s.frequencyHz, s.gainDb, s.q, f);
        for (int ch = 0; ch < 2; ++ch)
            EXPECT_NEAR(test::toDb(test::fittedAmplitude(x, 2, ch, f, fs, 24000, 24000) / 0.05), expect, 0.02) << f;
    }
}

TEST(CorrectionEQ, PreampOnlyProfileScalesExactly) {
    CorrectionEQ eq(1, 48000);
    eq.loadProfile(makeProfile(-6.2, {}));
    std::vector<float> x = {1.0f, -0.5f, 0.25f};
    runBlocks(eq, x, 1, 3, 3);
    const float g = float(std::pow(10.0, -0.31));
    EXPECT_EQ(x[0], g);
    EXPECT_EQ(x[1], -0.5f * g);
}

TEST(CorrectionEQ, BypassAndRemovalLeaveTheSignalUntouched) {
    CorrectionEQ eq(2, 48000);
    int changes = 0;
    eq.setOnChange([&] { ++changes; });
    std::vector<float> x = {0.1f, 0.2f, 0.3f, 0.4f}, copy = x;
    runBlocks(eq, x, 2, 2, 2);
    EXPECT_EQ(x, copy) << "no profile";
    eq.loadProfile(makeProfile(3, {{Shape::peaking, 1000, 6, 1}}));
    eq.setBypassed(true);
    runBlocks(eq, x, 2, 2, 2);
    EXPECT_EQ(x, copy) << "bypassed";
    eq.setBypassed(false);
    eq.removeProfile();
    runBlocks(eq, x, 2, 2, 2);
    EXPECT_EQ(x, copy) << "removed";
    EXPECT_FALSE(eq.profile().has_value());
    EXPECT_EQ(changes, 4);
}

TEST(CorrectionEQ, NewProfilesStartWithFreshStateAndOldBanksAreRetainedASecond) {
    double now = 50.0;
    CorrectionEQ eq(1, 48000, UptimeClock{[&] { return now; }});
    eq.loadProfile(makeProfile(0, {{Shape::peaking, 100, 6, 1}}));
    const CorrectionEQ::FilterBank* first = &eq.activeBank();
    std::vector<float> x = test::interleavedSine(100, 48000, 0.5, 256, 1);
    runBlocks(eq, x, 1, 256, 256);
    EXPECT_NE(first->filters[0]->channelState(0), BiquadFilter::ChannelState{});
    now = 50.4;
    eq.loadProfile(makeProfile(0, {{Shape::peaking, 100, 6, 1}}));
    EXPECT_NE(&eq.activeBank(), first);
    EXPECT_EQ(eq.activeBank().filters[0]->channelState(0), BiquadFilter::ChannelState{});
    now = 51.0;
    eq.loadProfile(makeProfile(0, {}));
    // The constructor's empty bank was retired exactly 1.0 s ago: still kept.
    ASSERT_EQ(eq.retainedBanks().size(), 4u);
    EXPECT_EQ(eq.retainedBanks()[1].bank.get(), first);
    now = 51.41;
    eq.removeProfile();   // the first profile's bank, retired at 50.4, is now 1.01 s old
    ASSERT_EQ(eq.retainedBanks().size(), 3u);
    for (const auto& r : eq.retainedBanks()) EXPECT_NE(r.bank.get(), first);
}

TEST(CorrectionEQ, RebuildDesignsAtTheNewRateOnlyForSensibleRates) {
    CorrectionEQ eq(1, 48000);
    eq.loadProfile(makeProfile(0, {{Shape::peaking, 15000, 6, 1}}));
    const auto* bank = &eq.activeBank();
    eq.rebuild(0);
    eq.rebuild(48000);
    EXPECT_EQ(&eq.activeBank(), bank);
    eq.rebuild(44100);
    EXPECT_NE(&eq.activeBank(), bank);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.activeBank().filters[0]->coefficients(), 15000, 44100), 6, 1e-9);
}

TEST(ParametricFilterSpec, ShapeRawValuesAreCaseSensitive) {
    EXPECT_EQ(parametricShapeFromString("highShelf"), Shape::highShelf);
    EXPECT_FALSE(parametricShapeFromString("HighShelf").has_value());
}

} // namespace
} // namespace tarn
