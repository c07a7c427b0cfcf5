#include "upload/ReachabilityTracker.h"

#include "util/Fatal.h"

namespace rovalis {

using ReachabilityStatus = NetworkReachabilityManager::NetworkReachabilityStatus;

ReachabilityTracker::ReachabilityTracker(std::shared_ptr<RVLEventInsertable> eventInsertable,
                                         std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager,
                                         std::shared_ptr<RVLLastConnectionTypeModifier> lastConnectionTypeModifier,
                                         std::shared_ptr<RVLDateSource> dateSource, NetworkMonitor& network,
                                         const std::string& host, std::shared_ptr<Executor> queue,
                                         std::shared_ptr<WorkTracker> workTracker)
    : eventInsertable_(std::move(eventInsertable)),
      transferModeRecordManager_(std::move(transferModeRecordManager)),
      lastConnectionTypeModifier_(std::move(lastConnectionTypeModifier)),
      dateSource_(std::move(dateSource)),
      reachabilityManager_(NetworkReachabilityManager::make(network, host, std::move(workTracker))),
      queue_(std::move(queue)) {
    if (!reachabilityManager_) fatalError("Cannot construct NetworkReachabilityManager");
}

ReachabilityTracker::~ReachabilityTracker() {
    reachabilityManager_->stopListening();
    // A report may already wait on the queue with this tracker in it; let it run now.
    finishReportsUnderWay();
}

void ReachabilityTracker::finishReportsUnderWay() {
    if (!queue_->isCurrent()) queue_->sync([] {});
}

void ReachabilityTracker::start() {
    isTrackingActive_ = true;
    startListening();
}

void ReachabilityTracker::stop() {
    isTrackingActive_ = false;
    reachabilityManager_->stopListening();
}

void ReachabilityTracker::speedUp() {
    // Listening afresh reports the current status again.
    startListening();
}

void ReachabilityTracker::startListening() {
    reachabilityManager_->startListening(queue_, [this](ReachabilityStatus status) { handle(status); });
}

ReachabilityTracker::ConnectionType ReachabilityTracker::connectionTypeFor(ReachabilityStatus status) {
    switch (status.kind) {
        case ReachabilityStatus::Kind::reachable:
            return status.connectionType == NetworkReachabilityManager::ConnectionType::cellular
                       ? ConnectionType::mobile
                       : ConnectionType::wifi;
        case ReachabilityStatus::Kind::notReachable:
            return ConnectionType::disconnected;
        case ReachabilityStatus::Kind::unknown:
            break;
    }
    return ConnectionType::other;
}

void ReachabilityTracker::handle(ReachabilityStatus reachabilityStatus) {
    const ConnectionType type = connectionTypeFor(reachabilityStatus);
    status_ = type;
    if (!isTrackingActive_) return;

    const auto code = static_cast<std::int64_t>(type);
    if (!initialized_ || code != lastConnectionTypeModifier_->lastConnectionType()) {
        initialized_ = true;
        lastConnectionTypeModifier_->setLastConnectionType(code);
        eventInsertable_->insertConnectivityEventWithTrackedAtMs(dateSource_->now(), static_cast<long>(code));
    }

    std::function<void(bool)> listener;
    {
        std::lock_guard lock(listenerMutex_);
        listener = changeListener_;
    }
    if (listener) listener(canSendDataWith(type));
}

bool ReachabilityTracker::canSendDataWith(ConnectionType type) const {
    switch (type) {
        case ConnectionType::wifi:
            return true;
        case ConnectionType::mobile:
            return !transferModeRecordManager_->wifiOnlyDataTransfer();
        case ConnectionType::disconnected:
        case ConnectionType::other:
            break;
    }
    return false;
}

bool ReachabilityTracker::canSendDataNow() const { return canSendDataWith(status_.load()); }

void ReachabilityTracker::setChangeListener(std::function<void(bool canSendNow)> listener) {
    std::lock_guard lock(listenerMutex_);
    changeListener_ = std::move(listener);
}

}  // namespace rovalis
