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
std::uint32_t tag(std::uint32_t frame, std::uint32_t channel) { return (frame << 3) | channel; }

constexpr int channels = 3;
constexpr std::uint32_t totalFrames = 3'000'000;

// A producer in random-sized blocks and a reader in other random sizes. Lossless: the producer
// resends what did not fit and the reader must get every frame in order. Otherwise the ring
// overruns now and then and the reader must get a strictly increasing subset, each frame whole.
void transfer(std::int64_t capacity, bool lossless) {
    AudioRingBuffer ring(channels, capacity);
    std::atomic<bool> producerDone{false}, readerStopped{false};
    std::thread producer([&] {
        std::mt19937 rng(1);
        std::vector<float> block(700 * channels);
        for (std::uint32_t next = 0; next < totalFrames && !readerStopped.load();) {
            const auto n = std::min<std::uint32_t>(std::uint32_t(rng() % 700 + 1), totalFrames - next);
            for (std::uint32_t i = 0; i < n * channels; ++i) block[i] = std::bit_cast<float>(tag(next + i / channels, i % channels));
            std::uint32_t sent = 0;
            do {
                sent += std::uint32_t(ring.write(block.data() + sent * channels, n - sent));
                if (sent < n) std::this_thread::yield();
            } while (lossless && sent < n && !readerStopped.load());
            next += n;
        }
        producerDone.store(true);
    });

    std::mt19937 rng(2);
    std::vector<float> block(900 * channels);
    std::int64_t last = -1;
    std::uint64_t received = 0, bad = 0;
    bool finished = false;
    while (!finished && bad == 0) {
        finished = producerDone.load(); // one more read after the producer ends drains the rest
        const auto want = std::int64_t(rng() % 900 + 1);
        const auto got = ring.read(block.data(), want);
        for (std::int64_t f = 0; f < want; ++f) {
            for (std::uint32_t c = 0; c < channels; ++c) {
                const auto bits = std::bit_cast<std::uint32_t>(block[std::size_t(f * channels + c)]);
                if (f >= got) { // a short read is zero-filled
                    bad += bits != 0u;
                    continue;
                }
                const auto frame = std::int64_t(bits >> 3);
                const bool inOrder = c == 0 ? frame > last && (!lossless || frame == last + 1) : frame == last;
                bad += !inOrder || bits != tag(std::uint32_t(frame), c) || frame >= totalFrames;
                if (c == 0) last = frame;
            }
        }
        received += std::uint64_t(got);
        if (got == want) finished = false;
        else std::this_thread::yield();
    }
    readerStopped.store(true); // a fault found above ends the transfer early
    producer.join();
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(received, ring.totalFramesWritten()) << "every accepted frame is read exactly once";
    if (lossless) {
        EXPECT_EQ(received, totalFrames);
    }
}

TEST(AudioRingBufferThreads, LosslessTransferKeepsOrderAndContent) { transfer(4096, true); }
TEST(AudioRingBufferThreads, OverrunDropsFramesButNeverInventsOrReordersThem) { transfer(1024, false); }

} // namespace
} // namespace tarn
