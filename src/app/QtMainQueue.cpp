#include "app/QtMainQueue.hpp"

#include <algorithm>
#include <cmath>

#include <QMetaObject>
#include <QTimer>

namespace tarn {

void QtMainQueue::async(std::function<void()> work) {
    QMetaObject::invokeMethod(context_, std::move(work), Qt::QueuedConnection);
}

void QtMainQueue::asyncAfter(double delaySeconds, std::function<void()> work) {
    const int ms = int(std::ceil(std::clamp(delaySeconds, 0.0, 86400.0) * 1000.0));
    // A timer belongs to the thread that starts it: start it on the context's thread.
    QMetaObject::invokeMethod(
        context_,
        [context = context_, ms, work = std::move(work)]() mutable {
            QTimer::singleShot(ms, Qt::PreciseTimer, context, std::move(work));
        },
        Qt::QueuedConnection);
}

} // namespace tarn
