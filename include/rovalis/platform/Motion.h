#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "rovalis/Date.h"
#include "rovalis/Executor.h"
#include "rovalis/Export.h"

namespace rovalis {

// One accelerometer sample: acceleration along the device's three axes in units of g, and
// the sample time in seconds since the device booted.
struct AccelerometerData {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
    double timestamp = 0.0;
};

// The device's accelerometer, one to one with the platform's motion manager. Used from the
// main run loop; samples arrive on the queue given to startAccelerometerUpdates, oldest
// first, in groups of those the device hands over at once (a second's worth, or one), so
// that a group costs the SDK one hand-over rather than one per sample.
class ROVALIS_EXPORT MotionManagerType {
public:
    using AccelerometerHandler = std::function<void(std::span<const AccelerometerData> samples)>;

    virtual ~MotionManagerType() = default;

    virtual bool isAccelerometerAvailable() const = 0;
    virtual bool isAccelerometerActive() const = 0;
    // Seconds between two samples.
    virtual double accelerometerUpdateInterval() const = 0;
    virtual void setAccelerometerUpdateInterval(double seconds) = 0;
    // Replaces any running updates. The queue is held until the updates stop.
    virtual void startAccelerometerUpdates(std::shared_ptr<Executor> queue, AccelerometerHandler handler) = 0;
    virtual void stopAccelerometerUpdates() = 0;
};

enum class MotionActivityConfidence : std::int32_t { low = 0, medium = 1, high = 2 };

// One classification of the platform's motion-activity service: when the activity began,
// how sure the classifier is, and which kinds it saw (several may be set at once).
struct MotionActivity {
    Date startDate;
    MotionActivityConfidence confidence = MotionActivityConfidence::low;
    bool stationary = false;
    bool walking = false;
    bool running = false;
    bool automotive = false;
    bool cycling = false;
    bool unknown = false;

    friend bool operator==(const MotionActivity&, const MotionActivity&) = default;
};

// The platform's raw values.
enum class MotionAuthorizationStatus : std::int32_t { notDetermined = 0, restricted = 1, denied = 2, authorized = 3 };

// The motion-activity classifier. Used from the main run loop; classifications arrive on
// the queue given to startActivityUpdates.
class ROVALIS_EXPORT MotionActivityManagerType {
public:
    using ActivityHandler = std::function<void(const MotionActivity& activity)>;

    virtual ~MotionActivityManagerType() = default;

    virtual bool isActivityAvailable() const = 0;
    virtual MotionAuthorizationStatus authorizationStatus() const = 0;
    // Replaces any running updates; the current activity is reported soon after the start.
    virtual void startActivityUpdates(std::shared_ptr<Executor> queue, ActivityHandler handler) = 0;
    virtual void stopActivityUpdates() = 0;
};

}  // namespace rovalis
