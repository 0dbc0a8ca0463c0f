#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "core/audio/AudioRingBuffer.hpp"

namespace tarn {
namespace {

// Order, wrap-around and the zero-filled tail of short reads are checked over millions of
// frames by the two-thread tests; these are the edges.

// Frames whose every sample is distinct: frame f, channel c holds 1000 f + c + start.
std::vector<float> frames(int count, int channels, float start = 0) {
    std::vector<float> v(size_t(count * channels));
    for (int f = 0; f < count; ++f)
        for (int c = 0; c < channels; ++c) v[size_t(f * channels + c)] = start + 1000.0f * float(f) + float(c);
    return v;
}

TEST(AudioRingBuffer, CapacityKeepsOneFrameEmpty) {
    AudioRingBuffer one(2, 1);
    EXPECT_EQ(one.availableFramesToWrite(), 0);
    auto src = frames(1, 2);
    EXPECT_EQ(one.write(src.data(), 1), 0);
    EXPECT_EQ(one.totalFramesWritten(), 0u);

    AudioRingBuffer ring(2, 8);
    auto eight = frames(8, 2);
    EXPECT_EQ(ring.write(eight.data(), 8), 7);
    EXPECT_EQ(ring.availableFramesToRead(), 7);
    EXPECT_EQ(ring.availableFramesToWrite(), 0);
    EXPECT_EQ(ring.write(eight.data(), 1), 0) << "a full buffer drops the newest audio";
    std::vector<float> out(16, -1.0f);
    EXPECT_EQ(ring.read(out.data(), 8), 7);
    for (int i = 0; i < 14; ++i) EXPECT_EQ(out[size_t(i)], eight[size_t(i)]);
    EXPECT_EQ(out[14], 0.0f);
    EXPECT_EQ(out[15], 0.0f);
    EXPECT_EQ(ring.totalFramesWritten(), 7u);
}

TEST(AudioRingBuffer, NonPositiveCountsChangeNothing) {
    AudioRingBuffer ring(2, 8);
    auto src = frames(2, 2);
    EXPECT_EQ(ring.write(src.data(), 0), 0);
    EXPECT_EQ(ring.write(src.data(), -3), 0);
    EXPECT_EQ(ring.availableFramesToRead(), 0);
    EXPECT_EQ(ring.totalFramesWritten(), 0u);
    float sentinel = 5.0f;
    EXPECT_EQ(ring.read(&sentinel, 0), 0);
    EXPECT_EQ(sentinel, 5.0f);
}

TEST(AudioRingBuffer, ResetEmptiesButKeepsTheRunningTotal) {
    AudioRingBuffer ring(1, 8);
    auto src = frames(5, 1);
    ASSERT_EQ(ring.write(src.data(), 5), 5);
    ring.reset();
    EXPECT_EQ(ring.availableFramesToRead(), 0);
    EXPECT_EQ(ring.availableFramesToWrite(), 7);
    EXPECT_EQ(ring.totalFramesWritten(), 5u);
    ASSERT_EQ(ring.write(src.data() + 1, 2), 2);
    std::vector<float> out(2);
    EXPECT_EQ(ring.read(out.data(), 2), 2);
    EXPECT_EQ(out[0], src[1]);
    EXPECT_EQ(out[1], src[2]);
}

TEST(AudioRingBufferDeathTest, InvalidShapesStopTheProcess) {
    EXPECT_DEATH(AudioRingBuffer(0, 16), "channelCount");
    EXPECT_DEATH(AudioRingBuffer(2, 0), "frameCapacity");
    EXPECT_DEATH(AudioRingBuffer(INT64_MAX / 2, 3), "overflow");
}

} // namespace
} // namespace tarn
