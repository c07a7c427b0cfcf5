#include "upload/RVLOperationBase.h"

#include "rovalis/Exceptions.h"

namespace rovalis {

RVLOperationBase::RVLOperationBase() {
    setReady(true);
    setFailure(false);
}

void RVLOperationBase::setReady(bool ready) {
    if (ready_.exchange(ready) != ready) didChangeValueForKey("isReady");
}

void RVLOperationBase::setExecuting(bool executing) {
    if (executing_.exchange(executing) != executing) didChangeValueForKey("isExecuting");
}

void RVLOperationBase::setFinished(bool finished) {
    if (finished_.exchange(finished) != finished) didChangeValueForKey("isFinished");
}

void RVLOperationBase::start() {
    if (isExecuting()) return;
    setReady(false);
    setExecuting(true);
    setFinished(false);
    if (isCancelled()) {
        setFinished(true);
        return;
    }
    for (const auto& dependency : dependencies()) {
        const auto* base = dynamic_cast<const RVLOperationBase*>(dependency.get());
        if (base == nullptr) {
            throw InternalInconsistencyException("dependent operation " + dependency->name() +
                                                 " needs to be a subclass of RVLOperationBase");
        }
        if (base->didFail()) {
            finishWithFailure();
            return;
        }
    }
    execute();
}

void RVLOperationBase::execute() { throw InternalInconsistencyException("execute needs to be overriden"); }

bool RVLOperationBase::isDependentOnPrevious() const {
    throw InternalInconsistencyException("isDependentOnPrevious needs to be overriden by operation " + name());
}

void RVLOperationBase::finish() {
    // Only the caller that turns executing off goes on to finish, so a finish racing a
    // cancel finishes once.
    bool expected = true;
    if (!executing_.compare_exchange_strong(expected, false)) return;
    didChangeValueForKey("isExecuting");
    setFinished(true);
}

void RVLOperationBase::finishWithFailure() {
    setFailure(true);
    finish();
}

void RVLOperationBase::cancel() {
    Operation::cancel();
    finish();
}

}  // namespace rovalis
