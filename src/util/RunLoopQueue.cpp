#include "util/RunLoopQueue.h"

#include <algorithm>
#include <cmath>

namespace rovalis {

namespace {
constexpr double kMinimumInterval = 0.0001;
}

class RunLoopQueue::Timer final : public RunLoopTimer {
public:
    using Callback = std::shared_ptr<const std::function<void()>>;

    Timer(std::weak_ptr<RunLoopQueue> queue, double interval, bool repeats, std::function<void()> callback)
        : interval(std::max(interval, kMinimumInterval)),
          repeats(repeats),
          queue_(std::move(queue)),
          callback_(std::make_shared<const std::function<void()>>(std::move(callback))) {}

    void invalidate() override {
        Callback released;
        {
            std::lock_guard lock(mutex_);
            valid_ = false;
            released = std::move(callback_);
        }
        // `released` goes here, outside the lock: the callback's captures may own timers.
    }

    bool isValid() const override {
        std::lock_guard lock(mutex_);
        return valid_;
    }

    void fire() override {
        Callback callback = takeForFiring();
        if (!callback) return;
        const auto queue = queue_.lock();
        if (!queue) return;
        if (queue->isCurrent()) {
            (*callback)();
        } else {
            queue->post([callback] { (*callback)(); });
        }
    }

    // The callback for one firing, or none if the timer is no longer valid. A one-shot timer
    // becomes invalid.
    Callback takeForFiring() {
        std::lock_guard lock(mutex_);
        if (!valid_) return nullptr;
        Callback callback = callback_;
        if (!repeats) {
            valid_ = false;
            callback_.reset();
        }
        return callback;
    }

    const double interval;
    const bool repeats;
    // Guarded by the queue's mutex.
    Date due;
    std::uint64_t sequence = 0;

private:
    const std::weak_ptr<RunLoopQueue> queue_;
    mutable std::mutex mutex_;
    bool valid_ = true;
    Callback callback_;
};

RunLoopQueue::RunLoopQueue(std::shared_ptr<const RVLDateSource> dateSource) : dateSource_(std::move(dateSource)) {}

void RunLoopQueue::postAndWait(const std::function<void()>& task) {
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    post([&] {
        task();
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
}

void RunLoopQueue::post(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        ++generation_;
    }
    changed_.notify_all();
}

std::shared_ptr<RunLoopTimer> RunLoopQueue::scheduleTimer(double intervalSeconds, bool repeats,
                                                          std::function<void()> callback) {
    auto timer = std::make_shared<Timer>(weak_from_this(), intervalSeconds, repeats, std::move(callback));
    {
        std::lock_guard lock(mutex_);
        timer->due = now().addingSeconds(timer->interval);
        timer->sequence = nextSequence_++;
        timers_.push_back(timer);
        ++generation_;
    }
    changed_.notify_all();
    return timer;
}

std::shared_ptr<RunLoopQueue::Timer> RunLoopQueue::earliestTimerLocked(std::optional<Date> at) {
    std::erase_if(timers_, [](const auto& timer) { return !timer->isValid(); });
    std::shared_ptr<Timer> earliest;
    for (const auto& timer : timers_) {
        if (at && timer->due > *at) continue;
        if (!earliest || timer->due < earliest->due ||
            (timer->due == earliest->due && timer->sequence < earliest->sequence)) {
            earliest = timer;
        }
    }
    return earliest;
}

bool RunLoopQueue::runOne() {
    std::function<void()> task;
    Timer::Callback callback;
    {
        std::lock_guard lock(mutex_);
        if (!tasks_.empty()) {
            task = std::move(tasks_.front());
            tasks_.pop_front();
        } else {
            const Date current = now();
            const auto timer = earliestTimerLocked(current);
            if (!timer) return false;
            callback = timer->takeForFiring();
            if (timer->repeats && callback) {
                // Re-armed from its due time; periods missed while the loop was busy are skipped.
                Date next = timer->due.addingSeconds(timer->interval);
                if (next <= current) {
                    const double periods = std::floor(current.timeIntervalSince(timer->due) / timer->interval) + 1;
                    next = timer->due.addingSeconds(periods * timer->interval);
                    if (next <= current) next = current.addingSeconds(timer->interval);
                }
                timer->due = next;
                timer->sequence = nextSequence_++;
            } else {
                std::erase(timers_, timer);
            }
        }
    }
    if (task) {
        task();
    } else if (callback) {
        (*callback)();
    }
    return true;
}

bool RunLoopQueue::runOneTask() {
    std::function<void()> task;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty()) return false;
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    task();
    return true;
}

bool RunLoopQueue::hasTasks() const {
    std::lock_guard lock(mutex_);
    return !tasks_.empty();
}

bool RunLoopQueue::hasDueWork() const {
    if (hasTasks()) return true;
    const auto next = nextTimerDate();
    return next && *next <= now();
}

std::optional<Date> RunLoopQueue::nextTimerDate() const {
    std::lock_guard lock(mutex_);
    std::optional<Date> earliest;
    for (const auto& timer : timers_) {
        if (timer->isValid() && (!earliest || timer->due < *earliest)) earliest = timer->due;
    }
    return earliest;
}

void RunLoopQueue::waitForWork(std::chrono::steady_clock::duration maxWait) {
    std::unique_lock lock(mutex_);
    if (stopped_ || !tasks_.empty()) return;
    auto wait = maxWait;
    if (const auto timer = earliestTimerLocked(std::nullopt)) {
        const double seconds = timer->due.timeIntervalSince(now());
        if (seconds <= 0) return;
        if (seconds < std::chrono::duration<double>(wait).count()) {
            wait = std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
        }
    }
    const auto generation = generation_;
    changed_.wait_for(lock, wait, [&] { return stopped_ || generation_ != generation; });
}

std::uint64_t RunLoopQueue::changes() const {
    std::lock_guard lock(mutex_);
    return generation_;
}

void RunLoopQueue::waitForChangeSince(std::uint64_t seen, std::chrono::steady_clock::duration maxWait) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, maxWait, [&] { return generation_ != seen; });
}

void RunLoopQueue::wake() {
    {
        std::lock_guard lock(mutex_);
        ++generation_;
    }
    changed_.notify_all();
}

void RunLoopQueue::stop() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        ++generation_;
    }
    changed_.notify_all();
}

bool RunLoopQueue::stopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
}

}  // namespace rovalis
