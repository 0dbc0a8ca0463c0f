#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "core/dsp/RouteDSPChain.hpp"
#include "dsp/CookbookReference.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

using Shape = ParametricFilterSpec::Shape;

// Runs `frames` frames of x through the chain in blocks of `block`, as the capture callback does.
void run(RouteDSPChain& chain, std::vector<float>& x, int frames, int block, long offsetFrames = 0) {
    const int c = chain.channelCount();
    for (int done = 0; done < frames; done += block)
        chain.processInterleaved(x.data() + std::size_t(offsetFrames + done) * c, std::min(block, frames - done));
}

float peakOf(const std::vector<float>& x) {
    float p = 0;
    for (float v : x) p = std::max(p, std::abs(v));
    return p;
}

TEST(RouteDSPChain, UnityOverallGainPassesAudioThroughUntouched) {
    RouteDSPChain chain(2, 48000);
    chain.setOutputTrim(-4);
    auto x = test::interleavedSine(440, 48000, 0.8, 2048, 2);
    const auto input = x;
    run(chain, x, 2048, 256);
    EXPECT_EQ(x, input);
    EXPECT_TRUE(chain.wasPassthrough());
    EXPECT_NEAR(chain.outputMeter().currentPeak(), 0.8, 1e-3);
}

TEST(RouteDSPChain, FullRouteMeasuredGainsMatchTheDesignedCascade) {
    const double fs = 48000;
    RouteDSPChain chain(2, fs);
    const std::vector<double> gains = {3, -2, -4, 1, 2, 6, -3, -2, 5, 4};
    for (int i = 0; i < 10; ++i) chain.customEQ().setGain(gains[i], i);
    HeadphoneProfile correction;
    correction.preampDb = -3.5;
    correction.filters = {{Shape::lowShelf, 110, 4, 0.7}, {Shape::peaking, 3000, -2.5, 1.8}};
    chain.correctionEQ().loadProfile(correction);
    HeadphoneProfile user;
    user.preampDb = -1;
    user.filters = {{Shape::highShelf, 7000, 3, 0.7}};
    chain.userParametricEQ().loadProfile(user);
    chain.setGain(-6);
    chain.setOutputTrim(-2);
    chain.setSafetyCeilingEnabled(false);

    for (double f : {31.0, 250.0, 1000.0, 3000.0, 9000.0, 16000.0}) {
        double expect = -3.5 - 1 - 6 - 2 + 4;
        for (int i = 0; i < 10; ++i)
            expect += test::prototypeMagnitudeDb(BiquadKind::peaking, fs, TenBandLayout::centerFrequenciesHz[i], gains[i], TenBandLayout::defaultQ, f);
        expect += test::prototypeMagnitudeDb(BiquadKind::lowShelf, fs, 110, 4, 0.7, f);
        expect += test::prototypeMagnitudeDb(BiquadKind::peaking, fs, 3000, -2.5, 1.8, f);
        expect += test::prototypeMagnitudeDb(BiquadKind::highShelf, fs, 7000, 3, 0.7, f);
        auto x = test::interleavedSine(f, fs, 0.05, 48000, 2);
        run(chain, x, 48000, 173);   // uneven blocks, as a sound server delivers them
        for (int ch = 0; ch < 2; ++ch)
            EXPECT_NEAR(test::toDb(test::fittedAmplitude(x, 2, ch, f, fs, 24000, 24000) / 0.05), expect, 0.02) << f;
    }
}

TEST(RouteDSPChain, SafetyCeilingFollowsEverySettingChange) {
    RouteDSPChain chain(2, 48000);
    EXPECT_EQ(chain.ceilingAttenuationLinear(), 1.0) << "a new chain has not been set up yet";
    chain.setGain(0);
    EXPECT_NEAR(chain.ceilingAttenuationLinear(), std::pow(10.0, -4.0 / 20), 1e-12) << "the make-up alone engages it";
    chain.setGain(-12);
    EXPECT_FALSE(chain.isSafetyCeilingActive());
    chain.setGain(0);
    chain.setSafetyCeilingEnabled(false);
    EXPECT_EQ(chain.ceilingAttenuationLinear(), 1.0);

    // The attenuation reaches the audio: 6 dB of EQ, 6 dB of preamp and the make-up at 1 kHz.
    chain.setSafetyCeilingEnabled(true);
    chain.customEQ().setGain(6, 5);
    HeadphoneProfile hot;
    hot.preampDb = 6;
    chain.correctionEQ().loadProfile(hot);
    EXPECT_NEAR(chain.estimatedPeakGainDb(), 16.0, 0.05);
    auto x = test::interleavedSine(1000, 48000, 0.01, 24000, 2);
    run(chain, x, 24000, 512);
    const double expect = 0.01 * test::fromDb(16.0) * chain.ceilingAttenuationLinear();
    EXPECT_NEAR(test::fittedAmplitude(x, 2, 0, 1000, 48000, 12000, 12000), expect, expect * 0.01);
}

TEST(RouteDSPChain, MuteSilencesTheNextBlockAndUnmuteFadesBackIn) {
    RouteDSPChain chain(2, 48000);
    chain.setSafetyCeilingEnabled(false);
    chain.setGain(-3);
    auto x = test::interleavedSine(300, 48000, 0.5, 512, 2);
    run(chain, x, 512, 512);
    const double meterBefore = chain.outputMeter().currentPeak();
    chain.setMuted(true);
    x = test::interleavedSine(300, 48000, 0.5, 512, 2);
    run(chain, x, 512, 512);
    EXPECT_EQ(peakOf(x), 0.0f);
    EXPECT_NEAR(chain.outputMeter().currentPeak(), meterBefore * std::exp(-512.0 / 14400.0), 1e-12) << "meters see silence";
    chain.setMuted(false);
    std::vector<float> dc(2 * 960, 0.25f);
    run(chain, dc, 960, 960);
    const float full = 0.25f * float(std::pow(10.0, 1.0 / 20.0));   // −3 dB + 4 dB
    EXPECT_LT(dc[0], full * 0.01f);
    EXPECT_LT(dc[2 * 100], dc[2 * 200]);
    const int rampFrames = int(RouteDSPChain::unmuteRampSeconds * 48000);
    EXPECT_NEAR(dc[2 * (rampFrames + 1)], full, 1e-6);
}

// A gain change made while muted arrives under the unmute fade alone, with no second ramp from
// the old gain on top of it.
TEST(RouteDSPChain, GainChangedWhileMutedComesBackUnderTheFadeAlone) {
    RouteDSPChain chain(2, 48000);
    chain.setSafetyCeilingEnabled(false);
    chain.setGain(-3);
    auto x = test::interleavedSine(300, 48000, 0.5, 512, 2);
    run(chain, x, 512, 512);
    chain.setMuted(true);
    run(chain, x, 512, 512);
    chain.setGain(2);
    chain.setMuted(false);
    std::vector<float> dc(2 * 960, 0.25f);
    run(chain, dc, 960, 960);
    const int rampFrames = int(RouteDSPChain::unmuteRampSeconds * 48000);
    EXPECT_NEAR(dc[2 * (rampFrames + 1)], 0.25 * std::pow(10.0, 6.0 / 20), 1e-6) << "+2 dB + 4 dB";
    EXPECT_NEAR(dc[2 * 959], 0.25 * std::pow(10.0, 6.0 / 20), 1e-6);
}

TEST(RouteDSPChain, ChannelBackFromSilenceStartsFromClearedFilterState) {
    const double fs = 48000;
    auto makeChain = [] {
        auto c = std::make_unique<RouteDSPChain>(2, 48000);
        c->customEQ().setGain(12, 0);   // long 31 Hz ring
        c->setSafetyCeilingEnabled(false);
        c->setGain(-12);
        return c;
    };
    auto afterSilence = [&](int silentBlocks) {
        auto chain = makeChain();
        auto loud = test::interleavedSine(31, fs, 0.5, 4096, 2);
        run(*chain, loud, 4096, 256);
        // Left stays busy; right goes silent for silentBlocks blocks. Silence also ends the
        // previous tail on the right, so only a reset makes it equal to a fresh chain.
        std::vector<float> gap(2 * 256 * silentBlocks, 0.0f);
        auto leftBusy = test::interleavedSine(31, fs, 0.5, 256 * silentBlocks, 2, {0});
        for (std::size_t i = 0; i < gap.size(); i += 2) gap[i] = leftBusy[i];
        run(*chain, gap, 256 * silentBlocks, 256);
        auto back = test::interleavedSine(997, fs, 0.3, 256, 2, {1});
        run(*chain, back, 256, 256);
        return back;
    };
    auto fresh = makeChain();
    auto expect = test::interleavedSine(997, fs, 0.3, 256, 2, {1});
    run(*fresh, expect, 256, 256);

    const auto reset = afterSilence(RouteDSPChain::silentBlocksBeforeInactive);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(reset[2 * i + 1], expect[2 * i + 1]) << i;
    const auto notYet = afterSilence(1);
    bool differs = false;
    for (int i = 0; i < 256; ++i) differs |= notYet[2 * i + 1] != expect[2 * i + 1];
    EXPECT_TRUE(differs) << "one silent block is not enough to count as inactive";
}

// A NaN or infinity in the input used to clear every filter's memory at the end of its block (a
// click), and nothing said it had happened.
TEST(RouteDSPChain, NonFiniteInputIsPlayedAsSilenceAndCounted) {
    const auto chainWithStages = [] {
        auto chain = std::make_unique<RouteDSPChain>(2, 48000);
        chain->customEQ().setGain(6, 3);
        HeadphoneProfile p;
        p.filters = {{Shape::peaking, 500, 3, 1}};
        chain->correctionEQ().loadProfile(p);
        return chain;
    };
    auto faulty = chainWithStages(), silent = chainWithStages();
    auto x = test::interleavedSine(250, 48000, 0.1, 4096, 2), zeroed = x;
    x[40] = std::numeric_limits<float>::quiet_NaN();
    x[41] = std::numeric_limits<float>::infinity();
    x[8000] = -std::numeric_limits<float>::infinity();
    zeroed[40] = zeroed[41] = zeroed[8000] = 0.0f;
    run(*faulty, x, 4096, 256);
    run(*silent, zeroed, 4096, 256);
    EXPECT_EQ(x, zeroed) << "the same as silence in their place, filter memory and all";
    EXPECT_EQ(faulty->nonFiniteInputSampleCount(), 3u);
    EXPECT_EQ(silent->nonFiniteInputSampleCount(), 0u);

    EXPECT_EQ(faulty->process(std::numeric_limits<double>::quiet_NaN()), silent->process(0.0));
    EXPECT_EQ(faulty->nonFiniteInputSampleCount(), 4u);
}

TEST(RouteDSPChain, HeadroomFallsFastUnderOwnBoostsNeverBelowTheFloorAndRecoversSlowly) {
    const double fs = 48000;
    RouteDSPChain chain(2, fs);
    chain.setSafetyCeilingEnabled(false);
    chain.setGain(12);
    for (int i = 4; i < 8; ++i) chain.customEQ().setGain(12, i);
    const int block = 480;   // 10 ms
    long frame = 0;
    auto step = [&](double amplitude) {
        auto x = test::interleavedSine(1000, fs, amplitude, block, 2, {}, frame);
        chain.processInterleaved(x.data(), block);
        frame += block;
        return x;
    };
    double lowest = 1.0;
    int blocksUntilBelowHalf = -1;
    for (int b = 0; b < 300; ++b) {   // 3 s of a quiet input driven far over the knee
        step(0.2);
        lowest = std::min(lowest, chain.headroomGain());
        if (blocksUntilBelowHalf < 0 && chain.headroomGain() < 0.5) blocksUntilBelowHalf = b + 1;
    }
    EXPECT_EQ(lowest, 0.25);
    ASSERT_GT(blocksUntilBelowHalf, 0);
    EXPECT_LE(blocksUntilBelowHalf, 30) << "headroom must engage within tens of milliseconds of the average";

    // Remove the boost: the gain climbs back at 0.000005 per sample, about 3.1 s from the floor.
    chain.setGain(0);
    for (int i = 4; i < 8; ++i) chain.customEQ().setGain(0, i);
    chain.setOutputTrim(-4);
    for (int b = 0; b < 100; ++b) step(0.2);
    EXPECT_GT(chain.headroomGain(), 0.25);
    EXPECT_LE(chain.headroomGain(), 0.25 + 48000 * 0.000005 + 1e-9) << "recovery takes seconds, not a block";
    for (int b = 0; b < 400; ++b) step(0.2);
    EXPECT_EQ(chain.headroomGain(), 1.0);
}

TEST(RouteDSPChain, HeadroomStaysAtUnityWithoutBoostHoweverLoud) {
    RouteDSPChain chain(2, 44100);
    chain.setOutputTrim(-4);
    chain.setSafetyCeilingEnabled(false);
    long frame = 0;
    for (int b = 0; b < 200; ++b) {
        auto x = test::interleavedSine(200, 44100, 1.4, 441, 2, {}, frame);
        chain.processInterleaved(x.data(), 441);
        frame += 441;
        ASSERT_EQ(chain.headroomGain(), 1.0);
        ASSERT_LE(peakOf(x), 0.98f);
    }
    EXPECT_TRUE(chain.limiter().isClipping());
}

TEST(RouteDSPChain, HeadroomTargetSettlesOnTheKneeOrTheInputLevel) {
    const double fs = 48000;
    RouteDSPChain chain(1, fs);
    chain.setSafetyCeilingEnabled(false);
    chain.setOutputTrim(-4);
    chain.setGain(test::toDb(3.0));   // pre-limiter level = 3 × input
    long frame = 0;
    for (int b = 0; b < 1000; ++b) {
        auto x = test::interleavedSine(500, fs, 0.5, 480, 1, {}, frame);
        chain.processInterleaved(x.data(), 480);
        frame += 480;
    }
    // preSaturation 1.5, input 0.5: max(0.83/1.5, 0.5/1.5, 0.25) = 0.5533.
    EXPECT_NEAR(chain.headroomGain(), 0.83 / 1.5, 2e-3);
}

TEST(RouteDSPChain, RecomputeEffectiveQsSoftensTheGenreUnderCorrection) {
    RouteDSPChain chain(2, 48000);
    HeadphoneProfile p;
    chain.recomputeEffectiveQs(GenrePreset::edm, &p);
    for (int i = 0; i < 10; ++i)
        EXPECT_NEAR(chain.customEQ().bands()[i].q, 0.25 * qVector(GenrePreset::edm)[i] + 0.75 * TenBandLayout::defaultQ, 1e-12);
    chain.recomputeEffectiveQs(GenrePreset::edm, nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(chain.customEQ().bands()[i].q, qVector(GenrePreset::edm)[i]);
}

double linear(double db) { return std::pow(10.0, db / 20.0); }

// Two channels of DC (0.1 and −0.2): every output sample is then the gain it was given, times
// the input, and a step in gain shows as a step in the samples.
std::vector<float> dcBlock(int frames) {
    std::vector<float> x(std::size_t(frames) * 2);
    for (int f = 0; f < frames; ++f) {
        x[2 * f] = 0.1f;
        x[2 * f + 1] = -0.2f;
    }
    return x;
}

TEST(RouteDSPChain, GainStepRampsLinearlyAcrossTheNextBlockWithNoJumpAtItsEdge) {
    RouteDSPChain chain(2, 48000);
    chain.customEQ().setBypassed(true);
    chain.setSafetyCeilingEnabled(false);
    chain.setOutputTrim(-4);   // trim and make-up cancel: the route gain alone sets the level
    chain.setGain(-6);
    const int block = 256;
    auto x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    const double from = linear(-6), to = linear(6);
    ASSERT_NEAR(x[2 * (block - 1)], 0.1 * from, 1e-7);

    chain.setGain(6);
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    const double step = (to - from) / block;
    double largestJump = std::abs(x[0] - 0.1 * from);   // across the block edge
    for (int f = 0; f < block; ++f) {
        const double g = from + step * (f + 1);
        ASSERT_NEAR(x[2 * f], 0.1 * g, 1e-6) << f;
        ASSERT_NEAR(x[2 * f + 1], -0.2 * g, 2e-6) << f << ": both channels share one ramp";
        if (f > 0) largestJump = std::max(largestJump, double(std::abs(x[2 * f] - x[2 * f - 2])));
    }
    EXPECT_LE(largestJump, 0.1 * step * 1.001);

    // The ramp ends on the new gain and the next block holds it; a step down ramps too.
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    for (int f = 0; f < block; ++f) ASSERT_NEAR(x[2 * f], 0.1 * to, 1e-6) << f;
    chain.setGain(-6);
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    EXPECT_NEAR(x[0], 0.1 * (to + (from - to) / block), 1e-6);
    EXPECT_NEAR(x[2 * (block / 2 - 1)], 0.1 * (to + from) / 2, 1e-6);
    EXPECT_NEAR(x[2 * (block - 1)], 0.1 * from, 1e-7);
}

TEST(RouteDSPChain, SteadyBlocksApplyTheExactGainAndStartsDoNotRamp) {
    const int block = 128;
    auto allEqual = [](const std::vector<float>& x, float left, float right) {
        for (std::size_t i = 0; i < x.size(); i += 2)
            if (x[i] != left || x[i + 1] != right) return false;
        return true;
    };
    // A new chain runs its first block at the settings it was given, not from its defaults.
    RouteDSPChain chain(2, 48000);
    chain.customEQ().setBypassed(true);
    chain.setSafetyCeilingEnabled(false);
    chain.setGain(-6);
    auto x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    const float makeup = RouteDSPChain::outputMakeupLinearFloat;
    const float quieter = float(linear(-6)) * makeup;
    EXPECT_TRUE(allEqual(x, 0.1f * quieter, -0.2f * quieter)) << x[0];

    // After a ramp the steady block carries the single-precision gain exactly: 0.1 comes out
    // at 0.158, the make-up alone.
    chain.setGain(0);
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    EXPECT_LT(x[0], 0.1f * makeup * 0.9f) << "the change ramps in";
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    EXPECT_TRUE(allEqual(x, 0.1f * makeup, -0.2f * makeup)) << x[0];

    // Back to unity overall: the block that ramps there is processed, only the next passes through.
    chain.setOutputTrim(-4);
    chain.setGain(0);
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    EXPECT_FALSE(chain.wasPassthrough());
    EXPECT_NEAR(x[0], 0.1 * (makeup + (1 - makeup) / block), 1e-6);
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    EXPECT_TRUE(chain.wasPassthrough());
    EXPECT_TRUE(allEqual(x, 0.1f, -0.2f));

    // A restart begins at the published gain.
    chain.setGain(-6);
    chain.resetRealtimeState();
    x = dcBlock(block);
    chain.processInterleaved(x.data(), block);
    EXPECT_TRUE(allEqual(x, 0.1f * float(linear(-6)), -0.2f * float(linear(-6)))) << x[0];
}

} // namespace
} // namespace tarn
