#pragma once

#include <memory>
#include <thread>

#include "rovalis/DateSource.h"
#include "rovalis/RunLoop.h"

namespace rovalis {

// The SDK's main run loop on a host's own main queue: tasks and due timers run as tasks of
// the host's executor, so that the SDK's main-thread work and the host's callbacks share the
// host's thread. A watcher thread of its own only waits for timers to fall due and then hands
// one run of the due work to the host's queue.
class ExecutorRunLoop final : public RunLoop {
public:
    ExecutorRunLoop(std::shared_ptr<Executor> hostQueue, std::shared_ptr<const RVLDateSource> dateSource);
    // Stops the watcher; a hand-over already queued on the host's queue does nothing.
    ~ExecutorRunLoop() override;

    ExecutorRunLoop(const ExecutorRunLoop&) = delete;
    ExecutorRunLoop& operator=(const ExecutorRunLoop&) = delete;

    void async(std::function<void()> task) override;
    // On the host's queue the task runs in place; elsewhere the caller waits for it.
    void sync(const std::function<void()>& task) override;
    bool isCurrent() const override;

    std::shared_ptr<RunLoopTimer> scheduleTimer(double intervalSeconds, bool repeats,
                                                std::function<void()> callback) override;
    Date now() const override;

private:
    struct State;

    const std::shared_ptr<State> state_;
    std::thread watcher_;
};

}  // namespace rovalis
