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
// queued, then joins its thread.
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
    void run();

    const std::string label_;
    const std::shared_ptr<WorkTracker> tracker_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::thread thread_;
    // The thread running a sync task in the queue's place, if any.
    std::atomic<std::thread::id> borrower_{};
};

}  // namespace rovalis
