#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "rovalis/Date.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

// A fix comes from outside (gpsd, the simulated device, a host's location manager), so every
// fix the platform hands over passes this one check before anything else looks at it. It is
// refused when its timestamp, position, horizontal accuracy, speed, course or altitude is not
// a finite number, its position is off the globe, or its horizontal accuracy is negative (the
// platform's mark of an invalid fix). Speed and course of -1 are the platform's "unknown" and
// pass; the vertical accuracy is neither stored nor used, so it is not checked. A refused fix
// would stop the process in the events, or poison the stay detector's centre with a NaN.
//
// What is wrong with the fix, or nothing when it is usable.
std::optional<std::string> fixDefect(const Location& fix);

// The paths by which fixes enter the SDK, as the console names them.
inline constexpr std::string_view regularUpdatesPath = "regular updates";
inline constexpr std::string_view significantChangesPath = "significant-change updates";
inline constexpr std::string_view pauseBurstPath = "the pause burst";
inline constexpr std::string_view lastKnownLocationPath = "the last known location of a sleep or wake-up";

// True for a usable fix. A refused one is dropped with one console line,
// "dropped a location fix from <path>: <what is wrong>", and gives false.
bool acceptFixFrom(std::string_view path, const Location& fix);

// The rule by which a tracker accepts a usable fix: accurate enough, then recent enough. Both
// limits are inclusive: a fix exactly at the limit is kept.
class LocationVerifier {
public:
    virtual ~LocationVerifier() = default;

    // Metres.
    virtual double maximumHorizontalAccuracy() const = 0;
    // Seconds.
    virtual double maximumAge() const = 0;

    bool isAccurate(const Location& location) const {
        return location.horizontalAccuracy <= maximumHorizontalAccuracy();
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
