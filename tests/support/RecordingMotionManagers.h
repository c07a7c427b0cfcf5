#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "rovalis/platform/Motion.h"

namespace rovalis::test {

// In-memory motion managers: they log every changing call, keep the queue and handler of
// the running updates, and let the test deliver samples and classifications on that queue
// the way the platform would.
class RecordingMotionManager final : public MotionManagerType {
public:
    bool isAccelerometerAvailable() const override { return available_; }
    bool isAccelerometerActive() const override {
        std::lock_guard lock(mutex_);
        return handler_ != nullptr;
    }
    double accelerometerUpdateInterval() const override { return interval_; }
    void setAccelerometerUpdateInterval(double seconds) override {
        interval_ = seconds;
        log("setAccelerometerUpdateInterval");
    }
    void startAccelerometerUpdates(std::shared_ptr<Executor> queue, AccelerometerHandler handler) override {
        std::lock_guard lock(mutex_);
        queue_ = std::move(queue);
        handler_ = std::move(handler);
        calls_.push_back("startAccelerometerUpdates");
    }
    void stopAccelerometerUpdates() override {
        std::lock_guard lock(mutex_);
        queue_.reset();
        handler_ = nullptr;
        calls_.push_back("stopAccelerometerUpdates");
    }

    void setAvailable(bool available) { available_ = available; }
    // Queues the sample for the handler; false when no updates are running.
    bool deliver(const AccelerometerData& sample) {
        std::lock_guard lock(mutex_);
        if (!handler_) return false;
        queue_->async([handler = handler_, sample] { handler(sample); });
        return true;
    }
    // The queue and handler of the running updates, if any.
    std::shared_ptr<Executor> queue() const {
        std::lock_guard lock(mutex_);
        return queue_;
    }
    AccelerometerHandler handler() const {
        std::lock_guard lock(mutex_);
        return handler_;
    }
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void log(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }

    mutable std::mutex mutex_;
    bool available_ = true;
    double interval_ = 0.01;
    std::shared_ptr<Executor> queue_;
    AccelerometerHandler handler_;
    std::vector<std::string> calls_;
};

class RecordingMotionActivityManager final : public MotionActivityManagerType {
public:
    bool isActivityAvailable() const override { return available_; }
    MotionAuthorizationStatus authorizationStatus() const override { return status_; }
    void startActivityUpdates(std::shared_ptr<Executor> queue, ActivityHandler handler) override {
        std::lock_guard lock(mutex_);
        queue_ = std::move(queue);
        handler_ = std::move(handler);
        calls_.push_back("startActivityUpdates");
    }
    void stopActivityUpdates() override {
        std::lock_guard lock(mutex_);
        queue_.reset();
        handler_ = nullptr;
        calls_.push_back("stopActivityUpdates");
    }

    void setAvailable(bool available) { available_ = available; }
    void setAuthorizationStatus(MotionAuthorizationStatus status) { status_ = status; }
    bool deliver(const MotionActivity& activity) {
        std::lock_guard lock(mutex_);
        if (!handler_) return false;
        queue_->async([handler = handler_, activity] { handler(activity); });
        return true;
    }
    std::shared_ptr<Executor> queue() const {
        std::lock_guard lock(mutex_);
        return queue_;
    }
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    bool available_ = true;
    MotionAuthorizationStatus status_ = MotionAuthorizationStatus::authorized;
    std::shared_ptr<Executor> queue_;
    ActivityHandler handler_;
    std::vector<std::string> calls_;
};

}  // namespace rovalis::test
