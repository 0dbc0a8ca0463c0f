// The audio path around the chain: a ring write and read per block, the capture kernel (copy or
// interleave, chunking, ring write; chain excluded) and the render kernel in its steady state and
// while concealing an underrun. Budgets: a 512-frame stereo block at 48 kHz lasts 10.7 ms.

#include <benchmark/benchmark.h>

#include <vector>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/CaptureKernel.hpp"
#include "core/audio/RenderKernel.hpp"

namespace {

void BM_RingWriteRead(benchmark::State& state) {
    const int frames = int(state.range(0)), channels = int(state.range(1));
    tarn::AudioRingBuffer ring(channels, 16384);
    std::vector<float> block(std::size_t(frames) * channels, 0.25f), out(block.size());
    for (auto _ : state) {
        ring.write(block.data(), frames);
        benchmark::DoNotOptimize(ring.read(out.data(), frames));
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_RingWriteRead)->Args({512, 2})->Args({2048, 2})->Args({512, 8});

void BM_CaptureKernel(benchmark::State& state) {
    const int frames = int(state.range(0)), channels = int(state.range(1));
    const bool interleaved = state.range(2) != 0;
    tarn::AudioRingBuffer ring(channels, 1 << 16);
    std::vector<float> scratch(std::size_t(channels) * tarn::CaptureKernel::maxChunkFrames);
    tarn::CaptureKernel kernel{&ring, scratch.data(), std::int64_t(scratch.size()), nullptr, nullptr};
    std::vector<std::vector<float>> data(interleaved ? 1 : channels,
                                         std::vector<float>(std::size_t(frames) * (interleaved ? channels : 1), 0.25f));
    std::vector<tarn::AudioBufferList::Buffer> buffers;
    for (auto& d : data)
        buffers.push_back({std::uint32_t(interleaved ? channels : 1), std::uint32_t(d.size() * sizeof(float)), d.data()});
    const tarn::AudioBufferList list{std::uint32_t(buffers.size()), buffers.data()};
    std::vector<float> sink(std::size_t(frames) * channels);
    for (auto _ : state) {
        kernel.process(list);
        ring.read(sink.data(), frames);
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_CaptureKernel)->Args({512, 2, 1})->Args({512, 2, 0})->Args({512, 6, 0})->Args({10000, 2, 1});

void BM_RenderKernel(benchmark::State& state) {
    const int frames = int(state.range(0)), channels = 2;
    const bool underrun = state.range(1) != 0;
    tarn::AudioRingBuffer ring(channels, 1 << 16);
    std::vector<float> last(channels), out(std::size_t(frames) * channels), feed(out.size(), 0.25f);
    tarn::RenderKernel kernel;
    kernel.ringBuffer = &ring;
    kernel.channelCount = channels;
    kernel.lastSamples = last.data();
    kernel.prepare(48000);
    tarn::AudioBufferList::Buffer buffer{channels, std::uint32_t(out.size() * sizeof(float)), out.data()};
    tarn::AudioBufferList list{1, &buffer};
    for (auto _ : state) {
        // Underrun: only a fifth of the block is there, the rest is tail, and the next block ramps.
        ring.write(feed.data(), underrun ? frames / 5 : frames);
        kernel.render(std::uint32_t(frames), list);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_RenderKernel)->Args({512, 0})->Args({512, 1})->Args({2048, 0});

} // namespace
