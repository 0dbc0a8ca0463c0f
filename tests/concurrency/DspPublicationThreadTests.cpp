#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <utility>
#include <vector>

#include "core/dsp/BiquadFilter.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

// Every set the writer publishes is derived from one counter k (all values exact in float), so
// a reader can tell a whole set from a mix of two, and a newer set from an older one. Until a
// reader has once read a whole set, the only other thing it may see is the identity it started with.
template <typename C> struct TornCheck {
    bool seenWhole = false;
    float last = 0;
    bool isTorn(const C& c) {
        if (c.b1 == 2 * c.b0 && c.b2 == 3 * c.b0 && c.a1 == -c.b0 && c.a2 == c.b0 + 1) {
            const bool backwards = float(c.b0) < last;
            seenWhole = true;
            last = float(c.b0);
            return backwards;
        }
        return seenWhole || !(c == C());
    }
};

BiquadCoefficients setFor(std::uint32_t k) { return {double(k), 2.0 * k, 3.0 * k, -double(k), k + 1.0}; }

TEST(BiquadSeqlock, ReadersNeverSeeATornSetWhileAWriterHammers) {
    BiquadFilter filter(2);
    filter.setCoefficients(setFor(1));
    std::atomic<bool> done{false};
    std::atomic<long> readerDistinct{0};
    std::atomic<std::uint32_t> lastWritten{1};
    // The writer keeps going until the reader has seen many different sets (two shared cores may
    // run the threads one after the other), with a time limit.
    std::thread writer([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        std::atomic<int> pause{0};
        std::uint32_t k = 2;
        for (; (k < 200000 || readerDistinct.load(std::memory_order_relaxed) < 1000) &&
               std::chrono::steady_clock::now() < deadline;
             ++k) {
            filter.setCoefficients(setFor(k));
            // A short pause between edits leaves the reader windows to succeed in.
            for (int spin = 0; spin < int(k % 256); ++spin) pause.fetch_add(1, std::memory_order_relaxed);
        }
        lastWritten.store(k - 1);
        done.store(true);
    });
    // A second, non-real-time reader through the double getter.
    std::atomic<long> getterTorn{0};
    std::thread getter([&] {
        TornCheck<BiquadCoefficients> check;
        while (!done.load()) getterTorn += check.isTorn(filter.coefficients());
    });

    long torn = 0, distinct = 0;
    float last = 0;
    TornCheck<BiquadFloatCoefficients> check;
    while (!done.load()) {
        const BiquadFloatCoefficients c = filter.activeFloatSnapshot();
        torn += check.isTorn(c);
        if (c.b0 != last) readerDistinct.store(++distinct, std::memory_order_relaxed);
        last = c.b0;
    }
    writer.join();
    getter.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(getterTorn.load(), 0);
    EXPECT_GT(distinct, 1) << "the reader must have raced the writer for the test to mean anything";
    EXPECT_EQ(filter.activeFloatSnapshot(), BiquadFloatCoefficients(setFor(lastWritten.load())));
}

// Retired banks are freed by age, a rule no race detector can see, so the clock is frozen and
// nothing is freed here: this checks the publication itself (every stage's banks, swapped under
// the audio thread); the ageing is tested deterministically with the EQs.
TEST(BankPublication, WholeRouteChainUnderConstantControlChanges) {
    RouteDSPChain chain(2, 48000, UptimeClock{[] { return 0.0; }});
    std::atomic<bool> done{false};
    std::thread control([&] {
        HeadphoneProfile p;
        p.preampDb = -3;
        p.filters = {{ParametricFilterSpec::Shape::lowShelf, 100, 4, 0.7}, {ParametricFilterSpec::Shape::peaking, 3000, -3, 2}};
        for (int i = 0; i < 1500; ++i) {
            chain.setGain(double(i % 13) - 6);
            chain.setOutputTrim(double(i % 5) - 4);
            chain.customEQ().setGain(double(i % 9), i % 10);
            chain.customEQ().setChannelDelta(1.5, i % 10, i % 2);
            if (i % 100 == 0) chain.customEQ().setChannelDeltas({});
            if (i % 3 == 0) chain.correctionEQ().loadProfile(p);
            chain.correctionEQ().setBypassed(i % 17 == 0);
            if (i % 7 == 0) chain.userParametricEQ().removeProfile();
            if (i % 7 == 3) chain.userParametricEQ().loadProfile(p);
            if (i % 11 == 0) chain.recomputeEffectiveQs(GenrePreset::edm, i % 2 ? &p : nullptr);
            chain.setMuted(i % 50 == 0);
            (void)chain.headroomGain();
            (void)chain.inputMeter().currentPeak();
            (void)chain.limiter().isClipping();
        }
        done.store(true);
    });
    long blocks = 0;
    bool bounded = true;
    while (!done.load() || blocks < 10) {
        auto x = test::interleavedSine(220, 48000, 0.5, 256, 2, {}, blocks * 256);
        chain.processInterleaved(x.data(), 256);
        for (float v : x) bounded &= std::abs(v) < 0.98f + 1e-6f; // false for NaN too
        ++blocks;
    }
    control.join();
    EXPECT_TRUE(bounded);
}

// The control thread flips the route between two gains whose safety ceilings differ, with a
// flat equaliser (so the ceiling is found by a real response estimate), while the audio thread
// runs a constant level. Every level the route may produce lies between the two settings' own
// overall gains, worked out here from the dB values alone: 0 dB − 8 dB trim + 4 dB make-up is
// −4 dB and under the ceiling; +12 dB − 8 + 4 is +8 dB, which the ceiling brings back to 0 dB.
// The new gain under the old ceiling (or the reverse) lands far outside: +8 dB or −12 dB.
namespace gainflip {
constexpr double trimDb = -8, makeupDb = 4, lowGainDb = 0, highGainDb = 12;
constexpr float amplitude = 0.2f;   // ×2.5 (the worst tear) stays under the limiter's knee
constexpr double tolerance = 1e-4;  // the flat sections' single-precision rounding

double overallGain(double gainDb) {
    const double db = gainDb + trimDb + makeupDb;
    return db > 0 ? 1.0 : std::pow(10.0, db / 20);
}

struct Outcome {
    long outside = 0, levelChanges = 0, steps = 0;
    float worstLow = amplitude, worstHigh = 0;
};

// `step` runs one slice of audio and returns the lowest and highest |output| in it.
template <typename Step> Outcome flipGainsWhileRunning(RouteDSPChain& chain, Step step) {
    chain.setOutputTrim(trimDb);
    chain.setGain(lowGainDb);
    std::atomic<bool> done{false};
    std::atomic<long> changesSeen{0};
    std::thread control([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        for (int i = 1; (i < 400 || changesSeen.load(std::memory_order_relaxed) < 200) &&
                        std::chrono::steady_clock::now() < deadline;
             ++i)
            chain.setGain(i % 2 ? highGainDb : lowGainDb);
        chain.setGain(lowGainDb);
        done.store(true);
    });
    const float low = float(amplitude * overallGain(lowGainDb) * (1 - tolerance));
    const float high = float(amplitude * overallGain(highGainDb) * (1 + tolerance));
    Outcome o;
    float lastHigh = -1;
    while (!done.load() || o.steps < 10) {
        const auto [lo, hi] = step();
        if (!(lo >= low && hi <= high)) ++o.outside;   // NaN counts as outside
        o.worstLow = std::min(o.worstLow, lo);
        o.worstHigh = std::max(o.worstHigh, hi);
        if (std::abs(hi - lastHigh) > amplitude * 1e-3f) changesSeen.store(++o.levelChanges, std::memory_order_relaxed);
        lastHigh = hi;
        ++o.steps;
    }
    control.join();
    return o;
}
} // namespace gainflip

TEST(ScalarGainPublication, BlocksNeverRunOneSettingsGainUnderAnothersCeiling) {
    using namespace gainflip;
    RouteDSPChain chain(2, 48000, UptimeClock{[] { return 0.0; }});
    const int frames = 64;
    std::vector<float> x(2 * frames);
    const Outcome o = flipGainsWhileRunning(chain, [&] {
        std::fill(x.begin(), x.end(), amplitude);
        chain.processInterleaved(x.data(), frames);
        float lo = amplitude, hi = 0;
        for (float v : x) lo = std::min(lo, std::abs(v)), hi = std::max(hi, std::abs(v));
        return std::pair{lo, hi};
    });
    EXPECT_EQ(o.outside, 0) << "levels seen " << o.worstLow << " to " << o.worstHigh << " in " << o.steps << " blocks";
    EXPECT_GT(o.levelChanges, 2) << "the audio thread must have raced the control thread";
    EXPECT_NEAR(chain.ceilingAttenuationLinear(), 1.0, 1e-12) << "the last setting is under the ceiling";
    EXPECT_FALSE(chain.isSafetyCeilingActive());
}

TEST(ScalarGainPublication, SampleBySamplePathReadsOneWholeSetPerFrame) {
    using namespace gainflip;
    RouteDSPChain chain(2, 48000, UptimeClock{[] { return 0.0; }});
    const Outcome o = flipGainsWhileRunning(chain, [&] {
        const auto [l, r] = chain.processStereo(amplitude, -amplitude);
        const float a = float(std::abs(l)), b = float(std::abs(r));
        return std::pair{std::min(a, b), std::max(a, b)};
    });
    EXPECT_EQ(o.outside, 0) << "levels seen " << o.worstLow << " to " << o.worstHigh << " in " << o.steps << " frames";
    EXPECT_GT(o.levelChanges, 2) << "the audio thread must have raced the control thread";
}

} // namespace
} // namespace tarn
