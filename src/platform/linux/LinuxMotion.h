#pragma once

#include "rovalis/platform/Motion.h"

namespace rovalis {

// The motion services of a Linux machine. A laptop or desktop has no accelerometer the SDK
// can read in a portable way, and no motion-activity classifier at all, so both managers
// say their service is unavailable, keep no queue or handler, and never deliver. A reader
// of an industrial-I/O accelerometer (/sys/bus/iio) would take the motion manager's place
// on machines that have one.
class LinuxMotionManager final : public MotionManagerType {
public:
    bool isAccelerometerAvailable() const override { return false; }
    bool isAccelerometerActive() const override { return false; }
    double accelerometerUpdateInterval() const override { return updateInterval_; }
    void setAccelerometerUpdateInterval(double seconds) override { updateInterval_ = seconds; }
    void startAccelerometerUpdates(std::shared_ptr<Executor>, AccelerometerHandler) override {}
    void stopAccelerometerUpdates() override {}

private:
    double updateInterval_ = 0.0;
};

class LinuxMotionActivityManager final : public MotionActivityManagerType {
public:
    bool isActivityAvailable() const override { return false; }
    // There is no classifier whose use the user could grant.
    MotionAuthorizationStatus authorizationStatus() const override { return MotionAuthorizationStatus::restricted; }
    void startActivityUpdates(std::shared_ptr<Executor>, ActivityHandler) override {}
    void stopActivityUpdates() override {}
};

}  // namespace rovalis
