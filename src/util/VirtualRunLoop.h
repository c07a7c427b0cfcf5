#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "rovalis/RunLoop.h"
#include "util/SettableDateSource.h"

namespace rovalis {

class RunLoopQueue;
class WorkTracker;

// A main run loop on virtual time, for tests and the simulated device. Nothing runs by
// itself: tasks and timers run on the thread that calls runUntilIdle() or fastForwardBy(),
// and time moves only in fastForwardBy() (or when the clock is set from outside).
//
// With a WorkTracker, the loop waits for the tracked work on other executors to finish
// before it declares itself idle or moves the clock, and runs whatever that work posted in
// the meantime. A day of simulated time therefore replays the same way on every run.
//
// sync(): on the loop's own thread (inside a run) the task runs in place. From the thread
// that created the loop, outside a run, the queued tasks and then the task run in place on
// the caller, as a run without timers would run them. From any other thread the caller
// waits until the loop is next run and reaches the task; it does not deadlock a loop that
// is being run, even one that is waiting for the caller's tracked work.
class VirtualRunLoop final : public RunLoop {
public:
    explicit VirtualRunLoop(std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(),
                            std::shared_ptr<WorkTracker> tracker = nullptr);
    ~VirtualRunLoop() override;

    VirtualRunLoop(const VirtualRunLoop&) = delete;
    VirtualRunLoop& operator=(const VirtualRunLoop&) = delete;

    void async(std::function<void()> task) override;
    void sync(const std::function<void()>& task) override;
    bool isCurrent() const override;

    std::shared_ptr<RunLoopTimer> scheduleTimer(double intervalSeconds, bool repeats,
                                                std::function<void()> callback) override;
    Date now() const override { return clock_->now(); }

    // Runs every posted task and every timer due at the current virtual time, including what
    // those post or schedule, until nothing is left to run now. Does not move the clock.
    void runUntilIdle();

    // Moves the clock forward to each due timer in turn, running what is due at each step,
    // and finally to now + seconds.
    void fastForwardBy(double seconds);

    // Seconds until the next timer is due; 0 if something can run now; none if nothing
    // is scheduled.
    std::optional<double> nextPendingDelay() const;

    // True when runUntilIdle() would run something now (a posted task or a due timer).
    bool hasPendingTasks() const;

    const std::shared_ptr<SettableDateSource>& clock() const { return clock_; }
    const std::shared_ptr<WorkTracker>& workTracker() const { return tracker_; }

private:
    // Makes the calling thread the loop's runner while `body` runs.
    template <typename Body>
    void drive(Body&& body);
    void runDueWork();
    // Waits until the tracker is idle; returns early (false) when a task was posted meanwhile.
    bool waitForTrackedWork();

    const std::shared_ptr<SettableDateSource> clock_;
    const std::shared_ptr<WorkTracker> tracker_;
    const std::shared_ptr<RunLoopQueue> queue_;
    const std::thread::id owner_;
    std::mutex driving_;
    std::uint64_t idleListener_ = 0;
};

// The tracker a virtual main run loop waits for, which the SDK's executors, stores and
// transfers report their work to; none for any other loop, where nothing needs counting.
std::shared_ptr<WorkTracker> workTrackerOf(const std::shared_ptr<RunLoop>& mainRunLoop);

}  // namespace rovalis
