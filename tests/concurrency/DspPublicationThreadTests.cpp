#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
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

} // namespace
} // namespace tarn
