#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/sim/SimTestSupport.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/platform/Device.h"

namespace rovalis::sim {
namespace {

using test::DeviceFixture;
using test::PathBuilder;

constexpr double hour = 3600.0;

// The battery notifications posted on one process's centre, with the level read at each.
struct BatteryListener {
    std::vector<std::string> names;
    std::vector<float> levels;

    explicit BatteryListener(const Platform& platform) {
        for (const char* name : {UIDeviceBatteryLevelDidChangeNotification, UIDeviceBatteryStateDidChangeNotification}) {
            platform.notificationCenter->addObserver(name, [this, info = platform.deviceInfo](const Notification& n) {
                names.push_back(n.name);
                levels.push_back(info->batteryLevel());
            });
        }
    }
    std::size_t count(const char* name) const { return static_cast<std::size_t>(std::count(names.begin(), names.end(), name)); }
};

TEST(SimulatedBattery, DrainsAtRestAndPostsEachPercentOnceMonitoringIsOn) {
    DeviceFixture f(PathBuilder().stay(24 * hour).build());
    BatteryListener listener(f.platform);
    // Unknown to a process that has not asked.
    EXPECT_EQ(f.platform.deviceInfo->batteryLevel(), -1.0f);
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::unknown);
    f.runFor(2 * hour);
    EXPECT_TRUE(listener.names.empty());

    f.platform.deviceInfo->enableBatteryMonitoring();
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::unplugged);
    // 0.8 % an hour at rest. The reported level is the last whole percent the battery has
    // drained to: 79 % after two hours (78.4 % left), 65 % after nineteen and a half.
    EXPECT_FLOAT_EQ(f.platform.deviceInfo->batteryLevel(), 0.79f);
    f.runFor(17.5 * hour);
    EXPECT_FLOAT_EQ(f.platform.deviceInfo->batteryLevel(), 0.65f);
    EXPECT_EQ(listener.count(UIDeviceBatteryLevelDidChangeNotification), 14u);
    EXPECT_EQ(listener.count(UIDeviceBatteryStateDidChangeNotification), 0u);
    // One step of one percent at each notification.
    for (std::size_t i = 1; i < listener.levels.size(); ++i) {
        EXPECT_NEAR(listener.levels[i - 1] - listener.levels[i], 0.01f, 1e-6f);
    }
}

TEST(SimulatedBattery, LocationUpdatesAndLowPowerModeChangeTheDrain) {
    DeviceFixture f(PathBuilder().stay(24 * hour).build());
    auto client = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    client.manager->startUpdatingLocation();
    f.runFor(hour);
    // 0.8 + 9 % for the hour of satellite fixes: 70.2 % left.
    EXPECT_FLOAT_EQ(f.device.batteryLevel(), 0.71f);
    client.manager->stopUpdatingLocation();

    f.device.setLowPowerMode(true);
    EXPECT_TRUE(f.platform.systemState->isLowPowerModeEnabled());
    EXPECT_EQ(f.platform.systemState->backgroundRefreshStatus(), BackgroundRefreshStatus::available);
    f.runFor(10 * hour);
    // 0.5 % an hour in low-power mode: 65.2 % left.
    EXPECT_FLOAT_EQ(f.device.batteryLevel(), 0.66f);
}

TEST(SimulatedBattery, ChargesUntilFullAndReportsEachStateChange) {
    SimulatedDeviceOptions options;
    options.batteryLevel = 0.9f;
    DeviceFixture f(PathBuilder().stay(24 * hour).build(), options);
    f.platform.deviceInfo->enableBatteryMonitoring();
    BatteryListener listener(f.platform);

    f.device.setCharging(true);
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::charging);
    f.runFor(hour);
    EXPECT_EQ(f.platform.deviceInfo->batteryLevel(), 1.0f);
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::full);
    EXPECT_EQ(listener.count(UIDeviceBatteryLevelDidChangeNotification), 10u);
    EXPECT_EQ(listener.names.front(), UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(listener.names.back(), UIDeviceBatteryStateDidChangeNotification);
    // Full on the charger: the level holds.
    f.runFor(hour);
    EXPECT_EQ(listener.names.size(), 12u);

    f.device.setCharging(false);
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::unplugged);
    EXPECT_EQ(listener.count(UIDeviceBatteryStateDidChangeNotification), 3u);
    f.device.setBatteryLevel(0.25f);
    EXPECT_EQ(f.device.batteryLevel(), 0.25f);
    EXPECT_EQ(listener.levels.back(), 0.25f);
}

TEST(SimulatedBattery, OnlyTheNewestProcessHearsAndOnlyOnceItAsks) {
    DeviceFixture f(PathBuilder().stay(24 * hour).build());
    const Platform first = f.platform;
    first.deviceInfo->enableBatteryMonitoring();
    BatteryListener oldListener(first);
    f.relaunch();
    BatteryListener newListener(f.platform);
    f.runFor(4.5 * hour);
    EXPECT_TRUE(oldListener.names.empty());
    EXPECT_TRUE(newListener.names.empty());

    f.platform.deviceInfo->enableBatteryMonitoring();
    f.runFor(5 * hour);
    EXPECT_TRUE(oldListener.names.empty());
    EXPECT_EQ(newListener.count(UIDeviceBatteryLevelDidChangeNotification), 4u);
}

}  // namespace
}  // namespace rovalis::sim
