#pragma once

#include <compare>

namespace rovalis {

// A point in time: seconds since 1970-01-01 UTC as a double, like the platform dates
// the system's events are stamped with.
struct Date {
    double secondsSince1970 = 0.0;

    // The platform's sentinel dates (0001-01-01 and 4001-01-01 UTC).
    static constexpr Date distantPast() { return Date{-62135769600.0}; }
    static constexpr Date distantFuture() { return Date{64092211200.0}; }

    constexpr Date addingSeconds(double seconds) const { return Date{secondsSince1970 + seconds}; }
    constexpr double timeIntervalSince(Date other) const { return secondsSince1970 - other.secondsSince1970; }

    friend constexpr auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace rovalis
