#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/CaptureKernel.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/recommendation/AnalysisTap.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

struct Capture {
    AudioRingBuffer ring;
    std::vector<float> scratch;
    CaptureKernel kernel;

    explicit Capture(int channels, std::int64_t capacity = 32768)
        : ring(channels, capacity), scratch(std::size_t(channels) * CaptureKernel::maxChunkFrames) {
        kernel.ringBuffer = &ring;
        kernel.scratch = scratch.data();
        kernel.scratchSamples = std::int64_t(scratch.size());
    }
    std::vector<float> drain() {
        std::vector<float> out(std::size_t(ring.availableFramesToRead() * ring.channelCount()));
        ring.read(out.data(), ring.availableFramesToRead());
        return out;
    }
};

float sampleAt(int frame, int channel) { return float(frame) + 0.125f * float(channel); }

TEST(CaptureKernel, CyclesArriveWholeAndInOrderAndWrongShapesAreDropped) {
    Capture capture(2);
    std::vector<float> cycle;
    for (int f = 0; f < 10000; ++f)
        for (int c = 0; c < 2; ++c) cycle.push_back(sampleAt(f, c));
    AudioBufferList::Buffer buffer{2, std::uint32_t(cycle.size() * sizeof(float)), cycle.data()};
    capture.kernel.process({1, &buffer});
    EXPECT_EQ(capture.drain(), cycle) << "10000 frames pass through a 4096-frame scratch in three chunks";

    // The same cycle as one buffer per channel, the way PipeWire's ports deliver it.
    std::vector<float> left(10000), right(10000);
    for (std::size_t f = 0; f < 10000; ++f) {
        left[f] = cycle[2 * f];
        right[f] = cycle[2 * f + 1];
    }
    AudioBufferList::Buffer planar[2]{{1, 40000, left.data()}, {1, 40000, right.data()}};
    capture.kernel.process({2, planar});
    EXPECT_EQ(capture.drain(), cycle);

    // An interleaved cycle of the wrong shape, or without data, is dropped.
    AudioBufferList::Buffer six{6, std::uint32_t(cycle.size() * sizeof(float)), cycle.data()}, noData{2, 512, nullptr};
    capture.kernel.process({1, &six});
    capture.kernel.process({1, &noData});
    capture.kernel.process({0, nullptr});
    EXPECT_EQ(capture.ring.availableFramesToRead(), 0);
}

// Ring channels beyond the buffers repeat the last buffer; a missing buffer, or one shorter than
// the first, gives silence, also in chunks after the first (5000 frames > one 4096-frame chunk).
TEST(CaptureKernel, OneBufferPerChannelFillsRepeatsAndPadsWithSilence) {
    Capture capture(4);
    std::vector<float> full(5000), shortOne(10, 0.25f);
    for (int f = 0; f < 5000; ++f) full[std::size_t(f)] = sampleAt(f, 0);
    AudioBufferList::Buffer buffers[3]{{1, 5000 * 4, full.data()}, {1, 5000 * 4, nullptr}, {1, 10 * 4, shortOne.data()}};
    capture.kernel.process({3, buffers});
    auto out = capture.drain();
    ASSERT_EQ(out.size(), 20000u);
    for (std::size_t f = 0; f < 5000; ++f) {
        ASSERT_EQ(out[f * 4], full[f]);
        ASSERT_EQ(out[f * 4 + 1], 0.0f);
        ASSERT_EQ(out[f * 4 + 2], f < 10 ? 0.25f : 0.0f) << f;
        ASSERT_EQ(out[f * 4 + 3], out[f * 4 + 2]) << f;
    }

    Capture stereo(2);
    AudioBufferList::Buffer pair[2]{{1, 5000 * 4, full.data()}, {1, 10 * 4, shortOne.data()}};
    stereo.kernel.process({2, pair});
    out = stereo.drain();
    ASSERT_EQ(out.size(), 10000u);
    EXPECT_EQ(out[2 * 9 + 1], 0.25f);
    EXPECT_EQ(out[2 * 10 + 1], 0.0f) << "a short right channel must not be read past its end";
}

TEST(CaptureKernel, AnalysisTapSeesTheBlockBeforeTheChainProcessesIt) {
    Capture capture(2);
    RouteDSPChain chain(2, 48000);
    chain.setSafetyCeilingEnabled(false);
    chain.setOutputTrim(0.0); // 0 dB trim: only the fixed make-up gain
    chain.resetRealtimeState();
    AnalysisTap tap(65536);
    tap.setEnabled(true);
    capture.kernel.dspChain = &chain;
    capture.kernel.analysisTap = &tap;

    auto cycle = test::interleavedSine(1000, 48000, 0.1, 9000, 2);
    AudioBufferList::Buffer buffer{2, std::uint32_t(cycle.size() * sizeof(float)), cycle.data()};
    capture.kernel.process({1, &buffer});

    std::vector<float> mono(9000);
    ASSERT_EQ(tap.ring().read(mono.data(), 9000), 9000);
    auto processed = capture.drain();
    ASSERT_EQ(processed.size(), 18000u);
    EXPECT_NEAR(test::fittedAmplitude(mono, 1, 0, 1000, 48000, 4500, 4500), 0.1, 1e-3) << "the tap gets the unprocessed audio";
    EXPECT_NEAR(test::fittedAmplitude(processed, 2, 1, 1000, 48000, 4500, 4500), 0.1 * RouteDSPChain::outputMakeupLinearFloat,
                2e-3)
        << "the ring gets the chain's output";
}

} // namespace
} // namespace tarn
