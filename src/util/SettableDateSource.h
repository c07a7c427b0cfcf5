#pragma once

#include <atomic>

#include "rovalis/DateSource.h"

namespace rovalis {

// A clock that moves only when told to: the virtual clock of the simulated device and of the
// tests. Safe to read and set from any thread.
class SettableDateSource final : public RVLDateSource {
public:
    explicit SettableDateSource(Date start = Date{1700000000.0}) : seconds_(start.secondsSince1970) {}

    Date now() const override { return Date{seconds_.load()}; }
    void setNow(Date date) { seconds_.store(date.secondsSince1970); }
    void advance(double seconds) {
        double current = seconds_.load();
        while (!seconds_.compare_exchange_weak(current, current + seconds)) {
        }
    }

private:
    std::atomic<double> seconds_;
};

}  // namespace rovalis
