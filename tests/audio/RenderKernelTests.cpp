#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/RenderKernel.hpp"

namespace tarn {
namespace {

// A stereo kernel at 48 kHz over a ring, rendering into a plain buffer, as the platform would.
struct Render : ::testing::Test {
    static constexpr int channels = 2;
    AudioRingBuffer ring{channels, 16384};
    std::vector<float> last = std::vector<float>(channels, 0.0f);
    RenderKernel kernel;
    std::vector<float> out;

    void SetUp() override {
        kernel.ringBuffer = &ring;
        kernel.channelCount = channels;
        kernel.lastSamples = last.data();
        kernel.prepare(48000);
    }
    // Feeds frames whose left sample is `left(f)` and right sample is -left(f).
    void feed(int frames, float (*left)(int)) {
        std::vector<float> block;
        for (int f = 0; f < frames; ++f) {
            block.push_back(left(f));
            block.push_back(-left(f));
        }
        ASSERT_EQ(ring.write(block.data(), frames), frames);
    }
    void renderCycle(std::uint32_t frames) {
        out.assign(std::size_t(frames) * channels, 123.0f);
        AudioBufferList::Buffer buffer{channels, std::uint32_t(out.size() * sizeof(float)), out.data()};
        AudioBufferList list{1, &buffer};
        kernel.render(frames, list);
    }
    float left(int frame) const { return out[std::size_t(frame) * channels]; }
    float right(int frame) const { return out[std::size_t(frame) * channels + 1]; }
    void skipFadeIn() {
        feed(512, [](int) { return 0.0f; });
        renderCycle(512);
        ASSERT_EQ(kernel.fadeGain, 1.0f);
    }
};

constexpr float half(int) { return 0.5f; }

TEST_F(Render, StartsWithAFiveMillisecondFadeIn) {
    EXPECT_FLOAT_EQ(kernel.fadeStep, 1.0f / 240.0f);
    EXPECT_FLOAT_EQ(kernel.resumeStep, 1.0f / 144.0f);
    feed(512, half);
    renderCycle(512);
    for (int f = 0; f < 512; ++f) {
        const double gain = std::min((f + 1) / 240.0, 1.0);
        ASSERT_NEAR(left(f), 0.5 * gain, 1e-5) << "frame " << f;
        ASSERT_NEAR(right(f), -0.5 * gain, 1e-5) << "frame " << f;
    }
    EXPECT_NEAR(left(0), 0.5 / 240.0, 1e-7);
    EXPECT_NEAR(left(239), 0.5, 1e-5);
    for (int f = 240; f < 512; ++f) ASSERT_EQ(left(f), 0.5f) << "after the fade the samples pass untouched";

    // At 44.1 kHz the fade lasts 220.5 frames.
    kernel.prepare(44100);
    EXPECT_FLOAT_EQ(kernel.fadeStep, float(1.0 / 220.5));
    EXPECT_EQ(kernel.fadeGain, 0.0f);
}

TEST_F(Render, UnderrunDecaysFromTheLastRealFrameThenRampsBackIn) {
    skipFadeIn();
    feed(100, [](int f) { return 0.25f + 0.001f * float(f); });
    renderCycle(512);
    const float last99 = 0.25f + 0.001f * 99.0f;
    for (int f = 0; f < 100; ++f) ASSERT_FLOAT_EQ(left(f), 0.25f + 0.001f * float(f));
    for (int f = 100; f < 512; ++f) {
        const double expected = last99 * std::pow(0.94, f - 99);
        ASSERT_NEAR(left(f), expected, 1e-6 + 1e-5 * expected) << "frame " << f;
        ASSERT_NEAR(right(f), -expected, 1e-6 + 1e-5 * expected) << "frame " << f;
    }
    EXPECT_EQ(kernel.resumeGain, 0.0f);

    // The next real audio comes back through a 3 ms (144-frame) ramp.
    feed(512, half);
    renderCycle(512);
    for (int f = 0; f < 512; ++f) {
        const double gain = std::min((f + 1) / 144.0, 1.0);
        ASSERT_NEAR(left(f), 0.5 * gain, 1e-5) << "frame " << f;
    }
    EXPECT_EQ(left(200), 0.5f);
    EXPECT_EQ(kernel.resumeGain, 1.0f);
}

TEST_F(Render, AnEmptyRingContinuesFromThePreviousCyclesLastFrame) {
    skipFadeIn();
    feed(256, [](int f) { return f == 255 ? 0.8f : 0.1f; });
    renderCycle(256);
    ASSERT_EQ(left(255), 0.8f);
    renderCycle(64); // nothing in the ring
    for (int f = 0; f < 64; ++f) {
        const double expected = 0.8 * std::pow(0.94, f + 1);
        ASSERT_NEAR(left(f), expected, 1e-6) << f;
        ASSERT_NEAR(right(f), -expected, 1e-6) << f;
    }
    // And a second empty cycle continues the same decay.
    renderCycle(16);
    EXPECT_NEAR(left(0), 0.8 * std::pow(0.94, 65), 1e-6);
}

TEST_F(Render, FadeOutReachesSilenceAndStaysThere) {
    skipFadeIn();
    feed(1024, half);
    kernel.fadeOutRequested.store(true);
    renderCycle(512);
    for (int f = 0; f < 512; ++f) {
        const double gain = std::max(1.0 - (f + 1) / 240.0, 0.0);
        ASSERT_NEAR(left(f), 0.5 * gain, 1e-5) << "frame " << f;
    }
    for (int f = 240; f < 512; ++f) ASSERT_EQ(left(f), 0.0f);
    renderCycle(512);
    for (float s : out) ASSERT_EQ(s, 0.0f);
}

TEST_F(Render, RenderStageUsesScratchAndRefusesOversizedCycles) {
    std::vector<float> scratch(channels * RenderKernel::maxFrames);
    kernel.dspStage = RouteDSPStage::render;
    kernel.ioScratch = scratch.data();
    skipFadeIn();
    feed(512, half);
    renderCycle(512);
    for (int f = 0; f < 512; ++f) ASSERT_EQ(left(f), 0.5f);

    feed(5000, half);
    renderCycle(5000);
    for (float s : out) ASSERT_EQ(s, 0.0f);
    EXPECT_EQ(ring.availableFramesToRead(), 5000) << "an oversized cycle reads nothing";
}

TEST_F(Render, NeverWritesPastTheOutputBuffer) {
    skipFadeIn();
    feed(512, half);
    std::vector<float> small(2 * 100 + 8, 7.0f);
    AudioBufferList::Buffer buffer{channels, std::uint32_t(200 * sizeof(float)), small.data()};
    AudioBufferList list{1, &buffer};
    kernel.render(512, list);
    EXPECT_EQ(small[199], 0.5f * -1.0f);
    for (std::size_t i = 200; i < small.size(); ++i) EXPECT_EQ(small[i], 7.0f);
    AudioBufferList none{0, nullptr};
    kernel.render(512, none); // no buffers: nothing happens
}

} // namespace
} // namespace tarn
