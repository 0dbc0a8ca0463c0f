#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include <signal.h>

namespace tarn::cli {

// Ctrl-C and SIGTERM for a command that must clean up before it exits (a live route has to give
// the application back). The signals are blocked and a small thread takes them with sigwait, so
// the reaction runs as ordinary code on that thread instead of inside a signal handler.
//
// Construct it before any other thread starts: threads inherit the blocked mask, and a thread
// that did not block the signals would be killed by them. Until destruction the signals only
// reach `onSignal`; a second Ctrl-C does not cut a clean-up short.
class StopSignals {
public:
    explicit StopSignals(std::function<void(int signal)> onSignal);
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    sigset_t signals_{};
    sigset_t previousMask_{};
    std::atomic<bool> finishing_{false};
    std::thread watcher_;
};

} // namespace tarn::cli
