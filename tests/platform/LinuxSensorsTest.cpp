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
using test::TempDir;
namespace fs = std::filesystem;

// A power supply in a fake sysfs tree: one file per attribute, each ending in a newline
// as the kernel writes them.
void writeSupply(const fs::path& root, const std::string& name,
                 std::initializer_list<std::pair<const char*, std::string>> attributes) {
    fs::create_directories(root / name);
    for (const auto& [attribute, value] : attributes) test::writeFile(root / name / attribute, value + "\n");
}

TEST(LinuxBattery, TheLevelComesFromCapacityOrAnEnergyOrChargeRatio) {
    TempDir root;
    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"capacity", "42"}, {"energy_now", "10"},
                                      {"energy_full", "40"}, {"status", "Discharging"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{0.42f, BatteryState::unplugged}));

    // capacity unreadable: the energy ratio, then the charge ratio.
    writeSupply(root.path(), "BAT0", {{"capacity", "42%"}});
    EXPECT_EQ(readBattery(root.path()).level, 0.25f);
    writeSupply(root.path(), "BAT0", {{"energy_full", "0"}, {"charge_now", "3000"}, {"charge_full", "4000"}});
    EXPECT_EQ(readBattery(root.path()).level, 0.75f);
    writeSupply(root.path(), "BAT0", {{"charge_now", "4100"}});  // beyond the last full charge
    EXPECT_EQ(readBattery(root.path()).level, 1.0f);
    writeSupply(root.path(), "BAT0", {{"charge_now", "-5"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{-1.0f, BatteryState::unplugged}));
    writeSupply(root.path(), "BAT0", {{"capacity", "100"}});
    EXPECT_EQ(readBattery(root.path()).level, 1.0f);
}

TEST(LinuxBattery, TheStatusGivesTheState) {
    TempDir root;
    const struct {
        const char* status;
        BatteryState state;
    } cases[] = {{"Charging", BatteryState::charging},  {"Discharging", BatteryState::unplugged},
                 {"Not charging", BatteryState::unplugged}, {"Full", BatteryState::full},
                 {"Unknown", BatteryState::unknown},    {"charging", BatteryState::unknown},
                 {"", BatteryState::unknown}};
    for (const auto& c : cases) {
        writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"capacity", "80"}, {"status", c.status}});
        EXPECT_EQ(readBattery(root.path()).state, c.state) << c.status;
    }
}

TEST(LinuxBattery, TheFirstSystemBatteryByNameCountsAndWithoutOneTheLevelIsUnknown) {
    TempDir root;
    EXPECT_EQ(readBattery(root / "missing"), BatteryReading{});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{-1.0f, BatteryState::unknown}));

    writeSupply(root.path(), "AC", {{"type", "Mains"}, {"online", "1"}});
    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"present", "0"}});
    writeSupply(root.path(), "BAT2", {{"type", "Battery"}, {"capacity", "20"}, {"status", "Full"}});
    writeSupply(root.path(), "BAT1", {{"type", "Battery"}, {"capacity", "10"}, {"status", "Charging"}});
    writeSupply(root.path(), "A_mouse", {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "5"}});
    writeSupply(root.path(), "0garbage", {{"type", "\x01\xff"}, {"capacity", "7"}});
    EXPECT_EQ(readBattery(root.path()), (BatteryReading{0.10f, BatteryState::charging}));
}

class LinuxDeviceInfoTest : public ::testing::Test {
protected:
    LinuxDeviceInfoTest() {
        writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"capacity", "50"}, {"status", "Discharging"}});
        for (const char* name :
             {UIDeviceBatteryLevelDidChangeNotification, UIDeviceBatteryStateDidChangeNotification}) {
            center->addObserver(name, [this](const Notification& n) { posted.push_back(n.name); });
        }
    }

    void set(const char* attribute, const std::string& value) {
        test::writeFile(root / "BAT0" / attribute, value + "\n");
    }

    TempDir root;
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>();
    std::shared_ptr<NotificationCenter> center = std::make_shared<NotificationCenter>();
    std::shared_ptr<LinuxDeviceInfo> device = std::make_shared<LinuxDeviceInfo>(root.path(), loop, center);
    std::vector<std::string> posted;
};

TEST_F(LinuxDeviceInfoTest, ReadsAfreshAndPollsEveryMinuteOnlyWhileMonitoring) {
    EXPECT_EQ(device->batteryLevel(), 0.5f);
    set("capacity", "60");
    set("status", "Charging");
    EXPECT_EQ(device->batteryLevel(), 0.6f);
    EXPECT_EQ(device->batteryState(), BatteryState::charging);
    loop->fastForwardBy(600.0);
    EXPECT_TRUE(posted.empty());
    EXPECT_FALSE(loop->nextPendingDelay());

    device->enableBatteryMonitoring();
    device->enableBatteryMonitoring();  // one timer only
    EXPECT_EQ(loop->nextPendingDelay(), 60.0);
    set("capacity", "61");
    loop->fastForwardBy(59.0);
    EXPECT_TRUE(posted.empty());
    loop->fastForwardBy(1.0);
    EXPECT_EQ(posted, std::vector<std::string>{UIDeviceBatteryLevelDidChangeNotification});
    EXPECT_EQ(loop->nextPendingDelay(), 60.0);
}

TEST_F(LinuxDeviceInfoTest, PostsForAChangeOfWholePercentOrStateOnly) {
    test::writeFile(root / "BAT0" / "capacity", "x\n");  // the level now comes from the energy ratio
    set("energy_full", "1000");
    set("energy_now", "500");
    device->enableBatteryMonitoring();

    set("energy_now", "504");  // still 50 %
    loop->fastForwardBy(60.0);
    EXPECT_TRUE(posted.empty());

    set("energy_now", "506");  // 51 %
    loop->fastForwardBy(60.0);
    EXPECT_EQ(posted, std::vector<std::string>{UIDeviceBatteryLevelDidChangeNotification});

    posted.clear();
    set("status", "Full");
    loop->fastForwardBy(60.0);
    EXPECT_EQ(posted, std::vector<std::string>{UIDeviceBatteryStateDidChangeNotification});

    posted.clear();
    fs::remove_all(root / "BAT0");  // the battery is taken out
    loop->fastForwardBy(60.0);
    EXPECT_EQ(posted, (std::vector<std::string>{UIDeviceBatteryLevelDidChangeNotification,
                                                UIDeviceBatteryStateDidChangeNotification}));

    posted.clear();
    device.reset();
    EXPECT_FALSE(loop->nextPendingDelay());
    writeSupply(root.path(), "BAT0", {{"type", "Battery"}, {"capacity", "10"}});
    loop->fastForwardBy(600.0);
    EXPECT_TRUE(posted.empty());
}

TEST(LinuxSystemState, LowPowerModeFollowsThePlatformProfileAndUptimeTheBootClock) {
    TempDir dir;
    const fs::path profile = dir / "platform_profile";
    const LinuxSystemState state(profile);
    EXPECT_FALSE(state.isLowPowerModeEnabled());
    for (const auto& [text, lowPower] : {std::pair{"low-power\n", true}, std::pair{"balanced\n", false},
                                         std::pair{"performance\n", false}, std::pair{"low-power-x\n", false}}) {
        test::writeFile(profile, text);
        EXPECT_EQ(state.isLowPowerModeEnabled(), lowPower) << text;
    }
    EXPECT_EQ(state.backgroundRefreshStatus(), BackgroundRefreshStatus::available);

    // /proc/uptime counts seconds since boot on the same clock.
    double procUptime = 0.0;
    std::ifstream("/proc/uptime") >> procUptime;
    ASSERT_GT(procUptime, 0.0);
    EXPECT_NEAR(state.systemUptime(), procUptime, 1.0);
}

TEST(LinuxPlatform, BringsTheDefaultCentreTheBatteryAndSensorlessMotion) {
    TempDir temp;
    const DataRoot root(temp / "root");
    const Platform platform = makeLinuxPlatform(root);
    ASSERT_TRUE(platform.notificationCenter);
    EXPECT_EQ(platform.notificationCenter, NotificationCenter::defaultCenter());
    EXPECT_TRUE(std::dynamic_pointer_cast<LinuxDeviceInfo>(platform.deviceInfo));
    EXPECT_TRUE(std::dynamic_pointer_cast<LinuxSystemState>(platform.systemState));

    const auto motion = platform.makeMotionManager();
    const auto activity = platform.makeMotionActivityManager();
    ASSERT_TRUE(motion && activity);
    EXPECT_NE(platform.makeMotionManager(), motion);
    EXPECT_FALSE(motion->isAccelerometerAvailable());
    EXPECT_FALSE(activity->isActivityAvailable());
    EXPECT_NE(activity->authorizationStatus(), MotionAuthorizationStatus::authorized);
}

}  // namespace
}  // namespace rovalis
