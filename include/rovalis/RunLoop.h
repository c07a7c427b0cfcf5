#pragma once

#include <functional>
#include <memory>

#include "rovalis/Date.h"
#include "rovalis/Executor.h"
#include "rovalis/Export.h"

namespace rovalis {

// A timer scheduled on a run loop. The loop keeps a valid timer alive; the caller may keep
// the handle to fire or invalidate it.
class ROVALIS_EXPORT RunLoopTimer {
public:
    virtual ~RunLoopTimer() = default;

    // Stops the timer for good; its callback is released. Safe from any thread and from the
    // timer's own callback. A callback already running on the loop finishes.
    virtual void invalidate() = 0;
    virtual bool isValid() const = 0;

    // Runs the callback now on the loop (in place when called on the loop, otherwise as the
    // loop's next task). A one-shot timer is invalid afterwards; a repeating one keeps its
    // schedule. Does nothing on an invalid timer.
    virtual void fire() = 0;
};

// The main run loop: a serial executor that also runs timers. Timers take their time from
// the loop's date source, never from the system clock directly.
class ROVALIS_EXPORT RunLoop : public Executor {
public:
    // Schedules callback to run on the loop intervalSeconds from now, and again every
    // intervalSeconds after each due time if repeats. Intervals below 0.1 ms count as 0.1 ms.
    virtual std::shared_ptr<RunLoopTimer> scheduleTimer(double intervalSeconds, bool repeats,
                                                        std::function<void()> callback) = 0;

    // "Now" according to the loop's date source.
    virtual Date now() const = 0;
};

}  // namespace rovalis
