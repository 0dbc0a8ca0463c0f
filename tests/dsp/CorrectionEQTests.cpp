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

TEST(CorrectionEQ, BypassAndRemovalLeaveTheSignalUntouched) {
    CorrectionEQ eq(2, 48000);
    int changes = 0;
    eq.setOnChange([&] { ++changes; });
    std::vector<float> x = {0.1f, 0.2f, 0.3f, 0.4f}, copy = x;
    eq.loadProfile(makeProfile(3, {{Shape::peaking, 1000, 6, 1}}));
    eq.setBypassed(true);
    runBlocks(eq, x, 2, 2, 2);
    EXPECT_EQ(x, copy) << "bypassed";
    eq.setBypassed(false);
    eq.removeProfile();
    runBlocks(eq, x, 2, 2, 2);
    EXPECT_EQ(x, copy) << "removed";
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
    EXPECT_EQ(&eq.activeBank(), bank);
    eq.rebuild(44100);
    EXPECT_NE(&eq.activeBank(), bank);
    EXPECT_NEAR(FrequencyResponse::magnitudeDb(eq.activeBank().filters[0]->coefficients(), 15000, 44100), 6, 1e-9);
}

} // namespace
} // namespace tarn
