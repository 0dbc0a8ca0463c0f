#include "core/recommendation/SerialQueue.hpp"

#include <exception>

#include <pthread.h>

namespace tarn {

SerialQueue::SerialQueue(std::string label, std::string threadName) : label_(std::move(label)) {
    thread_ = std::thread([this, name = std::move(threadName)] { run(name); });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        timerTick_.reset();
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void SerialQueue::async(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_all();
}

void SerialQueue::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    std::exception_ptr failure;
    async([&] {
        try {
            task();
        } catch (...) {
            failure = std::current_exception();
        }
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_all();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
    if (failure) std::rethrow_exception(failure);
}

void SerialQueue::scheduleRepeating(Clock::duration firstDelay, Clock::duration interval, std::function<void()> tick) {
    {
        std::lock_guard lock(mutex_);
        timerTick_ = std::make_shared<std::function<void()>>(std::move(tick));
        timerDeadline_ = Clock::now() + firstDelay;
        timerInterval_ = interval;
    }
    wake_.notify_all();
}

void SerialQueue::cancelTimer() {
    {
        std::lock_guard lock(mutex_);
        timerTick_.reset();
    }
    wake_.notify_all();
}

bool SerialQueue::hasTimer() const {
    std::lock_guard lock(mutex_);
    return timerTick_ != nullptr;
}

void SerialQueue::run(std::string threadName) {
    pthread_setname_np(pthread_self(), threadName.substr(0, 15).c_str());
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!tasks_.empty()) {
            auto task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (stopping_) return;
        if (timerTick_) {
            const auto now = Clock::now();
            if (now >= timerDeadline_) {
                auto tick = timerTick_;
                timerDeadline_ += timerInterval_;
                if (timerDeadline_ <= now) timerDeadline_ = now + timerInterval_;
                lock.unlock();
                (*tick)();
                lock.lock();
                continue;
            }
            wake_.wait_until(lock, timerDeadline_);
        } else {
            wake_.wait(lock);
        }
    }
}

} // namespace tarn
