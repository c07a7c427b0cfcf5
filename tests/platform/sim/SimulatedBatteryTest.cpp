#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/sim/SimTestSupport.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/platform/Device.h"

namespace rovalis::sim {
namespace {

using namespace test;

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
    auto count(const char* name) const { return std::count(names.begin(), names.end(), name); }
};

TEST(SimulatedBattery, DrainsByWhatTheDeviceDoesAndPostsEachPercentToTheNewestProcessOnceItAsks) {
    DeviceFixture f(PathBuilder().stay(48 * hour).build());
    const Platform first = f.platform;
    first.deviceInfo->enableBatteryMonitoring();
    BatteryListener earlier(first);
    f.relaunch();
    BatteryListener listener(f.platform);
    EXPECT_EQ(f.platform.deviceInfo->batteryLevel(), -1.0f) << "unknown to a process that has not asked";
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::unknown);
    f.runFor(2 * hour);
    EXPECT_TRUE(listener.names.empty());

    f.platform.deviceInfo->enableBatteryMonitoring();
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::unplugged);
    // 0.8 % an hour at rest. The reported level is the last whole percent the battery has
    // drained to: 79 % after two hours (78.4 % left), 65 % after nineteen and a half (64.4 %).
    EXPECT_FLOAT_EQ(f.platform.deviceInfo->batteryLevel(), 0.79f);
    f.runFor(17.5 * hour);
    EXPECT_FLOAT_EQ(f.platform.deviceInfo->batteryLevel(), 0.65f);
    EXPECT_EQ(listener.count(UIDeviceBatteryLevelDidChangeNotification), 14);
    EXPECT_EQ(listener.count(UIDeviceBatteryStateDidChangeNotification), 0);
    EXPECT_TRUE(earlier.names.empty()) << "an earlier process hears nothing";

    // 0.8 + 9 % for an hour of satellite fixes: 54.6 % left.
    auto client = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    client.manager->startUpdatingLocation();
    f.runFor(hour);
    EXPECT_FLOAT_EQ(f.device.batteryLevel(), 0.55f);
    client.manager->stopUpdatingLocation();
    // 0.5 % an hour in low-power mode: 49.6 % left.
    f.device.setLowPowerMode(true);
    EXPECT_TRUE(f.platform.systemState->isLowPowerModeEnabled());
    f.runFor(10 * hour);
    EXPECT_FLOAT_EQ(f.device.batteryLevel(), 0.50f);
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
    EXPECT_EQ(listener.count(UIDeviceBatteryLevelDidChangeNotification), 10);
    EXPECT_EQ(listener.names.front(), UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(listener.names.back(), UIDeviceBatteryStateDidChangeNotification);
    // Full on the charger: the level holds.
    f.runFor(hour);
    EXPECT_EQ(listener.names.size(), 12u);

    f.device.setCharging(false);
    EXPECT_EQ(f.platform.deviceInfo->batteryState(), BatteryState::unplugged);
    EXPECT_EQ(listener.count(UIDeviceBatteryStateDidChangeNotification), 3);
    f.device.setBatteryLevel(0.25f);
    EXPECT_EQ(f.device.batteryLevel(), 0.25f);
    EXPECT_EQ(listener.levels.back(), 0.25f) << "the level is stored before it is posted";
}

}  // namespace
}  // namespace rovalis::sim
