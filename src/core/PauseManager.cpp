#include "core/PauseManager.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <utility>
#include <nlohmann/json.hpp>

#include "rovalis/Console.h"
#include "sensing/LocationVerifier.h"
#include "util/Fatal.h"

namespace rovalis {

namespace {

// The platform's JSON encoder writes a date as seconds since its reference date,
// 2001-01-01 00:00 UTC, which lies this many seconds after 1970-01-01.
constexpr double referenceDateSince1970 = 978307200.0;

std::optional<double> finiteNumber(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number()) return std::nullopt;
    const double value = found->get<double>();
    if (!std::isfinite(value)) return std::nullopt;
    return value;
}

}  // namespace

// ---- PauseRecord ----

std::optional<std::vector<std::uint8_t>> PauseRecord::encode() const {
    // JSON has no text for infinities and NaN; such a record cannot be written.
    for (const double value : {latitude, longitude, accuracy, date.secondsSince1970}) {
        if (!std::isfinite(value)) return std::nullopt;
    }
    nlohmann::ordered_json json;
    json["latitude"] = latitude;
    json["longitude"] = longitude;
    json["accuracy"] = accuracy;
    json["date"] = date.secondsSince1970 - referenceDateSince1970;
    const std::string text = json.dump();
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

std::optional<PauseRecord> PauseRecord::decode(const std::vector<std::uint8_t>& bytes) {
    const auto json = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return std::nullopt;  // also what a parse error gives (discarded)
    const auto latitude = finiteNumber(json, "latitude");
    const auto longitude = finiteNumber(json, "longitude");
    const auto accuracy = finiteNumber(json, "accuracy");
    const auto date = finiteNumber(json, "date");
    if (!latitude || !longitude || !accuracy || !date) return std::nullopt;
    // A damaged record must not pass for a place: the distance to it would be meaningless.
    if (*latitude < -90.0 || *latitude > 90.0 || *longitude < -180.0 || *longitude > 180.0 || *accuracy < 0.0) {
        return std::nullopt;
    }
    return PauseRecord{*latitude, *longitude, *accuracy, Date{*date + referenceDateSince1970}};
}

// ---- Reason codes ----

long preSleepReasonCode(std::string_view reason) {
    return reason.find("no movement") != std::string_view::npos ? 0 : 1;
}

long preWakeUpReasonCode(std::string_view reason) {
    for (const auto candidate : {PreWakeUp::Reason::exitedGeofence, PreWakeUp::Reason::enteredGeofence,
                                 PreWakeUp::Reason::significantLocation}) {
        if (reason.find(rawText(candidate)) != std::string_view::npos) return static_cast<long>(candidate);
    }
    return static_cast<long>(PreWakeUp::Reason::unknown);
}

bool namesBeacon(std::string_view reason) {
    constexpr std::string_view beacon = "beacon";
    const auto equalIgnoringCase = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    return std::search(reason.begin(), reason.end(), beacon.begin(), beacon.end(), equalIgnoringCase) != reason.end();
}

// ---- PauseManager ----

PauseManager::PauseManager(std::shared_ptr<LocationManagerType> locationManager,
                           std::weak_ptr<RVLEventInsertable> eventRepository,
                           std::weak_ptr<RVLPauseRecordModifier> pauseRecordManager,
                           std::shared_ptr<RVLDateSource> dateSource, std::shared_ptr<RunLoop> runLoop,
                           double locationUpdateTimeout, std::function<void(const Location&)> waypointStored)
    : locationManager_(std::move(locationManager)),
      eventRepository_(std::move(eventRepository)),
      pauseRecordManager_(std::move(pauseRecordManager)),
      dateSource_(std::move(dateSource)),
      runLoop_(std::move(runLoop)),
      locationUpdateTimeout_(locationUpdateTimeout),
      waypointStored_(std::move(waypointStored)) {
    if (!locationManager_ || !dateSource_ || !runLoop_) {
        fatalError("PauseManager needs a location manager, a date source and a run loop");
    }
}

PauseManager::~PauseManager() {
    if (!timer_) return;  // idle
    timer_->invalidate();
    locationManager_->setDelegate({});
    locationManager_->stopUpdatingLocation();
}

void PauseManager::sleepWithReason(const std::string& reason, const std::optional<Location>& lastKnownLocation,
                                   std::function<void(const std::optional<Location>& center)> completion) {
    startBurst(lastKnownLocation,
               [this, reason, completion = std::move(completion)](const std::optional<Location>& center) {
                   recordSleep(reason, center);
                   if (completion) completion(center);
               });
}

void PauseManager::wakeupWithReason(const std::string& reason, const std::optional<Location>& lastKnownLocation,
                                    std::function<void(bool moved)> completion) {
    startBurst(lastKnownLocation,
               [this, reason, completion = std::move(completion)](const std::optional<Location>& fix) {
                   // Without a position there is nothing to compare: waking up is the safe answer.
                   const bool moved = !fix || recordWakeUpAndTestMoved(reason, *fix);
                   if (completion) completion(moved);
               });
}

void PauseManager::startBurst(const std::optional<Location>& lastKnownLocation, LocationCallback callback) {
    const std::weak_ptr<PauseManager> weakSelf = weak_from_this();
    // Without shared ownership the location manager and the timer could not reach us.
    if (weakSelf.expired()) fatalError("PauseManager must be owned by a shared_ptr");

    lastLocation_.reset();
    if (lastKnownLocation && acceptFixFrom(lastKnownLocationPath, *lastKnownLocation)) {
        lastLocation_ = lastKnownLocation;
    }
    // A burst already running hands its callback and its time-out over to this one.
    locationCallback_ = std::move(callback);
    if (timer_) timer_->invalidate();
    timer_ = runLoop_->scheduleTimer(locationUpdateTimeout_, false, [weakSelf] {
        if (const auto self = weakSelf.lock()) self->finishBurst();
    });

    locationManager_->setAllowsBackgroundLocationUpdates(true);
    locationManager_->setPausesLocationUpdatesAutomatically(false);
    locationManager_->setDistanceFilter(kCLDistanceFilterNone);
    locationManager_->setDesiredAccuracy(kCLLocationAccuracyBest);
    locationManager_->setDelegate(weakSelf);
    locationManager_->startUpdatingLocation();
}

void PauseManager::locationManagerDidUpdateLocations(LocationManagerType& /*manager*/,
                                                     const std::vector<Location>& locations) {
    for (const Location& fix : locations) {
        if (!acceptFixFrom(pauseBurstPath, fix)) continue;
        lastLocation_ = fix;
        if (const auto repository = eventRepository_.lock()) {
            repository->insertWaypointEventWithTrackedAtMs(fix.timestamp, fix.coordinate.latitude,
                                                           fix.coordinate.longitude, fix.speed, fix.course,
                                                           fix.horizontalAccuracy, fix.altitude, waypointProvider);
            if (waypointStored_) waypointStored_(fix);
        }
        if (dateSource_->now().timeIntervalSince(fix.timestamp) > maximumFixAgeSeconds) continue;
        if (fix.horizontalAccuracy > maximumFixAccuracyMetres) continue;
        finishBurst();
        return;  // the rest of the batch is not needed any more
    }
}

void PauseManager::finishBurst() {
    // Keeps us alive while the transition runs, in case its completion lets go of us.
    const auto keepAlive = weak_from_this().lock();

    locationManager_->setDelegate({});
    if (timer_) {
        timer_->invalidate();
        timer_.reset();
    }
    locationManager_->stopUpdatingLocation();

    // The last known location may have been refused and no usable fix come: the transition
    // goes on without a position.
    if (!lastLocation_) Console::log("the location burst ended without a usable fix");
    // Taken out first: the transition may start the next burst on this manager.
    const LocationCallback callback = std::exchange(locationCallback_, nullptr);
    if (callback) callback(lastLocation_);
}

void PauseManager::recordSleep(const std::string& reason, const std::optional<Location>& center) {
    const auto records = pauseRecordManager_.lock();
    if (!center) {
        // A record of an earlier sleep would have the next wake-up measured from the wrong place.
        if (records) records->setPauseRecord(std::nullopt);
        return;
    }
    if (const auto repository = eventRepository_.lock()) {
        repository->insertPreSleepEventWithTrackedAtMs(dateSource_->now(), center->coordinate.latitude,
                                                       center->coordinate.longitude, center->horizontalAccuracy,
                                                       preSleepReasonCode(reason));
    }
    if (records) {
        const PauseRecord record{center->coordinate.latitude, center->coordinate.longitude,
                                 center->horizontalAccuracy, center->timestamp};
        auto bytes = record.encode();
        if (!bytes) fatalError("could not encode PauseRecord");
        records->setPauseRecord(std::move(bytes));
    }
}

bool PauseManager::recordWakeUpAndTestMoved(const std::string& reason, const Location& fix) {
    if (const auto repository = eventRepository_.lock()) {
        repository->insertPreWakeUpEventWithTrackedAtMs(dateSource_->now(), fix.coordinate.latitude,
                                                        fix.coordinate.longitude, fix.horizontalAccuracy,
                                                        preWakeUpReasonCode(reason));
    }
    const auto records = pauseRecordManager_.lock();
    if (!records) return true;
    const auto bytes = records->pauseRecord();
    if (!bytes) return true;
    const auto record = PauseRecord::decode(*bytes);
    if (!record) {
        // The record comes from disk and may be damaged. Waking up is the safe answer: the
        // worst it costs is a burst of regular tracking, while staying asleep could lose a
        // trip, and stopping the process would repeat at every wake-up.
        Console::log("could not decode PauseRecord");
        return true;
    }
    return hasMoved(fix, pauseLocation(*record));
}

Location PauseManager::pauseLocation(const PauseRecord& record) {
    Location location;
    location.coordinate = {record.latitude, record.longitude};
    location.horizontalAccuracy = record.accuracy;
    location.altitude = pauseLocationAltitude;
    location.verticalAccuracy = pauseLocationVerticalAccuracy;
    location.timestamp = record.date;
    return location;
}

bool PauseManager::hasMoved(const Location& fix, const Location& pauseLocation) {
    const double distance = fix.distanceFrom(pauseLocation);
    const double combinedAccuracy = std::sqrt(fix.horizontalAccuracy * fix.horizontalAccuracy +
                                              pauseLocation.horizontalAccuracy * pauseLocation.horizontalAccuracy);
    const double factor = combinedAccuracy < 100.0 ? 0.1 : 0.2;
    return distance - combinedAccuracy * factor > movedThresholdMetres;
}

}  // namespace rovalis
