#include "sensing/RegionMonitoringReceiver.h"

#include <optional>
#include <string>

#include "rovalis/Console.h"
#include "sensing/RegionCalculator.h"
#include "util/Fatal.h"

namespace rovalis {

RegionMonitoringReceiver::RegionMonitoringReceiver(std::shared_ptr<RVLDateSource> dateSource,
                                                   std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                                                   std::shared_ptr<EventRecordInsertable> eventInserter,
                                                   std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                                                   std::string sleepRegionPrefix,
                                                   std::shared_ptr<BeaconRegionEventReceiving> beaconRanger)
    : dateSource_(std::move(dateSource)),
      initiateWakeUpProvider_(std::move(initiateWakeUpProvider)),
      eventInserter_(std::move(eventInserter)),
      locationUpdateReceiver_(std::move(locationUpdateReceiver)),
      sleepRegionPrefix_(std::move(sleepRegionPrefix)),
      beaconRanger_(std::move(beaconRanger)) {
    if (!dateSource_ || !eventInserter_) fatalError("RegionMonitoringReceiver needs a date source and an event store");
}

void RegionMonitoringReceiver::didEnterRegion(const CircularRegion& region) {
    handleCrossing(region, RegionReason::enter);
}

void RegionMonitoringReceiver::didExitRegion(const CircularRegion& region) {
    handleCrossing(region, RegionReason::exit);
}

void RegionMonitoringReceiver::didEnterBeaconRegion(const BeaconRegion& region) {
    if (!beaconRanger_) {
        Console::log("entered beacon region " + region.identifier + " with beacon tracking off");
        return;
    }
    beaconRanger_->didEnterBeaconRegion(region);
}

void RegionMonitoringReceiver::didExitBeaconRegion(const BeaconRegion& region) {
    if (!beaconRanger_) {
        Console::log("exited beacon region " + region.identifier + " with beacon tracking off");
        return;
    }
    beaconRanger_->didExitBeaconRegion(region);
}

void RegionMonitoringReceiver::handleCrossing(const CircularRegion& region, RegionReason reason) {
    const bool entered = reason == RegionReason::enter;
    if (!region.identifier.starts_with(sleepRegionPrefix_)) {
        Console::log(std::string(entered ? "entered" : "exited") + " a region that is not a geofence: " +
                     regionDescription(region));
        return;
    }
    eventInserter_->insert(GeofenceTrigger(dateSource_->now(), reason, region.radius, region.center.latitude,
                                           region.center.longitude, region.identifier));

    const auto provider = initiateWakeUpProvider_.lock();
    if (!provider) return;
    std::optional<Location> lastLocation;
    if (const auto receiver = locationUpdateReceiver_.lock()) lastLocation = receiver->lastLocation();
    const std::string text = entered ? "entered surrounding geofence " : "exited geofence ";
    provider->initiateWakeUpWithReason(text + region.identifier, lastLocation);
}

}  // namespace rovalis
