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

TEST(SerialQueue, RunsTasksFromManyProducersInOrderOnItsOwnNamedThread) {
    SerialQueue queue("test.queue", "tarn-test-queue");
    std::vector<int> seen[4]; // touched only on the queue
    std::vector<std::thread> producers;
    for (int t = 0; t < 4; ++t)
        producers.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i) queue.async([&seen, t, i] { seen[t].push_back(i); });
        });
    for (auto& p : producers) p.join();
    const std::string name = queue.syncResult([] {
        char buffer[16] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        return std::string(buffer);
    });
    EXPECT_EQ(name, "tarn-test-queue");
    for (const auto& fromOne : seen) {
        ASSERT_EQ(fromOne.size(), 1000u);
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(fromOne[i], i);
    }
    queue.sync([&] { EXPECT_TRUE(queue.isCurrent()); queue.sync([] {}); }); // nested sync runs inline
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(queue.syncResult([] { return 7; }), 7); // still alive
}

TEST(SerialQueue, TimerTicksUntilCancelledAndRescheduleReplacesIt) {
    SerialQueue queue("test.queue", "tarn-test-queue");
    std::atomic<int> ticks{0};
    queue.scheduleRepeating(0ms, 5ms, [&] { ++ticks; });
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (ticks < 3 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_GE(ticks.load(), 3);
    queue.cancelTimer();
    queue.sync([] {}); // a tick already running has finished
    const int after = ticks;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks.load(), after);

    std::atomic<int> oldTicks{0}, newTicks{0};
    queue.scheduleRepeating(1h, 1h, [&] { ++oldTicks; });
    queue.scheduleRepeating(0ms, 1h, [&] { ++newTicks; });
    while (newTicks == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(newTicks.load(), 1);
    EXPECT_EQ(oldTicks.load(), 0);
}

TEST(SerialQueue, DestructionRunsQueuedTasksAndJoins) {
    std::atomic<int> ran{0};
    std::atomic<bool> destroyed{false}, tickedAfterDestruction{false};
    {
        SerialQueue queue("test.queue", "tarn-test-queue");
        queue.scheduleRepeating(0ms, 1ms, [&] { tickedAfterDestruction = tickedAfterDestruction || destroyed; });
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
