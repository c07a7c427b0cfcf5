#pragma once

#include <memory>

#include "core/TrackingInterfaces.h"
#include "events/EventRecords.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/SleepRegions.h"
#include "sensing/BeaconInterfaces.h"
#include "sensing/GeofenceManagerForwarder.h"

namespace rovalis {

// Handles region crossings. A crossing of a sleep region is recorded as a GeofenceTrigger
// event and asks for a wake-up, with the last known location; the wake-up reason names the
// crossing ("exited geofence <identifier>", "entered surrounding geofence <identifier>"),
// which is how the wake-up is classified. Crossings of other regions are not the SDK's
// geofences and are left alone. Crossings of beacon regions go to beacon ranging, which
// records them and asks for the wake-up itself; without beacon ranging (beacon tracking
// off) they are ignored. Runs on the main run loop.
class RegionMonitoringReceiver final : public GeofenceManagerDelegateType {
public:
    RegionMonitoringReceiver(std::shared_ptr<RVLDateSource> dateSource,
                             std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                             std::shared_ptr<EventRecordInsertable> eventInserter,
                             std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                             std::string sleepRegionPrefix = SleepRegionConfiguration{}.identifierPrefix,
                             std::shared_ptr<BeaconRegionEventReceiving> beaconRanger = nullptr);

    void didEnterRegion(const CircularRegion& region) override;
    void didExitRegion(const CircularRegion& region) override;
    void didEnterBeaconRegion(const BeaconRegion& region) override;
    void didExitBeaconRegion(const BeaconRegion& region) override;

private:
    void handleCrossing(const CircularRegion& region, RegionReason reason);

    const std::shared_ptr<RVLDateSource> dateSource_;
    const std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider_;
    const std::shared_ptr<EventRecordInsertable> eventInserter_;
    const std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver_;
    const std::string sleepRegionPrefix_;
    const std::shared_ptr<BeaconRegionEventReceiving> beaconRanger_;
};

}  // namespace rovalis
