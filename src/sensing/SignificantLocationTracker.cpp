#include "sensing/SignificantLocationTracker.h"

#include <cstdio>

#include "util/DateDescription.h"
#include "util/Fatal.h"

namespace rovalis {

std::shared_ptr<SignificantLocationTracker> SignificantLocationTracker::create(
    std::shared_ptr<LocationManagerType> locationManager, std::shared_ptr<LocationManagerForwarder> forwarder,
    std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider, std::shared_ptr<RVLEventInsertable> eventRepository,
    std::shared_ptr<RVLDateSource> dateSource) {
    if (!locationManager || !forwarder || !eventRepository || !dateSource) {
        fatalError(
            "SignificantLocationTracker needs a location manager, a forwarder, an event store and a date source");
    }
    std::shared_ptr<SignificantLocationTracker> tracker(
        new SignificantLocationTracker(std::move(locationManager), std::move(forwarder),
                                       std::move(initiateWakeUpProvider), std::move(eventRepository),
                                       std::move(dateSource)));
    LocationManagerType& manager = *tracker->locationManager_;
    manager.setAllowsBackgroundLocationUpdates(true);
    manager.setPausesLocationUpdatesAutomatically(false);
    manager.setDistanceFilter(kCLDistanceFilterNone);
    manager.setDelegate(tracker->forwarder_);
    tracker->forwarder_->setDelegate(tracker);
    return tracker;
}

SignificantLocationTracker::SignificantLocationTracker(std::shared_ptr<LocationManagerType> locationManager,
                                                       std::shared_ptr<LocationManagerForwarder> forwarder,
                                                       std::weak_ptr<RVLInitiateWakeUpType> initiateWakeUpProvider,
                                                       std::shared_ptr<RVLEventInsertable> eventRepository,
                                                       std::shared_ptr<RVLDateSource> dateSource)
    : locationManager_(std::move(locationManager)),
      forwarder_(std::move(forwarder)),
      initiateWakeUpProvider_(std::move(initiateWakeUpProvider)),
      eventRepository_(std::move(eventRepository)),
      dateSource_(std::move(dateSource)) {}

void SignificantLocationTracker::didUpdateLocations(const std::vector<Location>& locations) {
    for (const Location& location : locations) {
        if (acceptFixFrom(significantChangesPath, location) && verify(location, dateSource_->now())) {
            processLocation(location);
        }
    }
}

void SignificantLocationTracker::processLocation(const Location& location) {
    eventRepository_->insertSignificantLocationEventWithTrackedAtMs(location.timestamp, location.coordinate.latitude,
                                                                    location.coordinate.longitude,
                                                                    location.horizontalAccuracy);
    if (const auto provider = initiateWakeUpProvider_.lock()) {
        provider->initiateWakeUpWithReason(wakeUpReason(location), location);
    }
}

std::string SignificantLocationTracker::wakeUpReason(const Location& location) {
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "new significant location: lat/lon %.4f, %.4f, acc: %.2f, time: ",
                  location.coordinate.latitude, location.coordinate.longitude, location.horizontalAccuracy);
    return numbers + dateDebugDescription(location.timestamp);
}

}  // namespace rovalis
