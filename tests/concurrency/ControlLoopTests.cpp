#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "core/audio/ControlLoop.hpp"

namespace tarn {
namespace {

using namespace std::chrono_literals;
using Clock = ControlLoop::Clock;

TEST(ControlLoop, RunsWorkInPostingOrderAndTimersInDueOrderNeverEarly) {
    ControlLoop loop;
    std::vector<int> seen; // touched only by the loop's work
    const auto past = Clock::now() - 1s;
    // Timers already due, posted out of order; equal due times keep posting order.
    loop.asyncAt(past + 3ms, [&] { seen.push_back(30); });
    loop.asyncAt(past + 1ms, [&] { seen.push_back(10); });
    loop.asyncAt(past + 3ms, [&] { seen.push_back(31); });
    loop.async([&] {
        seen.push_back(1);
        loop.async([&] { seen.push_back(3); }); // runs after what was already waiting
    });
    loop.async([&] { seen.push_back(2); });
    const auto posted = Clock::now();
    Clock::time_point ran;
    loop.asyncAfter(0.05, [&] {
        ran = Clock::now();
        seen.push_back(99);
        loop.quit();
    });
    loop.run();
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 10, 30, 31, 99}));
    EXPECT_GE(ran - posted, 50ms);
}

// Work and quit come from other threads while the loop sleeps on a far timer (an hour away):
// both must wake it, and once quit a later run returns at once.
TEST(ControlLoop, WorkAndQuitFromOtherThreadsWakeASleepingLoop) {
    ControlLoop loop;
    bool farRan = false;
    loop.asyncAfter(3600, [&] { farRan = true; });
    constexpr int threads = 4, perThread = 500;
    std::atomic<int> count{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < threads; ++t)
        posters.emplace_back([&] {
            std::this_thread::sleep_for(10ms);
            for (int i = 0; i < perThread; ++i) loop.async([&] { ++count; });
        });
    std::thread quitter([&] {
        while (count < threads * perThread) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(20ms); // the loop is back asleep on the far timer
        loop.quit();
    });
    loop.run();
    for (auto& p : posters) p.join();
    quitter.join();
    EXPECT_EQ(count.load(), threads * perThread);
    loop.async([&] { farRan = true; });
    loop.run();
    EXPECT_FALSE(farRan);
}

} // namespace
} // namespace tarn
