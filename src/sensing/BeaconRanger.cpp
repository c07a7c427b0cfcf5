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
    if (window_) {
        extendWindow(*region);
    } else {
        openWindow(*region);
    }
}

void BeaconRanger::didExitBeaconRegion(const BeaconRegion& reported) {
    if (!regions_->contains(reported.identifier)) {
        Console::log("exited a beacon region that is not the SDK's: " + reported.identifier);
        return;
    }
    // Leaving a region tells nothing a ranging could add: the beacons are out of reach.
    Console::log("exited beacon region " + reported.identifier);
    debugEventsManager_->insertBeaconRangingDebugEvent("exited beacon region " + reported.identifier);
}

// ---- The window

void BeaconRanger::openWindow(const BeaconRegion& region) {
    window_ = Window{};
    window_->regionIdentifiers.push_back(region.identifier);
    scheduleClose();
    debugEventsManager_->insertBeaconRangingDebugEvent("forced ranging opened for beacon region " +
                                                       region.identifier);
    rangeBeaconsOf(region);
    startScanning();
}

void BeaconRanger::extendWindow(const BeaconRegion& region) {
    auto& entered = window_->regionIdentifiers;
    if (std::find(entered.begin(), entered.end(), region.identifier) == entered.end()) {
        entered.push_back(region.identifier);
    }
    scheduleClose();
    debugEventsManager_->insertBeaconRangingDebugEvent("forced ranging extended for beacon region " +
                                                       region.identifier);
    rangeBeaconsOf(region);
}

void BeaconRanger::scheduleClose() {
    if (closeTimer_) closeTimer_->invalidate();
    window_->end = runLoop_->now().addingSeconds(forcedRangingDuration);
    std::weak_ptr<BeaconRanger> weak = weak_from_this();
    closeTimer_ = runLoop_->scheduleTimer(forcedRangingDuration, false, [weak] {
        if (const auto self = weak.lock()) self->closeWindow();
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
    if (!eddystoneScanner_) return;
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
        window_->sightings.emplace_back(IBeacon(roundTime, beacon.uuid, beacon.major, beacon.minor, beacon.rssi));
        ++window_->iBeaconCount;
        auto& strongest = window_->strongestIBeacon;
        if (!strongest || beacon.rssi > strongest->rssi) {
            strongest = StrongestIBeacon{beacon.uuid, beacon.major, beacon.minor, beacon.rssi, own->regionIdentifier};
        }
    }
}

void BeaconRanger::didSeeEddystone(const EddystoneSighting& sighting) {
    if (!window_ || !window_->scanning) return;
    window_->sightings.emplace_back(Eddystone(sighting.time, sighting.eid, sighting.rssi));
    ++window_->eddystoneCount;
    auto& strongest = window_->strongestEddystone;
    if (!strongest || sighting.rssi > strongest->rssi) strongest = StrongestEddystone{sighting.eid, sighting.rssi};
}

void BeaconRanger::closeWindow() {
    if (!window_) return;
    closeTimer_.reset();
    stopRangingAndScanning();
    Window window = std::move(*window_);
    window_.reset();

    if (!window.sightings.empty()) eventInserter_->insert(BeaconScan(window.end, std::move(window.sightings)));
    debugEventsManager_->insertBeaconRangingDebugEvent(
        "forced ranging closed with " + std::to_string(window.iBeaconCount) + " iBeacon and " +
        std::to_string(window.eddystoneCount) + " Eddystone sightings");

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

// Every reason names a beacon: a wake-up for a beacon needs no burst to prove movement.
std::string BeaconRanger::wakeUpReason(const Window& window) {
    if (const auto& beacon = window.strongestIBeacon) {
        return "beacon " + beacon->uuid.uuidString() + " " + std::to_string(beacon->major) + "." +
               std::to_string(beacon->minor) + " ranged in region " + beacon->regionIdentifier;
    }
    const std::string& region = window.regionIdentifiers.front();
    if (const auto& beacon = window.strongestEddystone) {
        return "beacon " + beacon->eid + " seen during ranging of region " + region;
    }
    return "beacon region " + region + " entered";
}

}  // namespace rovalis
