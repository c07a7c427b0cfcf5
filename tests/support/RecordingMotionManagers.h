#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rovalis/platform/Motion.h"

namespace rovalis::test {

// The queue and handler of running updates, and a log of the calls that change them. All
// calls come from the test's thread; the test delivers on the queue, as the platform would.
// Value is what one delivery hands over; Handler what takes it.
template <typename Value, typename Handler = std::function<void(const Value&)>>
struct RecordedUpdates {
    void start(std::shared_ptr<Executor> newQueue, Handler newHandler, const char* call) {
        queue = std::move(newQueue);
        handler = std::move(newHandler);
        calls.push_back(call);
    }
    // Queues the value for the handler; false when no updates are running.
    bool deliver(const Value& value) {
        if (handler) queue->async([handler = handler, value] { handler(value); });
        return handler != nullptr;
    }

    std::shared_ptr<Executor> queue;
    Handler handler;
    std::vector<std::string> calls;
};

// Each delivery is a group of samples handed over at once.
struct RecordingMotionManager final
    : MotionManagerType,
      RecordedUpdates<std::vector<AccelerometerData>, MotionManagerType::AccelerometerHandler> {
    bool isAccelerometerAvailable() const override { return true; }
    bool isAccelerometerActive() const override { return handler != nullptr; }
    double accelerometerUpdateInterval() const override { return interval; }
    void setAccelerometerUpdateInterval(double seconds) override { interval = seconds; }
    void startAccelerometerUpdates(std::shared_ptr<Executor> queue, AccelerometerHandler handler) override {
        start(std::move(queue), std::move(handler), "startAccelerometerUpdates");
    }
    void stopAccelerometerUpdates() override { start(nullptr, nullptr, "stopAccelerometerUpdates"); }

    double interval = 0.01;
};

struct RecordingMotionActivityManager final : MotionActivityManagerType, RecordedUpdates<MotionActivity> {
    bool isActivityAvailable() const override { return available; }
    MotionAuthorizationStatus authorizationStatus() const override { return status; }
    void startActivityUpdates(std::shared_ptr<Executor> queue, ActivityHandler handler) override {
        start(std::move(queue), std::move(handler), "startActivityUpdates");
    }
    void stopActivityUpdates() override { start(nullptr, nullptr, "stopActivityUpdates"); }

    bool available = true;
    MotionAuthorizationStatus status = MotionAuthorizationStatus::authorized;
};

}  // namespace rovalis::test
