#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rovalis/platform/LocationManager.h"

namespace rovalis::test {

// An in-memory location manager: it keeps its settings and monitored regions, logs every
// call that changes something, and lets the test deliver reports to the delegate the way
// the platform would (on the caller's thread, which the test makes the main run loop).
class RecordingLocationManager final : public LocationManagerType {
public:
    // LocationManagerType
    std::shared_ptr<LocationManagerDelegate> delegate() const override { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override;

    bool allowsBackgroundLocationUpdates() const override { return allowsBackgroundLocationUpdates_; }
    void setAllowsBackgroundLocationUpdates(bool allows) override;
    bool pausesLocationUpdatesAutomatically() const override { return pausesLocationUpdatesAutomatically_; }
    void setPausesLocationUpdatesAutomatically(bool pauses) override;
    double distanceFilter() const override { return distanceFilter_; }
    void setDistanceFilter(double metres) override;
    double desiredAccuracy() const override { return desiredAccuracy_; }
    void setDesiredAccuracy(double metres) override;

    std::vector<CircularRegion> monitoredRegions() const override { return monitoredRegions_; }

    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;
    void startMonitoringSignificantLocationChanges() override;
    void stopMonitoringSignificantLocationChanges() override;
    // A region with the identifier of one already monitored replaces it, as on the platform.
    void startMonitoring(const CircularRegion& region) override;
    void stopMonitoring(const CircularRegion& region) override;

    AuthorizationStatus authorizationStatus() const override { return authorizationStatus_; }
    AccuracyAuthorization accuracyAuthorization() const override { return accuracyAuthorization_; }
    bool locationServicesEnabled() const override { return locationServicesEnabled_; }

    // What the test controls.
    void setAuthorizationStatus(AuthorizationStatus status) { authorizationStatus_ = status; }
    void setAccuracyAuthorization(AccuracyAuthorization accuracy) { accuracyAuthorization_ = accuracy; }
    void setLocationServicesEnabled(bool enabled) { locationServicesEnabled_ = enabled; }

    // Reports to the current delegate; each returns false when there is none to tell.
    bool deliverLocations(const std::vector<Location>& locations);
    bool deliverEnterRegion(const CircularRegion& region);
    bool deliverExitRegion(const CircularRegion& region);
    bool deliverAuthorizationChange();
    bool deliverError(const Error& error);

    // What the code under test did.
    bool isUpdatingLocation() const { return updatingLocation_; }
    bool isMonitoringSignificantLocationChanges() const { return monitoringSignificantChanges_; }
    bool hasDelegate() const { return delegate_.lock() != nullptr; }
    // Every changing call in order, by member name: "setDelegate", "setDesiredAccuracy",
    // "startUpdatingLocation", "startMonitoring:<identifier>", ...
    const std::vector<std::string>& calls() const { return calls_; }
    int count(const std::string& call) const;
    void clearCalls() { calls_.clear(); }

private:
    std::weak_ptr<LocationManagerDelegate> delegate_;
    bool allowsBackgroundLocationUpdates_ = false;
    bool pausesLocationUpdatesAutomatically_ = true;  // the platform's defaults
    double distanceFilter_ = kCLDistanceFilterNone;
    double desiredAccuracy_ = kCLLocationAccuracyBest;
    std::vector<CircularRegion> monitoredRegions_;
    bool updatingLocation_ = false;
    bool monitoringSignificantChanges_ = false;
    AuthorizationStatus authorizationStatus_ = AuthorizationStatus::authorizedAlways;
    AccuracyAuthorization accuracyAuthorization_ = AccuracyAuthorization::fullAccuracy;
    bool locationServicesEnabled_ = true;
    std::vector<std::string> calls_;
};

}  // namespace rovalis::test
