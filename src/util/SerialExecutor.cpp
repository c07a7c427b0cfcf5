#include "util/SerialExecutor.h"

#include <pthread.h>

#include "util/WorkTracker.h"

namespace rovalis {

SerialExecutor::SerialExecutor(std::string label, std::shared_ptr<WorkTracker> tracker)
    : label_(std::move(label)), tracker_(std::move(tracker)) {
    thread_ = std::thread([this] { run(); });
    // Thread names are limited to 15 characters; the tail of a label is its most telling part.
    const std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
    pthread_setname_np(thread_.native_handle(), name.c_str());
}

SerialExecutor::~SerialExecutor() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void SerialExecutor::async(std::function<void()> task) {
    if (tracker_) tracker_->begin();
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

void SerialExecutor::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    async([&] {
        task();
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
}

bool SerialExecutor::isCurrent() const {
    return std::this_thread::get_id() == thread_.get_id();
}

void SerialExecutor::run() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) return;  // stopping, and everything queued has run
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
        if (tracker_) tracker_->end();
    }
}

}  // namespace rovalis
