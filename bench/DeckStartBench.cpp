// Time from "play" to sound on the player deck: from DeckPlayback::play (the desk's DeckPlay, what
// `tarn deck play` asks for) until the output has taken the first decoded frames from the ring,
// on a real PipeWire graph. The device's own buffer (one quantum) comes on top; it is printed.
//
//   bench/deck-start [BUILD_DIR]    (runs this in a private sound session)
//
// Target: under 100 ms.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include <sndfile.h>

#include "core/audio/OutputDeviceLookup.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"
#include "player/DeckPlayback.hpp"

namespace {

std::filesystem::path toneFile() {
    auto path = std::filesystem::temp_directory_path() / "tarn-deck-start.flac";
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    std::vector<float> x(48000 * 2 * 5, 0.1f);
    sf_writef_float(f, x.data(), 48000 * 5);
    sf_close(f);
    return path;
}

void BM_DeckPlayToFirstOutput(benchmark::State& state) {
    tarn::PipeWirePlatform platform;
    tarn::OutputDeviceLookup lookup(platform);
    const auto device = lookup.resolve(std::nullopt);
    if (!device) {
        state.SkipWithError("no output device: run bench/deck-start (it starts a private sound session)");
        return;
    }
    tarn::DeckPlayback deck(platform, [](int channels) { return std::make_shared<tarn::RouteDSPChain>(channels, 48000.0); });
    deck.setOutputDevice(*device);
    deck.setQueue({toneFile()});
    std::uint32_t quantum = 0;
    for (auto _ : state) {
        deck.stop();
        const auto start = std::chrono::steady_clock::now();
        deck.play(0);
        while (deck.status().positionSeconds <= 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        platform.bufferFrameSize(*device, quantum);
    }
    deck.stop();
    state.counters["device_quantum_ms"] = quantum * 1000.0 / 48000.0;
}

BENCHMARK(BM_DeckPlayToFirstOutput)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

} // namespace
