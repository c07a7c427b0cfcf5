#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/TrackingInterfaces.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/platform/LocationManager.h"
#include "sensing/LocationManagerForwarder.h"
#include "sensing/LocationVerifier.h"

namespace rovalis {

// Watches the platform's coarse significant-change service while tracking is on: every
// accepted fix is recorded as a SignificantLocation event and asks for a wake-up (the
// tracking core ignores the request while the SDK is awake). Lives on the main run loop.
class SignificantLocationTracker final : public RVLTracker,
                                         public LocationManagerDelegateType,
                                         public LocationProcessor,
                                         public LocationVerifier {
public:
    // Configures the location manager for background delivery, makes the forwarder its
    // delegate and the tracker the forwarder's delegate.
    static std::shared_ptr<SignificantLocationTracker> create(
        std::shared_ptr<LocationManagerType> locationManager, std::shared_ptr<LocationManagerForwarder> forwarder,
        std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
        std::shared_ptr<RVLEventInsertable> eventRepository, std::shared_ptr<RVLDateSource> dateSource);

    SignificantLocationTracker(const SignificantLocationTracker&) = delete;
    SignificantLocationTracker& operator=(const SignificantLocationTracker&) = delete;

    // RVLTracker
    void setup() override {}
    void start() override { locationManager_->startMonitoringSignificantLocationChanges(); }
    void stop() override { locationManager_->stopMonitoringSignificantLocationChanges(); }
    void halt() override {}
    void speedUp() override {}
    void slowDown(const std::optional<Location>&) override {}

    // LocationVerifier
    double maximumHorizontalAccuracy() const override { return 10000.0; }
    double maximumAge() const override { return 300.0; }

    // LocationManagerDelegateType
    void didUpdateLocations(const std::vector<Location>& locations) override;
    // LocationProcessor
    void processLocation(const Location& location) override;

    // "new significant location: lat/lon 52.5200, 13.4050, acc: 65.00, time: 2023-11-14 22:13:20 +0000"
    static std::string wakeUpReason(const Location& location);

private:
    SignificantLocationTracker(std::shared_ptr<LocationManagerType> locationManager,
                               std::shared_ptr<LocationManagerForwarder> forwarder,
                               std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                               std::shared_ptr<RVLEventInsertable> eventRepository,
                               std::shared_ptr<RVLDateSource> dateSource);

    const std::shared_ptr<LocationManagerType> locationManager_;
    const std::shared_ptr<LocationManagerForwarder> forwarder_;
    const std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider_;
    const std::shared_ptr<RVLEventInsertable> eventRepository_;
    const std::shared_ptr<RVLDateSource> dateSource_;
};

}  // namespace rovalis
