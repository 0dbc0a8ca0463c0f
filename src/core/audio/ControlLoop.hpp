#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "core/audio/MainQueue.hpp"

namespace tarn {

// The main queue of a program without a GUI event loop (the command line): the thread that calls
// `run()` becomes the control thread, and sleeps until work posted from any thread (platform
// listeners, signal watchers, its own timers) is due. Nothing polls.
class ControlLoop final : public MainQueue {
public:
    using Clock = std::chrono::steady_clock;

    void async(std::function<void()> work) override;
    // Delayed work runs in order of due time; items due at the same time run in posting order.
    void asyncAfter(double delaySeconds, std::function<void()> work) override;
    void asyncAt(Clock::time_point due, std::function<void()> work);

    // Runs work as it becomes due until `quit()`. Work already due when quit is asked for is left
    // unrun; so is everything if quit came before `run()`.
    void run();
    // Any thread. `run()` returns after the item in progress; a later `run()` returns at once.
    void quit();
    bool isQuitting() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> ready_;
    std::multimap<Clock::time_point, std::function<void()>> delayed_;
    bool quitting_ = false;
};

} // namespace tarn
