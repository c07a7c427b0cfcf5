#include "util/ExecutorRunLoop.h"

#include <condition_variable>
#include <mutex>

#include "util/RunLoopQueue.h"

namespace rovalis {

namespace {
// The longest the watcher sleeps without looking at the date source again.
constexpr auto kMaximumWait = std::chrono::seconds(1);
}  // namespace

// Shared with the hand-overs queued on the host's executor, which may run after the loop is
// gone.
struct ExecutorRunLoop::State {
    State(std::shared_ptr<Executor> host, std::shared_ptr<const RVLDateSource> dateSource)
        : hostQueue(std::move(host)), queue(std::make_shared<RunLoopQueue>(std::move(dateSource))) {}

    // Runs on the host's queue: everything that can run now.
    void drain() {
        queue->setRunner(std::this_thread::get_id());
        while (!queue->stopped() && queue->runOne()) {
        }
        queue->setRunner(std::thread::id());
        std::lock_guard lock(mutex);
        drainQueued = false;
        drained.notify_all();
    }

    const std::shared_ptr<Executor> hostQueue;
    const std::shared_ptr<RunLoopQueue> queue;
    std::mutex mutex;
    std::condition_variable drained;
    bool drainQueued = false;
    bool stopping = false;
};

ExecutorRunLoop::ExecutorRunLoop(std::shared_ptr<Executor> hostQueue, std::shared_ptr<const RVLDateSource> dateSource)
    : state_(std::make_shared<State>(std::move(hostQueue), std::move(dateSource))) {
    watcher_ = std::thread([state = state_] {
        std::unique_lock lock(state->mutex);
        while (!state->stopping) {
            if (state->drainQueued) {
                state->drained.wait(lock);
                continue;
            }
            lock.unlock();
            if (!state->queue->hasDueWork()) state->queue->waitForWork(kMaximumWait);
            const bool due = state->queue->hasDueWork();
            lock.lock();
            if (due && !state->stopping) {
                state->drainQueued = true;
                state->hostQueue->async([state] { state->drain(); });
            }
        }
    });
}

ExecutorRunLoop::~ExecutorRunLoop() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        state_->drained.notify_all();
    }
    state_->queue->stop();
    watcher_.join();
}

void ExecutorRunLoop::async(std::function<void()> task) { state_->queue->post(std::move(task)); }

void ExecutorRunLoop::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    state_->queue->postAndWait(task);
}

bool ExecutorRunLoop::isCurrent() const { return state_->queue->isCurrent() || state_->hostQueue->isCurrent(); }

std::shared_ptr<RunLoopTimer> ExecutorRunLoop::scheduleTimer(double intervalSeconds, bool repeats,
                                                             std::function<void()> callback) {
    return state_->queue->scheduleTimer(intervalSeconds, repeats, std::move(callback));
}

Date ExecutorRunLoop::now() const { return state_->queue->now(); }

}  // namespace rovalis
