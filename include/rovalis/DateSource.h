#pragma once

#include <atomic>

#include "rovalis/Date.h"

namespace rovalis {

// Gives "now". Every component that takes a time gets one injected, so that time can be
// controlled by tests and by the simulated device.
class RVLDateSource {
public:
    virtual ~RVLDateSource() = default;
    virtual Date now() const = 0;
};

// The wall clock. The only place besides the production run loop that reads it.
class SystemDateSource final : public RVLDateSource {
public:
    Date now() const override;
};

// A clock that moves only when told to. Safe to read and set from any thread.
class SettableDateSource final : public RVLDateSource {
public:
    explicit SettableDateSource(Date start = Date{1700000000.0}) : seconds_(start.secondsSince1970) {}

    Date now() const override { return Date{seconds_.load()}; }
    void setNow(Date date) { seconds_.store(date.secondsSince1970); }
    void advance(double seconds);

private:
    std::atomic<double> seconds_;
};

}  // namespace rovalis
