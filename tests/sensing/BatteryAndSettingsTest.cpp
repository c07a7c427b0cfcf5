#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "events/EventRepository.h"
#include "sensing/BatteryMonitoringManager.h"
#include "sensing/SDKSettingsTracker.h"
#include "support/FakeDevice.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis {
namespace {

using test::FakeDeviceInfo;
using test::FakeSystemState;
using test::TempDir;
using nlohmann::json;

// Steps one second forward at every reading, so that each reading can be told apart.
class SteppingDateSource final : public RVLDateSource {
public:
    Date now() const override { return Date{next_++}; }

private:
    mutable double next_ = 1700000000.0;
};

class StoreTest : public ::testing::Test {
protected:
    std::vector<json> events() {
        std::vector<json> result;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) {
            result.push_back(json::parse(row.payload));
        }
        return result;
    }

    std::shared_ptr<SteppingDateSource> clock = std::make_shared<SteppingDateSource>();
    TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
};

class BatteryMonitoringTest : public StoreTest {
protected:
    // Non-forced records at each level in turn; the number of events written.
    std::size_t eventsAfterUnforcedLevels(std::initializer_list<float> levels) {
        const auto before = events().size();
        for (const float level : levels) {
            device->level = level;
            battery->persistStateWithForced(false);
        }
        return events().size() - before;
    }

    std::shared_ptr<FakeDeviceInfo> device = std::make_shared<FakeDeviceInfo>();
    std::shared_ptr<NotificationCenter> center = std::make_shared<NotificationCenter>();
    std::unique_ptr<BatteryMonitoringManager> battery =
        std::make_unique<BatteryMonitoringManager>(repository, device, clock, center);
};

TEST_F(BatteryMonitoringTest, ALevelIsClampedToOneAndOnlyTheChargingStateCharges) {
    const struct {
        float level;
        BatteryState state;
        double status;
        bool charging;
    } cases[] = {
        {-1.0f, BatteryState::unknown, 1.0, false},  // the platform does not know the level
        {std::numeric_limits<float>::quiet_NaN(), BatteryState::unplugged, 1.0, false},
        {1.25f, BatteryState::full, 1.0, false},
        {0.0f, BatteryState::charging, 0.0, true},
        {0.25f, BatteryState::unplugged, 0.25, false},
    };
    for (const auto& c : cases) {
        device->level = c.level;
        device->state = c.state;
        battery->persistStateWithForced(true);
        const json event = events().back();
        EXPECT_EQ(event["battery_status"], c.status) << c.level;
        EXPECT_EQ(event["is_charging"], c.charging) << c.level;
    }
    EXPECT_EQ(repository->fetchEventsPayloadTo(std::nullopt, 1).at(0).payload,
              R"({"battery_status":1,"is_charging":false,"tracked_at_ms":1700000000000,"type":"Battery"})");
}

TEST_F(BatteryMonitoringTest, UnforcedRecordsCompareTheLevelAtTwoDecimals) {
    EXPECT_EQ(eventsAfterUnforcedLevels({0.004f}), 0u);  // 0.00 as the initial level
    EXPECT_EQ(eventsAfterUnforcedLevels({0.50f}), 1u);
    EXPECT_EQ(eventsAfterUnforcedLevels({0.501f, 0.504f}), 0u);
    EXPECT_EQ(eventsAfterUnforcedLevels({0.51f}), 1u);
    EXPECT_FLOAT_EQ(battery->batteryLevel(), 0.51f);
    device->state = BatteryState::charging;  // the state alone is no change
    EXPECT_EQ(eventsAfterUnforcedLevels({0.51f}), 0u);
    EXPECT_EQ(eventsAfterUnforcedLevels({-1.0f, 2.0f}), 1u);  // both read 1.00
}

TEST_F(BatteryMonitoringTest, EverySleepAndWakeUpWritesTheBatteryUnchangedOrNot) {
    battery->persistStateWithForced(true);
    battery->slowDown(std::nullopt);
    battery->speedUp();
    battery->speedUp();
    battery->slowDown(Location{});
    EXPECT_EQ(events().size(), 5u);
}

TEST_F(BatteryMonitoringTest, NotificationsRecordUnforcedOnlyBetweenStartAndStop) {
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_TRUE(events().empty());

    battery->start();
    EXPECT_TRUE(device->monitoringEnabled);
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_EQ(events().size(), 1u);  // 0.50 against the initial 0.00
    center->post(UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(events().size(), 1u);  // unforced: the level is unchanged
    device->level = 0.75f;
    center->post(UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(events().size(), 2u);

    device->level = 0.8f;
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_EQ(events().size(), 3u);

    battery->stop();
    device->level = 0.1f;
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    battery->start();
    battery->halt();
    center->post(UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(events().size(), 3u);

    battery->start();
    battery.reset();  // observers go with the manager
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_EQ(events().size(), 3u);
}

TEST_F(BatteryMonitoringTest, RecordingWithoutTheStoreIsFatal) {
    std::weak_ptr<RVLEventInsertable> gone;
    BatteryMonitoringManager orphan(gone, device, clock, center);
    EXPECT_DEATH(orphan.persistStateWithForced(true), "the event repository is gone");
}

class SDKSettingsTest : public StoreTest {
protected:
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<FakeSystemState> systemState = std::make_shared<FakeSystemState>();
    SDKSettingsTracker tracker{repository, clock, defaults, systemState};
};

TEST_F(SDKSettingsTest, StartWritesTheSettingThenTheDeviceStateAtASecondReading) {
    tracker.persistStateWithForced(true);
    EXPECT_TRUE(events().empty());

    systemState->lowPowerMode = true;
    tracker.start();
    const auto written = events();
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0].dump(),
              R"({"tracked_at_ms":1700000000000,"type":"SDKSettings","wifi_only_data_transfer":false})");
    EXPECT_EQ(written[1].dump(), R"({"background_app_refresh":true,"power_save_mode":true,)"
                                 R"("tracked_at_ms":1700000001000,"type":"DeviceSettings"})");

    for (const auto status : {BackgroundRefreshStatus::restricted, BackgroundRefreshStatus::denied}) {
        systemState->refreshStatus = status;
        tracker.persistStateWithForced(true);
        EXPECT_EQ(events().back()["background_app_refresh"], false);
    }
}

TEST_F(SDKSettingsTest, OnlyAChangedSettingIsWrittenAndNothingAfterStop) {
    tracker.start();
    const auto afterStart = events().size();
    tracker.persistStateWithForced(false);
    EXPECT_EQ(events().size(), afterStart);

    defaults->setWifiOnlyDataTransfer(true);
    tracker.persistStateWithForced(false);
    auto written = events();
    ASSERT_EQ(written.size(), afterStart + 2);
    EXPECT_EQ(written[afterStart]["type"], "SDKSettings");
    EXPECT_EQ(written[afterStart]["wifi_only_data_transfer"], true);
    EXPECT_EQ(written[afterStart + 1]["type"], "DeviceSettings");

    for (const auto end : {&SDKSettingsTracker::stop, &SDKSettingsTracker::halt}) {
        (tracker.*end)();
        defaults->setWifiOnlyDataTransfer(!defaults->wifiOnlyDataTransfer());
        tracker.persistStateWithForced(false);
        tracker.persistStateWithForced(true);
        EXPECT_EQ(events().size(), afterStart + 2);
        defaults->setWifiOnlyDataTransfer(!defaults->wifiOnlyDataTransfer());  // back to true
    }

    // The remembered setting survives the stop, yet a new start writes both again.
    tracker.start();
    EXPECT_EQ(events().size(), afterStart + 4);
    tracker.persistStateWithForced(false);
    EXPECT_EQ(events().size(), afterStart + 4);
}

}  // namespace
}  // namespace rovalis
