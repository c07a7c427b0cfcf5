#pragma once

#include <cstdint>
#include <optional>

#include "rovalis/Date.h"
#include "rovalis/Error.h"
#include "rovalis/Export.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

// The host's delegate: told of tracking-state changes and of the location authorization.
// Every call arrives on the main run loop.
//
// The optional callbacks are separate interfaces that a delegate may also implement; the
// SDK calls one only when the delegate implements it.
class ROVALIS_EXPORT RovalisDelegate {
public:
    virtual ~RovalisDelegate() = default;

    // Tracking is now on (true) or off; also called with false when a start is refused.
    virtual void trackingStatusChanged(bool isTracking) = 0;
    // The platform's raw authorization status and whether locations are precise.
    virtual void locationAuthorizationStatusDidChange(std::int32_t status, bool precise) = 0;
};

class ROVALIS_EXPORT RovalisMotionActivityDelegate {
public:
    virtual ~RovalisMotionActivityDelegate() = default;
    virtual void motionActivityAuthorized(bool authorized) = 0;
};

class ROVALIS_EXPORT RovalisLocationDelegate {
public:
    virtual ~RovalisLocationDelegate() = default;
    // A fix that was just stored as a waypoint.
    virtual void didTrackLocation(const Location& location) = 0;
};

class ROVALIS_EXPORT RovalisDataUploadDelegate {
public:
    virtual ~RovalisDataUploadDelegate() = default;
    // After each upload: the times of its oldest and newest events, and the error if it failed.
    virtual void dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) = 0;
};

}  // namespace rovalis
