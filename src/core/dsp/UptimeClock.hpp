#pragma once

#include <functional>

namespace tarn {

// A monotonic clock in seconds. Types that age things (retired coefficient banks) take one, so
// tests can move time forward without sleeping.
struct UptimeClock {
    std::function<double()> now = &UptimeClock::systemUptimeSeconds;

    // Seconds on the system's monotonic clock (unaffected by wall-clock changes).
    static double systemUptimeSeconds();
};

} // namespace tarn
