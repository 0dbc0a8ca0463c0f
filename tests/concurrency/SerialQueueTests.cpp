#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <pthread.h>

#include "core/recommendation/SerialQueue.hpp"

namespace tarn {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsTasksInOrderOnItsOwnNamedThread) {
    SerialQueue queue("test.queue", "tarn-test-queue");
    std::vector<int> seen; // touched only on the queue
    for (int i = 0; i < 100; ++i) queue.async([&seen, i] { seen.push_back(i); });
    std::string name;
    const auto size = queue.syncResult([&] {
        char buffer[16] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        name = buffer;
        return seen.size();
    });
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(name, "tarn-test-queue");
    for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[i], i);
    EXPECT_FALSE(queue.isCurrent());
    queue.sync([&] { EXPECT_TRUE(queue.isCurrent()); queue.sync([] {}); }); // nested sync runs inline
}

TEST(SerialQueue, SyncRethrowsTheTasksException) {
    SerialQueue queue("test.queue", "tarn-test-queue");
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(queue.syncResult([] { return 7; }), 7); // still alive
}

TEST(SerialQueue, ManyProducersLoseNothing) {
    SerialQueue queue("test.queue", "tarn-test-queue");
    long total = 0;
    std::vector<std::thread> producers;
    for (int t = 0; t < 4; ++t)
        producers.emplace_back([&] {
            for (int i = 1; i <= 1000; ++i) queue.async([&total, i] { total += i; });
        });
    for (auto& p : producers) p.join();
    EXPECT_EQ(queue.syncResult([&] { return total; }), 4 * 500500L);
}

TEST(SerialQueue, TimerTicksUntilCancelledAndInterleavesWithTasks) {
    SerialQueue queue("test.queue", "tarn-test-queue");
    std::atomic<int> ticks{0};
    queue.scheduleRepeating(0ms, 5ms, [&] { ++ticks; });
    EXPECT_TRUE(queue.hasTimer());
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (ticks < 3 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_GE(ticks.load(), 3);
    queue.cancelTimer();
    queue.sync([] {}); // a tick already running has finished
    const int after = ticks;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks.load(), after);
    EXPECT_FALSE(queue.hasTimer());

    // Rescheduling replaces the timer: only the new tick runs.
    std::atomic<int> oldTicks{0}, newTicks{0};
    queue.scheduleRepeating(1h, 1h, [&] { ++oldTicks; });
    queue.scheduleRepeating(0ms, 1h, [&] { ++newTicks; });
    while (newTicks == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(newTicks.load(), 1);
    EXPECT_EQ(oldTicks.load(), 0);
}

TEST(SerialQueue, DestructionRunsQueuedTasksAndJoins) {
    std::atomic<int> ran{0};
    std::atomic<bool> tickedAfterDestruction{false};
    std::atomic<bool> destroyed{false};
    {
        SerialQueue queue("test.queue", "tarn-test-queue");
        queue.scheduleRepeating(0ms, 1ms, [&] {
            if (destroyed) tickedAfterDestruction = true;
        });
        for (int i = 0; i < 50; ++i)
            queue.async([&] {
                std::this_thread::sleep_for(100us);
                ++ran;
            });
    }
    destroyed = true;
    EXPECT_EQ(ran.load(), 50);
    std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(tickedAfterDestruction.load());
}

} // namespace
} // namespace tarn
