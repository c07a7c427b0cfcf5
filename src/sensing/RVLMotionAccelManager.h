#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/Executor.h"
#include "rovalis/platform/Device.h"
#include "rovalis/platform/Motion.h"
#include "upload/RVLCommons.h"

namespace rovalis {

// The tracker of the motion sensors. While the SDK is awake it samples the accelerometer 20
// times a second and records each sample's magnitude as an Acceleration event, and it
// records each classification of the motion-activity service as an IOSActivity event.
//
// Tracker calls come from the main run loop. Samples arrive on the main run loop too, which
// wakes for every location fix anyway: a queue of their own cost a thread hand-off for every
// group the device hands over (a second's worth), for the few microseconds of turning them
// into magnitudes and adding them to the acceleration buffer. Classifications arrive on the
// queue "core-motion-activity-updates". Both write straight into the event store, the
// samples a group at a time as the platform hands them over.
class RVLMotionAccelManager final : public RVLTracker {
public:
    using QueueFactory = std::function<std::shared_ptr<Executor>(const std::string& label)>;

    static constexpr const char* activityQueueLabel = "core-motion-activity-updates";
    // Seconds between two samples. The platform's setting is a single-precision 0.05
    // widened to double, and that is the value it is given.
    static constexpr double accelerometerUpdateInterval = static_cast<double>(0.05f);

    // Runs setup. motionManager and activityManager may be empty on a device without them.
    // mainQueue is the main run loop; makeQueue makes a named serial queue with a thread of
    // its own.
    static std::shared_ptr<RVLMotionAccelManager> create(
        std::shared_ptr<RVLEventInsertable> eventInsertable, std::shared_ptr<MotionManagerType> motionManager,
        std::shared_ptr<MotionActivityManagerType> activityManager,
        std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userDefaultsManager,
        std::shared_ptr<RVLDateSource> dateSource, std::shared_ptr<SystemStateType> systemState,
        std::shared_ptr<Executor> mainQueue, QueueFactory makeQueue);

    // Stops both updates and waits for samples or a classification being recorded.
    ~RVLMotionAccelManager() override;
    RVLMotionAccelManager(const RVLMotionAccelManager&) = delete;
    RVLMotionAccelManager& operator=(const RVLMotionAccelManager&) = delete;

    // RVLTracker
    void setup() override;
    void start() override {}
    // Leaves the sensors alone until the user has activated tracking once: before that,
    // nothing of this tracker has been started by the SDK.
    void stop() override;
    void halt() override { stop(); }
    void speedUp() override;
    void slowDown(const std::optional<Location>& centerLocation) override;

    // Restarts sampling, delivered on the main queue.
    void startAccelerometer();
    void stopAccelerometer();
    // Only with activity authorized and available.
    void startMotionActivity();
    void stopMotionActivity();

    // Records one sample (in m/s^2, time in seconds since boot). A sample whose magnitude
    // or time cannot be written is dropped.
    void processAcceleration(const AccelerationVector& acceleration, double timestamp) const;
    // Records the samples the platform handed over together, as one group.
    void processAccelerations(std::span<const AccelerometerData> samples) const;
    void insertActivity(const MotionActivity& activity) const;
    // The wall-clock date of a sample time counted in seconds since boot.
    Date epochTimestampFromAccelerationTimestampInMilliseconds(double timestamp) const;

    bool motionActivityActive() const { return motionActivityActive_; }

private:
    struct Recorder;

    RVLMotionAccelManager(std::shared_ptr<Recorder> recorder, std::shared_ptr<MotionManagerType> motionManager,
                          std::shared_ptr<MotionActivityManagerType> activityManager,
                          std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userDefaultsManager,
                          std::shared_ptr<Executor> mainQueue, QueueFactory makeQueue);

    bool activityAuthorized() const;
    // Lets what is queued on the queue, and a handler running there, finish.
    static void drain(const std::shared_ptr<Executor>& queue);

    // What the handlers need, held by them weakly: they never keep the manager's parts
    // alive, so the manager and its queues are always released where the manager is.
    const std::shared_ptr<Recorder> recorder_;
    const std::shared_ptr<MotionManagerType> motionManager_;
    const std::shared_ptr<MotionActivityManagerType> activityManager_;
    const std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userDefaultsManager_;
    const std::shared_ptr<Executor> mainQueue_;
    const QueueFactory makeQueue_;
    bool motionActivityActive_ = false;
    std::shared_ptr<Executor> activityQueue_;
};

}  // namespace rovalis
