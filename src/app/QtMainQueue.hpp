#pragma once

#include <QObject>

#include "core/audio/MainQueue.hpp"

namespace tarn {

// The control thread's queue on the Qt event loop: work posted from any thread (the sound
// server's listeners, signal watchers) runs on the thread of `context`, in posting order.
class QtMainQueue final : public MainQueue {
public:
    explicit QtMainQueue(QObject* context) : context_(context) {}

    void async(std::function<void()> work) override;
    void asyncAfter(double delaySeconds, std::function<void()> work) override;

private:
    QObject* context_;
};

} // namespace tarn
