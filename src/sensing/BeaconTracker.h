#pragma once

#include <memory>
#include <optional>

#include "core/TrackingInterfaces.h"
#include "rovalis/platform/LocationManager.h"
#include "sensing/BeaconRegionsContainer.h"

namespace rovalis {

// Watches the SDK's beacon regions while tracking runs. Their crossings arrive through the
// geofence forwarder of the shared location manager and go to beacon ranging. The regions
// stay watched asleep and awake: a beacon is a reason to wake, so sleep changes nothing.
// Only the container's beacon regions are ever touched; the sleep regions on the same
// location manager belong to the geofence tracker. Runs on the main run loop.
class BeaconTracker final : public RVLTracker {
public:
    // The location manager is the one the geofence tracker uses, with its forwarder as delegate.
    static std::shared_ptr<BeaconTracker> create(std::shared_ptr<BeaconRegionsContainer> regions,
                                                 std::shared_ptr<LocationManagerType> sharedLocationManager);

    BeaconTracker(const BeaconTracker&) = delete;
    BeaconTracker& operator=(const BeaconTracker&) = delete;

    // RVLTracker
    void setup() override {}
    void start() override;
    void stop() override { stopMonitoring(); }
    void halt() override { stopMonitoring(); }
    void speedUp() override {}
    void slowDown(const std::optional<Location>&) override {}

private:
    BeaconTracker(std::shared_ptr<BeaconRegionsContainer> regions,
                  std::shared_ptr<LocationManagerType> sharedLocationManager);

    void stopMonitoring();

    const std::shared_ptr<BeaconRegionsContainer> regions_;
    const std::shared_ptr<LocationManagerType> locationManager_;
};

}  // namespace rovalis
