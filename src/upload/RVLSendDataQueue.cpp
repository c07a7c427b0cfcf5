#include "upload/RVLSendDataQueue.h"

namespace rovalis {

RVLSendDataQueue::RVLSendDataQueue(std::shared_ptr<RVLOperationsControllerType> operationsController,
                                   std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> userDefaultsManager,
                                   std::shared_ptr<RVLReachabilityType> reachabilityManager,
                                   std::shared_ptr<RVLDateSource> dateSource, double uploadInterval,
                                   double minimumTransferInterval)
    : operationsController_(std::move(operationsController)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      reachabilityManager_(std::move(reachabilityManager)),
      dateSource_(std::move(dateSource)),
      uploadInterval_(uploadInterval),
      minimumTransferInterval_(minimumTransferInterval) {
    reachabilityManager_->setChangeListener([this](bool canSendNow) { reachabilityChanged(canSendNow); });
}

RVLSendDataQueue::~RVLSendDataQueue() { reachabilityManager_->setChangeListener(nullptr); }

void RVLSendDataQueue::applicationDidBecomeActive() { initiateDataTransfer(); }

void RVLSendDataQueue::reachabilityChanged(bool canSendNow) {
    if (canSendNow) initiateDataTransfer();
}

void RVLSendDataQueue::updateTime() {
    const Date lastUpload = userDefaultsManager_->lastSuccessfulEventUploadDate();
    if (dateSource_->now().timeIntervalSince(lastUpload) > uploadInterval_) initiateDataTransfer();
}

void RVLSendDataQueue::initiateDataTransfer() {
    if (!reachabilityManager_->canSendDataNow()) return;
    {
        std::lock_guard lock(mutex_);
        const Date now = dateSource_->now();
        if (now.timeIntervalSince(lastDataTransferInitiationDate_) < minimumTransferInterval_) return;
        lastDataTransferInitiationDate_ = now;
    }
    // Asked outside the lock: the controller may call back into the SDK.
    operationsController_->performSendEventsOperationsWithToggleTrackingOffEventURI(std::nullopt, [](bool) {});
}

}  // namespace rovalis
