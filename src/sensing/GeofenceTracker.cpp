#include "sensing/GeofenceTracker.h"

#include "events/EventRecords.h"
#include "rovalis/Console.h"
#include "util/Fatal.h"

namespace rovalis {

std::shared_ptr<GeofenceTracker> GeofenceTracker::create(std::shared_ptr<RVLDateSource> dateSource,
                                                         std::shared_ptr<RegionMonitoringReceiver> receiver,
                                                         std::shared_ptr<EventRecordInsertable> eventInserter,
                                                         std::shared_ptr<LocationManagerType> locationManager,
                                                         std::shared_ptr<GeofenceManagerForwarder> forwarder,
                                                         std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                                                         RegionCalculator regionCalculator) {
    if (!dateSource || !receiver || !eventInserter || !locationManager || !forwarder) {
        fatalError("GeofenceTracker needs a date source, a receiver, an event store, a location manager and a "
                   "forwarder");
    }
    std::shared_ptr<GeofenceTracker> tracker(new GeofenceTracker(
        std::move(dateSource), std::move(receiver), std::move(eventInserter), std::move(locationManager),
        std::move(forwarder), std::move(initiateWakeUpProvider), std::move(regionCalculator)));
    tracker->locationManager_->setDelegate(tracker->forwarder_);
    tracker->forwarder_->setDelegate(tracker->receiver_);
    return tracker;
}

GeofenceTracker::GeofenceTracker(std::shared_ptr<RVLDateSource> dateSource,
                                 std::shared_ptr<RegionMonitoringReceiver> receiver,
                                 std::shared_ptr<EventRecordInsertable> eventInserter,
                                 std::shared_ptr<LocationManagerType> locationManager,
                                 std::shared_ptr<GeofenceManagerForwarder> forwarder,
                                 std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                                 RegionCalculator regionCalculator)
    : locationManager_(std::move(locationManager)),
      regionCalculator_(std::move(regionCalculator)),
      forwarder_(std::move(forwarder)),
      receiver_(std::move(receiver)),
      initiateWakeUpProvider_(std::move(initiateWakeUpProvider)),
      eventInserter_(std::move(eventInserter)),
      dateSource_(std::move(dateSource)) {}

void GeofenceTracker::slowDown(const std::optional<Location>& centerLocation) {
    removeSleepRegions();
    if (!centerLocation) {
        Console::log("no center location: no geofences laid out");
        return;
    }
    laySleepRegions(centerLocation->coordinate);
}

void GeofenceTracker::laySleepRegions(const LocationCoordinate2D& center) {
    for (const CircularRegion& region : regionCalculator_.regions(center)) {
        locationManager_->startMonitoring(region);
        // The centre region watches for the exit only, the outer regions for entries.
        const RegionReason reason = region.notifyOnEntry ? RegionReason::enter : RegionReason::exit;
        eventInserter_->insert(GeofenceCreate(dateSource_->now(), reason, region.radius, region.center.latitude,
                                              region.center.longitude, region.identifier));
    }
}

void GeofenceTracker::removeSleepRegions() {
    for (const CircularRegion& region : locationManager_->monitoredRegions()) {
        if (!regionCalculator_.isOwnRegion(region.identifier)) continue;
        locationManager_->stopMonitoring(region);
        Console::log("monitoring stopped on " + regionDescription(region));
    }
}

}  // namespace rovalis
