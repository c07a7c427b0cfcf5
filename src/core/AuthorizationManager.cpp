#include "core/AuthorizationManager.h"

#include <string>

namespace rovalis {

AuthorizationStatusProcessor::Decision AuthorizationStatusProcessor::decide(bool locationServicesEnabled,
                                                                            AuthorizationStatus status,
                                                                            bool precise) {
    if (!locationServicesEnabled) return {false, 1};
    if (status == AuthorizationStatus::denied) return {false, 2};
    if (status == AuthorizationStatus::authorizedAlways) return precise ? Decision{true, 0} : Decision{false, 4};
    return {false, 3};
}

void AuthorizationManagerForwarder::locationManagerDidChangeAuthorization(LocationManagerType& manager) {
    const auto delegate = delegate_.lock();
    if (!delegate) return;
    delegate->didChangeAuthorization(manager.authorizationStatus(),
                                     manager.accuracyAuthorization() == AccuracyAuthorization::fullAccuracy);
}

std::shared_ptr<AuthorizationManager> AuthorizationManager::create(
    std::shared_ptr<LocationManagerType> locationManager, std::shared_ptr<AuthorizationManagerForwarder> forwarder,
    std::shared_ptr<MotionActivityManagerType> motionActivityManager,
    std::weak_ptr<RVLTrackingStateChangeable> trackingStateChanger,
    std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userActivatedTrackingOnceModifier,
    std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager) {
    auto manager = std::make_shared<AuthorizationManager>(
        Private{}, std::move(locationManager), std::move(forwarder), std::move(motionActivityManager),
        std::move(trackingStateChanger), std::move(userActivatedTrackingOnceModifier), std::move(debugEventsManager));
    manager->forwarder_->setDelegate(manager);
    manager->locationManager_->setDelegate(manager->forwarder_);
    return manager;
}

AuthorizationManager::AuthorizationManager(
    Private, std::shared_ptr<LocationManagerType> locationManager,
    std::shared_ptr<AuthorizationManagerForwarder> forwarder,
    std::shared_ptr<MotionActivityManagerType> motionActivityManager,
    std::weak_ptr<RVLTrackingStateChangeable> trackingStateChanger,
    std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userActivatedTrackingOnceModifier,
    std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager)
    : locationManager_(std::move(locationManager)),
      motionActivityManager_(std::move(motionActivityManager)),
      forwarder_(std::move(forwarder)),
      trackingStateChanger_(std::move(trackingStateChanger)),
      userActivatedTrackingOnceModifier_(std::move(userActivatedTrackingOnceModifier)),
      debugEventsManager_(std::move(debugEventsManager)) {}

bool AuthorizationManager::fullyAuthorizedAlready() const {
    if (!locationManager_->locationServicesEnabled()) return false;
    if (locationManager_->authorizationStatus() != AuthorizationStatus::authorizedAlways) return false;
    return locationManager_->accuracyAuthorization() == AccuracyAuthorization::fullAccuracy;
}

void AuthorizationManager::didChangeAuthorization(AuthorizationStatus status, bool precise) {
    const auto rawStatus = static_cast<std::int32_t>(status);
    debugEventsManager_->insertLocationAuthorizationDebugEvent("locationManager:didChangeAuthorizationStatus: " +
                                                              std::to_string(rawStatus));

    const auto decision =
        AuthorizationStatusProcessor::decide(locationManager_->locationServicesEnabled(), status, precise);
    if (auto changer = trackingStateChanger_.lock()) {
        if (decision.start) {
            changer->startTrackingWithForced(false);
        } else {
            changer->stopTrackingWithReason(decision.stopReason);
        }
    }

    const auto delegate = sdkDelegate_.lock();
    if (!delegate) return;
    delegate->locationAuthorizationStatusDidChange(rawStatus, precise);
    auto* motionDelegate = dynamic_cast<RovalisMotionActivityDelegate*>(delegate.get());
    if (motionDelegate && userActivatedTrackingOnceModifier_->userActivatedTrackingOnce()) {
        motionDelegate->motionActivityAuthorized(motionActivityManager_->authorizationStatus() ==
                                                 MotionAuthorizationStatus::authorized);
    }
}

}  // namespace rovalis
