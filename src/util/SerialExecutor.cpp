#include "util/SerialExecutor.h"

#include <pthread.h>

#include "util/WorkTracker.h"

namespace rovalis {

SerialExecutor::SerialExecutor(std::string label, std::shared_ptr<WorkTracker> tracker)
    : label_(std::move(label)), queue_(std::make_shared<Queue>()) {
    queue_->tracker = std::move(tracker);
    thread_ = std::thread([queue = queue_] { run(*queue); });
    // Thread names are limited to 15 characters; the tail of a label is its most telling part.
    const std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
    pthread_setname_np(thread_.native_handle(), name.c_str());
}

SerialExecutor::~SerialExecutor() {
    {
        std::lock_guard lock(queue_->mutex);
        queue_->stopping = true;
    }
    queue_->wake.notify_one();
    if (!thread_.joinable()) return;
    // A task that held the last owner (a hand-over that kept a host's queue alive, say) ends
    // it on this very thread, which cannot wait for itself.
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void SerialExecutor::async(std::function<void()> task) {
    if (queue_->tracker) queue_->tracker->begin();
    {
        std::lock_guard lock(queue_->mutex);
        queue_->tasks.push_back(std::move(task));
    }
    queue_->wake.notify_one();
}

// Like a dispatch queue, sync runs the task on the calling thread while the queue is held
// at the task's place in line: everything queued before it has run, nothing queued after
// it starts until it returns. The caller is spared two thread switches, and what the task
// allocates for its caller is allocated by the thread that will free it.
void SerialExecutor::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    struct Handover {
        std::mutex mutex;
        std::condition_variable signal;
        bool reached = false;
        bool finished = false;
    };
    const auto handover = std::make_shared<Handover>();
    async([handover] {
        std::unique_lock lock(handover->mutex);
        handover->reached = true;
        handover->signal.notify_all();
        handover->signal.wait(lock, [&] { return handover->finished; });
    });
    {
        std::unique_lock lock(handover->mutex);
        handover->signal.wait(lock, [&] { return handover->reached; });
    }
    borrower_.store(std::this_thread::get_id());
    // Hands the queue back however the task ends.
    struct Release {
        SerialExecutor& executor;
        Handover& handover;
        ~Release() {
            executor.borrower_.store(std::thread::id());
            std::lock_guard lock(handover.mutex);
            handover.finished = true;
            handover.signal.notify_all();
        }
    } release{*this, *handover};
    task();
}

bool SerialExecutor::isCurrent() const {
    const auto self = std::this_thread::get_id();
    return self == thread_.get_id() || self == borrower_.load();
}

void SerialExecutor::run(Queue& queue) {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(queue.mutex);
            queue.wake.wait(lock, [&] { return queue.stopping || !queue.tasks.empty(); });
            if (queue.tasks.empty()) return;  // stopping, and everything queued has run
            task = std::move(queue.tasks.front());
            queue.tasks.pop_front();
        }
        task();
        // The task's captures go before its work counts as done.
        task = nullptr;
        if (queue.tracker) queue.tracker->end();
    }
}

}  // namespace rovalis
