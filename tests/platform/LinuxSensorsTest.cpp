#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "platform/linux/LinuxDeviceInfo.h"
#include "platform/linux/LinuxMotion.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/LinuxSystemState.h"
#include "support/TestSupport.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

using linuxpower::BatteryReading;
using linuxpower::readBattery;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

// A power supply in a fake sysfs tree, each attribute ending in a newline as the kernel's.
void writeSupply(const fs::path& root, const std::string& name,
                 std::initializer_list<std::pair<const char*, std::string>> attributes) {
    fs::create_directories(root / name);
    for (const auto& [attribute, value] : attributes) test::writeFile(root / name / attribute, value + "\n");
}

TEST(LinuxBattery, LevelFromCapacityOrEnergyOrChargeAndStateFromStatus) {
    test::TempDir root;
    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"capacity", "42"}, {"energy_now", "10"},
                                      {"energy_full", "40"}, {"status", "Discharging"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{0.42f, BatteryState::unplugged}));
    writeSupply(root.path(), "BAT0", {{"capacity", "42%"}});  // garbage: the energy ratio counts
    EXPECT_EQ(readBattery(root.path()).level, 0.25f);
    writeSupply(root.path(), "BAT0", {{"energy_full", "0"}, {"charge_now", "3000"}, {"charge_full", "4000"}});
    EXPECT_EQ(readBattery(root.path()).level, 0.75f);
    writeSupply(root.path(), "BAT0", {{"charge_now", "4100"}});  // beyond the last full charge
    EXPECT_EQ(readBattery(root.path()).level, 1.0f);
    writeSupply(root.path(), "BAT0", {{"charge_now", "-5"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{-1.0f, BatteryState::unplugged}));

    for (const auto& [status, state] : {std::pair{"Charging", BatteryState::charging},
                                        {"Not charging", BatteryState::unplugged}, {"Full", BatteryState::full},
                                        {"Unknown", BatteryState::unknown}, {"charging", BatteryState::unknown}}) {
        writeSupply(root.path(), "BAT0", {{"status", status}});
        EXPECT_EQ(readBattery(root.path()).state, state) << status;
    }
}

TEST(LinuxBattery, TheFirstSystemBatteryByNameCountsAndWithoutOneTheLevelIsUnknown) {
    test::TempDir root;
    EXPECT_EQ(readBattery(root / "missing"), (BatteryReading{-1.0f, BatteryState::unknown}));
    writeSupply(root.path(), "AC", {{"type", "Mains"}, {"online", "1"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{-1.0f, BatteryState::unknown}));

    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"present", "0"}});  // an empty bay
    writeSupply(root.path(), "BAT2", {{"type", "Battery"}, {"capacity", "20"}, {"status", "Full"}});
    writeSupply(root.path(), "BAT1", {{"type", "Battery"}, {"capacity", "10"}, {"status", "Charging"}});
    writeSupply(root.path(), "A_mouse", {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "5"}});
    writeSupply(root.path(), "0garbage", {{"type", "\x01\xff"}, {"capacity", "7"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{0.10f, BatteryState::charging}));
}

TEST(LinuxDeviceInfo, PollsEveryMinuteWhileMonitoringAndPostsOnlyWhatChanged) {
    test::TempDir root;
    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"energy_now", "500"}, {"energy_full", "1000"},
                                      {"status", "Discharging"}});
    const auto loop = std::make_shared<VirtualRunLoop>();
    const auto center = std::make_shared<NotificationCenter>();
    Strings posted;
    for (const char* name :
         {UIDeviceBatteryLevelDidChangeNotification, UIDeviceBatteryStateDidChangeNotification}) {
        center->addObserver(name, [&](const Notification& n) { posted.push_back(n.name); });
    }
    auto device = std::make_shared<LinuxDeviceInfo>(root.path(), loop, center);
    const auto set = [&](const char* attribute, const char* value) {
        writeSupply(root.path(), "BAT0", {{attribute, value}});
    };
    const auto after = [&](double seconds) {
        posted.clear();
        loop->fastForwardBy(seconds);
        return posted;
    };
    const auto minute = [&] { return after(60.0); };

    set("energy_now", "600");
    EXPECT_EQ(device->batteryLevel(), 0.6f);  // read afresh
    EXPECT_TRUE(minute().empty());            // not monitoring yet
    device->enableBatteryMonitoring();
    device->enableBatteryMonitoring();
    EXPECT_EQ(loop->nextPendingDelay(), 60.0);

    set("energy_now", "604");  // still 60 %
    EXPECT_TRUE(minute().empty());
    set("energy_now", "606");
    EXPECT_TRUE(after(59.0).empty());
    EXPECT_EQ(after(1.0), Strings{UIDeviceBatteryLevelDidChangeNotification});
    set("status", "Charging");
    EXPECT_EQ(device->batteryState(), BatteryState::charging);
    EXPECT_EQ(minute(), Strings{UIDeviceBatteryStateDidChangeNotification});
    fs::remove_all(root / "BAT0");
    EXPECT_EQ(minute(),
              (Strings{UIDeviceBatteryLevelDidChangeNotification, UIDeviceBatteryStateDidChangeNotification}));

    device.reset();
    EXPECT_FALSE(loop->nextPendingDelay());
}

TEST(LinuxSystemState, LowPowerModeFollowsThePlatformProfileAndUptimeTheBootClock) {
    test::TempDir dir;
    const LinuxSystemState state(dir / "platform_profile");
    EXPECT_FALSE(state.isLowPowerModeEnabled());
    for (const auto& [text, lowPower] :
         {std::pair{"low-power\n", true}, {"balanced\n", false}, {"low-power-x", false}}) {
        test::writeFile(dir / "platform_profile", text);
        EXPECT_EQ(state.isLowPowerModeEnabled(), lowPower) << text;
    }
    EXPECT_EQ(state.backgroundRefreshStatus(), BackgroundRefreshStatus::available);
    double procUptime = 0.0;  // seconds since boot on the same clock
    std::ifstream("/proc/uptime") >> procUptime;
    EXPECT_NEAR(state.systemUptime(), procUptime, 1.0);
}

TEST(LinuxPlatform, BringsTheDefaultCentreTheBatteryAndSensorlessMotion) {
    test::TempDir temp;
    const Platform platform = makeLinuxPlatform(DataRoot(temp / "root"));
    EXPECT_EQ(platform.notificationCenter, NotificationCenter::defaultCenter());
    EXPECT_TRUE(std::dynamic_pointer_cast<LinuxDeviceInfo>(platform.deviceInfo));
    EXPECT_TRUE(std::dynamic_pointer_cast<LinuxSystemState>(platform.systemState));
    const auto motion = platform.makeMotionManager();
    const auto activity = platform.makeMotionActivityManager();
    ASSERT_TRUE(motion && activity);
    EXPECT_FALSE(motion->isAccelerometerAvailable());
    EXPECT_FALSE(activity->isActivityAvailable());
    EXPECT_NE(activity->authorizationStatus(), MotionAuthorizationStatus::authorized);
}

}  // namespace
}  // namespace rovalis
