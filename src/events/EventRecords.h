#pragma once

// The event records: one immutable value per observation. Each record is validated when
// it is built (an invalid value is a programming error and stops the process) and is
// written as JSON by the EventEncoder.

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/Uuid.h"

namespace rovalis {

// A base-10 number with exactly the digits it was given: units / 10^scale.
// Decimal{123, 4} is 0.0123 and is written as 0.0123.
struct Decimal {
    std::int64_t units = 0;
    std::uint8_t scale = 0;

    friend bool operator==(const Decimal&, const Decimal&) = default;
};

// ---- Location-bearing events ----

struct Waypoint {
    static constexpr std::string_view typeName = "Waypoint";
    Waypoint(Date trackedAtMs, double latitude, double longitude, double speed, double bearing,
             double accuracy, double altitude, std::string provider);

    Date trackedAtMs;
    double latitude, longitude, speed, bearing, accuracy, altitude;
    std::string provider;
};

struct SignificantLocation {
    static constexpr std::string_view typeName = "SignificantLocation";
    SignificantLocation(Date trackedAtMs, double latitude, double longitude, double accuracy);

    Date trackedAtMs;
    double latitude, longitude, accuracy;
};

struct PreSleep {
    static constexpr std::string_view typeName = "PreSleep";
    enum class Reason { noMovement, unknown };
    // Codes 0..1 in the order above; any other code is fatal.
    static Reason reasonFromCode(long code);

    PreSleep(Date trackedAtMs, double latitude, double longitude, double accuracy, Reason reason);

    Date trackedAtMs;
    double latitude, longitude, accuracy;
    Reason reason;
};

struct PreWakeUp {
    static constexpr std::string_view typeName = "PreWakeUp";
    enum class Reason { exitedGeofence, enteredGeofence, significantLocation, unknown };
    // Codes 0..3 in the order above; any other code is fatal.
    static Reason reasonFromCode(long code);

    PreWakeUp(Date trackedAtMs, double latitude, double longitude, double accuracy, Reason reason);

    Date trackedAtMs;
    double latitude, longitude, accuracy;
    Reason reason;
};

enum class RegionReason { enter, exit };

struct GeofenceCreate {
    static constexpr std::string_view typeName = "GeofenceCreate";
    GeofenceCreate(Date trackedAtMs, RegionReason reason, double radius, double latitude, double longitude,
                   std::string identifier);

    Date trackedAtMs;
    RegionReason reason;
    double radius, latitude, longitude;
    std::string identifier;
};

struct GeofenceTrigger {
    static constexpr std::string_view typeName = "GeofenceTrigger";
    GeofenceTrigger(Date trackedAtMs, RegionReason reason, double radius, double latitude, double longitude,
                    std::string identifier);

    Date trackedAtMs;
    RegionReason reason;
    double radius, latitude, longitude;
    std::string identifier;
};

// The object-side wrappers of the sleep and wake reasons: the raw text, for logs.
struct PreSleepReasonWrapper {
    explicit PreSleepReasonWrapper(PreSleep::Reason reason);
    std::string reasonString;
};
struct PreWakeUpReasonWrapper {
    explicit PreWakeUpReasonWrapper(PreWakeUp::Reason reason);
    std::string reasonString;
};
using RVLPreSleepReasonWrapper = PreSleepReasonWrapper;
using RVLPreWakeUpReasonWrapper = PreWakeUpReasonWrapper;

// ---- State and device events ----

struct Battery {
    static constexpr std::string_view typeName = "Battery";
    Battery(Date trackedAtMs, bool isCharging, float status);

    Date trackedAtMs;
    bool isCharging;
    float status;
};

struct SDKSettings {
    static constexpr std::string_view typeName = "SDKSettings";
    SDKSettings(Date trackedAtMs, bool wifiOnlyDataTransfer);

    Date trackedAtMs;
    bool wifiOnlyDataTransfer;
};

struct DeviceSettings {
    static constexpr std::string_view typeName = "DeviceSettings";
    DeviceSettings(Date trackedAtMs, bool powerSaveMode, bool backgroundAppRefresh);

    Date trackedAtMs;
    bool powerSaveMode, backgroundAppRefresh;
};

struct Connectivity {
    static constexpr std::string_view typeName = "Connectivity";
    enum class Status { mobile, disconnected, other, wifi };
    static Status statusFromCode(long code);

    Connectivity(Date trackedAtMs, Status status);

    Date trackedAtMs;
    Status status;
};

struct ToggleTracking {
    static constexpr std::string_view typeName = "ToggleTracking";
    enum class Reason { force, locationService, deniedLocation, insufficientLocation, impreciseLocation, appUpdate };
    static Reason reasonFromCode(long code);

    ToggleTracking(Date trackedAtMs, bool state, Reason reason);

    Date trackedAtMs;
    bool state;
    Reason reason;
};

struct ToggleStandby {
    static constexpr std::string_view typeName = "ToggleStandby";
    ToggleStandby(Date trackedAtMs, bool state, std::string reason);

    Date trackedAtMs;
    bool state;
    std::string reason;
};

struct Debug {
    static constexpr std::string_view typeName = "Debug";
    enum class Topic { applicationNotification, applicationState, locationAuthorization, backgroundTask, beaconRanging, log };
    static Topic topicFromCode(long code);

    Debug(Date trackedAtMs, Topic topic, std::string comment);

    Date trackedAtMs;
    Topic topic;
    std::string comment;
};

// ---- Sensor events ----

struct Acceleration {
    static constexpr std::string_view typeName = "Acceleration";
    Acceleration(Date trackedAtMs, Decimal magnitude);

    Date trackedAtMs;
    Decimal magnitude;
};

struct IOSActivity {
    static constexpr std::string_view typeName = "IOSActivity";
    enum class Confidence { low = 0, medium = 1, high = 2 };
    // Activity codes 0..5 stand for the cases in this order.
    enum class Activity { stationary, walking, running, automotive, cycling, unknown };
    static Confidence confidenceFromCode(long code);
    static Activity activityFromCode(long code);

    IOSActivity(Date trackedAtMs, Confidence confidence, std::vector<Activity> activities);

    Date trackedAtMs;
    Confidence confidence;
    std::vector<Activity> activities;
};

// One activity code as the object-side insert receives it.
struct IOSActivityTypeWrapper {
    long type = 0;
};

// Beacon sightings write their kind under "protocol", not "type".
struct IBeaconRaw {
    Uuid uuid;
    long major = 0, minor = 0, rssi = 0;
};
struct EddystoneRaw {
    std::string eid;
    long rssi = 0;
};

struct IBeacon {
    static constexpr std::string_view typeName = "IBeacon";
    IBeacon(Date trackedAtMs, Uuid uuid, long major, long minor, long rssi);

    Date trackedAtMs;
    Uuid uuid;
    long major, minor, rssi;
};

struct Eddystone {
    static constexpr std::string_view typeName = "Eddystone";
    Eddystone(Date trackedAtMs, std::string eid, long rssi);

    Date trackedAtMs;
    std::string eid;
    long rssi;
};

using BeaconSighting = std::variant<IBeacon, Eddystone>;

struct BeaconScan {
    static constexpr std::string_view typeName = "BeaconScan";
    // An empty list is fatal ("Empty beacons array").
    BeaconScan(Date trackedAtMs, std::vector<BeaconSighting> beacons);

    Date trackedAtMs;
    std::vector<BeaconSighting> beacons;
};

// Any record, as handed to the record-level insert.
using EventRecord = std::variant<Waypoint, SignificantLocation, PreSleep, PreWakeUp, GeofenceCreate, GeofenceTrigger,
                                 Battery, SDKSettings, DeviceSettings, Connectivity, ToggleTracking, ToggleStandby,
                                 Debug, Acceleration, IOSActivity, BeaconScan, IBeacon, Eddystone>;

// The "type" value of a record and its observation time, whatever its kind.
std::string_view typeOf(const EventRecord& record);
Date trackedAtOf(const EventRecord& record);

// Whether name is the "type" of one of the records above.
bool isEventTypeName(std::string_view name);

// Raw texts of the enumerations, as written in the JSON.
std::string_view rawText(PreSleep::Reason);
std::string_view rawText(PreWakeUp::Reason);
std::string_view rawText(RegionReason);
std::string_view rawText(Connectivity::Status);
std::string_view rawText(ToggleTracking::Reason);
std::string_view rawText(Debug::Topic);
std::string_view rawText(IOSActivity::Activity);

}  // namespace rovalis
