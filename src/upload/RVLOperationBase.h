#pragma once

#include <atomic>

#include "upload/Operation.h"

namespace rovalis {

// The base of all queued upload work. Asynchronous: the queue starts it, execute() does the
// work (possibly handing it to other threads) and ends, on every path and possibly later,
// with exactly one finish() or finishWithFailure().
//
// Failure travels along dependencies: an operation one of whose dependencies failed
// finishes with failure itself, without executing. Dependencies do not order anything;
// the serial queue does.
//
// The cancelled flag consulted by start() is the operation's own, and nothing sets it: a
// cancelled operation that has not started still executes when its queue starts it, and an
// executing one is finished at once (without failure) while its work may still be in flight.
class RVLOperationBase : public Operation {
public:
    RVLOperationBase();

    void start() override;
    bool isReady() const override { return ready_; }
    bool isExecuting() const override { return executing_; }
    bool isFinished() const override { return finished_; }
    bool isCancelled() const override { return cancelled_; }
    bool isAsynchronous() const override { return true; }
    void cancel() override;

    // Each setter tells the state observers only when the value really changes.
    void setReady(bool ready);
    void setExecuting(bool executing);
    void setFinished(bool finished);

    bool failure() const { return failure_; }
    void setFailure(bool failure) { failure_ = failure; }
    bool didFail() const { return failure_; }
    bool isLastOperation() const { return isLastOperation_; }
    void setIsLastOperation(bool last) { isLastOperation_ = last; }

    // The subclass's work; the base raises an internal inconsistency.
    virtual void execute();
    // Whether the operation depends on the one before it in its group; the base raises an
    // internal inconsistency.
    virtual bool isDependentOnPrevious() const;

    // Executing: not executing any more, then finished. Otherwise nothing.
    void finish();
    void finishWithFailure();

private:
    std::atomic<bool> ready_{false};
    std::atomic<bool> executing_{false};
    std::atomic<bool> finished_{false};
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> failure_{false};
    std::atomic<bool> isLastOperation_{false};
};

}  // namespace rovalis
