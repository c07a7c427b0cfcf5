#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rovalis/platform/LocationManager.h"

namespace rovalis::test {

// An in-memory location manager: it keeps its settings and monitored regions, logs every
// call that changes something, and lets the test deliver reports to the delegate the way
// the platform would (on the caller's thread, which the test makes the main run loop).
class RecordingLocationManager : public LocationManagerType {
public:
    std::shared_ptr<LocationManagerDelegate> delegate() const override { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override {
        set(delegate_, std::move(delegate), "setDelegate");
    }

    bool allowsBackgroundLocationUpdates() const override { return allowsBackground_; }
    void setAllowsBackgroundLocationUpdates(bool allows) override {
        set(allowsBackground_, allows, "setAllowsBackgroundLocationUpdates");
    }
    bool pausesLocationUpdatesAutomatically() const override { return pausesAutomatically_; }
    void setPausesLocationUpdatesAutomatically(bool pauses) override {
        set(pausesAutomatically_, pauses, "setPausesLocationUpdatesAutomatically");
    }
    double distanceFilter() const override { return distanceFilter_; }
    void setDistanceFilter(double metres) override { set(distanceFilter_, metres, "setDistanceFilter"); }
    double desiredAccuracy() const override { return desiredAccuracy_; }
    void setDesiredAccuracy(double metres) override { set(desiredAccuracy_, metres, "setDesiredAccuracy"); }

    std::vector<CircularRegion> monitoredRegions() const override { return monitoredRegions_; }

    void startUpdatingLocation() override { set(updatingLocation_, true, "startUpdatingLocation"); }
    void stopUpdatingLocation() override { set(updatingLocation_, false, "stopUpdatingLocation"); }
    void startMonitoringSignificantLocationChanges() override {
        set(monitoringSignificantChanges_, true, "startMonitoringSignificantLocationChanges");
    }
    void stopMonitoringSignificantLocationChanges() override {
        set(monitoringSignificantChanges_, false, "stopMonitoringSignificantLocationChanges");
    }
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
    bool deliverLocations(const std::vector<Location>& locations) {
        return deliver(&LocationManagerDelegate::locationManagerDidUpdateLocations, locations);
    }
    bool deliverEnterRegion(const CircularRegion& region) {
        return deliver(&LocationManagerDelegate::locationManagerDidEnterRegion, region);
    }
    bool deliverExitRegion(const CircularRegion& region) {
        return deliver(&LocationManagerDelegate::locationManagerDidExitRegion, region);
    }
    bool deliverAuthorizationChange() {
        return deliver(&LocationManagerDelegate::locationManagerDidChangeAuthorization);
    }
    bool deliverError(const Error& error) {
        return deliver(&LocationManagerDelegate::locationManagerDidFailWithError, error);
    }

    bool isUpdatingLocation() const { return updatingLocation_; }
    bool isMonitoringSignificantLocationChanges() const { return monitoringSignificantChanges_; }
    // Every changing call in order, by member name: "setDelegate", "setDesiredAccuracy",
    // "startUpdatingLocation", "startMonitoring:<identifier>", ...
    const std::vector<std::string>& calls() const { return calls_; }

private:
    template <typename T, typename V>
    void set(T& field, V&& value, std::string call) {
        field = std::forward<V>(value);
        calls_.push_back(std::move(call));
    }
    template <typename... Args, typename... Given>
    bool deliver(void (LocationManagerDelegate::*report)(LocationManagerType&, Args...), Given&&... given) {
        const auto target = delegate_.lock();
        if (target) ((*target).*report)(*this, std::forward<Given>(given)...);
        return target != nullptr;
    }

    std::weak_ptr<LocationManagerDelegate> delegate_;
    bool allowsBackground_ = false;
    bool pausesAutomatically_ = true;  // the platform's defaults
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
