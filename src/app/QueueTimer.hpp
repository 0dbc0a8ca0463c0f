#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "core/audio/MainQueue.hpp"

namespace tarn {

// A one-shot or repeating timer on the control thread's queue that can be cancelled or
// restarted: the queue itself only knows "run this later". Work already posted by an earlier
// start, or by a timer that has since been destroyed, does nothing when it comes due.
//
// Control thread only.
class QueueTimer {
public:
    explicit QueueTimer(MainQueue& queue);
    ~QueueTimer();
    QueueTimer(const QueueTimer&) = delete;
    QueueTimer& operator=(const QueueTimer&) = delete;

    // Replaces whatever was scheduled.
    void startOnce(double delaySeconds, std::function<void()> work);
    void startRepeating(double intervalSeconds, std::function<void()> work);
    void cancel();
    bool isActive() const { return state_->active; }

private:
    struct State {
        std::uint64_t generation = 0;
        bool active = false;
        bool repeats = false;
        double intervalSeconds = 0.0;
        std::function<void()> work;
    };
    static void post(MainQueue& queue, const std::shared_ptr<State>& state);

    MainQueue& queue_;
    std::shared_ptr<State> state_;
};

} // namespace tarn
