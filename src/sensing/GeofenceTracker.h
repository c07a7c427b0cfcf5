#pragma once

#include <memory>
#include <optional>

#include "core/TrackingInterfaces.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/platform/LocationManager.h"
#include "sensing/GeofenceManagerForwarder.h"
#include "sensing/RegionCalculator.h"
#include "sensing/RegionMonitoringReceiver.h"

namespace rovalis {

// Lays the sleep regions around the stay position when the SDK goes to sleep, records each
// as a GeofenceCreate event, and removes them again when it wakes up or tracking ends.
// Only regions whose identifier starts with the calculator's prefix are touched; the
// location manager is shared with beacon monitoring. Runs on the main run loop.
class GeofenceTracker final : public RVLTracker {
public:
    // Makes the forwarder the location manager's delegate and the receiver the forwarder's.
    static std::shared_ptr<GeofenceTracker> create(std::shared_ptr<RVLDateSource> dateSource,
                                                   std::shared_ptr<RegionMonitoringReceiver> receiver,
                                                   std::shared_ptr<EventRecordInsertable> eventInserter,
                                                   std::shared_ptr<LocationManagerType> locationManager,
                                                   std::shared_ptr<GeofenceManagerForwarder> forwarder,
                                                   std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                                                   RegionCalculator regionCalculator);

    GeofenceTracker(const GeofenceTracker&) = delete;
    GeofenceTracker& operator=(const GeofenceTracker&) = delete;

    // RVLTracker
    void setup() override {}
    void start() override {}
    // The regions left from an earlier sleep (possibly of an earlier process: the platform
    // keeps monitoring them) go, and a new set is laid around the centre.
    void slowDown(const std::optional<Location>& centerLocation) override;
    void speedUp() override { removeSleepRegions(); }
    void stop() override { removeSleepRegions(); }
    void halt() override { removeSleepRegions(); }

    const RegionCalculator& regionCalculator() const { return regionCalculator_; }

private:
    GeofenceTracker(std::shared_ptr<RVLDateSource> dateSource, std::shared_ptr<RegionMonitoringReceiver> receiver,
                    std::shared_ptr<EventRecordInsertable> eventInserter,
                    std::shared_ptr<LocationManagerType> locationManager,
                    std::shared_ptr<GeofenceManagerForwarder> forwarder,
                    std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider, RegionCalculator regionCalculator);

    void laySleepRegions(const LocationCoordinate2D& center);
    void removeSleepRegions();

    const std::shared_ptr<LocationManagerType> locationManager_;
    const RegionCalculator regionCalculator_;
    const std::shared_ptr<GeofenceManagerForwarder> forwarder_;
    const std::shared_ptr<RegionMonitoringReceiver> receiver_;
    const std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider_;
    const std::shared_ptr<EventRecordInsertable> eventInserter_;
    const std::shared_ptr<RVLDateSource> dateSource_;
};

}  // namespace rovalis
