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
    std::vector<std::string> payloads() {
        std::vector<std::string> result;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) result.push_back(row.payload);
        return result;
    }
    json last() { return json::parse(payloads().back()); }

    std::shared_ptr<SteppingDateSource> clock = std::make_shared<SteppingDateSource>();
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
};

class BatteryMonitoringTest : public StoreTest {
protected:
    // The number of events written by unforced records at each level in turn.
    std::size_t unforcedEvents(std::initializer_list<float> levels) {
        const auto before = payloads().size();
        for (const float level : levels) {
            device->level = level;
            battery->persistStateWithForced(false);
        }
        return payloads().size() - before;
    }

    std::shared_ptr<test::FakeDeviceInfo> device = std::make_shared<test::FakeDeviceInfo>();
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
    } cases[] = {{-1.0f, BatteryState::unknown, 1.0, false},  // the platform does not know
                 {std::numeric_limits<float>::quiet_NaN(), BatteryState::unplugged, 1.0, false},
                 {1.25f, BatteryState::full, 1.0, false},
                 {0.0f, BatteryState::charging, 0.0, true},
                 {0.25f, BatteryState::unplugged, 0.25, false}};
    for (const auto& c : cases) {
        device->level = c.level;
        device->state = c.state;
        battery->persistStateWithForced(true);
        EXPECT_EQ(last()["battery_status"], c.status) << c.level;
        EXPECT_EQ(last()["is_charging"], c.charging) << c.level;
    }
    EXPECT_EQ(payloads().front(),
              R"({"battery_status":1,"is_charging":false,"tracked_at_ms":1700000000000,"type":"Battery"})");
}

TEST_F(BatteryMonitoringTest, UnforcedRecordsCompareTwoDecimalsButSleepAndWakeAlwaysWrite) {
    EXPECT_EQ(unforcedEvents({0.004f}), 0u);  // 0.00, as the level before any record
    EXPECT_EQ(unforcedEvents({0.50f}), 1u);
    EXPECT_EQ(unforcedEvents({0.501f, 0.504f}), 0u);
    EXPECT_EQ(unforcedEvents({0.51f}), 1u);
    device->state = BatteryState::charging;  // the state alone is no change
    EXPECT_EQ(unforcedEvents({0.51f}), 0u);
    EXPECT_EQ(unforcedEvents({-1.0f, 2.0f}), 1u);  // both read 1.00

    battery->slowDown(std::nullopt);
    battery->speedUp();
    battery->speedUp();
    EXPECT_EQ(payloads().size(), 6u);
}

TEST_F(BatteryMonitoringTest, NotificationsRecordUnforcedOnlyBetweenStartAndStop) {
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_TRUE(payloads().empty());

    battery->start();
    EXPECT_TRUE(device->monitoringEnabled);
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    center->post(UIDeviceBatteryStateDidChangeNotification);  // unforced: the level is unchanged
    EXPECT_EQ(payloads().size(), 1u);
    device->level = 0.75f;
    center->post(UIDeviceBatteryStateDidChangeNotification);
    EXPECT_EQ(payloads().size(), 2u);

    battery->stop();
    device->level = 0.1f;
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    battery->start();
    battery->halt();
    center->post(UIDeviceBatteryStateDidChangeNotification);
    battery->start();
    battery.reset();  // the observers go with the manager
    center->post(UIDeviceBatteryLevelDidChangeNotification);
    EXPECT_EQ(payloads().size(), 2u);
}

TEST_F(BatteryMonitoringTest, RecordingWithoutTheStoreIsFatal) {
    BatteryMonitoringManager orphan(std::weak_ptr<RVLEventInsertable>(), device, clock, center);
    EXPECT_DEATH(orphan.persistStateWithForced(true), "the event repository is gone");
}

class SDKSettingsTest : public StoreTest {
protected:
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<test::FakeSystemState> systemState = std::make_shared<test::FakeSystemState>();
    SDKSettingsTracker tracker{repository, clock, defaults, systemState};
};

TEST_F(SDKSettingsTest, StartWritesTheSettingThenTheDeviceStateAtASecondReading) {
    tracker.persistStateWithForced(true);
    EXPECT_TRUE(payloads().empty());

    systemState->lowPowerMode = true;
    tracker.start();
    EXPECT_EQ(payloads(),
              (std::vector<std::string>{
                  R"({"tracked_at_ms":1700000000000,"type":"SDKSettings","wifi_only_data_transfer":false})",
                  R"({"background_app_refresh":true,"power_save_mode":true,"tracked_at_ms":1700000001000,)"
                  R"("type":"DeviceSettings"})"}));
    for (const auto status : {BackgroundRefreshStatus::restricted, BackgroundRefreshStatus::denied}) {
        systemState->refreshStatus = status;
        tracker.persistStateWithForced(true);
        EXPECT_EQ(last()["background_app_refresh"], false);
    }
}

TEST_F(SDKSettingsTest, OnlyAChangedSettingIsWrittenAndNothingAfterStop) {
    tracker.start();
    tracker.persistStateWithForced(false);
    EXPECT_EQ(payloads().size(), 2u);

    defaults->setWifiOnlyDataTransfer(true);
    tracker.persistStateWithForced(false);
    ASSERT_EQ(payloads().size(), 4u);
    EXPECT_EQ(json::parse(payloads()[2])["wifi_only_data_transfer"], true);
    EXPECT_EQ(last()["type"], "DeviceSettings");

    for (const auto end : {&SDKSettingsTracker::stop, &SDKSettingsTracker::halt}) {
        (tracker.*end)();
        defaults->setWifiOnlyDataTransfer(!defaults->wifiOnlyDataTransfer());
        tracker.persistStateWithForced(false);
        tracker.persistStateWithForced(true);
    }
    EXPECT_EQ(payloads().size(), 4u);

    // Back to the setting last recorded: a new start writes both all the same.
    tracker.start();
    EXPECT_EQ(payloads().size(), 6u);
}

}  // namespace
}  // namespace rovalis
