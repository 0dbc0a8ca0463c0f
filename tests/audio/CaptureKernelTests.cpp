#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/CaptureKernel.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/recommendation/AnalysisTap.hpp"

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

TEST(CaptureKernel, LongInterleavedCycleArrivesWholeAndInOrder) {
    Capture capture(2);
    std::vector<float> cycle;
    for (int f = 0; f < 10000; ++f)
        for (int c = 0; c < 2; ++c) cycle.push_back(sampleAt(f, c));
    AudioBufferList::Buffer buffer{2, std::uint32_t(cycle.size() * sizeof(float)), cycle.data()};
    capture.kernel.process({1, &buffer});
    EXPECT_EQ(capture.drain(), cycle) << "10000 frames pass through a 4096-frame scratch in three chunks";

    // The same cycle as one buffer per channel, the way PipeWire's ports deliver it.
    std::vector<float> left, right;
    for (int f = 0; f < 10000; ++f) {
        left.push_back(sampleAt(f, 0));
        right.push_back(sampleAt(f, 1));
    }
    AudioBufferList::Buffer planar[2]{{1, 40000, left.data()}, {1, 40000, right.data()}};
    capture.kernel.process({2, planar});
    EXPECT_EQ(capture.drain(), cycle);
}

TEST(CaptureKernel, InterleavedCycleOfTheWrongShapeIsDropped) {
    Capture capture(2);
    std::vector<float> six(6 * 64, 1.0f);
    AudioBufferList::Buffer wrong{6, std::uint32_t(six.size() * sizeof(float)), six.data()};
    capture.kernel.process({1, &wrong});
    AudioBufferList::Buffer noData{2, 512, nullptr};
    capture.kernel.process({1, &noData});
    AudioBufferList::Buffer tooShort{2, 7, six.data()};
    capture.kernel.process({1, &tooShort});
    capture.kernel.process({0, nullptr});
    EXPECT_EQ(capture.ring.totalFramesWritten(), 0u);
}

TEST(CaptureKernel, NonInterleavedBuffersFillChannelsAndRepeatTheLast) {
    Capture capture(6);
    std::vector<float> b0(100), b1(100);
    for (int f = 0; f < 100; ++f) {
        b0[std::size_t(f)] = sampleAt(f, 0);
        b1[std::size_t(f)] = -sampleAt(f, 1);
    }
    AudioBufferList::Buffer buffers[2]{{1, 400, b0.data()}, {1, 400, b1.data()}};
    capture.kernel.process({2, buffers});
    auto out = capture.drain();
    ASSERT_EQ(out.size(), 600u);
    for (int f = 0; f < 100; ++f) {
        ASSERT_EQ(out[std::size_t(f * 6)], b0[std::size_t(f)]);
        for (int c = 1; c < 6; ++c) ASSERT_EQ(out[std::size_t(f * 6 + c)], b1[std::size_t(f)]) << f << "," << c;
    }
}

TEST(CaptureKernel, NonInterleavedMissingOrShortBuffersGiveSilence) {
    Capture capture(3);
    std::vector<float> full(5000, 0.5f), shortOne(10, 0.25f);
    AudioBufferList::Buffer buffers[3]{{1, 5000 * 4, full.data()}, {1, 10 * 4, shortOne.data()}, {1, 5000 * 4, nullptr}};
    capture.kernel.process({3, buffers});
    auto out = capture.drain();
    ASSERT_EQ(out.size(), 15000u);
    for (int f = 0; f < 5000; ++f) {
        ASSERT_EQ(out[std::size_t(f * 3)], 0.5f);
        ASSERT_EQ(out[std::size_t(f * 3 + 1)], f < 10 ? 0.25f : 0.0f) << f;
        ASSERT_EQ(out[std::size_t(f * 3 + 2)], 0.0f);
    }

    Capture stereo(2);
    AudioBufferList::Buffer pair[2]{{1, 5000 * 4, full.data()}, {1, 10 * 4, shortOne.data()}};
    stereo.kernel.process({2, pair});
    out = stereo.drain();
    ASSERT_EQ(out.size(), 10000u);
    EXPECT_EQ(out[2 * 9 + 1], 0.25f);
    EXPECT_EQ(out[2 * 10 + 1], 0.0f) << "a short right channel must not be read past its end";
    EXPECT_EQ(out[2 * 4999], 0.5f);
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

    // A 1 kHz sine of amplitude 0.1 on both channels, 9000 frames in one cycle.
    std::vector<float> cycle;
    for (int f = 0; f < 9000; ++f) {
        const float s = 0.1f * float(std::sin(2 * M_PI * 1000.0 * f / 48000.0));
        cycle.push_back(s);
        cycle.push_back(s);
    }
    AudioBufferList::Buffer buffer{2, std::uint32_t(cycle.size() * sizeof(float)), cycle.data()};
    capture.kernel.process({1, &buffer});

    EXPECT_EQ(tap.framesObserved(), 9000);
    std::vector<float> mono(9000);
    ASSERT_EQ(tap.ring().read(mono.data(), 9000), 9000);
    float tapPeak = 0, routePeak = 0;
    for (float s : mono) tapPeak = std::max(tapPeak, std::fabs(s));
    auto processed = capture.drain();
    ASSERT_EQ(processed.size(), 18000u);
    for (std::size_t i = 9000; i < processed.size(); ++i) routePeak = std::max(routePeak, std::fabs(processed[i]));
    EXPECT_NEAR(tapPeak, 0.1f, 1e-3) << "the tap gets the unprocessed audio";
    EXPECT_NEAR(routePeak, 0.1f * RouteDSPChain::outputMakeupLinearFloat, 2e-3) << "the ring gets the chain's output";
}

} // namespace
} // namespace tarn
