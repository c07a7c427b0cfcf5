#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "rovalis/DateSource.h"
#include "rovalis/RunLoop.h"

namespace rovalis {

// The posted tasks and timers of one run loop, without a policy for who runs them or when
// time moves: ThreadRunLoop drives it from a thread of its own on the real clock,
// VirtualRunLoop from a test or simulator thread on a settable clock. Thread-safe; the
// run* members are called only by the thread that currently drives the loop.
class RunLoopQueue : public std::enable_shared_from_this<RunLoopQueue> {
public:
    explicit RunLoopQueue(std::shared_ptr<const RVLDateSource> dateSource);

    Date now() const { return dateSource_->now(); }

    void post(std::function<void()> task);
    // Posts the task and blocks the caller until the loop's runner has run it. Not for the
    // runner itself.
    void postAndWait(const std::function<void()>& task);
    std::shared_ptr<RunLoopTimer> scheduleTimer(double intervalSeconds, bool repeats, std::function<void()> callback);

    // Runs the oldest posted task, or else the earliest timer that is due at now(). Returns
    // false when nothing was there to run.
    bool runOne();
    // Runs the oldest posted task only.
    bool runOneTask();

    bool hasTasks() const;
    // True when runOne would run something.
    bool hasDueWork() const;
    // Due time of the earliest valid timer.
    std::optional<Date> nextTimerDate() const;

    // Blocks until a task is posted, a timer is scheduled, stop() is called, or maxWait has
    // passed; returns at once if a task is waiting or a timer is due.
    void waitForWork(std::chrono::steady_clock::duration maxWait);

    // Counts the changes that may give the runner something to do: posts, timers, stop(),
    // wake(). A runner reads it before it looks for a reason to run, then waits for a
    // change since, so that a change in between is never missed.
    std::uint64_t changes() const;
    void waitForChangeSince(std::uint64_t seen, std::chrono::steady_clock::duration maxWait);
    // A change that is none of the queue's own: something the runner also waits for.
    void wake();
    void stop();
    bool stopped() const;

    // The thread that drives the loop at the moment (default id: nobody).
    void setRunner(std::thread::id runner) { runner_.store(runner); }
    std::thread::id runner() const { return runner_.load(); }
    bool isCurrent() const { return runner_.load() == std::this_thread::get_id(); }

private:
    class Timer;

    // Earliest valid timer due at or before `at`; drops invalid ones. Needs mutex_.
    std::shared_ptr<Timer> earliestTimerLocked(std::optional<Date> at);

    const std::shared_ptr<const RVLDateSource> dateSource_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    std::vector<std::shared_ptr<Timer>> timers_;
    std::uint64_t nextSequence_ = 0;
    std::uint64_t generation_ = 0;
    bool stopped_ = false;
    std::atomic<std::thread::id> runner_{};
};

}  // namespace rovalis
