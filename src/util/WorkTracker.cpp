#include "util/WorkTracker.h"

#include "util/Fatal.h"

namespace rovalis {

void WorkTracker::begin() { outstanding_.fetch_add(1); }

void WorkTracker::end() {
    const std::size_t before = outstanding_.fetch_sub(1);
    if (before == 0) fatalError("WorkTracker ended more work than it began");
    if (before > 1) return;
    // Under the lock, so that a waiter who found work outstanding is already waiting.
    std::lock_guard lock(mutex_);
    idle_.notify_all();
    for (const auto& [token, listener] : idleListeners_) listener();
}

std::uint64_t WorkTracker::addIdleListener(IdleListener listener) {
    std::lock_guard lock(mutex_);
    const std::uint64_t token = ++nextListenerToken_;
    idleListeners_.emplace(token, std::move(listener));
    return token;
}

void WorkTracker::removeIdleListener(std::uint64_t token) {
    std::lock_guard lock(mutex_);
    idleListeners_.erase(token);
}

std::size_t WorkTracker::outstanding() const { return outstanding_.load(); }

void WorkTracker::waitUntilIdle() const {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return outstanding_ == 0; });
}

}  // namespace rovalis
