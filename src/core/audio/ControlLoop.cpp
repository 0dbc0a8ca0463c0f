#include "core/audio/ControlLoop.hpp"

#include <algorithm>

namespace tarn {

void ControlLoop::async(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(work));
    }
    wake_.notify_one();
}

void ControlLoop::asyncAfter(double delaySeconds, std::function<void()> work) {
    const auto delay = std::chrono::duration<double>(std::max(delaySeconds, 0.0));
    asyncAt(Clock::now() + std::chrono::duration_cast<Clock::duration>(delay), std::move(work));
}

void ControlLoop::asyncAt(Clock::time_point due, std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        // A multimap inserts equal keys after the ones already there, which keeps posting order.
        delayed_.emplace(due, std::move(work));
    }
    wake_.notify_one();
}

void ControlLoop::run() {
    std::unique_lock lock(mutex_);
    while (!quitting_) {
        if (ready_.empty()) {
            if (delayed_.empty()) {
                wake_.wait(lock);
                continue;
            }
            const auto due = delayed_.begin()->first;
            if (Clock::now() < due) {
                wake_.wait_until(lock, due);
                continue;
            }
            ready_.push_back(std::move(delayed_.begin()->second));
            delayed_.erase(delayed_.begin());
        }
        auto work = std::move(ready_.front());
        ready_.pop_front();
        lock.unlock();
        work();
        // The work's captures may hold things that must be released on this thread, unlocked.
        work = nullptr;
        lock.lock();
    }
}

void ControlLoop::quit() {
    {
        std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    wake_.notify_all();
}

bool ControlLoop::isQuitting() const {
    std::lock_guard lock(mutex_);
    return quitting_;
}

} // namespace tarn
