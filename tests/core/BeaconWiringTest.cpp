#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/RVLGeneralLocationManager.h"
#include "platform/linux/FileKeychain.h"
#include "platform/sim/SimulatedDevice.h"
#include "sensing/BeaconFrames.h"
#include "sensing/BeaconTracker.h"
#include "sensing/GeofenceTracker.h"
#include "sensing/SDKSettingsTracker.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis {
namespace {

constexpr double start = 1700000000.0;
const char* const beaconSwitch = "RV_SDK_BEACON_TRACKING_ENABLED";
const char* const eddystoneSwitch = "RV_SDK_EDDYSTONE_TRACKING_ENABLED";

class QuietBluetoothScanner final : public BluetoothScannerType {
public:
    bool isScanningAvailable() const override { return true; }
    bool isScanning() const override { return false; }
    void startScanning(std::vector<std::uint16_t>, std::shared_ptr<Executor>, AdvertisementHandler) override {}
    void stopScanning() override {}
};

// A beacon next to the phone: every scan hears one Eddystone UID advertisement at once.
class OneEddystoneNearby final : public BluetoothScannerType {
public:
    bool isScanningAvailable() const override { return true; }
    bool isScanning() const override { return scanning_; }
    void startScanning(std::vector<std::uint16_t>, std::shared_ptr<Executor> queue,
                       AdvertisementHandler handler) override {
        scanning_ = true;
        const EddystoneUid frame{-20, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {11, 12, 13, 14, 15, 16}};
        const BleAdvertisement advertisement{"C0:FF:EE:00:00:01", -60, {},
                                             {{kEddystoneServiceUUID, encodeEddystoneFrame(frame)}}, Date{start}};
        queue->async([handler, advertisement] { handler(advertisement); });
    }
    void stopScanning() override { scanning_ = false; }

private:
    bool scanning_ = false;
};

// An SDK on a simulated device that stays at home, launched with the Info settings a test gives;
// it counts the Bluetooth scanners the SDK makes.
class BeaconWiring : public ::testing::Test {
protected:
    void launch(const InfoDictionary& info, std::function<std::shared_ptr<BluetoothScannerType>()> makeScanner = [] {
        return std::make_shared<QuietBluetoothScanner>();
    }) {
        sdk.reset();
        scannersMade = 0;
        RovalisConfiguration configuration;
        configuration.host = {"Trips", "2.1", "40", "com.example.trips", info};
        configuration.dataRoot = dir.path();
        configuration.productionBaseURL = "http://127.0.0.1:9/";
        configuration.platform = device.makeProcessPlatform(defaults, keychain);
        configuration.platform->makeBluetoothScanner = [this, makeScanner] {
            ++scannersMade;
            return makeScanner();
        };
        sdk = std::make_shared<RVLGeneralLocationManager>(configuration);
        sdk->initializeUsing(nullptr, std::nullopt);
        device.runUntil(device.now());
    }

    test::ConsoleCapture console;
    test::TempDir dir;
    std::shared_ptr<sim::SimulatedDevice> deviceHolder =
        std::make_shared<sim::SimulatedDevice>(std::make_shared<const sim::TruePath>(std::vector<sim::TracePoint>{
            {Date{start}, {51.4555, -0.1075}, std::nullopt}, {Date{start + 86400}, {51.4555, -0.1075}, std::nullopt}}));
    sim::SimulatedDevice& device = *deviceHolder;
    std::shared_ptr<KeyValueStore> defaults = std::make_shared<InMemoryKeyValueStore>();
    std::shared_ptr<KeychainStore> keychain = std::make_shared<FileKeychain>(dir / "Keychain");
    int scannersMade = 0;
    std::shared_ptr<RVLGeneralLocationManager> sdk;
};

TEST_F(BeaconWiring, OnlyABooleanTrueAddsTheBeaconTrackerFifth) {
    const std::vector<std::pair<std::string, InfoDictionary>> off = {
        {"missing", {}},
        {"false", {{beaconSwitch, false}}},
        {"the text YES", {{beaconSwitch, std::string("YES")}}},
        {"the text true", {{beaconSwitch, std::string("true")}}},
        {"the number 1", {{beaconSwitch, std::int64_t{1}}}},
        {"the literal 1 (an integer, not a boolean)", {{beaconSwitch, 1}}},
        {"the number 1.0", {{beaconSwitch, 1.0}}},
    };
    for (const auto& [name, info] : off) {
        launch(info);
        EXPECT_EQ(sdk->locationManagers().size(), 8u) << name;
        for (const auto& tracker : sdk->locationManagers()) {
            EXPECT_FALSE(std::dynamic_pointer_cast<BeaconTracker>(tracker)) << name;
        }
    }

    launch({{beaconSwitch, true}});
    const auto& trackers = sdk->locationManagers();
    ASSERT_EQ(trackers.size(), 9u);
    EXPECT_TRUE(std::dynamic_pointer_cast<GeofenceTracker>(trackers[3]));
    EXPECT_TRUE(std::dynamic_pointer_cast<BeaconTracker>(trackers[4]));
    EXPECT_TRUE(std::dynamic_pointer_cast<SDKSettingsTracker>(trackers[5]));
    EXPECT_EQ(sdk->debugEventsInsertable(), std::dynamic_pointer_cast<RVLDebugEventsInsertable>(trackers[6]));
    sdk->start();  // the trackers run with the beacon one among them
    device.runUntil(device.now().addingSeconds(60));
    EXPECT_TRUE(sdk->isTrackingActive());
}

TEST_F(BeaconWiring, TheEddystoneScannerIsMadeOnlyWithItsOwnSwitchOnTopOfBeaconTracking) {
    const std::vector<std::tuple<std::string, InfoDictionary, int>> cases = {
        {"beacons only", {{beaconSwitch, true}}, 0},
        {"both", {{beaconSwitch, true}, {eddystoneSwitch, true}}, 1},
        {"Eddystone as text", {{beaconSwitch, true}, {eddystoneSwitch, std::string("true")}}, 0},
        {"Eddystone as a number", {{beaconSwitch, true}, {eddystoneSwitch, std::int64_t{1}}}, 0},
        {"Eddystone without beacons", {{eddystoneSwitch, true}}, 0},
    };
    for (const auto& [name, info, made] : cases) {
        launch(info);
        EXPECT_EQ(scannersMade, made) << name;
    }
}

TEST_F(BeaconWiring, AScanUnderWayWhenTrackingStopsIsRecordedBeforeTheSwitchOff) {
    launch({{beaconSwitch, true}, {eddystoneSwitch, true}}, [] { return std::make_shared<OneEddystoneNearby>(); });
    sdk->start();  // the wake-up at the start scans
    device.runUntil(device.now().addingSeconds(3));
    sdk->stop();
    device.runUntil(device.now().addingSeconds(60));

    std::vector<std::string> types;
    std::vector<std::int64_t> times;
    for (const auto& event : sdk->eventRepository()->fetchEventsPayloadTo(std::nullopt, 0)) {
        if (event.type != "BeaconScan" && event.type != "ToggleTracking") continue;
        types.push_back(event.type);
        times.push_back(nlohmann::json::parse(event.payload)["tracked_at_ms"].get<std::int64_t>());
    }
    EXPECT_EQ(types, (std::vector<std::string>{"ToggleTracking", "BeaconScan", "ToggleTracking"}));
    ASSERT_EQ(times.size(), 3u);
    EXPECT_LE(times[1], times[2]);
}

}  // namespace
}  // namespace rovalis
