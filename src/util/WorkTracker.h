#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

namespace rovalis {

// Counts work that is queued or running anywhere in the SDK (executor tasks, transfers in
// flight). The virtual clock moves only when the count is zero, which is what makes a
// simulated run deterministic.
class WorkTracker {
public:
    void begin();
    void end();

    std::size_t outstanding() const;
    bool isIdle() const { return outstanding() == 0; }

    // Blocks the calling thread until no work is outstanding.
    void waitUntilIdle() const;

    // Called whenever the outstanding work drops to none, on the thread that ended it and
    // under the tracker's lock: it must only wake someone, never call back into the tracker.
    // A waiter that has other things to wait for too (a run loop's tasks) is woken this way.
    using IdleListener = std::function<void()>;
    std::uint64_t addIdleListener(IdleListener listener);
    // Once this returns, the listener is not running and is never called again.
    void removeIdleListener(std::uint64_t token);

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable idle_;
    // Counted without the lock, so that a waiter looking never holds up a thread that is
    // beginning or ending work; the lock is taken only to wake waiters.
    std::atomic<std::size_t> outstanding_{0};
    std::map<std::uint64_t, IdleListener> idleListeners_;
    std::uint64_t nextListenerToken_ = 0;
};

}  // namespace rovalis
