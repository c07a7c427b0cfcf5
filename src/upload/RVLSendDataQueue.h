#pragma once

#include <memory>
#include <mutex>

#include "core/UserDefaultsManager.h"
#include "rovalis/Date.h"
#include "rovalis/DateSource.h"
#include "upload/UploadInterfaces.h"

namespace rovalis {

// Starts uploads during normal running: when the app becomes active, when the network
// becomes usable, and as location updates arrive long after the last upload. Requests are
// at least five minutes apart.
class RVLSendDataQueue {
public:
    // A location update starts a transfer when the last upload is older than this, by default.
    static constexpr double defaultUploadInterval = 900.0;
    // No two transfers start closer together than this, by default.
    static constexpr double defaultMinimumTransferInterval = 300.0;

    // Installs itself as the reachability tracker's change listener. The tracker must not
    // report to it after the queue is gone.
    RVLSendDataQueue(std::shared_ptr<RVLOperationsControllerType> operationsController,
                     std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> userDefaultsManager,
                     std::shared_ptr<RVLReachabilityType> reachabilityManager,
                     std::shared_ptr<RVLDateSource> dateSource, double uploadInterval = defaultUploadInterval,
                     double minimumTransferInterval = defaultMinimumTransferInterval);
    ~RVLSendDataQueue();

    RVLSendDataQueue(const RVLSendDataQueue&) = delete;
    RVLSendDataQueue& operator=(const RVLSendDataQueue&) = delete;

    void applicationDidBecomeActive();
    void reachabilityChanged(bool canSendNow);
    // Called on each location update.
    void updateTime();
    void initiateDataTransfer();

private:
    const std::shared_ptr<RVLOperationsControllerType> operationsController_;
    const std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> userDefaultsManager_;
    const std::shared_ptr<RVLReachabilityType> reachabilityManager_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    const double uploadInterval_;
    const double minimumTransferInterval_;
    // Triggers arrive on the main run loop and on the reachability handler's queue.
    std::mutex mutex_;
    Date lastDataTransferInitiationDate_ = Date::distantPast();
};

}  // namespace rovalis
