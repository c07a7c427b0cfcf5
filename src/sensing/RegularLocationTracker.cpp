#include "sensing/RegularLocationTracker.h"

#include <cmath>

#include "util/Fatal.h"

namespace rovalis {

std::shared_ptr<RegularLocationTracker> RegularLocationTracker::create(
    std::shared_ptr<LocationManagerType> locationManager, std::shared_ptr<LocationManagerForwarder> forwarder,
    std::weak_ptr<RVLInitiateSleepType> sleepInitiationProvider, std::unique_ptr<StayDetectorType> stayDetector,
    std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
    std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager, std::shared_ptr<RunLoop> runLoop) {
    if (!locationManager || !forwarder || !stayDetector || !runLoop) {
        fatalError("RegularLocationTracker needs a location manager, a forwarder, a stay detector and a run loop");
    }
    std::shared_ptr<RegularLocationTracker> tracker(new RegularLocationTracker(
        std::move(locationManager), std::move(sleepInitiationProvider), std::move(stayDetector),
        std::move(locationUpdateReceiver), std::move(debugEventsManager), std::move(forwarder), std::move(runLoop)));

    LocationManagerType& manager = *tracker->locationManager_;
    manager.setAllowsBackgroundLocationUpdates(true);
    manager.setPausesLocationUpdatesAutomatically(false);
    manager.setDistanceFilter(kCLDistanceFilterNone);
    manager.setDesiredAccuracy(kCLLocationAccuracyHundredMeters);
    manager.setDelegate(tracker->forwarder_);
    tracker->stayDetector_->setDelegate(tracker);
    return tracker;
}

RegularLocationTracker::RegularLocationTracker(std::shared_ptr<LocationManagerType> locationManager,
                                               std::weak_ptr<RVLInitiateSleepType> sleepInitiationProvider,
                                               std::unique_ptr<StayDetectorType> stayDetector,
                                               std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                                               std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                                               std::shared_ptr<LocationManagerForwarder> forwarder,
                                               std::shared_ptr<RunLoop> runLoop)
    : locationManager_(std::move(locationManager)),
      sleepInitiationProvider_(std::move(sleepInitiationProvider)),
      stayDetector_(std::move(stayDetector)),
      locationUpdateReceiver_(std::move(locationUpdateReceiver)),
      debugEventsManager_(std::move(debugEventsManager)),
      forwarder_(std::move(forwarder)),
      runLoop_(std::move(runLoop)) {}

RegularLocationTracker::~RegularLocationTracker() { invalidateTimers(); }

void RegularLocationTracker::stop() {
    forwarder_->setDelegate({});
    locationManager_->stopUpdatingLocation();
    invalidateTimers();
}

void RegularLocationTracker::halt() {
    // Only the duty cycle stops: fixes keep coming at the accuracy last asked for.
    invalidateTimers();
}

void RegularLocationTracker::slowDown(const std::optional<Location>& /*centerLocation*/) { stop(); }

void RegularLocationTracker::speedUp() {
    forwarder_->setDelegate(weak_from_this());
    stayDetector_->resetCluster();
    stayDetector_->resetCurrentLocation();
    locationManager_->startUpdatingLocation();

    // A cycle already running goes on as it is.
    if (timerLong_) return;
    const std::weak_ptr<RegularLocationTracker> weakSelf = weak_from_this();
    timerLong_ = runLoop_->scheduleTimer(dutyCycleInterval, true, [weakSelf] {
        if (const auto self = weakSelf.lock()) self->openFinePeriod();
    });
    // The first fine period opens now rather than after a whole cycle.
    timerLong_->fire();
}

void RegularLocationTracker::openFinePeriod() {
    if (timerShort_) return;
    // The location service is restarted so that the new accuracy takes effect at once.
    locationManager_->stopUpdatingLocation();
    locationManager_->setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
    locationManager_->startUpdatingLocation();
    const std::weak_ptr<RegularLocationTracker> weakSelf = weak_from_this();
    timerShort_ = runLoop_->scheduleTimer(finePeriodDuration, false, [weakSelf] {
        if (const auto self = weakSelf.lock()) self->closeFinePeriod();
    });
}

void RegularLocationTracker::closeFinePeriod() {
    locationManager_->stopUpdatingLocation();
    locationManager_->setDesiredAccuracy(kCLLocationAccuracyHundredMeters);
    locationManager_->startUpdatingLocation();
    timerShort_.reset();  // it has fired and is done
}

void RegularLocationTracker::invalidateTimers() {
    if (timerLong_) timerLong_->invalidate();
    if (timerShort_) timerShort_->invalidate();
    timerLong_.reset();
    timerShort_.reset();
}

void RegularLocationTracker::didUpdateLocations(const std::vector<Location>& locations) {
    for (const Location& location : locations) {
        if (acceptFixFrom(regularUpdatesPath, location) && verify(location, runLoop_->now())) {
            processLocation(location);
        }
    }
}

void RegularLocationTracker::processLocation(const Location& location) {
    if (const auto receiver = locationUpdateReceiver_.lock()) receiver->didUpdateLocation(location, provider);
    stayDetector_->processLocation(location);
}

void RegularLocationTracker::didDetectStay(const Location& /*center*/) {
    if (const auto provider = sleepInitiationProvider_.lock()) {
        provider->initiateSleepWithReason(stayReason(stayDetector_->timeLimit()));
    }
}

std::string RegularLocationTracker::stayReason(double timeLimit) {
    return "no movement in " + std::to_string(static_cast<long long>(std::trunc(timeLimit / 60.0))) + " minutes";
}

}  // namespace rovalis
