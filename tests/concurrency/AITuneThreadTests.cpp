#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "core/recommendation/BandProminenceAnalyzer.hpp"
#include "core/recommendation/SongMemoryStore.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using namespace std::chrono_literals;

int prominenceThreads() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name == "tarn-prominence";
    }
    return count;
}

// A capture thread writing noise blocks into the tap at about twice real time, until destroyed.
std::jthread noiseWriter(AnalysisTap& tap) {
    return std::jthread([&tap](std::stop_token stop) {
        std::mt19937 rng(1);
        std::normal_distribution<float> noise(0.0f, 0.1f);
        std::vector<float> block(2 * 480);
        while (!stop.stop_requested()) {
            for (float& v : block) v = noise(rng);
            tap.write(block.data(), 480, 2);
            std::this_thread::sleep_for(5ms);
        }
    });
}

// The tick publishes while audio flows, races control calls and readers, stops when stopped, and
// the analyser is destroyed while it ticks again and audio still arrives (the writer goes first):
// its worker must end with it.
TEST(BandProminenceAnalyzerThreads, TickingRacesControlCallsAndEndsWithTheAnalyser) {
    const int before = prominenceThreads();
    {
        BandProminenceAnalyzer analyzer;
        analyzer.start(48000);
        analyzer.tap().setEnabled(true);
        const auto writer = noiseWriter(analyzer.tap());
        EXPECT_EQ(prominenceThreads(), before + 1);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (analyzer.snapshot().analyzedSeconds <= 0.3 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(10ms);
        ASSERT_GT(analyzer.snapshot().analyzedSeconds, 0.3);
        EXPECT_EQ(analyzer.snapshot().prominenceDb.size(), 10u);

        std::atomic<bool> done{false};
        std::thread reader([&] {
            while (!done) (void)analyzer.snapshot();
        });
        for (int i = 0; i < 20; ++i) {
            analyzer.setMode(i % 2 ? BandProminenceAnalyzer::Mode::track : BandProminenceAnalyzer::Mode::settle);
            analyzer.setTimelineRecording(i % 3 == 0);
            (void)analyzer.timelineSnapshot();
            analyzer.drainNowForTesting();
            if (i == 10) analyzer.reset();
            std::this_thread::sleep_for(20ms);
        }
        done = true;
        reader.join();

        analyzer.stop();
        const auto frozen = analyzer.snapshot();
        std::this_thread::sleep_for(700ms); // more than one tick
        EXPECT_EQ(analyzer.snapshot(), frozen);
        analyzer.start(44100);
    }
    EXPECT_EQ(prominenceThreads(), before);
}

TEST(SongMemoryStoreThreads, ConcurrentRecordsAllReachTheFile) {
    test::TemporaryDirectory dir;
    {
        SongMemoryStore store(dir / "SongMemories.json", 1000);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&store, t] {
                for (int i = 0; i < 50; ++i)
                    store.record(std::to_string(t * 100 + i), std::vector<double>(10, 1.0), std::vector<double>(10, 0.0),
                                 std::nullopt, std::nullopt, std::nullopt);
            });
        for (auto& thread : threads) thread.join();
    } // the destructor waits for the last write
    SongMemoryStore reread(dir / "SongMemories.json", 1000);
    EXPECT_EQ(reread.count(), 200);
    EXPECT_FALSE(reread.lastError());
}

} // namespace
} // namespace tarn
