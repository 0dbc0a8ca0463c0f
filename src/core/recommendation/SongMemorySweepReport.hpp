#pragma once

namespace tarn {

// What one maintenance sweep of song memory removed and kept.
struct SongMemorySweepReport {
    int healthyKept = 0;
    int brokenRemoved = 0;
    int brokenKept = 0;
    int incompleteRemoved = 0;
    int incompleteSpared = 0;

    int totalRemoved() const { return brokenRemoved + incompleteRemoved; }
    int totalKept() const { return healthyKept + brokenKept + incompleteSpared; }

    bool operator==(const SongMemorySweepReport&) const = default;
};

} // namespace tarn
