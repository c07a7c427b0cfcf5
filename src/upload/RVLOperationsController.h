#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/DebugEventsManager.h"
#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventBatchGenerator.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/Executor.h"
#include "rovalis/platform/BackgroundTasks.h"
#include "upload/CredentialsManager.h"
#include "upload/Operation.h"
#include "upload/RVLCommons.h"
#include "upload/RVLOperationBase.h"
#include "upload/StateOperations.h"
#include "upload/UploadInterfaces.h"

namespace rovalis {

class RVLSendOperation;

// What the controller needs of the platform besides its eleven collaborators.
struct OperationsEnvironment {
    // The serial queue "RVLOperationsController.eventsQueue" the operations start on.
    std::shared_ptr<Executor> eventsQueue;
    // The main run loop: the speed-up and slow-down work runs there.
    std::shared_ptr<Executor> mainQueue;
    std::shared_ptr<BackgroundTaskScheduler> backgroundTasks;
    std::shared_ptr<const RVLCommons> commons;
    std::shared_ptr<RVLDateSource> dateSource;
    PauseManagerFactory pauseManagerFactory;
};

// The one owner of the upload work queue. Each request becomes a short fixed list of
// operations, chained so that a failed send fails what depends on it, and run one at a
// time in submission order. The result of a list is one boolean: false when any of its
// operations failed.
class RVLOperationsController final : public RVLOperationsControllerType,
                                      public std::enable_shared_from_this<RVLOperationsController> {
public:
    using Operations = std::vector<std::shared_ptr<RVLOperationBase>>;

    RVLOperationsController(std::weak_ptr<RVLSleepable> sleepProvider, std::weak_ptr<RVLWakeupable> wakeupProvider,
                            std::shared_ptr<RVLEventFetchable> eventsLoader,
                            std::shared_ptr<RVLEventInsertable> eventsStorer,
                            std::shared_ptr<RVLEventDeletable> eventsDeleter,
                            std::shared_ptr<RVLPendingBatchStorable> pendingBatches,
                            std::shared_ptr<RVLAPIClientType> apiManager,
                            std::shared_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                            std::shared_ptr<RVLReachabilityType> reachabilityManager,
                            std::shared_ptr<RVLBatchIdModifier> batchIdManager,
                            std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                            OperationsEnvironment environment);

    // Requests. A speed-up is dropped while one is queued, and cancels queued slow-downs; a
    // slow-down is dropped while one is queued, and leaves queued speed-ups alone.
    void performSpeedUpOperationsWithReason(const std::string& reason,
                                            const std::optional<Location>& lastKnownLocation) override;
    void performSlowDownOperationsWithReason(const std::string& reason,
                                             const std::optional<Location>& lastKnownLocation) override;
    void performSendEventsOperationsWithToggleTrackingOffEventURI(const std::optional<std::string>& uri,
                                                                  Completion completion) override;
    // A foreground send; only when it fails, a background transmission under background time.
    void performPreShutDownOperationsWithTtOffEventURI(const std::optional<std::string>& uri,
                                                       Completion completion) override;
    void performPostStartOperationsWithCompletion(Completion completion) override;
    void performBGTransmissionOperationWithCompletion(Completion completion) override;
    void cancelAllOperations() override;
    void cancelAnyPendingSlowDownOperations() override;

    // Chains and queues a non-empty list; the completion gets the list's result once, when
    // its last operation finishes, on the thread that finished it.
    void addOperationsToQueue(const Operations& operations, Completion completion);
    // With background time, the list runs under a background task that ends exactly once:
    // with the list, or at the system's expiry, which cancels every queued operation.
    void addOperationsToQueue(const Operations& operations, bool withBackgroundTime, Completion completion);

    // Factories: new, unqueued operations with the controller's collaborators.
    std::shared_ptr<RVLOperationBase> persistDataOperation();
    std::shared_ptr<RVLOperationBase> sendRegularEventsOperationWithLastEventURI(const std::optional<std::string>& uri);
    std::shared_ptr<RVLOperationBase> sendDataOperationWithLastEventURI(const std::optional<std::string>& uri);
    std::shared_ptr<RVLOperationBase> speedUpOperationWithReason(const std::string& reason,
                                                                 const std::optional<Location>& lastKnownLocation);
    std::shared_ptr<RVLOperationBase> slowDownOperationWithReason(const std::string& reason,
                                                                  const std::optional<Location>& lastKnownLocation);
    std::shared_ptr<RVLOperationBase> sendInBackgroundOperation();
    std::shared_ptr<RVLOperationBase> cancelBackgroundOperation();

    OperationQueue& eventsOperationQueue() { return eventsOperationQueue_; }

private:
    template <typename T>
    bool isQueued() const;

    const std::weak_ptr<RVLSleepable> sleepProvider_;
    const std::weak_ptr<RVLWakeupable> wakeupProvider_;
    const std::shared_ptr<RVLEventFetchable> eventsLoader_;
    const std::shared_ptr<RVLEventInsertable> eventsStorer_;
    const std::shared_ptr<RVLEventDeletable> eventsDeleter_;
    const std::shared_ptr<RVLPendingBatchStorable> pendingBatches_;
    const std::shared_ptr<RVLAPIClientType> apiManager_;
    const std::shared_ptr<RVLUserDefaultsModifier> userDefaultsManager_;
    const std::shared_ptr<RVLReachabilityType> reachabilityManager_;
    const std::shared_ptr<RVLBatchIdModifier> batchIdManager_;
    const std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager_;
    const std::shared_ptr<RVLEventBatchGeneratable> eventBatchGenerator_;
    const OperationsEnvironment environment_;
    // Submissions of two lists never interleave.
    std::recursive_mutex submission_;
    OperationQueue eventsOperationQueue_;
};

}  // namespace rovalis
