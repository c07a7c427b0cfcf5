#include "upload/NetworkReachabilityManager.h"

#include "util/SerialExecutor.h"

namespace rovalis {

using Status = NetworkReachabilityManager::NetworkReachabilityStatus;

Status NetworkReachabilityManager::statusForFlags(std::uint32_t flags) {
    const auto has = [flags](std::uint32_t bit) { return (flags & bit) != 0; };
    const bool canConnectAutomatically =
        has(ReachabilityFlags::connectionOnTraffic) || has(ReachabilityFlags::connectionOnDemand);
    const bool canConnectWithoutUserInteraction =
        canConnectAutomatically && !has(ReachabilityFlags::interventionRequired);
    const bool isActuallyReachable =
        has(ReachabilityFlags::reachable) &&
        (!has(ReachabilityFlags::connectionRequired) || canConnectWithoutUserInteraction);
    if (!isActuallyReachable) return Status::notReachable();
    return Status::reachable(has(ReachabilityFlags::isWWAN) ? ConnectionType::cellular
                                                            : ConnectionType::ethernetOrWiFi);
}

NetworkReachabilityManager::NetworkReachabilityManager(Private, std::unique_ptr<NetworkReachabilityTarget> target,
                                                       std::shared_ptr<WorkTracker> workTracker)
    : reachabilityQueue_(std::make_unique<SerialExecutor>(queueLabel, std::move(workTracker))),
      reachability_(std::move(target)) {}

NetworkReachabilityManager::~NetworkReachabilityManager() {
    // Reports still queued on the reachability queue find the manager gone and do nothing.
    stopListening();
}

std::shared_ptr<NetworkReachabilityManager> NetworkReachabilityManager::fromTarget(
    std::unique_ptr<NetworkReachabilityTarget> target, std::shared_ptr<WorkTracker> workTracker) {
    if (!target) return nullptr;
    return std::make_shared<NetworkReachabilityManager>(Private{}, std::move(target), std::move(workTracker));
}

std::shared_ptr<NetworkReachabilityManager> NetworkReachabilityManager::make(NetworkMonitor& monitor,
                                                                             const std::string& host,
                                                                             std::shared_ptr<WorkTracker> workTracker) {
    return fromTarget(monitor.reachabilityForHost(host), std::move(workTracker));
}

std::shared_ptr<NetworkReachabilityManager> NetworkReachabilityManager::makeForZeroAddress(
    NetworkMonitor& monitor, std::shared_ptr<WorkTracker> workTracker) {
    return fromTarget(monitor.reachabilityForZeroAddress(), std::move(workTracker));
}

std::optional<std::uint32_t> NetworkReachabilityManager::flags() const { return reachability_->flags(); }

Status NetworkReachabilityManager::status() const {
    const auto current = flags();
    return current ? statusForFlags(*current) : Status::unknown();
}

bool NetworkReachabilityManager::isReachable() const {
    return status().kind == Status::Kind::reachable;
}

bool NetworkReachabilityManager::isReachableOnCellular() const {
    return status() == Status::reachable(ConnectionType::cellular);
}

bool NetworkReachabilityManager::isReachableOnEthernetOrWiFi() const {
    return status() == Status::reachable(ConnectionType::ethernetOrWiFi);
}

bool NetworkReachabilityManager::startListening(std::shared_ptr<Executor> queue, Listener listener) {
    stopListening();
    {
        std::lock_guard lock(mutex_);
        listener_ = std::move(listener);
        listenerQueue_ = std::move(queue);
    }

    // The target holds the manager weakly: a report that arrives while the manager is being
    // destroyed is dropped.
    const std::weak_ptr<NetworkReachabilityManager> weakSelf = weak_from_this();
    const bool registered = reachability_->setCallback(
        [weakSelf](std::uint32_t flags) {
            if (const auto self = weakSelf.lock()) self->notifyListener(flags);
        },
        reachabilityQueue_.get());

    reachabilityQueue_->async([weakSelf] {
        if (const auto self = weakSelf.lock()) self->notifyListener(self->flags().value_or(0));
    });
    return registered;
}

void NetworkReachabilityManager::stopListening() {
    reachability_->setCallback({}, nullptr);
    std::lock_guard lock(mutex_);
    listener_ = nullptr;
    listenerQueue_.reset();
    previousStatus_.reset();
}

void NetworkReachabilityManager::notifyListener(std::uint32_t flags) {
    const Status newStatus = statusForFlags(flags);
    std::lock_guard lock(mutex_);
    if (previousStatus_ == newStatus) return;
    previousStatus_ = newStatus;
    // Queued under the lock, so nothing reaches the listener after stopListening returns.
    if (listener_ && listenerQueue_) {
        listenerQueue_->async([listener = listener_, newStatus] { listener(newStatus); });
    }
}

}  // namespace rovalis
