#pragma once

#include <memory>
#include <optional>

#include "core/TrackingInterfaces.h"
#include "rovalis/platform/LocationManager.h"
#include "sensing/BeaconInterfaces.h"
#include "sensing/BeaconRegionsContainer.h"

namespace rovalis {

// Watches the SDK's beacon regions while tracking runs. Their crossings arrive through the
// geofence forwarder of the shared location manager and go to beacon ranging. The regions
// stay watched asleep and awake: a beacon may be a reason to wake. Each wake-up and each sleep
// is a moment for ranging to scan for Eddystone beacons, and a switch-off ends its window
// before the switch-off is recorded. Only the container's beacon regions are ever touched;
// the sleep regions on the same location manager belong to the geofence tracker. Runs on the
// main run loop.
class BeaconTracker final : public RVLTracker, public RVLTrackingStopPreparable {
public:
    // The location manager is the one the geofence tracker uses, with its forwarder as delegate.
    static std::shared_ptr<BeaconTracker> create(std::shared_ptr<BeaconRegionsContainer> regions,
                                                 std::shared_ptr<LocationManagerType> sharedLocationManager,
                                                 std::shared_ptr<BeaconWindowControl> ranging);

    BeaconTracker(const BeaconTracker&) = delete;
    BeaconTracker& operator=(const BeaconTracker&) = delete;

    // RVLTracker
    void setup() override {}
    void start() override;
    void stop() override { stopMonitoring(); }
    void halt() override { stopMonitoring(); }
    void speedUp() override { ranging_->didWakeUp(); }
    void slowDown(const std::optional<Location>&) override { ranging_->didFallAsleep(); }
    // RVLTrackingStopPreparable
    void trackingWillStop() override { ranging_->trackingWillStop(); }

private:
    BeaconTracker(std::shared_ptr<BeaconRegionsContainer> regions,
                  std::shared_ptr<LocationManagerType> sharedLocationManager,
                  std::shared_ptr<BeaconWindowControl> ranging);

    void stopMonitoring();

    const std::shared_ptr<BeaconRegionsContainer> regions_;
    const std::shared_ptr<LocationManagerType> locationManager_;
    const std::shared_ptr<BeaconWindowControl> ranging_;
};

}  // namespace rovalis
