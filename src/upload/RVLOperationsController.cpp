#include "upload/RVLOperationsController.h"

#include <atomic>
#include <typeinfo>

#include "upload/TransferOperations.h"

namespace rovalis {

namespace {

// A named "no URI": g++ 12 under ThreadSanitizer wrongly warns that a temporary made from
// std::nullopt inside a braced list may be used uninitialized.
const std::optional<std::string> noLastEventURI;

}  // namespace

RVLOperationsController::RVLOperationsController(
    std::weak_ptr<RVLSleepable> sleepProvider, std::weak_ptr<RVLWakeupable> wakeupProvider,
    std::shared_ptr<RVLEventFetchable> eventsLoader, std::shared_ptr<RVLEventInsertable> eventsStorer,
    std::shared_ptr<RVLEventDeletable> eventsDeleter, std::shared_ptr<RVLPendingBatchStorable> pendingBatches,
    std::shared_ptr<RVLAPIClientType> apiManager,
    std::shared_ptr<RVLUserDefaultsModifier> userDefaultsManager,
    std::shared_ptr<RVLReachabilityType> reachabilityManager, std::shared_ptr<RVLBatchIdModifier> batchIdManager,
    std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager, OperationsEnvironment environment)
    : sleepProvider_(std::move(sleepProvider)),
      wakeupProvider_(std::move(wakeupProvider)),
      eventsLoader_(std::move(eventsLoader)),
      eventsStorer_(std::move(eventsStorer)),
      eventsDeleter_(std::move(eventsDeleter)),
      pendingBatches_(std::move(pendingBatches)),
      apiManager_(std::move(apiManager)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      reachabilityManager_(std::move(reachabilityManager)),
      batchIdManager_(std::move(batchIdManager)),
      debugEventsManager_(std::move(debugEventsManager)),
      eventBatchGenerator_(std::make_shared<RVLEventBatchGenerator>()),
      environment_(std::move(environment)),
      eventsOperationQueue_("eventsOperationQueue", environment_.eventsQueue) {}

template <typename T>
bool RVLOperationsController::isQueued() const {
    for (const auto& operation : eventsOperationQueue_.operations()) {
        const auto& queued = *operation;
        if (typeid(queued) == typeid(T)) return true;
    }
    return false;
}

// ---- Requests

void RVLOperationsController::performSpeedUpOperationsWithReason(const std::string& reason,
                                                                 const std::optional<Location>& lastKnownLocation) {
    if (isQueued<RVLSpeedUpOperation>()) return;
    cancelAnyPendingSlowDownOperations();
    addOperationsToQueue({speedUpOperationWithReason(reason, lastKnownLocation), persistDataOperation(),
                          sendRegularEventsOperationWithLastEventURI(noLastEventURI)},
                         false, [](bool) {});
}

void RVLOperationsController::performSlowDownOperationsWithReason(const std::string& reason,
                                                                  const std::optional<Location>& lastKnownLocation) {
    if (isQueued<RVLSlowDownOperation>()) return;
    addOperationsToQueue({persistDataOperation(), sendRegularEventsOperationWithLastEventURI(noLastEventURI),
                          slowDownOperationWithReason(reason, lastKnownLocation)},
                         nullptr);
}

void RVLOperationsController::performSendEventsOperationsWithToggleTrackingOffEventURI(
    const std::optional<std::string>& uri, Completion completion) {
    addOperationsToQueue({persistDataOperation(), sendRegularEventsOperationWithLastEventURI(uri)},
                         std::move(completion));
}

void RVLOperationsController::performPreShutDownOperationsWithTtOffEventURI(const std::optional<std::string>& uri,
                                                                            Completion completion) {
    std::weak_ptr<RVLOperationsController> weakSelf = weak_from_this();
    performSendEventsOperationsWithToggleTrackingOffEventURI(
        uri, [weakSelf, completion = std::move(completion)](bool succeeded) {
            if (succeeded) {
                completion(true);
                return;
            }
            const auto self = weakSelf.lock();
            if (!self) {
                completion(false);
                return;
            }
            if (self->debugEventsManager_) self->debugEventsManager_->insertLogDebugEvent("launching BG transmission");
            self->performBGTransmissionOperationWithCompletion(completion);
        });
}

void RVLOperationsController::performPostStartOperationsWithCompletion(Completion completion) {
    addOperationsToQueue({cancelBackgroundOperation(), sendRegularEventsOperationWithLastEventURI(noLastEventURI)},
                         false, std::move(completion));
}

void RVLOperationsController::performBGTransmissionOperationWithCompletion(Completion completion) {
    addOperationsToQueue({persistDataOperation(), sendInBackgroundOperation()}, true, std::move(completion));
}

void RVLOperationsController::cancelAllOperations() { eventsOperationQueue_.cancelAllOperations(); }

void RVLOperationsController::cancelAnyPendingSlowDownOperations() {
    for (const auto& operation : eventsOperationQueue_.operations()) {
        const auto& queued = *operation;
        if (typeid(queued) == typeid(RVLSlowDownOperation)) operation->cancel();
    }
}

// ---- Submission

void RVLOperationsController::addOperationsToQueue(const Operations& operations, Completion completion) {
    std::lock_guard lock(submission_);
    for (std::size_t index = 1; index < operations.size(); ++index) {
        if (operations[index]->isDependentOnPrevious()) operations[index]->addDependency(operations[index - 1]);
    }
    operations.back()->setIsLastOperation(true);

    const auto succeeded = std::make_shared<std::atomic<bool>>(true);
    for (std::size_t index = 0; index < operations.size(); ++index) {
        const bool isLast = index + 1 == operations.size();
        std::weak_ptr<RVLOperationBase> weakOperation = operations[index];
        operations[index]->setCompletionBlock([weakOperation, succeeded, isLast, completion] {
            const auto operation = weakOperation.lock();
            if (operation && operation->failure()) *succeeded = false;
            if (isLast && completion) completion(*succeeded);
        });
        eventsOperationQueue_.addOperation(operations[index]);
    }
}

void RVLOperationsController::addOperationsToQueue(const Operations& operations, bool withBackgroundTime,
                                                   Completion completion) {
    if (!withBackgroundTime) {
        addOperationsToQueue(operations, [completion = std::move(completion)](bool succeeded) {
            if (completion) completion(succeeded);
        });
        return;
    }
    // Ended exactly once, by whichever comes first: the list's end or the system's expiry.
    struct BackgroundTask {
        std::mutex mutex;
        BackgroundTaskIdentifier identifier = UIBackgroundTaskInvalid;
        // Takes the identifier if it is still valid.
        BackgroundTaskIdentifier take() {
            std::lock_guard lock(mutex);
            return std::exchange(identifier, UIBackgroundTaskInvalid);
        }
    };
    const auto task = std::make_shared<BackgroundTask>();
    const auto scheduler = environment_.backgroundTasks;
    std::weak_ptr<RVLOperationsController> weakSelf = weak_from_this();
    // The scheduler keeps the handler until the task ends: it holds the scheduler weakly.
    std::weak_ptr<BackgroundTaskScheduler> weakScheduler = scheduler;
    const BackgroundTaskIdentifier identifier = scheduler->beginBackgroundTask([task, weakScheduler, weakSelf] {
        const BackgroundTaskIdentifier valid = task->take();
        if (valid == UIBackgroundTaskInvalid) return;
        if (const auto self = weakSelf.lock()) self->cancelAllOperations();
        if (const auto scheduler = weakScheduler.lock()) scheduler->endBackgroundTask(valid);
    });
    {
        std::lock_guard lock(task->mutex);
        task->identifier = identifier;
    }
    addOperationsToQueue(operations, [task, scheduler, completion = std::move(completion)](bool succeeded) {
        if (completion) completion(succeeded);
        const BackgroundTaskIdentifier valid = task->take();
        if (valid != UIBackgroundTaskInvalid) scheduler->endBackgroundTask(valid);
    });
}

// ---- Factories

std::shared_ptr<RVLOperationBase> RVLOperationsController::persistDataOperation() {
    return std::make_shared<RVLPersistDataOperation>(eventsStorer_);
}

std::shared_ptr<RVLOperationBase> RVLOperationsController::sendRegularEventsOperationWithLastEventURI(
    const std::optional<std::string>& uri) {
    return sendDataOperationWithLastEventURI(uri);
}

std::shared_ptr<RVLOperationBase> RVLOperationsController::sendDataOperationWithLastEventURI(
    const std::optional<std::string>& uri) {
    auto operation = std::make_shared<RVLSendOperation>(apiManager_, eventsLoader_, eventsDeleter_, pendingBatches_,
                                                        userDefaultsManager_, eventBatchGenerator_,
                                                        reachabilityManager_, batchIdManager_, debugEventsManager_,
                                                        environment_.commons, environment_.dateSource, uri);
    operation->setName("regularEventsSendOperation");
    return operation;
}

std::shared_ptr<RVLOperationBase> RVLOperationsController::speedUpOperationWithReason(
    const std::string& reason, const std::optional<Location>& lastKnownLocation) {
    return std::make_shared<RVLSpeedUpOperation>(wakeupProvider_, eventsStorer_, userDefaultsManager_, reason,
                                                 lastKnownLocation, environment_.mainQueue,
                                                 environment_.pauseManagerFactory);
}

std::shared_ptr<RVLOperationBase> RVLOperationsController::slowDownOperationWithReason(
    const std::string& reason, const std::optional<Location>& lastKnownLocation) {
    return std::make_shared<RVLSlowDownOperation>(sleepProvider_, eventsStorer_, userDefaultsManager_, reason,
                                                  lastKnownLocation, environment_.mainQueue,
                                                  environment_.pauseManagerFactory);
}

std::shared_ptr<RVLOperationBase> RVLOperationsController::sendInBackgroundOperation() {
    return std::make_shared<RVLSendInBackgroundOperation>(eventsLoader_, pendingBatches_, apiManager_,
                                                          userDefaultsManager_, batchIdManager_, environment_.commons,
                                                          environment_.dateSource);
}

std::shared_ptr<RVLOperationBase> RVLOperationsController::cancelBackgroundOperation() {
    return std::make_shared<RVLCancelBackgroundSendOperation>(apiManager_);
}

}  // namespace rovalis
