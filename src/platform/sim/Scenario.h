#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/sim/SimulatedNetwork.h"
#include "rovalis/Date.h"
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

struct Scenario {
    // In time order. At one moment the ends of spans come first, then the other steps in
    // file order, so "at 18:00 network cellular" after a span that ends at 18:00 wins.
    std::vector<ScenarioStep> steps;
};

// Reads a scenario, one step a line:
//     at TIME CHANGE
//     from TIME to TIME CHANGE
// TIME is "HH:MM" or "HH:MM:SS", that UTC clock time on the UTC day of `traceStart`, or an
// offset from `traceStart` such as "+90s", "+45m", "+1h30m". A span holds its change from
// its start to its end and then restores the setting as it was before; the restoring step
// is in the result. Blank lines and text after '#' are ignored.
Scenario parseScenario(std::string_view text, Date traceStart);
Scenario readScenario(const std::filesystem::path& path, Date traceStart);

// A short text for a change, as a scenario line would say it: "network offline",
// "battery 35%", "relaunch as build 41".
std::string describe(const ScenarioChange& change);

}  // namespace rovalis::sim
