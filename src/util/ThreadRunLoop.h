#pragma once

#include <memory>
#include <string>
#include <thread>

#include "rovalis/DateSource.h"
#include "rovalis/RunLoop.h"

namespace rovalis {

class RunLoopQueue;

// The production main run loop: one thread of its own that runs posted tasks in order and
// timers when the date source says they are due. Besides SystemDateSource it is the only
// place that waits on the real clock. On destruction it runs the tasks still queued (timers
// no longer fire), then joins its thread (or, destroyed by one of its own tasks, lets the
// thread end by itself).
class ThreadRunLoop final : public RunLoop {
public:
    explicit ThreadRunLoop(std::shared_ptr<const RVLDateSource> dateSource, std::string threadName = "rovalis.main");
    ~ThreadRunLoop() override;

    ThreadRunLoop(const ThreadRunLoop&) = delete;
    ThreadRunLoop& operator=(const ThreadRunLoop&) = delete;

    void async(std::function<void()> task) override;
    // Called on the loop's own thread the task runs in place; otherwise the caller waits
    // until the loop has run it.
    void sync(const std::function<void()>& task) override;
    bool isCurrent() const override;

    std::shared_ptr<RunLoopTimer> scheduleTimer(double intervalSeconds, bool repeats,
                                                std::function<void()> callback) override;
    Date now() const override;

private:
    static void run(RunLoopQueue& queue);

    const std::shared_ptr<RunLoopQueue> queue_;
    std::thread thread_;
};

}  // namespace rovalis
