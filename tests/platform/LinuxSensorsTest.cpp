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
                                        {"charging", BatteryState::unknown}}) {
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
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{0.10f, BatteryState::charging}));
}

TEST(LinuxDeviceInfo, PollsEveryMinuteWhileMonitoringAndPostsOnlyWhatChanged) {
    test::TempDir root;
    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"energy_now", "600"}, {"energy_full", "1000"},
                                      {"status", "Discharging"}});
    const auto loop = std::make_shared<VirtualRunLoop>();
    const auto center = std::make_shared<NotificationCenter>();
    Strings posted;
    for (const char* name : {UIDeviceBatteryLevelDidChangeNotification, UIDeviceBatteryStateDidChangeNotification}) {
        center->addObserver(name, [&](const Notification& n) { posted.push_back(n.name); });
    }
    auto device = std::make_shared<LinuxDeviceInfo>(root.path(), loop, center);
    const auto after = [&](double seconds, const char* attribute, const char* value) {
        writeSupply(root.path(), "BAT0", {{attribute, value}});
        posted.clear();
        loop->fastForwardBy(seconds);
        return posted;
    };

    EXPECT_TRUE(after(60.0, "energy_now", "604").empty()) << "not monitoring yet";
    device->enableBatteryMonitoring();
    device->enableBatteryMonitoring();
    EXPECT_TRUE(after(60.0, "energy_now", "596").empty()) << "still 60 %";
    EXPECT_TRUE(after(59.0, "energy_now", "606").empty());
    EXPECT_EQ(after(1.0, "energy_now", "606"), Strings{UIDeviceBatteryLevelDidChangeNotification});
    EXPECT_EQ(after(60.0, "status", "Charging"), Strings{UIDeviceBatteryStateDidChangeNotification});
    EXPECT_EQ(device->batteryState(), BatteryState::charging);

    device.reset();
    EXPECT_FALSE(loop->nextPendingDelay());
}

TEST(LinuxSystemState, LowPowerModeFollowsThePlatformProfileAndUptimeTheBootClock) {
    test::TempDir dir;
    const LinuxSystemState state(dir / "platform_profile");
    EXPECT_FALSE(state.isLowPowerModeEnabled());
    for (const auto& [text, lowPower] : {std::pair{"low-power\n", true}, {"low-power-x", false}}) {
        test::writeFile(dir / "platform_profile", text);
        EXPECT_EQ(state.isLowPowerModeEnabled(), lowPower) << text;
    }
    double procUptime = 0.0;  // seconds since boot on the same clock
    std::ifstream("/proc/uptime") >> procUptime;
    EXPECT_NEAR(state.systemUptime(), procUptime, 1.0);
}

TEST(LinuxPlatform, BringsTheBatteryAndSensorlessMotion) {
    test::TempDir temp;
    const Platform platform = makeLinuxPlatform(DataRoot(temp / "root"));
    EXPECT_TRUE(std::dynamic_pointer_cast<LinuxDeviceInfo>(platform.deviceInfo));
    EXPECT_TRUE(std::dynamic_pointer_cast<LinuxSystemState>(platform.systemState));
    EXPECT_FALSE(platform.makeMotionManager()->isAccelerometerAvailable());
    EXPECT_FALSE(platform.makeMotionActivityManager()->isActivityAvailable());
}

}  // namespace
}  // namespace rovalis
