#include "upload/Operation.h"

#include <deque>

#include "rovalis/Executor.h"

namespace rovalis {

bool Operation::isCancelled() const { return queueCancelled(); }

void Operation::cancel() {
    std::lock_guard lock(mutex_);
    queueCancelled_ = true;
}

bool Operation::queueCancelled() const {
    std::lock_guard lock(mutex_);
    return queueCancelled_;
}

std::string Operation::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

void Operation::setName(std::string name) {
    std::lock_guard lock(mutex_);
    name_ = std::move(name);
}

void Operation::addDependency(std::shared_ptr<Operation> operation) {
    std::lock_guard lock(mutex_);
    dependencies_.push_back(std::move(operation));
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
    std::lock_guard lock(mutex_);
    return dependencies_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
    std::lock_guard lock(mutex_);
    completionBlock_ = std::move(block);
}

void Operation::addStateObserver(StateObserver observer) {
    std::lock_guard lock(mutex_);
    observers_.push_back(std::move(observer));
}

void Operation::didChangeValueForKey(std::string_view key) {
    std::function<void()> completion;
    std::vector<StateObserver> observers;
    {
        std::lock_guard lock(mutex_);
        observers = observers_;
        if (key == "isFinished" && isFinished()) completion = std::exchange(completionBlock_, nullptr);
    }
    if (completion) completion();
    for (const auto& observer : observers) observer(*this, key);
}

void BlockOperation::start() {
    executing_ = true;
    didChangeValueForKey("isExecuting");
    if (block_) block_();
    executing_ = false;
    didChangeValueForKey("isExecuting");
    finished_ = true;
    didChangeValueForKey("isFinished");
}

struct OperationQueue::State {
    explicit State(std::shared_ptr<Executor> executor) : executor(std::move(executor)) {}

    const std::shared_ptr<Executor> executor;
    mutable std::mutex mutex;
    std::deque<std::shared_ptr<Operation>> operations;
    // The operation started and not finished yet (always operations.front()).
    Operation* running = nullptr;
    bool closed = false;

    // Starts the first operation on the executor unless one is running.
    void startNext() {
        std::shared_ptr<Operation> next;
        {
            std::lock_guard lock(mutex);
            if (closed || running != nullptr || operations.empty()) return;
            next = operations.front();
            running = next.get();
        }
        executor->async([next] { next->start(); });
    }
};

OperationQueue::OperationQueue(std::string name, std::shared_ptr<Executor> underlyingQueue)
    : name_(std::move(name)), state_(std::make_shared<State>(std::move(underlyingQueue))) {}

OperationQueue::~OperationQueue() {
    // Operations that finish later must not start anything once the queue is gone.
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    std::weak_ptr<State> weakState = state_;
    operation->addStateObserver([weakState](Operation& finished, std::string_view key) {
        if (key != "isFinished" || !finished.isFinished()) return;
        const auto state = weakState.lock();
        if (!state) return;
        {
            std::lock_guard lock(state->mutex);
            if (state->running != &finished) return;  // reported twice, or never started
            state->running = nullptr;
            state->operations.pop_front();
        }
        state->startNext();
    });
    {
        std::lock_guard lock(state_->mutex);
        state_->operations.push_back(std::move(operation));
    }
    state_->startNext();
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    std::lock_guard lock(state_->mutex);
    return {state_->operations.begin(), state_->operations.end()};
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->operations.size();
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : operations()) operation->cancel();
}

}  // namespace rovalis
