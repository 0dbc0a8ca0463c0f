#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace tarn {

// A named worker thread that runs tasks one at a time, in order, plus at most one repeating
// timer whose ticks run on the same thread. It owns every piece of state given to it, so that
// state needs no lock of its own.
//
// Destruction cancels the timer, runs the tasks already queued (nothing handed over is lost)
// and joins the thread: a destroyed queue never leaves its thread running.
class SerialQueue {
public:
    using Clock = std::chrono::steady_clock;

    // `label` names the queue in messages; `threadName` (at most 15 characters, the kernel's
    // limit) is what `top -H` and debuggers show.
    SerialQueue(std::string label, std::string threadName);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    void async(std::function<void()> task);

    // Runs `task` on the queue and waits for it; called from the queue itself it runs inline.
    // An exception thrown by the task is rethrown to the caller.
    void sync(const std::function<void()>& task);

    template <typename F> auto syncResult(F&& f) -> decltype(f()) {
        std::optional<decltype(f())> result;
        sync([&] { result.emplace(f()); });
        return std::move(*result);
    }

    // First tick at now + `firstDelay`, then every `interval`. Replaces any previous timer; a tick
    // that is already running finishes. Ticks never pile up: a late tick is followed by the next
    // one a full interval later.
    void scheduleRepeating(Clock::duration firstDelay, Clock::duration interval, std::function<void()> tick);
    void cancelTimer();
    bool hasTimer() const;

    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    void run(std::string threadName);

    std::string label_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    std::shared_ptr<std::function<void()>> timerTick_;
    Clock::time_point timerDeadline_{};
    Clock::duration timerInterval_{};
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace tarn
