#include "support/RecordingLocationManager.h"

#include <algorithm>

namespace rovalis::test {

void RecordingLocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
    delegate_ = std::move(delegate);
    calls_.emplace_back("setDelegate");
}

void RecordingLocationManager::setAllowsBackgroundLocationUpdates(bool allows) {
    allowsBackgroundLocationUpdates_ = allows;
    calls_.emplace_back("setAllowsBackgroundLocationUpdates");
}

void RecordingLocationManager::setPausesLocationUpdatesAutomatically(bool pauses) {
    pausesLocationUpdatesAutomatically_ = pauses;
    calls_.emplace_back("setPausesLocationUpdatesAutomatically");
}

void RecordingLocationManager::setDistanceFilter(double metres) {
    distanceFilter_ = metres;
    calls_.emplace_back("setDistanceFilter");
}

void RecordingLocationManager::setDesiredAccuracy(double metres) {
    desiredAccuracy_ = metres;
    calls_.emplace_back("setDesiredAccuracy");
}

void RecordingLocationManager::startUpdatingLocation() {
    updatingLocation_ = true;
    calls_.emplace_back("startUpdatingLocation");
}

void RecordingLocationManager::stopUpdatingLocation() {
    updatingLocation_ = false;
    calls_.emplace_back("stopUpdatingLocation");
}

void RecordingLocationManager::startMonitoringSignificantLocationChanges() {
    monitoringSignificantChanges_ = true;
    calls_.emplace_back("startMonitoringSignificantLocationChanges");
}

void RecordingLocationManager::stopMonitoringSignificantLocationChanges() {
    monitoringSignificantChanges_ = false;
    calls_.emplace_back("stopMonitoringSignificantLocationChanges");
}

void RecordingLocationManager::startMonitoring(const CircularRegion& region) {
    const auto same = [&](const CircularRegion& r) { return r.identifier == region.identifier; };
    const auto found = std::find_if(monitoredRegions_.begin(), monitoredRegions_.end(), same);
    if (found != monitoredRegions_.end()) {
        *found = region;
    } else {
        monitoredRegions_.push_back(region);
    }
    calls_.push_back("startMonitoring:" + region.identifier);
}

void RecordingLocationManager::stopMonitoring(const CircularRegion& region) {
    std::erase_if(monitoredRegions_, [&](const CircularRegion& r) { return r.identifier == region.identifier; });
    calls_.push_back("stopMonitoring:" + region.identifier);
}

bool RecordingLocationManager::deliverLocations(const std::vector<Location>& locations) {
    const auto target = delegate_.lock();
    if (!target) return false;
    target->locationManagerDidUpdateLocations(*this, locations);
    return true;
}

bool RecordingLocationManager::deliverEnterRegion(const CircularRegion& region) {
    const auto target = delegate_.lock();
    if (!target) return false;
    target->locationManagerDidEnterRegion(*this, region);
    return true;
}

bool RecordingLocationManager::deliverExitRegion(const CircularRegion& region) {
    const auto target = delegate_.lock();
    if (!target) return false;
    target->locationManagerDidExitRegion(*this, region);
    return true;
}

bool RecordingLocationManager::deliverAuthorizationChange() {
    const auto target = delegate_.lock();
    if (!target) return false;
    target->locationManagerDidChangeAuthorization(*this);
    return true;
}

bool RecordingLocationManager::deliverError(const Error& error) {
    const auto target = delegate_.lock();
    if (!target) return false;
    target->locationManagerDidFailWithError(*this, error);
    return true;
}

int RecordingLocationManager::count(const std::string& call) const {
    return static_cast<int>(std::count(calls_.begin(), calls_.end(), call));
}

}  // namespace rovalis::test
