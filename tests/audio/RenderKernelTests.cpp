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
    feed(512, half);
    renderCycle(512);
    for (int f = 0; f < 512; ++f) {
        const double gain = std::min((f + 1) / 240.0, 1.0);
        ASSERT_NEAR(left(f), 0.5 * gain, 1e-5) << "frame " << f;
        ASSERT_NEAR(right(f), -0.5 * gain, 1e-5) << "frame " << f;
    }
    for (int f = 240; f < 512; ++f) ASSERT_EQ(left(f), 0.5f) << "after the fade the samples pass untouched";
}

// An underrun decays from the last real frame, within a cycle and on across empty cycles, and
// real audio comes back through a 3 ms (144-frame) ramp.
TEST_F(Render, UnderrunDecaysFromTheLastRealFrameThenRampsBackIn) {
    skipFadeIn();
    feed(100, [](int f) { return 0.25f + 0.001f * float(f); });
    renderCycle(128);
    const double last = 0.25 + 0.001 * 99;
    EXPECT_FLOAT_EQ(left(99), float(last));
    for (int f = 100; f < 128; ++f) {
        const double expected = last * std::pow(0.94, f - 99);
        ASSERT_NEAR(left(f), expected, 1e-6) << "frame " << f;
        ASSERT_NEAR(right(f), -expected, 1e-6) << "frame " << f;
    }
    renderCycle(16); // nothing in the ring
    EXPECT_NEAR(left(0), last * std::pow(0.94, 29), 1e-6);
    EXPECT_NEAR(right(15), -last * std::pow(0.94, 44), 1e-6);

    feed(512, half);
    renderCycle(512);
    for (int f = 0; f < 512; ++f) ASSERT_NEAR(left(f), 0.5 * std::min((f + 1) / 144.0, 1.0), 1e-5) << "frame " << f;
}

TEST_F(Render, RenderStageUsesScratchAndRefusesOversizedCycles) {
    std::vector<float> scratch(channels * RenderKernel::maxFrames);
    kernel.dspStage = RouteDSPStage::render;
    kernel.ioScratch = scratch.data();
    skipFadeIn();
    feed(512, half);
    renderCycle(512);
    EXPECT_EQ(left(0), 0.5f);
    EXPECT_EQ(right(511), -0.5f);

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
    kernel.render(512, none); // no buffers at all: nothing to write, no crash
}

} // namespace
} // namespace tarn
