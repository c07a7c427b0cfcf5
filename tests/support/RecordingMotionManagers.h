#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "rovalis/platform/Motion.h"

namespace rovalis::test {

// The queue and handler of running updates, and a log of the calls that change them. The
// test delivers on the queue, as the platform would.
template <typename Value>
class RecordedUpdates {
public:
    using Handler = std::function<void(const Value&)>;

    void start(std::shared_ptr<Executor> queue, Handler handler, const char* call) {
        std::lock_guard lock(mutex_);
        queue_ = std::move(queue);
        handler_ = std::move(handler);
        calls_.push_back(call);
    }
    void stop(const char* call) { start(nullptr, nullptr, call); }
    void log(const char* call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(call);
    }
    // Queues the value for the handler; false when no updates are running.
    bool deliver(const Value& value) {
        std::lock_guard lock(mutex_);
        if (!handler_) return false;
        queue_->async([handler = handler_, value] { handler(value); });
        return true;
    }
    std::shared_ptr<Executor> queue() const {
        std::lock_guard lock(mutex_);
        return queue_;
    }
    Handler handler() const {
        std::lock_guard lock(mutex_);
        return handler_;
    }
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Executor> queue_;
    Handler handler_;
    std::vector<std::string> calls_;
};

class RecordingMotionManager final : public MotionManagerType, public RecordedUpdates<AccelerometerData> {
public:
    bool isAccelerometerAvailable() const override { return true; }
    bool isAccelerometerActive() const override { return handler() != nullptr; }
    double accelerometerUpdateInterval() const override { return interval_; }
    void setAccelerometerUpdateInterval(double seconds) override {
        interval_ = seconds;
        log("setAccelerometerUpdateInterval");
    }
    void startAccelerometerUpdates(std::shared_ptr<Executor> queue, AccelerometerHandler handler) override {
        start(std::move(queue), std::move(handler), "startAccelerometerUpdates");
    }
    void stopAccelerometerUpdates() override { stop("stopAccelerometerUpdates"); }

private:
    double interval_ = 0.01;
};

class RecordingMotionActivityManager final : public MotionActivityManagerType,
                                             public RecordedUpdates<MotionActivity> {
public:
    bool isActivityAvailable() const override { return available; }
    MotionAuthorizationStatus authorizationStatus() const override { return status; }
    void startActivityUpdates(std::shared_ptr<Executor> queue, ActivityHandler handler) override {
        start(std::move(queue), std::move(handler), "startActivityUpdates");
    }
    void stopActivityUpdates() override { stop("stopActivityUpdates"); }

    bool available = true;
    MotionAuthorizationStatus status = MotionAuthorizationStatus::authorized;
};

}  // namespace rovalis::test
