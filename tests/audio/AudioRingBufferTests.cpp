#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "core/audio/AudioRingBuffer.hpp"

namespace tarn {
namespace {

// Order, wrap-around and the zero-filled tail of short reads are checked over millions of
// frames by the two-thread tests; these are the edges.

TEST(AudioRingBuffer, KeepsOneFrameEmptyAndDropsTheNewestWhenFull) {
    AudioRingBuffer one(2, 1);
    const std::vector<float> src{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(one.write(src.data(), 1), 0);

    AudioRingBuffer ring(2, 8);
    EXPECT_EQ(ring.write(src.data(), 0), 0);
    EXPECT_EQ(ring.write(src.data(), -3), 0);
    EXPECT_EQ(ring.write(src.data(), 8), 7);
    EXPECT_EQ(ring.write(src.data(), 1), 0) << "a full buffer drops the newest audio";
    std::vector<float> out(16, -1.0f);
    EXPECT_EQ(ring.read(out.data(), 8), 7);
    EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + 14), std::vector<float>(src.begin(), src.begin() + 14));
    EXPECT_EQ(out[14], 0.0f) << "a short read fills the rest with silence";
    EXPECT_EQ(out[15], 0.0f);
    EXPECT_EQ(ring.totalFramesWritten(), 7u);
}

TEST(AudioRingBuffer, ResetEmptiesButKeepsTheRunningTotal) {
    AudioRingBuffer ring(1, 8);
    const std::vector<float> src{1, 2, 3, 4, 5};
    ASSERT_EQ(ring.write(src.data(), 5), 5);
    ring.reset();
    EXPECT_EQ(ring.availableFramesToRead(), 0);
    EXPECT_EQ(ring.availableFramesToWrite(), 7);
    EXPECT_EQ(ring.totalFramesWritten(), 5u);
    ASSERT_EQ(ring.write(src.data() + 1, 2), 2);
    std::vector<float> out(2);
    EXPECT_EQ(ring.read(out.data(), 2), 2);
    EXPECT_EQ(out, (std::vector<float>{2, 3}));
}

TEST(AudioRingBufferDeathTest, InvalidShapesStopTheProcess) {
    EXPECT_DEATH(AudioRingBuffer(0, 16), "channelCount");
    EXPECT_DEATH(AudioRingBuffer(INT64_MAX / 2, 3), "overflow");
}

} // namespace
} // namespace tarn
