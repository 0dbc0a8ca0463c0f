#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "core/audio/AudioRingBuffer.hpp"

namespace tarn {
namespace {

// Every sample carries its frame number and channel as a bit pattern, so the reader can tell a
// reordered, repeated, torn or invented frame from the real one. The ring copies bits, never
// does arithmetic, so the patterns survive exactly.
float tag(std::uint32_t frame, std::uint32_t channel) { return std::bit_cast<float>((frame << 3) | channel); }
bool same(float a, float b) { return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b); }

constexpr int channels = 3;
constexpr std::uint32_t totalFrames = 3'000'000;

struct Producer {
    AudioRingBuffer& ring;
    bool retryRejected; // true: resend what did not fit (lossless); false: drop it (overrun)
    // Set by a reader that has stopped early, so a lossless producer does not wait for it forever.
    const std::atomic<bool>* abandoned = nullptr;

    void operator()() const {
        std::mt19937 rng(1);
        std::uniform_int_distribution<int> chunk(1, 700);
        std::vector<float> block(700 * channels);
        std::uint32_t next = 0;
        while (next < totalFrames && !(abandoned && abandoned->load())) {
            const auto n = std::min<std::uint32_t>(std::uint32_t(chunk(rng)), totalFrames - next);
            for (std::uint32_t f = 0; f < n; ++f)
                for (int c = 0; c < channels; ++c) block[f * channels + c] = tag(next + f, std::uint32_t(c));
            std::uint32_t sent = 0;
            do {
                sent += std::uint32_t(ring.write(block.data() + sent * channels, n - sent));
                if (sent < n) std::this_thread::yield();
            } while (retryRejected && sent < n && !(abandoned && abandoned->load()));
            next += n;
        }
    }
};

TEST(AudioRingBufferThreads, LosslessTransferKeepsOrderAndContent) {
    AudioRingBuffer ring(channels, 4096);
    std::atomic<bool> readerStopped{false};
    std::thread producer(Producer{ring, true, &readerStopped});

    std::mt19937 rng(2);
    std::uniform_int_distribution<int> chunk(1, 900);
    std::vector<float> block(900 * channels);
    std::uint32_t expected = 0;
    std::uint64_t bad = 0;
    while (expected < totalFrames && bad == 0) {
        const int want = chunk(rng);
        const auto got = ring.read(block.data(), want);
        ASSERT_GE(got, 0);
        ASSERT_LE(got, want);
        for (int i = 0; i < got * channels; ++i) {
            if (!same(block[size_t(i)], tag(expected + std::uint32_t(i / channels), std::uint32_t(i % channels)))) ++bad;
        }
        for (int i = int(got) * channels; i < want * channels; ++i) {
            if (std::bit_cast<std::uint32_t>(block[size_t(i)]) != 0u) ++bad;
        }
        expected += std::uint32_t(got);
        if (got == 0) std::this_thread::yield();
    }
    readerStopped.store(true); // a fault found above ends the transfer early
    producer.join();
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(expected, totalFrames);
    EXPECT_EQ(ring.totalFramesWritten(), totalFrames);
    EXPECT_EQ(ring.availableFramesToRead(), 0);
}

TEST(AudioRingBufferThreads, OverrunDropsFramesButNeverInventsOrReordersThem) {
    AudioRingBuffer ring(channels, 1024);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        Producer{ring, false}();
        done.store(true);
    });

    std::vector<float> block(256 * channels);
    std::int64_t lastFrame = -1;
    std::uint64_t received = 0;
    std::uint64_t bad = 0;
    auto drain = [&] {
        const auto got = ring.read(block.data(), 256);
        for (std::int64_t f = 0; f < got; ++f) {
            const auto bits = std::bit_cast<std::uint32_t>(block[size_t(f * channels)]);
            const auto frame = std::int64_t(bits >> 3);
            if (frame <= lastFrame || frame >= totalFrames) ++bad;
            for (int c = 0; c < channels; ++c)
                if (!same(block[size_t(f * channels + c)], tag(std::uint32_t(frame), std::uint32_t(c)))) ++bad;
            lastFrame = frame;
        }
        received += std::uint64_t(got);
        return got;
    };
    // Read slowly so the producer overruns now and then.
    while (!done.load()) {
        drain();
        std::this_thread::yield();
    }
    while (drain() > 0) {}
    producer.join();
    EXPECT_EQ(bad, 0u);
    EXPECT_GT(received, 0u);
    EXPECT_EQ(received, ring.totalFramesWritten()) << "every accepted frame is read exactly once";
}

} // namespace
} // namespace tarn
