#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/sim/DeviceLog.h"
#include "platform/sim/EnergyLedger.h"
#include "platform/sim/Scenario.h"
#include "platform/sim/SimulatedNetwork.h"
#include "platform/sim/TruePath.h"
#include "rovalis/Platform.h"
#include "rovalis/platform/Device.h"
#include "rovalis/platform/Location.h"
#include "rovalis/platform/Motion.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis::sim {

class SimulatedBattery;
class SimulatedBluetoothRadio;
class SimulatedDeviceInfo;
class SimulatedLocationService;
class SimulatedMotionService;
class SimulatedSystemState;

struct SimulatedDeviceOptions {
    std::uint64_t seed = 1;
    AuthorizationStatus authorization = AuthorizationStatus::authorizedAlways;
    AccuracyAuthorization accuracy = AccuracyAuthorization::fullAccuracy;
    bool locationServicesEnabled = true;
    MotionAuthorizationStatus motionAuthorization = MotionAuthorizationStatus::authorized;
    SimulatedConnection connection = SimulatedConnection::wifi;
    float batteryLevel = 0.8f;
    bool charging = false;
    bool lowPowerMode = false;
    bool appInForeground = false;
    std::string systemVersion = "17.4";
};

// A phone that moves along a true path on virtual time, with the platform services the SDK
// runs on: location (fixes, regions, significant changes, authorization, beacon regions and
// ranging), motion, battery, system state, network and a Bluetooth LE radio that hears the
// beacons placed around it. The SDK runs on it unchanged through the bundle that
// makeProcessPlatform() hands out.
//
// Everything the device does happens on timers of its one virtual run loop, and the clock
// moves only when every executor is idle and no transfer is in flight, so a day replays in
// seconds, and the same path, controls and seed give the same day to the byte. The device
// never reads the wall clock. It was booted some hours (drawn from the seed, 2 - 12) before
// the path starts; motion samples are stamped in seconds since then.
//
// The device and its services live together; the location and motion managers handed to a
// process come and go with that process (the device keeps only weak references to them).
// Used from one thread: the one that creates it and runs it.
class SimulatedDevice {
public:
    // The clock starts at the path's start.
    explicit SimulatedDevice(std::shared_ptr<const TruePath> path, SimulatedDeviceOptions options = {});
    ~SimulatedDevice();

    SimulatedDevice(const SimulatedDevice&) = delete;
    SimulatedDevice& operator=(const SimulatedDevice&) = delete;

    // A platform bundle for one app process on this device: a fresh notification centre (a
    // new process), and the device's clock, run loop, work tracker, network, location, motion,
    // battery and system state. The key-value store and keychain are the caller's: they live
    // on disk and outlive a process. Its serial executors count their work on the device's
    // work tracker; its background tasks are granted and never expire. The battery posts its
    // changes on the newest process's notification centre.
    Platform makeProcessPlatform(std::shared_ptr<KeyValueStore> keyValueStore, std::shared_ptr<KeychainStore> keychain);

    VirtualRunLoop& runLoop() { return *runLoop_; }
    const std::shared_ptr<VirtualRunLoop>& sharedRunLoop() const { return runLoop_; }
    std::shared_ptr<SettableDateSource> clock() const { return clock_; }
    std::shared_ptr<WorkTracker> workTracker() const { return workTracker_; }
    SimulatedNetwork& network() { return *network_; }
    const std::shared_ptr<SimulatedNetwork>& sharedNetwork() const { return network_; }
    const TruePath& path() const { return *path_; }
    Date now() const { return clock_->now(); }
    Date bootDate() const { return bootDate_; }

    // Runs the device and the app on it up to `time`: every timer and task due on the way,
    // and the tracked work they start, moving virtual time only when all of it is idle. A
    // time in the past runs what is due now.
    void runUntil(Date time);

    // Controls, effective at the present virtual time; each tells the app what the platform
    // would (authorization changes to every location manager's delegate, battery changes on
    // the notification centre).
    void setAuthorization(AuthorizationStatus status);
    void setAccuracyAuthorization(AccuracyAuthorization accuracy);
    void setLocationServicesEnabled(bool enabled);
    void setMotionAuthorization(MotionAuthorizationStatus status);
    void setCharging(bool charging);
    void setBatteryLevel(float level);
    void setLowPowerMode(bool enabled);
    void setAppInForeground(bool foreground);

    // Places beacons around the device, in place of any placed before; they advertise from
    // then on (see SimulatedBluetoothRadio). A scenario's beacons are placed before its run.
    void placeBeacons(std::vector<ScenarioBeacon> beacons);
    const std::vector<ScenarioBeacon>& beacons() const;

    // What the device has spent, booked up to now.
    const EnergyLedger& energy() const;
    const DeviceLog& log() const { return *log_; }

    // What the device's services are doing, for the program that drives it.
    LocationMode locationMode() const;
    std::vector<CircularRegion> monitoredRegions() const;
    std::vector<BeaconRegion> monitoredBeaconRegions() const;
    float batteryLevel() const;
    BatteryState batteryState() const;

private:
    const std::shared_ptr<const TruePath> path_;
    const SimulatedDeviceOptions options_;
    const std::shared_ptr<SettableDateSource> clock_;
    const std::shared_ptr<WorkTracker> workTracker_;
    const std::shared_ptr<VirtualRunLoop> runLoop_;
    const std::shared_ptr<SimulatedNetwork> network_;
    const std::shared_ptr<DeviceLog> log_;
    const std::shared_ptr<EnergyMeter> meter_;
    Date bootDate_;
    std::shared_ptr<SimulatedBattery> battery_;
    std::shared_ptr<SimulatedSystemState> systemState_;
    std::shared_ptr<SimulatedLocationService> location_;
    std::shared_ptr<SimulatedMotionService> motion_;
    std::shared_ptr<SimulatedBluetoothRadio> radio_;
    mutable EnergyLedger energy_;
};

}  // namespace rovalis::sim
