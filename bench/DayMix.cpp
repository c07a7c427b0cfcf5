#include "DayMix.h"

#include <cmath>
#include <numbers>
#include <random>
#include <string>

#include "events/EventRepository.h"

namespace rovalis::bench {

namespace {

// The sample day's events: 195,391, of which 185,833 accelerations and 9,295 Waypoints.
constexpr double eventsOfTheDay = 195391.0;

// The other kinds and how many of each the sample day held.
enum class Rare {
    battery,
    activity,
    geofenceCreate,
    debug,
    significantLocation,
    toggleStandby,
    connectivity,
    preSleep,
    toggleTracking,
    deviceSettings,
    sdkSettings,
    beaconScan,
    geofenceTrigger,
    preWakeUp,
};
struct RareCount {
    Rare kind;
    int perDay;
};
constexpr RareCount rareCounts[] = {
    {Rare::battery, 83},       {Rare::activity, 48},      {Rare::geofenceCreate, 42}, {Rare::debug, 24},
    {Rare::significantLocation, 16}, {Rare::toggleStandby, 10}, {Rare::connectivity, 6}, {Rare::preSleep, 6},
    {Rare::toggleTracking, 6}, {Rare::deviceSettings, 5}, {Rare::sdkSettings, 5},    {Rare::beaconScan, 4},
    {Rare::geofenceTrigger, 4}, {Rare::preWakeUp, 4},
};

const Uuid beaconUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

class Day {
public:
    Day(Date start, std::uint64_t seed) : start_(start.secondsSince1970), time_(start_), random_(seed) {}

    // One 50 ms step of the accelerometer: a walking rhythm (about 2.2 steps a second,
    // ±7 m/s²) for five minutes in twelve, a phone at rest otherwise.
    Acceleration acceleration() {
        time_ += 0.05;
        const double elapsed = time_ - start_;
        double magnitude = 9.81 + unit_(random_) * 0.04;
        if (std::fmod(elapsed, 720.0) < 300.0) {
            magnitude += 7.0 * std::sin(2.0 * std::numbers::pi * 2.2 * elapsed) + unit_(random_) * 0.3;
        }
        return Acceleration(Date{time_}, Decimal{std::llround(std::max(magnitude, 0.5) * 100.0), 2});
    }

    // A fix at hundred-metre accuracy (no speed, course or altitude) most of the time, at
    // ten-metre accuracy one time in seven; positions wander with the noise of the fixes.
    Waypoint waypoint() {
        latitude_ += 2e-6 + unit_(random_) * 2e-5;
        longitude_ += -1e-6 + unit_(random_) * 2e-5;
        const double at = time_ + std::uniform_real_distribution<double>(0.0, 0.05)(random_);
        if (std::uniform_int_distribution<int>(0, 6)(random_) == 0) {
            return Waypoint(Date{at}, latitude_, longitude_, std::abs(1.4 + unit_(random_)),
                            std::uniform_real_distribution<double>(0.0, 360.0)(random_),
                            std::uniform_real_distribution<double>(3.0, 10.0)(random_),
                            30.0 + unit_(random_) * 2.0, "regular");
        }
        return Waypoint(Date{at}, latitude_, longitude_, -1, -1,
                        std::uniform_real_distribution<double>(20.0, 65.0)(random_), 0, "regular");
    }

    EventRecord rare(Rare kind) {
        const Date now{time_};
        const int pick = std::uniform_int_distribution<int>(0, 5)(random_);
        switch (kind) {
        case Rare::battery:
            return Battery(now, pick == 0, static_cast<float>(std::uniform_int_distribution<int>(5, 100)(random_)) / 100);
        case Rare::activity:
            return IOSActivity(now, IOSActivity::Confidence(pick % 3), {IOSActivity::Activity(pick % 4)});
        case Rare::geofenceCreate:
            return GeofenceCreate(now, pick == 0 ? RegionReason::exit : RegionReason::enter, pick == 0 ? 150 : 180,
                                  latitude_ + unit_(random_) * 2e-3, longitude_ + unit_(random_) * 2e-3,
                                  pick == 0 ? "RVLSleepRegion_00" : "RVLSleepRegion_" + std::to_string(pick - 1));
        case Rare::debug:
            return Debug(now, Debug::Topic::log, "started " + std::to_string(pick + 4) + " location managers");
        case Rare::significantLocation:
            return SignificantLocation(now, latitude_, longitude_, std::uniform_real_distribution<double>(300, 3000)(random_));
        case Rare::toggleStandby:
            return ToggleStandby(now, pick % 2 == 0,
                                 pick % 2 == 0 ? "no movement in 10 minutes" : "entered surrounding geofence RVLSleepRegion_2");
        case Rare::connectivity:
            return Connectivity(now, pick % 2 == 0 ? Connectivity::Status::wifi : Connectivity::Status::mobile);
        case Rare::preSleep:
            return PreSleep(now, latitude_, longitude_, 12.5 + pick, PreSleep::Reason::noMovement);
        case Rare::toggleTracking:
            return ToggleTracking(now, pick % 2 == 0, ToggleTracking::Reason::force);
        case Rare::deviceSettings:
            return DeviceSettings(now, pick == 0, true);
        case Rare::sdkSettings:
            return SDKSettings(now, pick == 0);
        case Rare::beaconScan: {
            // The sample day's scans hold a dozen or so sightings of three beacons.
            std::vector<BeaconSighting> sightings;
            for (int i = 0; i < 16; ++i) {
                const Date seen{time_ - 10.0 + i * 0.6};
                const long rssi = std::uniform_int_distribution<long>(-95, -60)(random_);
                if (i % 3 == 2) {
                    sightings.emplace_back(Eddystone(seen, "0102030405060708090a0b0c0d0e0f10", rssi));
                } else {
                    sightings.emplace_back(IBeacon(seen, beaconUuid, 1 + i % 2, 1 + 6 * (i % 2), rssi));
                }
            }
            return BeaconScan(now, std::move(sightings));
        }
        case Rare::geofenceTrigger:
            return GeofenceTrigger(now, RegionReason::enter, 180, latitude_, longitude_,
                                   "RVLSleepRegion_" + std::to_string(pick));
        case Rare::preWakeUp:
            return PreWakeUp(now, latitude_, longitude_, 25.0 + pick, PreWakeUp::Reason::enteredGeofence);
        }
        return Debug(now, Debug::Topic::log, "");
    }

private:
    const double start_;
    double time_;
    double latitude_ = 51.4555, longitude_ = -0.1075;
    std::mt19937_64 random_;
    std::normal_distribution<double> unit_{0.0, 1.0};
};

}  // namespace

std::vector<EventRecord> dayMixEvents(std::size_t count, Date start, std::uint64_t seed) {
    Day day(start, seed);
    std::vector<EventRecord> events;
    events.reserve(count);
    // Each rare kind comes evenly spread over the day: the k-th one once k + 1/2 of its
    // day's share of events have been made.
    std::vector<int> emitted(std::size(rareCounts), 0);
    for (std::size_t step = 0; events.size() < count; ++step) {
        events.emplace_back(day.acceleration());
        if (step % 20 == 19 && events.size() < count) events.emplace_back(day.waypoint());
        for (std::size_t k = 0; k < std::size(rareCounts) && events.size() < count; ++k) {
            const double due = (emitted[k] + 0.5) * eventsOfTheDay / rareCounts[k].perDay;
            if (static_cast<double>(events.size()) >= due) {
                events.emplace_back(day.rare(rareCounts[k].kind));
                ++emitted[k];
            }
        }
    }
    return events;
}

void storeEvents(EventRepository& store, const std::vector<EventRecord>& events) {
    for (const auto& event : events) {
        if (const auto* acceleration = std::get_if<Acceleration>(&event)) {
            store.insertAccelerationEventWithTrackedAtMs(acceleration->trackedAtMs, acceleration->magnitude);
        } else {
            store.insert(event);
        }
    }
    store.insertBuffers();
    (void)store.eventsCount();  // waits until everything is committed
}

}  // namespace rovalis::bench
