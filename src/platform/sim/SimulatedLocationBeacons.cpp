// The beacon half of the simulated location service: iBeacon regions and ranging, heard
// through the device's Bluetooth radio.

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "platform/sim/SimulatedBluetooth.h"
#include "platform/sim/SimulatedLocationService.h"
#include "sensing/BeaconFrames.h"

namespace rovalis::sim {

namespace {

struct HeardIBeacon {
    Date time;
    IBeaconAdvertisement advertisement;
    long rssi = 0;
};

// The iBeacons among the advertisements, read as the SDK reads them.
std::vector<HeardIBeacon> iBeaconsIn(const std::vector<BleAdvertisement>& heard) {
    std::vector<HeardIBeacon> beacons;
    for (const auto& advertisement : heard) {
        const auto payload = advertisement.manufacturerData.find(kIBeaconCompanyIdentifier);
        if (payload == advertisement.manufacturerData.end()) continue;
        if (const auto parsed = parseIBeacon(payload->second)) {
            beacons.push_back({advertisement.timestamp, *parsed, advertisement.rssi});
        }
    }
    return beacons;
}

bool matches(const BeaconIdentityConstraint& constraint, const IBeaconAdvertisement& advertisement) {
    return constraint.matches(advertisement.uuid, advertisement.major, advertisement.minor);
}

// One ranging round: the beacons of the constraint heard since `since`, strongest first.
std::vector<RangedBeacon> rangingRound(const std::vector<HeardIBeacon>& heard, const BeaconIdentityConstraint& constraint,
                                       Date since, Date now) {
    struct Readings {
        double sum = 0.0;
        int count = 0;
        std::int8_t measuredPower = 0;
    };
    using Identity = std::tuple<std::array<std::uint8_t, 16>, std::uint16_t, std::uint16_t>;
    std::map<Identity, Readings> readings;
    for (const auto& beacon : heard) {
        if (beacon.time < since || !matches(constraint, beacon.advertisement)) continue;
        auto& entry = readings[{beacon.advertisement.uuid.bytes, beacon.advertisement.major,
                                beacon.advertisement.minor}];
        entry.sum += static_cast<double>(beacon.rssi);
        ++entry.count;
        entry.measuredPower = beacon.advertisement.measuredPower;
    }
    std::vector<RangedBeacon> round;
    for (const auto& [identity, entry] : readings) {
        const double mean = entry.sum / entry.count;
        RangedBeacon beacon;
        beacon.uuid.bytes = std::get<0>(identity);
        beacon.major = std::get<1>(identity);
        beacon.minor = std::get<2>(identity);
        beacon.rssi = std::lround(mean);
        beacon.accuracy = BeaconSignalModel::distanceFor(entry.measuredPower, mean);
        beacon.timestamp = now;
        round.push_back(beacon);
    }
    std::stable_sort(round.begin(), round.end(), [](const RangedBeacon& a, const RangedBeacon& b) {
        if (a.rssi != b.rssi) return a.rssi > b.rssi;
        return a.accuracy < b.accuracy;
    });
    return round;
}

}  // namespace

// ---- SimulatedLocationService ----

void SimulatedLocationService::setBluetoothRadio(std::shared_ptr<SimulatedBluetoothRadio> radio) {
    if (radio_) {
        radio_->setSystemListening(false);
        radio_->setSystemListener(nullptr);
    }
    radio_ = std::move(radio);
    if (radio_) {
        radio_->setSystemListener([self = weak_from_this()](const std::vector<BleAdvertisement>& heard) {
            if (const auto service = self.lock()) service->heardAdvertisements(heard);
        });
    }
    updateBeaconWatch();
}

bool SimulatedLocationService::rangingUsable() const {
    return settings_.servicesEnabled && (settings_.authorization == AuthorizationStatus::authorizedAlways ||
                                         settings_.authorization == AuthorizationStatus::authorizedWhenInUse);
}

std::vector<BeaconRegion> SimulatedLocationService::monitoredBeaconRegions() const {
    std::vector<BeaconRegion> regions;
    regions.reserve(beaconRegions_.size());
    for (const auto& [identifier, entry] : beaconRegions_) regions.push_back(entry.region);
    return regions;
}

bool SimulatedLocationService::isInsideBeaconRegion(const std::string& identifier) const {
    const auto found = beaconRegions_.find(identifier);
    return found != beaconRegions_.end() && found->second.inside;
}

void SimulatedLocationService::startMonitoringBeaconRegion(const BeaconRegion& region) {
    if (const auto found = beaconRegions_.find(region.identifier); found != beaconRegions_.end()) {
        if (found->second.entryTimer) found->second.entryTimer->invalidate();
        beaconRegions_.erase(found);
    }
    beaconRegions_.emplace(region.identifier, BeaconRegionEntry{region, false, std::nullopt, nullptr});
    updateBeaconWatch();
}

void SimulatedLocationService::stopMonitoringBeaconRegion(const std::string& identifier) {
    const auto found = beaconRegions_.find(identifier);
    if (found == beaconRegions_.end()) return;
    if (found->second.entryTimer) found->second.entryTimer->invalidate();
    beaconRegions_.erase(found);
    updateBeaconWatch();
}

void SimulatedLocationService::invalidateBeaconTimers() {
    for (auto& [identifier, entry] : beaconRegions_) {
        if (entry.entryTimer) entry.entryTimer->invalidate();
        entry.entryTimer.reset();
    }
}

void SimulatedLocationService::updateBeaconWatch() {
    const bool watch = !beaconRegions_.empty() && beaconRegionsUsable();
    if (watch != beaconRegionsWatched_) {
        beaconRegionsWatched_ = watch;
        if (!watch) {
            invalidateBeaconTimers();
        } else {
            // Nothing was heard while unwatched: a region inside gets the full time to be heard again.
            const Date current = now();
            for (auto& [identifier, entry] : beaconRegions_) {
                if (entry.inside) entry.lastHeard = current;
            }
        }
    }
    bool ranging = false;
    if (rangingUsable()) {
        const auto live = liveManagers();
        ranging = std::any_of(live.begin(), live.end(), [](const auto& manager) { return !manager->ranging_.empty(); });
    }
    context_.energy->setRanging(ranging);
    if (radio_) radio_->setSystemListening(watch || ranging);
}

void SimulatedLocationService::heardAdvertisements(const std::vector<BleAdvertisement>& heard) {
    const Date current = now();
    const std::vector<HeardIBeacon> beacons = iBeaconsIn(heard);

    std::vector<BeaconRegion> exits;
    if (beaconRegionsWatched_) {
        for (auto& [identifier, entry] : beaconRegions_) {
            std::optional<Date> firstHeard;
            for (const auto& beacon : beacons) {
                if (beacon.rssi < beaconRegionRssi || !matches(entry.region.constraint, beacon.advertisement)) continue;
                if (!firstHeard) firstHeard = beacon.time;
                entry.lastHeard = std::max(entry.lastHeard.value_or(beacon.time), beacon.time);
            }
            if (entry.inside) {
                if (!entry.lastHeard || current.timeIntervalSince(*entry.lastHeard) >= beaconRegionExitDelay) {
                    entry.inside = false;
                    if (entry.region.notifyOnExit) exits.push_back(entry.region);
                }
                continue;
            }
            if (entry.entryTimer || !firstHeard) continue;
            const double delay = beaconRegionRandom_.uniform(beaconRegionEntryDelayLow, beaconRegionEntryDelayHigh);
            const double wait = std::max(0.0, firstHeard->addingSeconds(delay).timeIntervalSince(current));
            // The key is copied by name: clang 14 cannot capture a structured binding.
            entry.entryTimer = context_.runLoop->scheduleTimer(
                wait, false, [self = weak_from_this(), identifier = identifier] {
                    if (const auto service = self.lock()) service->enterBeaconRegion(identifier);
                });
        }
    }

    struct Round {
        std::shared_ptr<SimulatedLocationManager> manager;
        BeaconIdentityConstraint constraint;
        std::vector<RangedBeacon> beacons;
    };
    std::vector<Round> rounds;
    if (rangingUsable()) {
        for (const auto& manager : liveManagers()) {
            for (const auto& ranging : manager->ranging_) {
                rounds.push_back({manager, ranging.constraint,
                                  rangingRound(beacons, ranging.constraint, ranging.since, current)});
            }
        }
    }

    // Delivered after the work: a delegate may start or stop regions and ranging.
    for (const auto& region : exits) reportBeaconRegionEvent(region, RegionEventKind::exit);
    auto& log = context_.log->rangingRounds;
    const std::size_t firstOfThisSecond = log.size();
    for (const auto& round : rounds) {
        const auto& still = round.manager->ranging_;
        const bool ranging = std::any_of(still.begin(), still.end(),
                                         [&](const auto& entry) { return entry.constraint == round.constraint; });
        const auto delegate = round.manager->delegate();
        const bool told = ranging && delegate;
        if (told) delegate->locationManagerDidRangeBeacons(*round.manager, round.beacons, round.constraint);
        if (round.beacons.empty()) continue;
        const auto logged = std::find_if(log.begin() + static_cast<std::ptrdiff_t>(firstOfThisSecond), log.end(),
                                         [&](const auto& entry) { return entry.constraint == round.constraint; });
        if (logged != log.end()) {
            logged->recipients += told ? 1 : 0;
        } else {
            log.push_back({current, round.constraint, round.beacons, told ? 1u : 0u});
        }
    }
}

void SimulatedLocationService::enterBeaconRegion(const std::string& identifier) {
    const auto found = beaconRegions_.find(identifier);
    if (found == beaconRegions_.end()) return;
    auto& entry = found->second;
    entry.entryTimer.reset();
    if (!beaconRegionsWatched_ || entry.inside) return;
    entry.inside = true;
    if (entry.region.notifyOnEntry) reportBeaconRegionEvent(entry.region, RegionEventKind::enter);
}

void SimulatedLocationService::reportBeaconRegionEvent(const BeaconRegion& region, RegionEventKind kind) {
    const std::size_t recipients = tellDelegates([&](LocationManagerDelegate& delegate, LocationManagerType& manager) {
        if (kind == RegionEventKind::enter) {
            delegate.locationManagerDidEnterBeaconRegion(manager, region);
        } else {
            delegate.locationManagerDidExitBeaconRegion(manager, region);
        }
    });
    if (recipients > 0) context_.energy->countBeaconRegionEvent();
    context_.log->beaconRegionEvents.push_back({now(), region.identifier, kind, recipients});
}

// ---- SimulatedLocationManager ----

std::vector<BeaconRegion> SimulatedLocationManager::monitoredBeaconRegions() const {
    const auto live = service();
    return live ? live->monitoredBeaconRegions() : std::vector<BeaconRegion>{};
}

void SimulatedLocationManager::startMonitoringBeaconRegion(const BeaconRegion& region) {
    if (const auto live = service()) live->startMonitoringBeaconRegion(region);
}

void SimulatedLocationManager::stopMonitoringBeaconRegion(const BeaconRegion& region) {
    if (const auto live = service()) live->stopMonitoringBeaconRegion(region.identifier);
}

std::vector<BeaconIdentityConstraint> SimulatedLocationManager::rangedBeaconConstraints() const {
    std::vector<BeaconIdentityConstraint> constraints;
    constraints.reserve(ranging_.size());
    for (const auto& entry : ranging_) constraints.push_back(entry.constraint);
    return constraints;
}

void SimulatedLocationManager::startRangingBeacons(const BeaconIdentityConstraint& constraint) {
    const bool already = std::any_of(ranging_.begin(), ranging_.end(),
                                     [&](const auto& entry) { return entry.constraint == constraint; });
    if (already) return;
    ranging_.push_back({constraint, runLoop_->now()});
    if (const auto live = service()) live->updateBeaconWatch();
}

void SimulatedLocationManager::stopRangingBeacons(const BeaconIdentityConstraint& constraint) {
    const auto removed =
        std::erase_if(ranging_, [&](const auto& entry) { return entry.constraint == constraint; });
    if (removed == 0) return;
    if (const auto live = service()) live->updateBeaconWatch();
}

}  // namespace rovalis::sim
