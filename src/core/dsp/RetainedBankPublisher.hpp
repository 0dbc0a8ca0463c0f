#pragma once

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <vector>

#include "core/dsp/UptimeClock.hpp"

namespace tarn {

// Publishes immutable banks to the real-time thread through one atomic pointer and keeps every
// replaced bank alive for at least `retentionSeconds` after its replacement, so the audio thread
// can finish a block with the bank it loaded and never frees (or reference-counts) anything.
// publish() and the retained list belong to the control thread; current() is the real-time read.
template <typename Bank>
class RetainedBankPublisher {
public:
    static constexpr double retentionSeconds = 1.0;

    struct Retained {
        std::shared_ptr<const Bank> bank;
        double retiredAt;
    };

    explicit RetainedBankPublisher(UptimeClock clock = {}) : clock_(std::move(clock)) {}
    RetainedBankPublisher(const RetainedBankPublisher&) = delete;
    RetainedBankPublisher& operator=(const RetainedBankPublisher&) = delete;

    void publish(std::shared_ptr<const Bank> bank) {
        const double now = clock_.now();
        if (!retained_.empty()) retained_.back().retiredAt = now;
        std::erase_if(retained_, [now](const Retained& r) { return now - r.retiredAt > retentionSeconds; });
        const Bank* raw = bank.get();
        retained_.push_back({std::move(bank), std::numeric_limits<double>::infinity()});
        active_.store(raw);
    }

    // Real-time thread: the bank to use for this block (nullptr before the first publish).
    const Bank* current() const { return active_.load(std::memory_order_acquire); }

    const std::vector<Retained>& retained() const { return retained_; }
    void setClock(UptimeClock clock) { clock_ = std::move(clock); }

private:
    UptimeClock clock_;
    std::atomic<const Bank*> active_{nullptr};
    std::vector<Retained> retained_;
};

} // namespace tarn
