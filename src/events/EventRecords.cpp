#include "events/EventRecords.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>

#include "util/Fatal.h"

namespace rovalis {

namespace {

// The text a double or float shows in the platform's own messages: the shortest digits
// that read back to the same value, in plain decimal form with ".0" on whole values, or
// in exponent form ("1e-05", "1.5e+20") when the value is very small or beyond the range
// of exactly representable integers; "nan", "inf", "-inf" for values that are not numbers.
template <typename Real>
std::string describe(Real value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";

    // Shortest scientific form: "-d.ddde+XX".
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
    const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
    const bool negative = text.front() == '-';
    const std::size_t ePos = text.find('e');
    std::string digits;
    for (std::size_t i = negative ? 1 : 0; i < ePos; ++i) {
        if (text[i] != '.') digits.push_back(text[i]);
    }
    int exponent10 = 0;
    const char* expBegin = text.data() + ePos + 1;
    if (*expBegin == '+') ++expBegin;
    std::from_chars(expBegin, text.data() + text.size(), exponent10);
    // Position of the decimal point relative to the digits: value = 0.digits * 10^point.
    const int point = exponent10 + 1;
    const Real integerLimit = std::is_same_v<Real, float> ? Real(16777216.0f) : Real(9007199254740992.0);

    std::string out;
    if (negative) out.push_back('-');
    const int count = static_cast<int>(digits.size());
    if (point < -3 || std::fabs(value) > integerLimit) {
        out.push_back(digits[0]);
        if (count > 1) {
            out.push_back('.');
            out.append(digits, 1);
        }
        out.push_back('e');
        int e = point - 1;
        out.push_back(e < 0 ? '-' : '+');
        e = std::abs(e);
        if (e < 10) out.push_back('0');
        out += std::to_string(e);
    } else if (point <= 0) {
        out += "0.";
        out.append(static_cast<std::size_t>(-point), '0');
        out += digits;
    } else if (point < count) {
        out.append(digits, 0, static_cast<std::size_t>(point));
        out.push_back('.');
        out.append(digits, static_cast<std::size_t>(point));
    } else {
        out += digits;
        out.append(static_cast<std::size_t>(point - count), '0');
        out += ".0";
    }
    return out;
}

// Inclusive bounds; a value that is not a number fails every bound.
void requireWithin(double value, double lower, double upper, const char* prefix) {
    if (!(value >= lower && value <= upper)) fatalError(prefix + describe(value));
}

void requireAtLeast(double value, double lower, const char* prefix) {
    if (!(value >= lower)) fatalError(prefix + describe(value));
}

template <typename Enum>
Enum enumFromCode(long code, long count, const char* what) {
    if (code < 0 || code >= count) fatalError(std::string("Invalid ") + what + " code: " + std::to_string(code));
    return static_cast<Enum>(code);
}

}  // namespace

// ---- Location-bearing events ----

Waypoint::Waypoint(Date trackedAtMs, double latitude, double longitude, double speed, double bearing,
                   double accuracy, double altitude, std::string provider)
    : trackedAtMs(trackedAtMs),
      latitude(latitude),
      longitude(longitude),
      speed(speed),
      bearing(bearing),
      accuracy(accuracy),
      altitude(altitude),
      provider(std::move(provider)) {
    requireWithin(latitude, -90, 90, "Invalid Waypoint.latitude: ");
    requireWithin(longitude, -180, 180, "Invalid Waypoint.longitude: ");
    requireAtLeast(accuracy, 0, "Invalid Waypoint.accuracy: ");
}

SignificantLocation::SignificantLocation(Date trackedAtMs, double latitude, double longitude, double accuracy)
    : trackedAtMs(trackedAtMs), latitude(latitude), longitude(longitude), accuracy(accuracy) {
    requireWithin(latitude, -90, 90, "Invalid SignificantLocation.latitude: ");
    requireWithin(longitude, -180, 180, "Invalid SignificantLocation.longitude: ");
    requireAtLeast(accuracy, 0, "Invalid SignificantLocation.accuracy: ");
}

PreSleep::Reason PreSleep::reasonFromCode(long code) {
    return enumFromCode<Reason>(code, 2, "PreSleep.Reason");
}

PreSleep::PreSleep(Date trackedAtMs, double latitude, double longitude, double accuracy, Reason reason)
    : trackedAtMs(trackedAtMs), latitude(latitude), longitude(longitude), accuracy(accuracy), reason(reason) {
    requireWithin(latitude, -90, 90, "Invalid PreSleep.latitude: ");
    requireWithin(longitude, -180, 180, "Invalid PreSleep.longitude: ");
    requireAtLeast(accuracy, 0, "Invalid PreSleep.accuracy: ");
}

PreWakeUp::Reason PreWakeUp::reasonFromCode(long code) {
    return enumFromCode<Reason>(code, 4, "PreWakeUp.Reason");
}

PreWakeUp::PreWakeUp(Date trackedAtMs, double latitude, double longitude, double accuracy, Reason reason)
    : trackedAtMs(trackedAtMs), latitude(latitude), longitude(longitude), accuracy(accuracy), reason(reason) {
    requireWithin(latitude, -90, 90, "Invalid PreWakeUp.latitude: ");
    requireWithin(longitude, -180, 180, "Invalid PreWakeUp.longitude: ");
    requireAtLeast(accuracy, 0, "Invalid PreWakeUp.accuracy: ");
}

GeofenceCreate::GeofenceCreate(Date trackedAtMs, RegionReason reason, double radius, double latitude,
                               double longitude, std::string identifier)
    : trackedAtMs(trackedAtMs),
      reason(reason),
      radius(radius),
      latitude(latitude),
      longitude(longitude),
      identifier(std::move(identifier)) {
    requireWithin(latitude, -90, 90, "Invalid GeofenceCreate.latitude: ");
    requireWithin(longitude, -180, 180, "Invalid GeofenceCreate.longitude: ");
}

GeofenceTrigger::GeofenceTrigger(Date trackedAtMs, RegionReason reason, double radius, double latitude,
                                 double longitude, std::string identifier)
    : trackedAtMs(trackedAtMs),
      reason(reason),
      radius(radius),
      latitude(latitude),
      longitude(longitude),
      identifier(std::move(identifier)) {
    requireWithin(latitude, -90, 90, "Invalid GeofenceTrigger.latitude: ");
    requireWithin(longitude, -180, 180, "Invalid GeofenceTrigger.longitude: ");
}

PreSleepReasonWrapper::PreSleepReasonWrapper(PreSleep::Reason reason) : reasonString(rawText(reason)) {}

PreWakeUpReasonWrapper::PreWakeUpReasonWrapper(PreWakeUp::Reason reason) : reasonString(rawText(reason)) {}

// ---- State and device events ----

Battery::Battery(Date trackedAtMs, bool isCharging, float status)
    : trackedAtMs(trackedAtMs), isCharging(isCharging), status(status) {
    if (!(status >= 0.0f && status <= 1.0f)) fatalError("Invalid Battery.status: " + describe(status));
}

SDKSettings::SDKSettings(Date trackedAtMs, bool wifiOnlyDataTransfer)
    : trackedAtMs(trackedAtMs), wifiOnlyDataTransfer(wifiOnlyDataTransfer) {}

DeviceSettings::DeviceSettings(Date trackedAtMs, bool powerSaveMode, bool backgroundAppRefresh)
    : trackedAtMs(trackedAtMs), powerSaveMode(powerSaveMode), backgroundAppRefresh(backgroundAppRefresh) {}

Connectivity::Status Connectivity::statusFromCode(long code) {
    return enumFromCode<Status>(code, 4, "Connectivity.Status");
}

Connectivity::Connectivity(Date trackedAtMs, Status status) : trackedAtMs(trackedAtMs), status(status) {}

ToggleTracking::Reason ToggleTracking::reasonFromCode(long code) {
    return enumFromCode<Reason>(code, 6, "ToggleTracking.Reason");
}

ToggleTracking::ToggleTracking(Date trackedAtMs, bool state, Reason reason)
    : trackedAtMs(trackedAtMs), state(state), reason(reason) {}

ToggleStandby::ToggleStandby(Date trackedAtMs, bool state, std::string reason)
    : trackedAtMs(trackedAtMs), state(state), reason(std::move(reason)) {}

Debug::Topic Debug::topicFromCode(long code) {
    return enumFromCode<Topic>(code, 6, "Debug.Topic");
}

Debug::Debug(Date trackedAtMs, Topic topic, std::string comment)
    : trackedAtMs(trackedAtMs), topic(topic), comment(std::move(comment)) {}

// ---- Sensor events ----

Acceleration::Acceleration(Date trackedAtMs, Decimal magnitude) : trackedAtMs(trackedAtMs), magnitude(magnitude) {}

IOSActivity::Confidence IOSActivity::confidenceFromCode(long code) {
    return enumFromCode<Confidence>(code, 3, "IOSActivity.Confidence");
}

IOSActivity::Activity IOSActivity::activityFromCode(long code) {
    return enumFromCode<Activity>(code, 6, "IOSActivity.Activity");
}

IOSActivity::IOSActivity(Date trackedAtMs, Confidence confidence, std::vector<Activity> activities)
    : trackedAtMs(trackedAtMs), confidence(confidence), activities(std::move(activities)) {}

IBeacon::IBeacon(Date trackedAtMs, Uuid uuid, long major, long minor, long rssi)
    : trackedAtMs(trackedAtMs), uuid(uuid), major(major), minor(minor), rssi(rssi) {}

Eddystone::Eddystone(Date trackedAtMs, std::string eid, long rssi)
    : trackedAtMs(trackedAtMs), eid(std::move(eid)), rssi(rssi) {}

BeaconScan::BeaconScan(Date trackedAtMs, std::vector<BeaconSighting> beacons)
    : trackedAtMs(trackedAtMs), beacons(std::move(beacons)) {
    if (this->beacons.empty()) fatalError("Empty beacons array");
}

// ---- Whatever the kind ----

std::string_view typeOf(const EventRecord& record) {
    return std::visit([](const auto& r) { return std::remove_cvref_t<decltype(r)>::typeName; }, record);
}

Date trackedAtOf(const EventRecord& record) {
    return std::visit([](const auto& r) { return r.trackedAtMs; }, record);
}

bool isEventTypeName(std::string_view name) {
    return [name]<std::size_t... kind>(std::index_sequence<kind...>) {
        return ((std::variant_alternative_t<kind, EventRecord>::typeName == name) || ...);
    }(std::make_index_sequence<std::variant_size_v<EventRecord>>{});
}

// ---- Raw texts ----

std::string_view rawText(PreSleep::Reason reason) {
    switch (reason) {
        case PreSleep::Reason::noMovement: return "no movement";
        case PreSleep::Reason::unknown: return "unknown";
    }
    fatalError("Invalid PreSleep.Reason value");
}

std::string_view rawText(PreWakeUp::Reason reason) {
    switch (reason) {
        case PreWakeUp::Reason::exitedGeofence: return "exited geofence";
        case PreWakeUp::Reason::enteredGeofence: return "entered surrounding geofence";
        case PreWakeUp::Reason::significantLocation: return "significant location";
        case PreWakeUp::Reason::unknown: return "unknown";
    }
    fatalError("Invalid PreWakeUp.Reason value");
}

std::string_view rawText(RegionReason reason) {
    switch (reason) {
        case RegionReason::enter: return "ENTER";
        case RegionReason::exit: return "EXIT";
    }
    fatalError("Invalid RegionReason value");
}

std::string_view rawText(Connectivity::Status status) {
    switch (status) {
        case Connectivity::Status::mobile: return "MOBILE";
        case Connectivity::Status::disconnected: return "DISCONNECTED";
        case Connectivity::Status::other: return "OTHER";
        case Connectivity::Status::wifi: return "WIFI";
    }
    fatalError("Invalid Connectivity.Status value");
}

std::string_view rawText(ToggleTracking::Reason reason) {
    switch (reason) {
        case ToggleTracking::Reason::force: return "FORCE";
        case ToggleTracking::Reason::locationService: return "LOCATION_SERVICE";
        case ToggleTracking::Reason::deniedLocation: return "DENIED_LOCATION";
        case ToggleTracking::Reason::insufficientLocation: return "INSUFFICIENT_LOCATION";
        case ToggleTracking::Reason::impreciseLocation: return "IMPRECISE_LOCATION";
        case ToggleTracking::Reason::appUpdate: return "APP_UPDATE";
    }
    fatalError("Invalid ToggleTracking.Reason value");
}

std::string_view rawText(Debug::Topic topic) {
    switch (topic) {
        case Debug::Topic::applicationNotification: return "Application Notification";
        case Debug::Topic::applicationState: return "Application State";
        case Debug::Topic::locationAuthorization: return "Location Authorization";
        case Debug::Topic::backgroundTask: return "Background Task";
        case Debug::Topic::beaconRanging: return "Beacon Ranging";
        case Debug::Topic::log: return "Log";
    }
    fatalError("Invalid Debug.Topic value");
}

std::string_view rawText(IOSActivity::Activity activity) {
    switch (activity) {
        case IOSActivity::Activity::stationary: return "stationary";
        case IOSActivity::Activity::walking: return "walking";
        case IOSActivity::Activity::running: return "running";
        case IOSActivity::Activity::automotive: return "automotive";
        case IOSActivity::Activity::cycling: return "cycling";
        case IOSActivity::Activity::unknown: return "unknown";
    }
    fatalError("Invalid IOSActivity.Activity value");
}

}  // namespace rovalis
