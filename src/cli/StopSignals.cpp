#include "cli/StopSignals.hpp"

#include <pthread.h>

namespace tarn::cli {

StopSignals::StopSignals(std::function<void(int signal)> onSignal) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, &previousMask_);
    watcher_ = std::thread([this, onSignal = std::move(onSignal)] {
        for (;;) {
            int signal = 0;
            if (sigwait(&signals_, &signal) != 0) continue;
            if (finishing_.load()) return;
            onSignal(signal);
        }
    });
}

StopSignals::~StopSignals() {
    finishing_.store(true);
    // The watcher blocks these signals too, so this one waits for its sigwait.
    pthread_kill(watcher_.native_handle(), SIGTERM);
    watcher_.join();
    pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

} // namespace tarn::cli
