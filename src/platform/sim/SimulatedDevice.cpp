#include "platform/sim/SimulatedDevice.h"

#include <atomic>

#include "platform/sim/SimulatedBattery.h"
#include "platform/sim/SimulatedBluetooth.h"
#include "platform/sim/SimulatedLocationService.h"
#include "platform/sim/SimulatedMotion.h"
#include "platform/sim/SimulationRandom.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/platform/BackgroundTasks.h"
#include "util/Fatal.h"

namespace rovalis::sim {

namespace {

// The simulated app is never suspended: background time is granted and never taken back.
class SimulatedBackgroundTasks final : public BackgroundTaskScheduler {
public:
    BackgroundTaskIdentifier beginBackgroundTask(std::function<void()> /*expirationHandler*/) override {
        return next_.fetch_add(1);
    }
    void endBackgroundTask(BackgroundTaskIdentifier /*identifier*/) override {}

private:
    std::atomic<BackgroundTaskIdentifier> next_{UIBackgroundTaskInvalid + 1};
};

constexpr double hour = 3600.0;

}  // namespace

SimulatedDevice::SimulatedDevice(std::shared_ptr<const TruePath> path, SimulatedDeviceOptions options)
    : path_(std::move(path)),
      options_(std::move(options)),
      clock_(std::make_shared<SettableDateSource>(path_ ? path_->start() : Date{})),
      workTracker_(std::make_shared<WorkTracker>()),
      runLoop_(std::make_shared<VirtualRunLoop>(clock_, workTracker_)),
      network_(std::make_shared<SimulatedNetwork>(options_.connection)),
      log_(std::make_shared<DeviceLog>()),
      meter_(std::make_shared<EnergyMeter>(clock_)) {
    if (!path_) fatalError("SimulatedDevice needs a true path");
    SimulationRandom random(options_.seed, RandomStream::device);
    bootDate_ = path_->start().addingSeconds(-random.uniform(2.0 * hour, 12.0 * hour));

    battery_ = SimulatedBattery::create(
        runLoop_, meter_, {options_.batteryLevel, options_.charging, options_.lowPowerMode, options_.appInForeground});
    systemState_ = std::make_shared<SimulatedSystemState>(battery_, clock_, bootDate_);

    const DeviceContext context{path_, runLoop_, meter_, log_, options_.seed};
    location_ = SimulatedLocationService::create(
        context, {options_.authorization, options_.accuracy, options_.locationServicesEnabled, options_.appInForeground});
    motion_ = SimulatedMotionService::create(context, options_.motionAuthorization, bootDate_);
    radio_ = SimulatedBluetoothRadio::create(context);
    location_->setBluetoothRadio(radio_);
}

SimulatedDevice::~SimulatedDevice() {
    // The services go first, invalidating their timers, while the loop still exists.
    motion_.reset();
    location_.reset();
    radio_.reset();
    systemState_.reset();
    battery_.reset();
}

Platform SimulatedDevice::makeProcessPlatform(std::shared_ptr<KeyValueStore> keyValueStore,
                                              std::shared_ptr<KeychainStore> keychain) {
    Platform platform;
    platform.dateSource = clock_;
    platform.mainRunLoop = runLoop_;
    platform.keyValueStore = std::move(keyValueStore);
    platform.keychain = std::move(keychain);
    platform.network = network_;
    platform.backgroundTasks = std::make_shared<SimulatedBackgroundTasks>();
    platform.notificationCenter = std::make_shared<NotificationCenter>();

    const std::weak_ptr<SimulatedLocationService> location = location_;
    platform.makeLocationManager = [location]() -> std::shared_ptr<LocationManagerType> {
        const auto service = location.lock();
        if (!service) fatalError("a location manager was asked of a simulated device that is gone");
        return service->makeManager();
    };
    const std::weak_ptr<SimulatedMotionService> motion = motion_;
    platform.makeMotionManager = [motion]() -> std::shared_ptr<MotionManagerType> {
        const auto service = motion.lock();
        if (!service) fatalError("a motion manager was asked of a simulated device that is gone");
        return service->makeMotionManager();
    };
    platform.makeMotionActivityManager = [motion]() -> std::shared_ptr<MotionActivityManagerType> {
        const auto service = motion.lock();
        if (!service) fatalError("a motion activity manager was asked of a simulated device that is gone");
        return service->makeActivityManager();
    };

    const std::weak_ptr<SimulatedBluetoothRadio> radio = radio_;
    platform.makeBluetoothScanner = [radio]() -> std::shared_ptr<BluetoothScannerType> {
        const auto live = radio.lock();
        if (!live) fatalError("a Bluetooth scanner was asked of a simulated device that is gone");
        return live->makeScanner();
    };

    auto deviceInfo = std::make_shared<SimulatedDeviceInfo>(battery_, platform.notificationCenter);
    battery_->setCurrentProcess(deviceInfo);
    platform.deviceInfo = std::move(deviceInfo);
    platform.systemState = systemState_;
    platform.systemVersion = options_.systemVersion;
    return platform;
}

void SimulatedDevice::runUntil(Date time) {
    const Date current = clock_->now();
    if (time > current) {
        runLoop_->fastForwardBy(time.timeIntervalSince(current));
        // The sum of a date and a difference may miss the date by a rounding step.
        if (clock_->now() < time) {
            clock_->setNow(time);
            runLoop_->runUntilIdle();
        }
    } else {
        runLoop_->runUntilIdle();
    }
}

void SimulatedDevice::setAuthorization(AuthorizationStatus status) { location_->setAuthorization(status); }

void SimulatedDevice::setAccuracyAuthorization(AccuracyAuthorization accuracy) {
    location_->setAccuracyAuthorization(accuracy);
}

void SimulatedDevice::setLocationServicesEnabled(bool enabled) { location_->setLocationServicesEnabled(enabled); }

void SimulatedDevice::setMotionAuthorization(MotionAuthorizationStatus status) { motion_->setAuthorization(status); }

void SimulatedDevice::setCharging(bool charging) { battery_->setCharging(charging); }

void SimulatedDevice::setBatteryLevel(float level) { battery_->setLevel(level); }

void SimulatedDevice::setLowPowerMode(bool enabled) { battery_->setLowPowerMode(enabled); }

void SimulatedDevice::setAppInForeground(bool foreground) {
    battery_->setAppInForeground(foreground);
    location_->setAppInForeground(foreground);
}

const EnergyLedger& SimulatedDevice::energy() const {
    energy_ = meter_->ledger();
    return energy_;
}

LocationMode SimulatedDevice::locationMode() const { return location_->mode(); }

std::vector<CircularRegion> SimulatedDevice::monitoredRegions() const { return location_->monitoredRegions(); }

std::vector<BeaconRegion> SimulatedDevice::monitoredBeaconRegions() const {
    return location_->monitoredBeaconRegions();
}

void SimulatedDevice::placeBeacons(std::vector<ScenarioBeacon> beacons) { radio_->placeBeacons(std::move(beacons)); }

const std::vector<ScenarioBeacon>& SimulatedDevice::beacons() const { return radio_->beacons(); }

float SimulatedDevice::batteryLevel() const { return battery_->level(); }

BatteryState SimulatedDevice::batteryState() const { return battery_->state(); }

}  // namespace rovalis::sim
