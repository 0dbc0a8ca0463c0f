// AI Tune costs: the tap write the capture callback pays per block, one analysis window on the
// analyser's worker, and one rule-engine proposal.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "core/recommendation/BandProminenceAnalyzer.hpp"
#include "core/recommendation/RecommendationRuleEngine.hpp"

namespace {

std::vector<float> noise(std::size_t count) {
    std::mt19937 rng(1);
    std::normal_distribution<float> dist(0.0f, 0.1f);
    std::vector<float> out(count);
    for (float& v : out) v = dist(rng);
    return out;
}

// Per capture block: mono mixdown into the ring (the ring is drained outside the timing).
void BM_AnalysisTapWrite(benchmark::State& state) {
    const int frames = int(state.range(0)), channels = int(state.range(1));
    tarn::AnalysisTap tap;
    tap.setEnabled(true);
    const auto block = noise(std::size_t(frames) * channels);
    std::vector<float> sink(std::size_t(tarn::AnalysisTap::defaultFrameCapacity));
    for (auto _ : state) {
        tap.write(block.data(), frames, channels);
        if (tap.ring().availableFramesToWrite() < frames) {
            state.PauseTiming();
            tap.ring().read(sink.data(), tap.ring().availableFramesToRead());
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_AnalysisTapWrite)->Args({512, 2})->Args({2048, 2})->Args({512, 8});

// Per analysed window: Hann, 4096-point real FFT, band sums, smoothing and publish.
void BM_AnalyzeWindow(benchmark::State& state) {
    tarn::BandProminenceAnalyzer analyzer;
    analyzer.start(48000);
    analyzer.stop();
    analyzer.tap().setEnabled(true);
    const auto window = noise(4096);
    for (auto _ : state) {
        state.PauseTiming();
        analyzer.tap().write(window.data(), 4096, 1);
        state.ResumeTiming();
        analyzer.drainAvailableWindows();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AnalyzeWindow)->UseRealTime(); // the work runs on the analyser's worker

void BM_Recommend(benchmark::State& state) {
    tarn::RecommendationInput input;
    input.prominenceDb = {4, -2, 1, 0, -8, 3, 6, -4, 2, 1};
    input.prominenceConfident = true;
    input.headphone.deviationDb = {-3, -2, 0, 1, 0, 0, 3, 2, -1, 4};
    input.userBiasDb = {1, 0, 0, 0, 0, 0, 0, 0, 0, -1};
    input.genre = tarn::GenrePreset::hipHop;
    input.genreLeanWeight = 1.0;
    for (auto _ : state) benchmark::DoNotOptimize(tarn::RecommendationRuleEngine::recommend(input, tarn::RecommendationScope::song));
}
BENCHMARK(BM_Recommend);

} // namespace
