#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "core/audio/MainQueue.hpp"
#include "core/dsp/UptimeClock.hpp"

namespace tarn::test {

// A main queue driven by the test, with its own clock: nothing runs until the test says so, and
// time only moves when the test moves it.
class ManualMainQueue : public MainQueue {
public:
    void async(std::function<void()> work) override;
    void asyncAfter(double delaySeconds, std::function<void()> work) override;

    double now() const;
    UptimeClock clock() const {
        return UptimeClock{[this] { return now(); }};
    }

    // Runs all work that is due now, including work that it posts for now.
    void runUntilIdle();
    // Moves the clock forward, running each delayed item at its due time.
    void advance(double seconds);
    std::size_t pendingDelayedCount() const;

private:
    struct Delayed {
        double due;
        std::uint64_t order;
        std::function<void()> work;
    };
    mutable std::mutex mutex_;
    double now_ = 1000.0;
    std::uint64_t nextOrder_ = 0;
    std::deque<std::function<void()>> ready_;
    std::vector<Delayed> delayed_;
};

} // namespace tarn::test
