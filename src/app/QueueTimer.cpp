#include "app/QueueTimer.hpp"

namespace tarn {

QueueTimer::QueueTimer(MainQueue& queue) : queue_(queue), state_(std::make_shared<State>()) {}

QueueTimer::~QueueTimer() { cancel(); }

void QueueTimer::post(MainQueue& queue, const std::shared_ptr<State>& state) {
    std::weak_ptr<State> weak = state;
    queue.asyncAfter(state->intervalSeconds, [&queue, weak, generation = state->generation] {
        auto s = weak.lock();
        if (!s || !s->active || s->generation != generation) return;
        if (s->repeats) post(queue, s);
        else s->active = false;
        // A copy: the work may restart or destroy this very timer.
        auto work = s->work;
        work();
    });
}

void QueueTimer::startOnce(double delaySeconds, std::function<void()> work) {
    ++state_->generation;
    state_->active = true;
    state_->repeats = false;
    state_->intervalSeconds = delaySeconds;
    state_->work = std::move(work);
    post(queue_, state_);
}

void QueueTimer::startRepeating(double intervalSeconds, std::function<void()> work) {
    startOnce(intervalSeconds, std::move(work));
    state_->repeats = true;
}

void QueueTimer::cancel() {
    ++state_->generation;
    state_->active = false;
    state_->work = nullptr;
}

} // namespace tarn
