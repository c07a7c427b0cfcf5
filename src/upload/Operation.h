#pragma once

// Operations and the serial operation queue that runs them. An operation is started by its
// queue and says when it has finished; it may finish later, from another thread. The queue
// runs one operation at a time, in the order they were added, each started on the queue's
// underlying executor.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace rovalis {

class Executor;

class Operation : public std::enable_shared_from_this<Operation> {
public:
    // Told of a change of one of the state flags, by the name of its getter ("isReady",
    // "isExecuting", "isFinished"), on the thread that changed it.
    using StateObserver = std::function<void(Operation& operation, std::string_view key)>;

    Operation() = default;
    virtual ~Operation() = default;
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    virtual void start() = 0;
    virtual bool isReady() const = 0;
    virtual bool isExecuting() const = 0;
    virtual bool isFinished() const = 0;
    virtual bool isCancelled() const;
    virtual bool isAsynchronous() const { return false; }
    // Marks the operation cancelled for its queue.
    virtual void cancel();

    std::string name() const;
    void setName(std::string name);

    void addDependency(std::shared_ptr<Operation> operation);
    std::vector<std::shared_ptr<Operation>> dependencies() const;

    // Runs once, on the thread that finishes the operation, after "isFinished" turned true.
    void setCompletionBlock(std::function<void()> block);

    // Observers are called in the order they were added.
    void addStateObserver(StateObserver observer);

protected:
    // Tells the observers; when key is "isFinished" and the operation is finished, runs the
    // completion block first (once).
    void didChangeValueForKey(std::string_view key);
    bool queueCancelled() const;

private:
    mutable std::mutex mutex_;
    std::string name_;
    std::vector<std::shared_ptr<Operation>> dependencies_;
    std::function<void()> completionBlock_;
    std::vector<StateObserver> observers_;
    bool queueCancelled_ = false;
};

// A plain synchronous operation around a block: starts, runs the block, finishes.
class BlockOperation final : public Operation {
public:
    explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}

    void start() override;
    bool isReady() const override { return true; }
    bool isExecuting() const override { return executing_; }
    bool isFinished() const override { return finished_; }

private:
    std::function<void()> block_;
    bool executing_ = false;
    bool finished_ = false;
};

// Runs operations one at a time in the order they were added, each started on the
// underlying executor. An operation leaves the queue when it reports that it finished.
class OperationQueue {
public:
    OperationQueue(std::string name, std::shared_ptr<Executor> underlyingQueue);
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    const std::string& name() const { return name_; }
    // The queue keeps the operation until it finishes.
    void addOperation(std::shared_ptr<Operation> operation);
    // The operations not finished yet, the running one first.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;
    void cancelAllOperations();

private:
    struct State;

    const std::string name_;
    const std::shared_ptr<State> state_;
};

}  // namespace rovalis
