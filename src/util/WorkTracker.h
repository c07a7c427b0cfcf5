#pragma once

#include <condition_variable>
#include <cstddef>
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

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable idle_;
    std::size_t outstanding_ = 0;
};

}  // namespace rovalis
