#pragma once

#include "rovalis/Date.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

// The rule by which a tracker accepts a fix: accurate enough, then recent enough. Both
// limits are inclusive: a fix exactly at the limit is kept.
class LocationVerifier {
public:
    virtual ~LocationVerifier() = default;

    // Metres.
    virtual double maximumHorizontalAccuracy() const = 0;
    // Seconds.
    virtual double maximumAge() const = 0;

    // A negative (or undefined) accuracy is the platform's mark of an invalid fix; such a
    // fix has no position worth keeping, and the location events refuse it.
    bool isAccurate(const Location& location) const {
        return location.horizontalAccuracy >= 0.0 && !(location.horizontalAccuracy > maximumHorizontalAccuracy());
    }
    bool isRecent(const Location& location, Date now) const {
        return !(now.timeIntervalSince(location.timestamp) > maximumAge());
    }
    bool verify(const Location& location, Date now) const { return isAccurate(location) && isRecent(location, now); }
};

// Takes one fix that passed its tracker's verification.
class LocationProcessor {
public:
    virtual ~LocationProcessor() = default;
    virtual void processLocation(const Location& location) = 0;
};

}  // namespace rovalis
