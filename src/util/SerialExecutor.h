#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "rovalis/Executor.h"

namespace rovalis {

class WorkTracker;

// A named serial queue with one thread of its own. On destruction it runs what is still
// queued, then joins its thread; destroyed by one of its own tasks (the task held the last
// owner), it leaves its thread to run the rest and end.
class SerialExecutor final : public Executor {
public:
    explicit SerialExecutor(std::string label, std::shared_ptr<WorkTracker> tracker = nullptr);
    ~SerialExecutor() override;

    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void async(std::function<void()> task) override;
    void sync(const std::function<void()>& task) override;
    bool isCurrent() const override;

    const std::string& label() const { return label_; }

private:
    // What the thread works on: its own, so that it can outlive the executor.
    struct Queue {
        std::shared_ptr<WorkTracker> tracker;
        std::mutex mutex;
        std::condition_variable wake;
        std::deque<std::function<void()>> tasks;
        bool stopping = false;
    };
    static void run(Queue& queue);

    const std::string label_;
    const std::shared_ptr<Queue> queue_;
    std::thread thread_;
    // The thread running a sync task in the queue's place, if any.
    std::atomic<std::thread::id> borrower_{};
};

}  // namespace rovalis
