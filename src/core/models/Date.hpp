#pragma once

#include <compare>

namespace tarn {

// A point in time stored the way every persisted document writes it: seconds since
// 2001-01-01 00:00:00 UTC, as a double, so that a value read back compares equal.
struct Date {
    double secondsSinceReferenceDate = 0.0;

    static constexpr double unixEpochOffset = 978307200.0; // 2001-01-01 in Unix seconds

    static Date now();
    static Date fromUnixSeconds(double unixSeconds) { return {unixSeconds - unixEpochOffset}; }
    double unixSeconds() const { return secondsSinceReferenceDate + unixEpochOffset; }

    auto operator<=>(const Date&) const = default;
};

} // namespace tarn
