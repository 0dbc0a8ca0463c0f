#pragma once

#include <functional>

namespace tarn {

// The control thread's event loop, as the audio services see it: the application's Qt main
// loop, or a test's hand-driven queue. Work posted here runs on the control thread, one item at a
// time, in posting order for `async`.
class MainQueue {
public:
    virtual ~MainQueue() = default;

    // Both may be called from any thread.
    virtual void async(std::function<void()> work) = 0;
    // Runs `work` no earlier than `delaySeconds` from now.
    virtual void asyncAfter(double delaySeconds, std::function<void()> work) = 0;
};

} // namespace tarn
