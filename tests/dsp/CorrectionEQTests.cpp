#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "core/dsp/CorrectionEQ.hpp"
#include "core/dsp/FrequencyResponse.hpp"
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

TEST(CorrectionEQ, NewProfilesStartWithFreshStateAndTheOldBankIsRetained) {
    CorrectionEQ eq(1, 48000);
    eq.loadProfile(makeProfile(0, {{Shape::peaking, 100, 6, 1}}));
    const CorrectionEQ::FilterBank* first = &eq.activeBank();
    std::vector<float> x = test::interleavedSine(100, 48000, 0.5, 256, 1);
    runBlocks(eq, x, 1, 256, 256);
    EXPECT_NE(first->filters[0]->channelState(0), BiquadFilter::ChannelState{});
    eq.loadProfile(makeProfile(0, {{Shape::peaking, 100, 6, 1}}));
    EXPECT_NE(&eq.activeBank(), first);
    EXPECT_EQ(eq.activeBank().filters[0]->channelState(0), BiquadFilter::ChannelState{});
    // The retiring timetable itself is the ten-band EQ's test: the same publisher keeps both.
    bool kept = false;
    for (const auto& r : eq.retainedBanks()) kept |= r.bank.get() == first;
    EXPECT_TRUE(kept) << "a replaced bank may still be in the audio thread's hands";
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
