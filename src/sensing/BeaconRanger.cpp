#include "sensing/BeaconRanger.h"

#include <algorithm>

#include "rovalis/Console.h"
#include "util/Fatal.h"

namespace rovalis {

std::shared_ptr<BeaconRanger> BeaconRanger::create(std::shared_ptr<LocationManagerType> locationManager,
                                                   std::shared_ptr<BeaconRangerForwarder> forwarder,
                                                   std::shared_ptr<BeaconRegionsContainer> regions,
                                                   std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                                                   std::shared_ptr<EddystoneScannerType> eddystoneScanner,
                                                   std::shared_ptr<EventRecordInsertable> eventInserter,
                                                   std::weak_ptr<RVLInitiateWakeUpType> wakeUpProvider,
                                                   std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                                                   std::shared_ptr<RunLoop> runLoop) {
    if (!locationManager || !forwarder || !regions || !debugEventsManager || !eventInserter || !runLoop) {
        fatalError("BeaconRanger needs a location manager, a forwarder, beacon regions, a debug events manager, an "
                   "event store and a run loop");
    }
    std::shared_ptr<BeaconRanger> ranger(new BeaconRanger(
        std::move(locationManager), std::move(forwarder), std::move(regions), std::move(debugEventsManager),
        std::move(eddystoneScanner), std::move(eventInserter), std::move(wakeUpProvider),
        std::move(locationUpdateReceiver), std::move(runLoop)));
    ranger->locationManager_->setDelegate(ranger->forwarder_);
    ranger->forwarder_->setDelegate(ranger);
    return ranger;
}

BeaconRanger::BeaconRanger(std::shared_ptr<LocationManagerType> locationManager,
                           std::shared_ptr<BeaconRangerForwarder> forwarder,
                           std::shared_ptr<BeaconRegionsContainer> regions,
                           std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                           std::shared_ptr<EddystoneScannerType> eddystoneScanner,
                           std::shared_ptr<EventRecordInsertable> eventInserter,
                           std::weak_ptr<RVLInitiateWakeUpType> wakeUpProvider,
                           std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                           std::shared_ptr<RunLoop> runLoop)
    : locationManager_(std::move(locationManager)),
      forwarder_(std::move(forwarder)),
      regions_(std::move(regions)),
      debugEventsManager_(std::move(debugEventsManager)),
      eddystoneScanner_(std::move(eddystoneScanner)),
      eventInserter_(std::move(eventInserter)),
      wakeUpProvider_(std::move(wakeUpProvider)),
      locationUpdateReceiver_(std::move(locationUpdateReceiver)),
      runLoop_(std::move(runLoop)) {}

BeaconRanger::~BeaconRanger() {
    if (closeTimer_) closeTimer_->invalidate();
    if (window_) stopRangingAndScanning();
}

std::optional<Date> BeaconRanger::windowEnd() const {
    if (!window_) return std::nullopt;
    return window_->end;
}

std::optional<BeaconRegion> BeaconRanger::ownRegion(const std::string& identifier) const {
    if (!regions_->contains(identifier)) return std::nullopt;
    for (const BeaconRegion& region : regions_->beaconRegions()) {
        if (region.identifier == identifier) return region;
    }
    return std::nullopt;
}

// ---- Region reports

void BeaconRanger::didEnterBeaconRegion(const BeaconRegion& reported) {
    // The SDK's own definition of the region counts, not what the report carries.
    const auto region = ownRegion(reported.identifier);
    if (!region) {
        Console::log("entered a beacon region that is not the SDK's: " + reported.identifier);
        return;
    }
    if (trackingStopped_) {
        Console::log("entered beacon region " + region->identifier + " after tracking stopped");
        return;
    }
    if (!window_) {
        window_ = Window{};
        startScanning();
    }
    auto& entered = window_->regionIdentifiers;
    const char* const step = entered.empty() ? "opened" : "extended";
    if (std::find(entered.begin(), entered.end(), region->identifier) == entered.end()) {
        entered.push_back(region->identifier);
    }
    window_->course.push_back(std::string("forced ranging ") + step + " for beacon region " + region->identifier);
    scheduleClose();
    rangeBeaconsOf(*region);
}

void BeaconRanger::didExitBeaconRegion(const BeaconRegion& reported) {
    if (!regions_->contains(reported.identifier)) {
        Console::log("exited a beacon region that is not the SDK's: " + reported.identifier);
        return;
    }
    // Leaving a region tells nothing a ranging could add: the beacons are out of reach. Nor is
    // it recorded: at the edge of a beacon's range the region is left again and again.
    Console::log("exited beacon region " + reported.identifier);
}

// ---- The SDK's transitions

void BeaconRanger::didWakeUp() { scanAtMoment("wake-up"); }

void BeaconRanger::didFallAsleep() { scanAtMoment("sleep"); }

void BeaconRanger::scanAtMoment(const std::string& moment) {
    // An open window scans already; without a scanner there is nothing to look with.
    if (trackingStopped_ || window_ || !eddystoneScanner_ || !eddystoneScanner_->isAvailable()) return;
    window_ = Window{};
    window_->course.push_back("Eddystone scan opened at " + moment);
    scheduleClose();
    startScanning();
}

void BeaconRanger::trackingWillStop() {
    trackingStopped_ = true;
    closeWindow(Closing::trackingStops);
}

// ---- The window

void BeaconRanger::scheduleClose() {
    if (closeTimer_) closeTimer_->invalidate();
    window_->end = runLoop_->now().addingSeconds(forcedRangingDuration);
    std::weak_ptr<BeaconRanger> weak = weak_from_this();
    closeTimer_ = runLoop_->scheduleTimer(forcedRangingDuration, false, [weak] {
        if (const auto self = weak.lock()) self->closeWindow(Closing::onTime);
    });
}

void BeaconRanger::rangeBeaconsOf(const BeaconRegion& region) {
    const auto& ranged = window_->ranged;
    const bool already = std::any_of(ranged.begin(), ranged.end(), [&](const RangedConstraint& each) {
        return each.constraint == region.constraint;
    });
    if (already) return;
    if (!locationManager_->isRangingAvailable()) {
        Console::log("beacon ranging is unavailable: beacon region " + region.identifier + " is not ranged");
        return;
    }
    window_->ranged.push_back({region.constraint, region.identifier});
    locationManager_->startRangingBeacons(region.constraint);
}

void BeaconRanger::startScanning() {
    if (!eddystoneScanner_ || window_->scanning) return;
    if (!eddystoneScanner_->isAvailable()) {
        Console::log("Eddystone scanning is unavailable");
        return;
    }
    window_->scanning = true;
    std::weak_ptr<BeaconRanger> weak = weak_from_this();
    eddystoneScanner_->startScanning([weak](const EddystoneSighting& sighting) {
        if (const auto self = weak.lock()) self->didSeeEddystone(sighting);
    });
}

void BeaconRanger::keep(BeaconSighting sighting) {
    if (window_->sightings.size() < maxSightingsPerWindow) window_->sightings.push_back(std::move(sighting));
}

void BeaconRanger::didRangeBeacons(const std::vector<RangedBeacon>& beacons,
                                   const BeaconIdentityConstraint& constraint) {
    if (!window_) return;  // a round that was under way when ranging stopped
    const auto& ranged = window_->ranged;
    const auto own = std::find_if(ranged.begin(), ranged.end(),
                                  [&](const RangedConstraint& each) { return each.constraint == constraint; });
    if (own == ranged.end()) return;
    const Date roundTime = runLoop_->now();
    for (const RangedBeacon& beacon : beacons) {
        if (beacon.rssi == 0) continue;  // known from an earlier round, not heard in this one
        keep(IBeacon(roundTime, beacon.uuid, beacon.major, beacon.minor, beacon.rssi));
        ++window_->iBeaconCount;
        auto& strongest = window_->strongestIBeacon;
        if (!strongest || beacon.rssi > strongest->rssi) {
            strongest = StrongestIBeacon{beacon.uuid, beacon.major, beacon.minor, beacon.rssi, own->regionIdentifier};
        }
    }
}

void BeaconRanger::didSeeEddystone(const EddystoneSighting& sighting) {
    if (!window_ || !window_->scanning) return;
    keep(Eddystone(sighting.time, sighting.eid, sighting.rssi));
    ++window_->eddystoneCount;
    auto& strongest = window_->strongestEddystone;
    if (!strongest || sighting.rssi > strongest->rssi) strongest = StrongestEddystone{sighting.eid, sighting.rssi};
}

void BeaconRanger::closeWindow(Closing closing) {
    if (!window_) return;
    if (closeTimer_) {
        closeTimer_->invalidate();
        closeTimer_.reset();
    }
    stopRangingAndScanning();
    Window window = std::move(*window_);
    window_.reset();

    if (window.sightings.empty()) {
        ++silentWindows_;
        Console::log(window.regionIdentifiers.empty()
                         ? std::string("Eddystone scan heard nothing")
                         : "forced ranging for beacon region " + window.regionIdentifiers.front() + " heard nothing");
        return;
    }
    // Closed early as tracking stops, the window is stamped now, ahead of the switch-off.
    const Date closed = std::min(window.end, runLoop_->now());
    for (const std::string& step : window.course) debugEventsManager_->insertBeaconRangingDebugEvent(step);
    eventInserter_->insert(BeaconScan(closed, std::move(window.sightings)));
    debugEventsManager_->insertBeaconRangingDebugEvent(closingText(window, closing));
    silentWindows_ = 0;

    // A moment's scan is made awake or while falling asleep: it has nothing to wake.
    if (closing == Closing::onTime && !window.regionIdentifiers.empty()) askToWakeUp(window);
}

void BeaconRanger::askToWakeUp(const Window& window) {
    const auto provider = wakeUpProvider_.lock();
    if (!provider) return;
    std::optional<Location> lastLocation;
    if (const auto receiver = locationUpdateReceiver_.lock()) lastLocation = receiver->lastLocation();
    provider->initiateWakeUpWithReason(wakeUpReason(window), lastLocation);
}

void BeaconRanger::stopRangingAndScanning() {
    for (const RangedConstraint& each : window_->ranged) locationManager_->stopRangingBeacons(each.constraint);
    if (window_->scanning && eddystoneScanner_) eddystoneScanner_->stopScanning();
}

// "forced ranging closed with 412 iBeacon and 3 Eddystone sightings, 115 past the first 300
// counted but not recorded, after 2 windows that heard nothing"
std::string BeaconRanger::closingText(const Window& window, Closing closing) const {
    std::string text = std::string(window.regionIdentifiers.empty() ? "Eddystone scan" : "forced ranging") +
                       (closing == Closing::trackingStops ? " closed as tracking stops with " : " closed with ") +
                       std::to_string(window.iBeaconCount) + " iBeacon and " + std::to_string(window.eddystoneCount) +
                       " Eddystone sightings";
    const std::size_t heard = window.iBeaconCount + window.eddystoneCount;
    if (heard > maxSightingsPerWindow) {
        text += ", " + std::to_string(heard - maxSightingsPerWindow) + " past the first " +
                std::to_string(maxSightingsPerWindow) + " counted but not recorded";
    }
    if (silentWindows_ == 1) text += ", after 1 window that heard nothing";
    if (silentWindows_ > 1) text += ", after " + std::to_string(silentWindows_) + " windows that heard nothing";
    return text;
}

// Every reason names a beacon: that is how the SDK tells a beacon's wake-up from others.
std::string BeaconRanger::wakeUpReason(const Window& window) {
    if (const auto& beacon = window.strongestIBeacon) {
        return "beacon " + beacon->uuid.uuidString() + " " + std::to_string(beacon->major) + "." +
               std::to_string(beacon->minor) + " ranged in region " + beacon->regionIdentifier;
    }
    const std::string& region = window.regionIdentifiers.front();
    return "beacon " + window.strongestEddystone->eid + " seen during ranging of region " + region;
}

}  // namespace rovalis
