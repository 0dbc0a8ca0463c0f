// Cost of RouteDSPChain::processInterleaved per stereo frame and per section-sample.
//
//   build/bench/bench_RouteChainBench
//
// "full route": 10 bands set, a 10-filter headphone correction, a 10-filter parametric set
// (30 sections per channel) and input loud enough that the limiter works on part of every block.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "core/dsp/CpuDispatch.hpp"
#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/RouteDSPChain.hpp"

namespace {

using tarn::ParametricFilterSpec;

constexpr double sampleRate = 48000;
constexpr int channels = 2;

tarn::HeadphoneProfile tenFilterProfile(double preampDb, double offset) {
    tarn::HeadphoneProfile p;
    p.preampDb = preampDb;
    p.filters.push_back({ParametricFilterSpec::Shape::lowShelf, 105, 4.5, 0.71});
    for (int i = 0; i < 8; ++i)
        p.filters.push_back({ParametricFilterSpec::Shape::peaking, 150.0 * std::pow(1.9, i) * offset, (i % 2 ? -3.0 : 2.5), 1.2 + 0.3 * i});
    p.filters.push_back({ParametricFilterSpec::Shape::highShelf, 10000, -2.0, 0.71});
    return p;
}

std::vector<float> musicLikeInput(int frames, double level) {
    std::vector<float> x(std::size_t(frames) * channels);
    for (int f = 0; f < frames; ++f) {
        const double t = f / sampleRate;
        const double v = level * 0.45 * std::sin(6.283185307179586 * 55 * t) + level * 0.3 * std::sin(6.283185307179586 * 440 * t) +
                         level * 0.15 * std::sin(6.283185307179586 * 3100 * t);
        x[std::size_t(f) * 2] = float(v);
        x[std::size_t(f) * 2 + 1] = float(0.9 * v);
    }
    return x;
}

void setCounters(benchmark::State& state, int frames, int sections) {
    const double perIteration = double(frames);
    // Inverted rates print as seconds per unit: "250n" is 250 ns.
    state.counters["ns_per_frame"] =
        benchmark::Counter(perIteration, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    if (sections > 0)
        state.counters["ns_per_section_sample"] = benchmark::Counter(
            perIteration * sections * channels,
            benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void runChain(benchmark::State& state, tarn::RouteDSPChain& chain, int sections, double level = 1.0) {
    const int frames = int(state.range(0));
    const std::vector<float> input = musicLikeInput(frames * 16, level);
    std::vector<float> block(std::size_t(frames) * channels);
    tarn::DenormalGuard::enableFlushToZero();
    std::size_t offset = 0;
    long clippedBlocks = 0;
    for (auto _ : state) {
        std::memcpy(block.data(), input.data() + offset, block.size() * sizeof(float));
        offset = (offset + block.size()) % (input.size() - block.size() + 1);
        chain.processInterleaved(block.data(), frames);
        benchmark::DoNotOptimize(block.data());
        benchmark::ClobberMemory();
        clippedBlocks += chain.limiter().isClipping();
    }
    setCounters(state, frames, sections);
    state.counters["limiter_engaged_blocks"] = double(clippedBlocks) / double(state.iterations());
}

void setUpFullRoute(tarn::RouteDSPChain& chain) {
    const double gains[10] = {4, 3, 2, -1, -2, 1, 3, 2, -3, 5};
    for (int i = 0; i < 10; ++i) chain.customEQ().setGain(gains[i], i);
    chain.correctionEQ().loadProfile(tenFilterProfile(-4.5, 1.0));
    chain.userParametricEQ().loadProfile(tenFilterProfile(-1.0, 1.13));
    chain.setGain(6);
    chain.setSafetyCeilingEnabled(false);   // keep the level high enough for the limiter to work
}

void BM_FullRoute(benchmark::State& state) {
    tarn::RouteDSPChain chain(channels, sampleRate);
    setUpFullRoute(chain);
    state.SetLabel(tarn::SectionCascade::dispatchedInstructionSet());
    runChain(state, chain, 30);
}
BENCHMARK(BM_FullRoute)->Arg(128)->Arg(512)->Arg(1024)->Arg(4096);

// The same route on the portable x86-64 build of the kernels (what runs without AVX2).
void BM_FullRoutePortable(benchmark::State& state) {
    tarn::RouteDSPChain chain(channels, sampleRate);
    setUpFullRoute(chain);
    tarn::CpuDispatch::setPortableOnly(true);
    runChain(state, chain, 30);
    tarn::CpuDispatch::setPortableOnly(false);
}
BENCHMARK(BM_FullRoutePortable)->Arg(512);

// The same route through every stage's own per-channel processBlock: the reference the vector
// cascade replaces (and must match bit for bit).
void BM_FullRoutePerChannelStages(benchmark::State& state) {
    tarn::RouteDSPChain chain(channels, sampleRate);
    setUpFullRoute(chain);
    chain.setVectorCascadeEnabled(false);
    runChain(state, chain, 30);
}
BENCHMARK(BM_FullRoutePerChannelStages)->Arg(512);

void BM_FlatRoute(benchmark::State& state) {
    tarn::RouteDSPChain chain(channels, sampleRate);
    chain.setGain(-6);   // gains and make-up only: no filter runs
    runChain(state, chain, 0);
}
BENCHMARK(BM_FlatRoute)->Arg(512);

void BM_PassThroughRoute(benchmark::State& state) {
    tarn::RouteDSPChain chain(channels, sampleRate);
    chain.setSafetyCeilingEnabled(false);
    chain.setOutputTrim(-tarn::RouteDSPChain::outputMakeupDb);   // unity overall: the block is left untouched
    chain.setGain(-6);
    chain.setGain(0);
    runChain(state, chain, 0, 0.5);   // below the limiter's knee
}
BENCHMARK(BM_PassThroughRoute)->Arg(512);

} // namespace
