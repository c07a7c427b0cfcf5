#include "util/VirtualRunLoop.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>

#include "util/Fatal.h"
#include "util/RunLoopQueue.h"
#include "util/WorkTracker.h"

namespace rovalis {

VirtualRunLoop::VirtualRunLoop(std::shared_ptr<SettableDateSource> clock, std::shared_ptr<WorkTracker> tracker)
    : clock_(std::move(clock)),
      tracker_(std::move(tracker)),
      queue_(std::make_shared<RunLoopQueue>(clock_)),
      owner_(std::this_thread::get_id()) {
    if (!clock_) fatalError("VirtualRunLoop needs a clock");
    if (tracker_) idleListener_ = tracker_->addIdleListener([queue = queue_] { queue->wake(); });
}

VirtualRunLoop::~VirtualRunLoop() {
    if (tracker_) tracker_->removeIdleListener(idleListener_);
}

template <typename Body>
void VirtualRunLoop::drive(Body&& body) {
    if (queue_->isCurrent()) fatalError("VirtualRunLoop was asked to run from one of its own tasks");
    std::lock_guard lock(driving_);
    struct RunnerScope {
        RunLoopQueue& queue;
        explicit RunnerScope(RunLoopQueue& q) : queue(q) { queue.setRunner(std::this_thread::get_id()); }
        ~RunnerScope() { queue.setRunner(std::thread::id()); }
    } scope(*queue_);
    body();
}

void VirtualRunLoop::async(std::function<void()> task) { queue_->post(std::move(task)); }

void VirtualRunLoop::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    struct Completion {
        std::mutex mutex;
        std::condition_variable signal;
        bool done = false;
    } completion;
    queue_->post([&] {
        task();
        std::lock_guard lock(completion.mutex);
        completion.done = true;
        completion.signal.notify_all();
    });
    if (std::this_thread::get_id() == owner_) {
        drive([&] {
            for (;;) {
                {
                    std::lock_guard lock(completion.mutex);
                    if (completion.done) return;
                }
                if (!queue_->runOneTask()) return;
            }
        });
        return;
    }
    std::unique_lock lock(completion.mutex);
    completion.signal.wait(lock, [&] { return completion.done; });
}

bool VirtualRunLoop::isCurrent() const { return queue_->isCurrent(); }

std::shared_ptr<RunLoopTimer> VirtualRunLoop::scheduleTimer(double intervalSeconds, bool repeats,
                                                            std::function<void()> callback) {
    return queue_->scheduleTimer(intervalSeconds, repeats, std::move(callback));
}

bool VirtualRunLoop::waitForTrackedWork() {
    // The tracker wakes the queue when its work ends, and a post wakes it too, so the wait
    // sleeps until one of them happens. The bound only covers a clock set from another
    // thread, which wakes nobody.
    const auto bound = std::chrono::milliseconds(100);
    for (;;) {
        const std::uint64_t seen = queue_->changes();
        if (tracker_->isIdle()) return true;
        if (queue_->hasDueWork()) return false;
        queue_->waitForChangeSince(seen, bound);
    }
}

void VirtualRunLoop::runDueWork() {
    for (;;) {
        while (queue_->runOne()) {
        }
        if (!tracker_) return;
        // Idle here means: no tracked work anywhere, and nothing it posted is left to run.
        if (waitForTrackedWork() && !queue_->hasDueWork()) return;
    }
}

void VirtualRunLoop::runUntilIdle() {
    drive([this] { runDueWork(); });
}

void VirtualRunLoop::fastForwardBy(double seconds) {
    drive([this, seconds] {
        const Date end = clock_->now().addingSeconds(std::max(seconds, 0.0));
        for (;;) {
            runDueWork();
            const auto next = queue_->nextTimerDate();
            if (!next || *next > end) break;
            if (*next > clock_->now()) clock_->setNow(*next);
        }
        if (end > clock_->now()) clock_->setNow(end);
        runDueWork();
    });
}

std::optional<double> VirtualRunLoop::nextPendingDelay() const {
    if (queue_->hasDueWork()) return 0.0;
    const auto next = queue_->nextTimerDate();
    if (!next) return std::nullopt;
    return std::max(0.0, next->timeIntervalSince(clock_->now()));
}

bool VirtualRunLoop::hasPendingTasks() const { return queue_->hasDueWork(); }

std::shared_ptr<WorkTracker> workTrackerOf(const std::shared_ptr<RunLoop>& mainRunLoop) {
    const auto* virtualLoop = dynamic_cast<const VirtualRunLoop*>(mainRunLoop.get());
    return virtualLoop ? virtualLoop->workTracker() : nullptr;
}

}  // namespace rovalis
