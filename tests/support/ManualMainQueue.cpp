#include "support/ManualMainQueue.hpp"

#include <algorithm>

namespace tarn::test {

void ManualMainQueue::async(std::function<void()> work) {
    std::lock_guard lock(mutex_);
    ready_.push_back(std::move(work));
}

void ManualMainQueue::asyncAfter(double delaySeconds, std::function<void()> work) {
    std::lock_guard lock(mutex_);
    delayed_.push_back({now_ + std::max(delaySeconds, 0.0), nextOrder_++, std::move(work)});
}

double ManualMainQueue::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

std::size_t ManualMainQueue::pendingDelayedCount() const {
    std::lock_guard lock(mutex_);
    return delayed_.size();
}

void ManualMainQueue::runUntilIdle() {
    for (;;) {
        std::function<void()> work;
        {
            std::lock_guard lock(mutex_);
            auto due = std::min_element(delayed_.begin(), delayed_.end(), [](const Delayed& a, const Delayed& b) {
                return a.due < b.due || (a.due == b.due && a.order < b.order);
            });
            if (due != delayed_.end() && due->due <= now_) {
                ready_.push_back(std::move(due->work));
                delayed_.erase(due);
            }
            if (ready_.empty()) return;
            work = std::move(ready_.front());
            ready_.pop_front();
        }
        work();
    }
}

void ManualMainQueue::advance(double seconds) {
    double target;
    {
        std::lock_guard lock(mutex_);
        target = now_ + seconds;
    }
    for (;;) {
        runUntilIdle();
        std::lock_guard lock(mutex_);
        double next = target;
        bool found = false;
        for (const auto& d : delayed_) {
            if (d.due <= target && (!found || d.due < next)) {
                next = d.due;
                found = true;
            }
        }
        if (!found) {
            now_ = target;
            break;
        }
        now_ = std::max(now_, next);
    }
    runUntilIdle();
}

} // namespace tarn::test
