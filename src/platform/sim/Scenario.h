#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/sim/SimulatedNetwork.h"
#include "rovalis/Date.h"
#include "rovalis/Uuid.h"
#include "rovalis/platform/Location.h"
#include "rovalis/platform/Motion.h"

namespace rovalis::sim {

// A scenario file that cannot be read: "line N: what is wrong".
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What a scenario can change on the simulated device, or ask of its host. Every change but
// a relaunch sets one setting to a value.
struct NetworkChange {
    SimulatedConnection connection;
    friend bool operator==(const NetworkChange&, const NetworkChange&) = default;
};
struct PermissionChange {
    AuthorizationStatus status;
    friend bool operator==(const PermissionChange&, const PermissionChange&) = default;
};
struct AccuracyChange {
    AccuracyAuthorization accuracy;
    friend bool operator==(const AccuracyChange&, const AccuracyChange&) = default;
};
struct LocationServicesChange {
    bool enabled;
    friend bool operator==(const LocationServicesChange&, const LocationServicesChange&) = default;
};
struct MotionPermissionChange {
    MotionAuthorizationStatus status;
    friend bool operator==(const MotionPermissionChange&, const MotionPermissionChange&) = default;
};
struct ChargingChange {
    bool charging;
    friend bool operator==(const ChargingChange&, const ChargingChange&) = default;
};
struct BatteryChange {
    double level;  // 0..1
    friend bool operator==(const BatteryChange&, const BatteryChange&) = default;
};
struct LowPowerChange {
    bool enabled;
    friend bool operator==(const LowPowerChange&, const LowPowerChange&) = default;
};
struct AppStateChange {
    bool foreground;
    friend bool operator==(const AppStateChange&, const AppStateChange&) = default;
};
// The host changes the SDK's wifi-only upload setting.
struct WifiOnlyChange {
    bool enabled;
    friend bool operator==(const WifiOnlyChange&, const WifiOnlyChange&) = default;
};
// The host starts or stops tracking.
struct TrackingChange {
    bool started;
    friend bool operator==(const TrackingChange&, const TrackingChange&) = default;
};
// The app's process ends and starts again, as a new build or version when given.
struct RelaunchChange {
    std::optional<std::string> build;
    std::optional<std::string> version;
    friend bool operator==(const RelaunchChange&, const RelaunchChange&) = default;
};

using ScenarioChange = std::variant<NetworkChange, PermissionChange, AccuracyChange, LocationServicesChange,
                                    MotionPermissionChange, ChargingChange, BatteryChange, LowPowerChange,
                                    AppStateChange, WifiOnlyChange, TrackingChange, RelaunchChange>;

// The settings a scenario changes. A default value is how the device is at the trace start
// unless the scenario says otherwise; the host starts tracking at the trace start.
struct ScenarioState {
    SimulatedConnection network = SimulatedConnection::wifi;
    AuthorizationStatus permission = AuthorizationStatus::authorizedAlways;
    AccuracyAuthorization accuracy = AccuracyAuthorization::fullAccuracy;
    bool locationServices = true;
    MotionAuthorizationStatus motionPermission = MotionAuthorizationStatus::authorized;
    bool charging = false;
    double batteryLevel = 0.8;
    bool lowPower = false;
    bool foreground = false;
    bool wifiOnly = false;
    bool tracking = true;

    // Sets the changed setting; a relaunch changes none.
    void apply(const ScenarioChange& change);

    friend bool operator==(const ScenarioState&, const ScenarioState&) = default;
};

struct ScenarioStep {
    Date time;
    ScenarioChange change;
    int line = 0;         // of the scenario file
    bool ending = false;  // the end of a span: the setting goes back to what it was before
};

// A beacon that advertises from one place for the whole run: an iBeacon, or an Eddystone
// beacon that sends UID or EID frames (and telemetry, and a URL when it has one).
struct ScenarioBeacon {
    enum class Kind { iBeacon, eddystoneUid, eddystoneEid };

    static constexpr int defaultIBeaconPower = -59;
    static constexpr int defaultEddystonePower = -20;
    static constexpr double defaultIBeaconInterval = 1.0;
    static constexpr double defaultEddystoneInterval = 0.5;

    Kind kind = Kind::iBeacon;
    // iBeacon: the proximity UUID, major and minor.
    Uuid uuid;
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    // Eddystone UID: the namespace and the instance.
    std::array<std::uint8_t, 10> namespaceId{};
    std::array<std::uint8_t, 6> instanceId{};
    // Eddystone EID: the ephemeral identifier, which this beacon never rotates.
    std::array<std::uint8_t, 8> ephemeralId{};
    LocationCoordinate2D position;
    // dBm. iBeacon: the measured power at 1 m. Eddystone: the transmit power at 0 m.
    int power = defaultIBeaconPower;
    // Eddystone only: the URL its URL frames carry.
    std::optional<std::string> url;
    // Seconds between two advertisements.
    double interval = defaultIBeaconInterval;
    int line = 0;  // of the scenario file

    bool isEddystone() const { return kind != Kind::iBeacon; }
    // The same kind and the same identifiers: two such beacons could not be told apart.
    bool hasSameIdentity(const ScenarioBeacon& other) const;

    friend bool operator==(const ScenarioBeacon&, const ScenarioBeacon&) = default;
};

struct Scenario {
    // In time order. At one moment the ends of spans come first, then the other steps in
    // file order, so "at 18:00 network cellular" after a span that ends at 18:00 wins.
    std::vector<ScenarioStep> steps;
    // In file order.
    std::vector<ScenarioBeacon> beacons;
};

// Reads a scenario, one step a line:
//     at TIME CHANGE
//     from TIME to TIME CHANGE
// TIME is "HH:MM" or "HH:MM:SS", that UTC clock time on the UTC day of `traceStart`, or an
// offset from `traceStart` such as "+90s", "+45m", "+1h30m". A span holds its change from
// its start to its end and then restores the setting as it was before; the restoring step
// is in the result. Blank lines and text after '#' are ignored.
//
// A line may also place a beacon for the whole run:
//     beacon ibeacon UUID MAJOR MINOR at LAT,LON [power DBM] [interval MS]
//     beacon eddystone-uid NAMESPACE INSTANCE at LAT,LON [power DBM] [interval MS] [url URL]
//     beacon eddystone-eid EID at LAT,LON [power DBM] [interval MS] [url URL]
// NAMESPACE, INSTANCE and EID are 20, 12 and 16 hex digits. The power (-100 to 20 dBm) is
// the measured power at 1 m of an iBeacon (default -59) and the transmit power at 0 m of an
// Eddystone beacon (default -20); the interval (20 - 10240 ms) defaults to 1000 ms for an
// iBeacon and 500 ms for Eddystone. A URL starts with http:// or https:// and must fit a URL
// frame. Two beacons may not share an identity.
Scenario parseScenario(std::string_view text, Date traceStart);
Scenario readScenario(const std::filesystem::path& path, Date traceStart);

// A short text for a change, as a scenario line would say it: "network offline",
// "battery 35%", "relaunch as build 41".
std::string describe(const ScenarioChange& change);

// The beacon's line, its power always and its interval when not the default; it reads back as
// the same beacon:
// "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 1 2 at 51.51485,-0.0992 power -59".
std::string describe(const ScenarioBeacon& beacon);

}  // namespace rovalis::sim
