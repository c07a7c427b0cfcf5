#include <gtest/gtest.h>

#include <limits>

#include "sensing/BatteryMonitoringManager.h"
#include "sensing/SDKSettingsTracker.h"
#include "sensing/SensingFakes.h"
#include "support/FakeDevice.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/SettableDateSource.h"

namespace rovalis {
namespace {

using nlohmann::json;

class BatteryAndSettingsTest : public ::testing::Test {
protected:
    std::size_t stored() { return test::storedEvents(*repository).size(); }
    json last() { return test::storedEvents(*repository).back(); }
    // The number of events written by unforced records at each level in turn.
    std::size_t unforcedEvents(std::initializer_list<float> levels) {
        const auto before = stored();
        for (const float level : levels) {
            device->level = level;
            battery->persistStateWithForced(false);
        }
        return stored() - before;
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{1700000000.0});
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<test::FakeDeviceInfo> device = std::make_shared<test::FakeDeviceInfo>();
    std::shared_ptr<NotificationCenter> center = std::make_shared<NotificationCenter>();
    std::unique_ptr<BatteryMonitoringManager> battery =
        std::make_unique<BatteryMonitoringManager>(repository, device, clock, center);
};

TEST_F(BatteryAndSettingsTest, AnUnknownLevelReadsFullALevelIsClampedToOneAndOnlyTheChargingStateCharges) {
    device->state = BatteryState::full;
    for (const float level : {-1.0f, std::numeric_limits<float>::quiet_NaN(), 1.25f}) {
        device->level = level;
        battery->persistStateWithForced(true);
        EXPECT_EQ(last()["battery_status"], 1.0) << level;
        EXPECT_EQ(last()["is_charging"], false) << "full is not charging";
    }
    device->level = 0.25f;
    device->state = BatteryState::charging;
    battery->persistStateWithForced(true);
    EXPECT_EQ(last(), (json{{"type", "Battery"}, {"tracked_at_ms", 1700000000000}, {"battery_status", 0.25},
                            {"is_charging", true}}));
}

TEST_F(BatteryAndSettingsTest, UnforcedBatteryRecordsCompareTwoDecimalsButSleepAndWakeAlwaysWrite) {
    EXPECT_EQ(unforcedEvents({0.004f}), 0u) << "0.00, as the level before any record";
    EXPECT_EQ(unforcedEvents({0.50f}), 1u);
    EXPECT_EQ(unforcedEvents({0.501f, 0.504f}), 0u);
    EXPECT_EQ(unforcedEvents({0.51f}), 1u);
    device->state = BatteryState::charging;
    EXPECT_EQ(unforcedEvents({0.51f}), 0u) << "the state alone is no change";
    EXPECT_EQ(unforcedEvents({-1.0f, 2.0f}), 1u) << "both read 1.00";

    battery->slowDown(std::nullopt);
    battery->speedUp();
    EXPECT_EQ(stored(), 5u);
}

TEST_F(BatteryAndSettingsTest, BatteryNotificationsRecordUnforcedOnlyBetweenStartAndStop) {
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_EQ(stored(), 0u);

    battery->start();
    battery->start();
    EXPECT_TRUE(device->monitoringEnabled);
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    center->post(UIDeviceBatteryStateDidChangeNotification);  // unforced: the level is unchanged
    device->level = 0.75f;
    center->post(UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(stored(), 2u);

    battery->halt();
    device->level = 0.1f;
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    battery->start();
    battery.reset();  // the observers go with the manager
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_EQ(stored(), 2u);
}

TEST_F(BatteryAndSettingsTest, RecordingBatteryWithoutTheStoreIsFatal) {
    BatteryMonitoringManager orphan(std::weak_ptr<RVLEventInsertable>(), device, clock, center);
    EXPECT_DEATH(orphan.persistStateWithForced(true), "the event repository is gone");
}

TEST_F(BatteryAndSettingsTest, SettingsAreWrittenSettingFirstOnEveryStartAndNeverAfterStop) {
    const auto defaults = std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    const auto systemState = std::make_shared<test::FakeSystemState>();
    SDKSettingsTracker tracker{repository, clock, defaults, systemState};

    systemState->lowPowerMode = true;
    tracker.start();
    EXPECT_EQ(test::storedEvents(*repository),
              (std::vector<json>{{{"type", "SDKSettings"}, {"tracked_at_ms", 1700000000000},
                                  {"wifi_only_data_transfer", false}},
                                 {{"type", "DeviceSettings"}, {"tracked_at_ms", 1700000000000},
                                  {"power_save_mode", true}, {"background_app_refresh", true}}}));
    for (const auto status : {BackgroundRefreshStatus::restricted, BackgroundRefreshStatus::denied}) {
        systemState->refreshStatus = status;
        tracker.persistStateWithForced(true);
        EXPECT_EQ(last()["background_app_refresh"], false);
    }

    for (const auto end : {&SDKSettingsTracker::stop, &SDKSettingsTracker::halt}) {
        tracker.start();
        (tracker.*end)();
        const auto before = stored();
        defaults->setWifiOnlyDataTransfer(!defaults->wifiOnlyDataTransfer());
        tracker.persistStateWithForced(false);
        tracker.persistStateWithForced(true);
        EXPECT_EQ(stored(), before);
    }
}

}  // namespace
}  // namespace rovalis
