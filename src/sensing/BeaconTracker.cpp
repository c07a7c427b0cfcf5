#include "sensing/BeaconTracker.h"

#include "rovalis/Console.h"
#include "util/Fatal.h"

namespace rovalis {

std::shared_ptr<BeaconTracker> BeaconTracker::create(std::shared_ptr<BeaconRegionsContainer> regions,
                                                     std::shared_ptr<LocationManagerType> sharedLocationManager,
                                                     std::shared_ptr<BeaconWindowControl> ranging) {
    if (!regions || !sharedLocationManager || !ranging) {
        fatalError("BeaconTracker needs beacon regions, a location manager and beacon ranging");
    }
    return std::shared_ptr<BeaconTracker>(
        new BeaconTracker(std::move(regions), std::move(sharedLocationManager), std::move(ranging)));
}

BeaconTracker::BeaconTracker(std::shared_ptr<BeaconRegionsContainer> regions,
                             std::shared_ptr<LocationManagerType> sharedLocationManager,
                             std::shared_ptr<BeaconWindowControl> ranging)
    : regions_(std::move(regions)), locationManager_(std::move(sharedLocationManager)), ranging_(std::move(ranging)) {}

void BeaconTracker::start() {
    ranging_->trackingStarted();
    // A location source without Bluetooth (Linux) can neither watch nor range beacons.
    if (!locationManager_->isRangingAvailable()) {
        Console::log("beacon regions are not monitored: this device cannot detect beacons");
        return;
    }
    // A region the platform still watches from an earlier process is replaced by its
    // identifier, so starting again is harmless.
    for (const BeaconRegion& region : regions_->beaconRegions()) {
        locationManager_->startMonitoringBeaconRegion(region);
        Console::log("monitoring started on beacon region " + region.identifier);
    }
}

void BeaconTracker::stopMonitoring() {
    for (const BeaconRegion& region : locationManager_->monitoredBeaconRegions()) {
        if (!regions_->contains(region.identifier)) continue;
        locationManager_->stopMonitoringBeaconRegion(region);
        Console::log("monitoring stopped on beacon region " + region.identifier);
    }
}

}  // namespace rovalis
