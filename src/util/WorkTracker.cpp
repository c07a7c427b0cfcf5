#include "util/WorkTracker.h"

#include "util/Fatal.h"

namespace rovalis {

void WorkTracker::begin() {
    std::lock_guard lock(mutex_);
    ++outstanding_;
}

void WorkTracker::end() {
    std::lock_guard lock(mutex_);
    if (outstanding_ == 0) fatalError("WorkTracker ended more work than it began");
    if (--outstanding_ == 0) idle_.notify_all();
}

std::size_t WorkTracker::outstanding() const {
    std::lock_guard lock(mutex_);
    return outstanding_;
}

void WorkTracker::waitUntilIdle() const {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return outstanding_ == 0; });
}

}  // namespace rovalis
