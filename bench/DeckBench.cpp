// What the player deck costs per second of music: decoding a 96 kHz/24-bit FLAC, converting it
// to the graph's 48 kHz, and running it through a route with ten bands set and the Sennheiser
// HD 650 correction. Everything but the render callback's copy, on one core.
//
//   build/bench/bench_DeckBench
//
// Target: under 5 ms of CPU per second of audio ("cpu_per_audio_s").
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <vector>

#include <sndfile.h>

#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "player/AudioFileDecoder.hpp"
#include "player/Resampler.hpp"

namespace {

constexpr int fileRate = 96000;
constexpr int graphRate = 48000;
constexpr int channels = 2;
constexpr double seconds = 20;
constexpr int block = 4096;

// Twenty seconds of three tones and a little noise, as a 24-bit FLAC (made once per run).
const std::filesystem::path& testFile() {
    static const std::filesystem::path path = [] {
        auto p = std::filesystem::temp_directory_path() / "tarn-deck-bench-96k24.flac";
        SF_INFO info{};
        info.samplerate = fileRate;
        info.channels = channels;
        info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
        SNDFILE* f = sf_open(p.c_str(), SFM_WRITE, &info);
        std::vector<float> x(std::size_t(fileRate) * channels);
        std::uint32_t noise = 1;
        for (int s = 0; s < int(seconds); ++s) {
            for (int i = 0; i < fileRate; ++i) {
                const double t = double(s * fileRate + i) / fileRate;
                noise = noise * 1664525u + 1013904223u;
                const double v = 0.3 * std::sin(6.283185307 * 55 * t) + 0.2 * std::sin(6.283185307 * 440 * t) +
                                 0.1 * std::sin(6.283185307 * 3100 * t) + 0.02 * (double(noise) / 4294967296.0 - 0.5);
                x[std::size_t(i) * 2] = float(v);
                x[std::size_t(i) * 2 + 1] = float(0.9 * v);
            }
            sf_writef_float(f, x.data(), fileRate);
        }
        sf_close(f);
        return p;
    }();
    return path;
}

std::unique_ptr<tarn::RouteDSPChain> deckChain(double rate) {
    auto chain = std::make_unique<tarn::RouteDSPChain>(channels, rate);
    const double bands[10] = {3, 2, 1, 0, -1, -2, 1, 2, 3, -3};
    for (int b = 0; b < 10; ++b) chain->customEQ().setGain(bands[b], b);
    const auto* hd650 = tarn::BundledProfileCatalog::shared().profile("oratory1990.over-ear.sennheiser-hd-650");
    if (hd650) {
        chain->correctionEQ().loadProfile(*hd650);
        chain->correctionEQ().setBypassed(false);
    }
    return chain;
}

// The whole deck route for one file: decode, convert (when the graph's rate differs), process.
void deckRoute(benchmark::State& state, int outputRate) {
    const auto& file = testFile();
    tarn::DenormalGuard::enableFlushToZero();
    std::vector<float> decoded(std::size_t(block) * channels);
    for (auto _ : state) {
        tarn::AudioFileDecoder decoder(file);
        auto chain = deckChain(outputRate);
        std::unique_ptr<tarn::Resampler> resampler;
        if (outputRate != decoder.sampleRate())
            resampler = std::make_unique<tarn::Resampler>(channels, decoder.sampleRate(), outputRate);
        std::vector<float> converted;
        for (int n; (n = decoder.read(decoded.data(), block)) > 0;) {
            float* samples = decoded.data();
            int frames = n;
            if (resampler) {
                converted = resampler->process(decoded.data(), n);
                samples = converted.data();
                frames = int(converted.size() / channels);
            }
            chain->processInterleaved(samples, frames);
        }
        benchmark::DoNotOptimize(decoded.data());
    }
    // Time per second of audio (an inverted rate prints as time: "2.9ms").
    state.counters["cpu_per_audio_s"] =
        benchmark::Counter(seconds, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_DeckRoute96kFlacTo48kGraph(benchmark::State& state) { deckRoute(state, graphRate); }
void BM_DeckRoute96kFlacOn96kGraph(benchmark::State& state) { deckRoute(state, fileRate); }

BENCHMARK(BM_DeckRoute96kFlacTo48kGraph)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(BM_DeckRoute96kFlacOn96kGraph)->Unit(benchmark::kMillisecond)->MinTime(3);

} // namespace
