#include "platform/sim/SimulatedPhone.h"

#include <type_traits>

#include "platform/linux/FileKeychain.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "platform/sim/TraceReader.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/Rovalis.h"
#include "util/DataRoot.h"

namespace rovalis::sim {

namespace {

Scenario scenarioOf(const std::optional<std::filesystem::path>& file, Date traceStart) {
    return file ? readScenario(*file, traceStart) : Scenario{};
}

SimulatedDeviceOptions withSeed(std::uint64_t seed) {
    SimulatedDeviceOptions options;
    options.seed = seed;
    return options;
}

}  // namespace

SimulatedPhone::SimulatedPhone(const std::filesystem::path& trace,
                               const std::optional<std::filesystem::path>& scenario, std::uint64_t seed,
                               const std::filesystem::path& dataRoot)
    : path_(std::make_shared<const TruePath>(readTrace(trace))),
      scenario_(scenarioOf(scenario, path_->start())),
      device_(path_, withSeed(seed)),
      // Where the Linux platform keeps them too, so a data root reads the same on both.
      keyValueStore_(std::make_shared<SqliteKeyValueStore>(DataRoot(dataRoot).root() / "Preferences.sqlite")),
      keychain_(std::make_shared<FileKeychain>(DataRoot(dataRoot).privateDirectory("Keychain"))) {
    device_.placeBeacons(scenario_.beacons);
}

Platform SimulatedPhone::launchProcess() {
    Platform platform = device_.makeProcessPlatform(keyValueStore_, keychain_);
    processCentre_ = platform.notificationCenter;
    return platform;
}

std::optional<ScenarioChange> SimulatedPhone::runUntil(Date time) {
    const auto& steps = scenario_.steps;
    while (nextStep_ < steps.size() && steps[nextStep_].time <= time) {
        device_.runUntil(steps[nextStep_].time);
        const ScenarioChange& change = steps[nextStep_++].change;
        if (!applyToDevice(change)) return change;
    }
    device_.runUntil(time);
    return std::nullopt;
}

bool SimulatedPhone::applyToDevice(const ScenarioChange& change) {
    return std::visit(
        [this](const auto& c) {
            using Change = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<Change, NetworkChange>) {
                device_.network().setConnection(c.connection);
            } else if constexpr (std::is_same_v<Change, PermissionChange>) {
                device_.setAuthorization(c.status);
            } else if constexpr (std::is_same_v<Change, AccuracyChange>) {
                device_.setAccuracyAuthorization(c.accuracy);
            } else if constexpr (std::is_same_v<Change, LocationServicesChange>) {
                device_.setLocationServicesEnabled(c.enabled);
            } else if constexpr (std::is_same_v<Change, MotionPermissionChange>) {
                device_.setMotionAuthorization(c.status);
            } else if constexpr (std::is_same_v<Change, ChargingChange>) {
                device_.setCharging(c.charging);
            } else if constexpr (std::is_same_v<Change, BatteryChange>) {
                device_.setBatteryLevel(static_cast<float>(c.level));
            } else if constexpr (std::is_same_v<Change, LowPowerChange>) {
                device_.setLowPowerMode(c.enabled);
            } else if constexpr (std::is_same_v<Change, AppStateChange>) {
                device_.setAppInForeground(c.foreground);
                if (processCentre_) {
                    if (c.foreground) {
                        processCentre_->post(UIApplicationWillEnterForegroundNotification);
                        processCentre_->post(UIApplicationDidBecomeActiveNotification);
                    } else {
                        processCentre_->post(UIApplicationDidEnterBackgroundNotification);
                    }
                }
            } else {
                return false;  // wifi-only, tracking, relaunch: the app's own
            }
            return true;
        },
        change);
}

}  // namespace rovalis::sim
