#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "core/DebugEventsManager.h"
#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "rovalis/RovalisDelegate.h"
#include "rovalis/platform/LocationManager.h"
#include "rovalis/platform/Motion.h"

namespace rovalis {

// The tracking decision for one authorization state: start, or stop with a reason code.
class AuthorizationStatusProcessor {
public:
    struct Decision {
        bool start = false;
        // The ToggleTracking reason of a stop: 1 location services off, 2 denied, 3 not
        // "always", 4 "always" but imprecise.
        std::int64_t stopReason = 0;

        friend bool operator==(const Decision&, const Decision&) = default;
    };

    static Decision decide(bool locationServicesEnabled, AuthorizationStatus status, bool precise);
};

class RVLAuthorizationManagerType {
public:
    virtual ~RVLAuthorizationManagerType() = default;
    // Location services on, "always" permission and full accuracy.
    virtual bool fullyAuthorizedAlready() const = 0;
    // Whether the platform has told the permission and the location services' state yet.
    virtual bool authorizationKnown() const { return true; }
    virtual std::shared_ptr<RovalisDelegate> sdkDelegate() const = 0;
    virtual void setSdkDelegate(std::weak_ptr<RovalisDelegate> delegate) = 0;
};

// Receives what the forwarder passes on.
class AuthorizationChangeReceiving {
public:
    virtual ~AuthorizationChangeReceiving() = default;
    virtual void didChangeAuthorization(AuthorizationStatus status, bool precise) = 0;
};

// The authorization manager's location-manager delegate: passes each authorization change
// on with the status and whether locations are precise.
class AuthorizationManagerForwarder final : public LocationManagerDelegate {
public:
    void setDelegate(std::weak_ptr<AuthorizationChangeReceiving> delegate) { delegate_ = std::move(delegate); }

    void locationManagerDidChangeAuthorization(LocationManagerType& manager) override;

private:
    std::weak_ptr<AuthorizationChangeReceiving> delegate_;
};

// Turns the platform's authorization changes into tracking decisions and tells the host.
// It never asks the user for permission; the host does. Runs on the main run loop.
class AuthorizationManager final : public RVLAuthorizationManagerType,
                                   public AuthorizationChangeReceiving,
                                   public std::enable_shared_from_this<AuthorizationManager> {
public:
    static std::shared_ptr<AuthorizationManager> create(
        std::shared_ptr<LocationManagerType> locationManager, std::shared_ptr<AuthorizationManagerForwarder> forwarder,
        std::shared_ptr<MotionActivityManagerType> motionActivityManager,
        std::weak_ptr<RVLTrackingStateChangeable> trackingStateChanger,
        std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userActivatedTrackingOnceModifier,
        std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager);

    // RVLAuthorizationManagerType
    bool fullyAuthorizedAlready() const override;
    bool authorizationKnown() const override { return locationManager_->authorizationKnown(); }
    std::shared_ptr<RovalisDelegate> sdkDelegate() const override { return sdkDelegate_.lock(); }
    void setSdkDelegate(std::weak_ptr<RovalisDelegate> delegate) override { sdkDelegate_ = std::move(delegate); }

    // AuthorizationChangeReceiving
    void didChangeAuthorization(AuthorizationStatus status, bool precise) override;

private:
    struct Private {};

public:
    AuthorizationManager(Private, std::shared_ptr<LocationManagerType> locationManager,
                         std::shared_ptr<AuthorizationManagerForwarder> forwarder,
                         std::shared_ptr<MotionActivityManagerType> motionActivityManager,
                         std::weak_ptr<RVLTrackingStateChangeable> trackingStateChanger,
                         std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userActivatedTrackingOnceModifier,
                         std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager);

private:
    const std::shared_ptr<LocationManagerType> locationManager_;
    const std::shared_ptr<MotionActivityManagerType> motionActivityManager_;
    const std::shared_ptr<AuthorizationManagerForwarder> forwarder_;
    const std::weak_ptr<RVLTrackingStateChangeable> trackingStateChanger_;
    const std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userActivatedTrackingOnceModifier_;
    const std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager_;
    std::weak_ptr<RovalisDelegate> sdkDelegate_;
};

}  // namespace rovalis
