#include "util/ThreadRunLoop.h"

#include <pthread.h>

#include <chrono>

#include "util/RunLoopQueue.h"

namespace rovalis {

namespace {
// The longest the loop sleeps without looking at the date source again, so that a clock
// that jumps (a changed system time, a resumed machine) delays a timer by at most this.
constexpr auto kMaximumWait = std::chrono::seconds(1);
}  // namespace

ThreadRunLoop::ThreadRunLoop(std::shared_ptr<const RVLDateSource> dateSource, std::string threadName)
    : queue_(std::make_shared<RunLoopQueue>(std::move(dateSource))) {
    // The thread holds the queue itself, not the loop, so that it can outlive the loop.
    thread_ = std::thread([queue = queue_] { run(*queue); });
    if (threadName.size() > 15) threadName.resize(15);
    pthread_setname_np(thread_.native_handle(), threadName.c_str());
}

ThreadRunLoop::~ThreadRunLoop() {
    queue_->stop();
    if (!thread_.joinable()) return;
    // The last owner may let go of the loop from one of the loop's own tasks; the thread
    // cannot wait for itself, so it is left to finish that task and what is queued, and end.
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void ThreadRunLoop::run(RunLoopQueue& queue) {
    queue.setRunner(std::this_thread::get_id());
    while (!queue.stopped()) {
        while (!queue.stopped() && queue.runOne()) {
        }
        queue.waitForWork(kMaximumWait);
    }
    while (queue.runOneTask()) {
    }
    queue.setRunner(std::thread::id());
}

void ThreadRunLoop::async(std::function<void()> task) { queue_->post(std::move(task)); }

void ThreadRunLoop::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    queue_->postAndWait(task);
}

bool ThreadRunLoop::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

std::shared_ptr<RunLoopTimer> ThreadRunLoop::scheduleTimer(double intervalSeconds, bool repeats,
                                                           std::function<void()> callback) {
    return queue_->scheduleTimer(intervalSeconds, repeats, std::move(callback));
}

Date ThreadRunLoop::now() const { return queue_->now(); }

}  // namespace rovalis
