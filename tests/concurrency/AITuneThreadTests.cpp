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

int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        std::getline(comm, line);
        if (line == name) ++count;
    }
    return count;
}

// A capture thread writing noise blocks into the tap at about twice real time.
class NoiseWriter {
public:
    explicit NoiseWriter(AnalysisTap& tap) : thread_([this, &tap] {
        std::mt19937 rng(1);
        std::normal_distribution<float> noise(0.0f, 0.1f);
        std::vector<float> block(2 * 480);
        while (!stop_) {
            for (float& v : block) v = noise(rng);
            tap.write(block.data(), 480, 2);
            std::this_thread::sleep_for(5ms);
        }
    }) {}
    ~NoiseWriter() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

TEST(BandProminenceAnalyzerThreads, TheTickPublishesWhileAudioFlowsAndStopsWhenStopped) {
    BandProminenceAnalyzer analyzer;
    analyzer.start(48000);
    EXPECT_TRUE(analyzer.isRunning());
    analyzer.tap().setEnabled(true);
    {
        NoiseWriter writer(analyzer.tap());
        ASSERT_TRUE(waitFor([&] { return analyzer.snapshot().analyzedSeconds > 0.3; }, 10s));
        EXPECT_EQ(analyzer.snapshot().prominenceDb.size(), 10u);
        EXPECT_GT(analyzer.songClockSeconds(), 0.3);

        analyzer.stop();
        EXPECT_FALSE(analyzer.isRunning());
        const auto frozen = analyzer.snapshot();
        std::this_thread::sleep_for(700ms); // more than one tick
        EXPECT_EQ(analyzer.snapshot(), frozen);
    }
}

TEST(BandProminenceAnalyzerThreads, DestroyingAnAnalyserEndsItsWorker) {
    const int before = threadsNamed("tarn-prominence");
    {
        BandProminenceAnalyzer analyzer;
        analyzer.start(44100);
        analyzer.tap().setEnabled(true);
        NoiseWriter writer(analyzer.tap());
        EXPECT_EQ(threadsNamed("tarn-prominence"), before + 1);
        std::this_thread::sleep_for(50ms);
        // Destroyed while the tick is running and audio still arrives (the writer goes first).
    }
    EXPECT_EQ(threadsNamed("tarn-prominence"), before);
}

TEST(BandProminenceAnalyzerThreads, ControlCallsFromAnotherThreadWhileTicking) {
    BandProminenceAnalyzer analyzer;
    analyzer.start(48000);
    analyzer.tap().setEnabled(true);
    NoiseWriter writer(analyzer.tap());
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
    EXPECT_GE(analyzer.songClockSeconds(), 0.0);
}

TEST(SongMemoryStoreThreads, ConcurrentRecordsAllReachTheFile) {
    test::TemporaryDirectory dir;
    const auto file = dir / "SongMemories.json";
    {
        SongMemoryStore store(file, 1000);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&store, t] {
                for (int i = 0; i < 50; ++i)
                    store.record(std::to_string(t * 100 + i), std::vector<double>(10, 1.0),
                                 std::vector<double>(10, 0.0), std::nullopt, std::nullopt, std::nullopt);
            });
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(store.count(), 200);
    } // the destructor waits for the last write
    SongMemoryStore reread(file, 1000);
    EXPECT_EQ(reread.count(), 200);
    EXPECT_FALSE(reread.lastError());
}

} // namespace
} // namespace tarn
