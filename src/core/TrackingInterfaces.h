#pragma once

// The small interfaces through which trackers and operations reach the tracking state.

#include <cstdint>
#include <optional>
#include <string>

#include "rovalis/platform/Location.h"

namespace rovalis {

// Every tracker. The tracking core keeps them in a fixed order and calls the same
// operation on all of them, on the main run loop.
class RVLTracker {
public:
    virtual ~RVLTracker() = default;
    virtual void setup() = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void halt() = 0;
    virtual void speedUp() = 0;
    virtual void slowDown(const std::optional<Location>& centerLocation) = 0;
};

// Optional for a tracker: writes its state when settings change.
class RVLStatePersistable {
public:
    virtual ~RVLStatePersistable() = default;
    virtual void persistStateWithForced(bool forced) = 0;
};

// Optional for a tracker: ends what it has under way when tracking is being switched off,
// before the switch-off is recorded, so that nothing it records lands after the switch-off.
class RVLTrackingStopPreparable {
public:
    virtual ~RVLTrackingStopPreparable() = default;
    virtual void trackingWillStop() = 0;
};

class RVLTrackingStateChangeable {
public:
    virtual ~RVLTrackingStateChangeable() = default;
    virtual void initializeTracking() = 0;
    virtual void startTrackingWithForced(bool forced) = 0;
    virtual void stopTrackingWithReason(std::int64_t reason) = 0;
};

class RVLSleepAwakeState {
public:
    virtual ~RVLSleepAwakeState() = default;
    virtual bool isAsleep() const = 0;
};

// Requests made by trackers (a stay detected, a geofence left).
class RVLInitiateSleepType {
public:
    virtual ~RVLInitiateSleepType() = default;
    virtual void initiateSleepWithReason(const std::string& reason) = 0;
};

class RVLInitiateWakeUpType {
public:
    virtual ~RVLInitiateWakeUpType() = default;
    virtual void initiateWakeUpWithReason(const std::string& reason,
                                          const std::optional<Location>& lastKnownLocation) = 0;
};

// The execution of a transition, called by the slow-down and speed-up operations.
class RVLSleepable {
public:
    virtual ~RVLSleepable() = default;
    virtual void sleepWithCenterLocation(const std::optional<Location>& center, const std::string& reason) = 0;
};

class RVLWakeupable {
public:
    virtual ~RVLWakeupable() = default;
    virtual void wakeUpWithReason(const std::string& reason, bool forced) = 0;
};

class RVLLocationUpdateReceiver {
public:
    virtual ~RVLLocationUpdateReceiver() = default;
    virtual void didUpdateLocation(const Location& location, const std::string& provider) = 0;
    virtual std::optional<Location> lastLocation() const = 0;
    // A fix another component stored as a waypoint itself (the location burst around a sleep
    // or wake-up); the host hears of it as of every stored waypoint. Nothing by default.
    virtual void didStoreWaypoint(const Location& /*location*/) {}
};

}  // namespace rovalis
