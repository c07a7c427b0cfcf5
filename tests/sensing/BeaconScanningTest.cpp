#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "sensing/BeaconFrames.h"
#include "sensing/BeaconRegionsContainer.h"
#include "sensing/EddystoneScanner.h"
#include "support/TestSupport.h"
#include "util/SerialExecutor.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

using test::ConsoleCapture;
using Bytes = std::vector<std::uint8_t>;
using Strings = std::vector<std::string>;

constexpr double start = 1700000000.0;

// The device's scanner as the scanner sees it: records what it is asked, and hands each
// advertisement to the scan's queue as the platform does.
class RecordingBluetoothScanner final : public BluetoothScannerType {
public:
    bool isScanningAvailable() const override { return available; }
    bool isScanning() const override {
        const std::lock_guard lock(mutex_);
        return static_cast<bool>(handler_);
    }
    void startScanning(std::vector<std::uint16_t> serviceUUIDs, std::shared_ptr<Executor> queue,
                       AdvertisementHandler handler) override {
        const std::lock_guard lock(mutex_);
        calls.push_back("startScanning");
        services = std::move(serviceUUIDs);
        queue_ = std::move(queue);
        handler_ = std::move(handler);
    }
    void stopScanning() override {
        const std::lock_guard lock(mutex_);
        calls.push_back("stopScanning");
        handler_ = nullptr;
    }

    // Hears one advertisement; false when nobody scans.
    bool hear(const BleAdvertisement& advertisement) {
        const std::lock_guard lock(mutex_);
        if (!handler_) return false;
        queue_->async([handler = handler_, advertisement] { handler(advertisement); });
        return true;
    }

    std::shared_ptr<Executor> queue() const {
        const std::lock_guard lock(mutex_);
        return queue_;
    }

    bool available = true;
    Strings calls;
    std::vector<std::uint16_t> services;

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Executor> queue_;
    AdvertisementHandler handler_;
};

BleAdvertisement eddystone(const std::string& address, const EddystoneFrame& frame, long rssi, double at) {
    BleAdvertisement advertisement;
    advertisement.address = address;
    advertisement.rssi = rssi;
    advertisement.serviceData[kEddystoneServiceUUID] = encodeEddystoneFrame(frame);
    advertisement.timestamp = Date{at};
    return advertisement;
}

BleAdvertisement withServiceData(const std::string& address, std::uint16_t service, Bytes data, double at) {
    BleAdvertisement advertisement;
    advertisement.address = address;
    advertisement.rssi = -80;
    advertisement.serviceData[service] = std::move(data);
    advertisement.timestamp = Date{at};
    return advertisement;
}

const EddystoneUid uid{-20, {0x8b, 0x0c, 0x2f, 0x4e, 0x76, 0x3c, 0x5a, 0x11, 0x0f, 0x2d}, {0, 0, 0, 0, 0x04, 0xd2}};
const EddystoneEid eid{-11, {0x1f, 0x2e, 0x3d, 0x4c, 0x5b, 0x6a, 0x79, 0x88}};

EddystoneTlm telemetry(std::uint32_t count) {
    EddystoneTlm tlm;
    tlm.batteryMillivolts = 2950;
    tlm.temperatureCelsius = 21.5;
    tlm.advertisementCount = count;
    tlm.secondsSincePowerOn = 3600.5;
    return tlm;
}

class EddystoneScannerTest : public ::testing::Test {
protected:
    EddystoneScannerTest() {
        scanner = EddystoneScanner::create(bluetooth, loop, [this](const std::string& label) {
            labels.push_back(label);
            queue = std::make_shared<SerialExecutor>(label, tracker);
            return queue;
        });
    }

    void startRecording() {
        scanner->startScanning([this](const EddystoneSighting& sighting) {
            EXPECT_TRUE(loop->isCurrent()) << "sightings are reported on the main run loop";
            sightings.push_back(sighting);
        });
    }

    // Runs the queue and then the main loop until both are quiet.
    void settle() { loop->runUntilIdle(); }

    std::shared_ptr<WorkTracker> tracker = std::make_shared<WorkTracker>();
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{start});
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>(clock, tracker);
    std::shared_ptr<RecordingBluetoothScanner> bluetooth = std::make_shared<RecordingBluetoothScanner>();
    Strings labels;
    std::shared_ptr<Executor> queue;
    std::shared_ptr<EddystoneScanner> scanner;
    std::vector<EddystoneSighting> sightings;
};

TEST_F(EddystoneScannerTest, ScansForTheEddystoneServiceOnOneQueueOfItsOwn) {
    EXPECT_TRUE(scanner->isAvailable());
    EXPECT_EQ(labels, Strings{"rovalis.eddystone"});
    startRecording();
    EXPECT_TRUE(scanner->isScanning());
    EXPECT_EQ(bluetooth->services, std::vector<std::uint16_t>{0xFEAA});
    EXPECT_EQ(bluetooth->queue(), queue);

    // A second start keeps the running scan and only swaps the handler.
    std::vector<EddystoneSighting> second;
    scanner->startScanning([&](const EddystoneSighting& sighting) { second.push_back(sighting); });
    EXPECT_EQ(bluetooth->calls, Strings{"startScanning"});
    ASSERT_TRUE(bluetooth->hear(eddystone("AA", uid, -60, start)));
    settle();
    EXPECT_TRUE(sightings.empty());
    EXPECT_EQ(second.size(), 1u);

    scanner->stopScanning();
    startRecording();
    EXPECT_EQ(bluetooth->calls, (Strings{"startScanning", "stopScanning", "startScanning"}));
    EXPECT_EQ(labels.size(), 1u) << "the queue is made once";
}

TEST_F(EddystoneScannerTest, UidAndEidFramesBecomeSightingsInTheOrderTheyWereHeard) {
    startRecording();
    ASSERT_TRUE(bluetooth->hear(eddystone("C4:7C:8D:00:00:01", uid, -61, start + 1.0)));
    ASSERT_TRUE(bluetooth->hear(eddystone("C4:7C:8D:00:00:02", eid, -75, start + 1.5)));
    ASSERT_TRUE(bluetooth->hear(eddystone("C4:7C:8D:00:00:01", uid, -58, start + 2.0)));
    queue->sync([] {});
    EXPECT_TRUE(sightings.empty()) << "nothing reaches the handler before the main loop runs";
    settle();

    const std::vector<EddystoneSighting> expected = {
        {"8b0c2f4e763c5a110f2d0000000004d2", -61, Date{start + 1.0}, "C4:7C:8D:00:00:01"},
        {"1f2e3d4c5b6a7988", -75, Date{start + 1.5}, "C4:7C:8D:00:00:02"},
        {"8b0c2f4e763c5a110f2d0000000004d2", -58, Date{start + 2.0}, "C4:7C:8D:00:00:01"},
    };
    EXPECT_EQ(sightings, expected);
    EXPECT_EQ(scanner->counters(), (EddystoneScanner::Counters{3, 3, 0, 0, 0}));
}

TEST_F(EddystoneScannerTest, UrlAndTelemetryFramesDescribeTheDeviceWithoutBeingSightings) {
    startRecording();
    bluetooth->hear(eddystone("AA", EddystoneUrl{-20, "https://example.com/b1"}, -70, start + 1.0));
    bluetooth->hear(eddystone("AA", telemetry(41), -71, start + 2.0));
    bluetooth->hear(eddystone("BB", telemetry(7), -90, start + 3.0));
    settle();
    EXPECT_TRUE(sightings.empty());

    auto known = scanner->knownBeacons();
    ASSERT_EQ(known.size(), 2u);
    EXPECT_EQ(known[0], (KnownEddystoneBeacon{"BB", std::nullopt, std::nullopt, telemetry(7), Date{start + 3.0}}));
    EXPECT_EQ(known[1],
              (KnownEddystoneBeacon{"AA", std::nullopt, "https://example.com/b1", telemetry(41), Date{start + 2.0}}));

    // The device's identifying frame joins what its other frames said; newer telemetry replaces older.
    bluetooth->hear(eddystone("AA", eid, -65, start + 4.0));
    bluetooth->hear(eddystone("AA", telemetry(42), -66, start + 5.0));
    settle();
    ASSERT_EQ(sightings.size(), 1u);
    known = scanner->knownBeacons();
    EXPECT_EQ(known[0], (KnownEddystoneBeacon{"AA", eid.identifierHex(), "https://example.com/b1", telemetry(42),
                                              Date{start + 5.0}}));
    EXPECT_EQ(scanner->counters(), (EddystoneScanner::Counters{5, 1, 3, 1, 0}));
}

TEST_F(EddystoneScannerTest, MalformedAdvertisementsAreCountedAndOtherwiseIgnored) {
    startRecording();
    bluetooth->hear(withServiceData("AA", kEddystoneServiceUUID, {0x00, 0xEB, 0x01}, start));        // short UID
    bluetooth->hear(withServiceData("AA", kEddystoneServiceUUID, {0x40, 0x00, 0x01, 0x02}, start));  // unknown type
    bluetooth->hear(withServiceData("AA", kEddystoneServiceUUID, {}, start));
    bluetooth->hear(withServiceData("BB", 0xFEAB, encodeEddystoneFrame(uid), start));  // another service
    bluetooth->hear(eddystone("CC", uid, -60, start + 1.0));
    settle();
    ASSERT_EQ(sightings.size(), 1u);
    EXPECT_EQ(sightings[0].address, "CC");
    ASSERT_EQ(scanner->knownBeacons().size(), 1u) << "a device that sent nothing valid is not known";
    EXPECT_EQ(scanner->counters(), (EddystoneScanner::Counters{5, 1, 0, 0, 4}));
}

TEST_F(EddystoneScannerTest, StoppingStopsTheScanAndDropsSightingsNotYetReported) {
    startRecording();
    bluetooth->hear(eddystone("AA", uid, -60, start));
    queue->sync([] {});  // parsed and posted to the main loop, not yet reported
    scanner->stopScanning();
    EXPECT_FALSE(scanner->isScanning());
    EXPECT_FALSE(bluetooth->isScanning());
    EXPECT_FALSE(bluetooth->hear(eddystone("AA", uid, -60, start + 1.0)));
    settle();
    EXPECT_TRUE(sightings.empty());
    scanner->stopScanning();  // a second stop does not reach the platform
    EXPECT_EQ(bluetooth->calls, (Strings{"startScanning", "stopScanning"}));

    startRecording();
    bluetooth->hear(eddystone("AA", eid, -60, start + 2.0));
    settle();
    ASSERT_EQ(sightings.size(), 1u);
    EXPECT_EQ(sightings[0].time, Date{start + 2.0});
}

TEST_F(EddystoneScannerTest, RemembersTheMostRecentlyHeardDevicesOnly) {
    startRecording();
    const auto address = [](std::size_t i) { return "dev-" + std::to_string(i); };
    for (std::size_t i = 0; i < EddystoneScanner::maxKnownBeacons; ++i) {
        bluetooth->hear(eddystone(address(i), uid, -60, start + static_cast<double>(i)));
    }
    bluetooth->hear(eddystone(address(0), telemetry(1), -60, start + 300.0));  // device 0 is heard again
    bluetooth->hear(eddystone(address(256), eid, -60, start + 301.0));        // one device too many
    settle();

    const auto known = scanner->knownBeacons();
    ASSERT_EQ(known.size(), EddystoneScanner::maxKnownBeacons);
    EXPECT_EQ(known[0].address, address(256));
    EXPECT_EQ(known[1].address, address(0));
    EXPECT_TRUE(known[1].eid) << "what device 0 said before is kept";
    EXPECT_EQ(known.back().address, address(2));
    const bool forgot = std::none_of(known.begin(), known.end(), [&](const auto& k) { return k.address == address(1); });
    EXPECT_TRUE(forgot) << "device 1 was heard least recently";
}

TEST_F(EddystoneScannerTest, WithoutBluetoothNothingStarts) {
    bluetooth->available = false;
    const ConsoleCapture console;
    EXPECT_FALSE(scanner->isAvailable());
    startRecording();
    EXPECT_FALSE(scanner->isScanning());
    EXPECT_TRUE(bluetooth->calls.empty());
    EXPECT_TRUE(console.contains("Eddystone scanning is not available: Bluetooth LE scanning is unavailable"));

    const auto none = EddystoneScanner::create(nullptr, loop, [](const std::string& label) {
        return std::make_shared<SerialExecutor>(label);
    });
    EXPECT_FALSE(none->isAvailable());
    none->startScanning([](const EddystoneSighting&) {});
    EXPECT_FALSE(none->isScanning());
}

TEST_F(EddystoneScannerTest, ReleasingTheScannerStopsItsScanAndLetsTheQueueRunOut) {
    startRecording();
    std::atomic<bool> reached{false};
    queue->async([&] { reached = true; });
    scanner.reset();
    EXPECT_TRUE(reached) << "the queue ran out before the scanner was gone";
    EXPECT_FALSE(bluetooth->isScanning());
    EXPECT_EQ(bluetooth->calls, (Strings{"startScanning", "stopScanning"}));
    settle();
}

TEST_F(EddystoneScannerTest, CountersAndKnownBeaconsCanBeReadWhileTheQueueParses) {
    startRecording();
    std::thread reader([this] {
        for (int i = 0; i < 200; ++i) {
            (void)scanner->knownBeacons();
            (void)scanner->counters();
        }
    });
    for (int i = 0; i < 500; ++i) {
        bluetooth->hear(eddystone("dev-" + std::to_string(i % 300), i % 2 ? EddystoneFrame(uid) : telemetry(i), -60,
                                  start + i));
    }
    reader.join();
    settle();
    EXPECT_EQ(sightings.size(), 250u);
    EXPECT_EQ(scanner->counters(), (EddystoneScanner::Counters{500, 250, 250, 0, 0}));
}

// ---- Beacon regions from the host's Info settings ----

InfoDictionary regionsSetting(const std::string& json) {
    return {{BeaconRegionsContainer::infoKey, json}};
}

BeaconRegion region(const std::string& identifier, const std::string& uuid, std::optional<std::uint16_t> major,
                    std::optional<std::uint16_t> minor) {
    return BeaconRegion{identifier, {*Uuid::parse(uuid), major, minor}};
}

constexpr const char* lobbyUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

TEST(BeaconRegionsContainer, ReadsTheRegionsTheHostListsInOrder) {
    const ConsoleCapture console;
    const BeaconRegionsContainer container(regionsSetting(R"([
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": 2, "identifier": "lobby"},
        {"uuid": "f7826da6-4fa2-4e98-8024-bc5b71e0893e", "major": 65535},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "minor": 0, "major": 0, "note": "unknown keys are ignored"},
        {"uuid": "00000000-0000-0000-0000-000000000000", "identifier": "RVLBeaconRegionX"}
    ])"));
    const std::vector<BeaconRegion> expected = {
        region("lobby", lobbyUuid, 1, 2),
        region("RVLBeaconRegion_1", "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", 65535, std::nullopt),
        region("RVLBeaconRegion_2", lobbyUuid, 0, 0),
        region("RVLBeaconRegionX", "00000000-0000-0000-0000-000000000000", std::nullopt, std::nullopt),
    };
    EXPECT_EQ(container.beaconRegions(), expected);
    EXPECT_TRUE(container.beaconRegions()[0].notifyOnEntry && container.beaconRegions()[0].notifyOnExit);
    EXPECT_TRUE(container.contains("lobby"));
    EXPECT_TRUE(container.contains("RVLBeaconRegion_2"));
    EXPECT_FALSE(container.contains("RVLBeaconRegion_0"));
    EXPECT_TRUE(console.lines().empty());

    EXPECT_TRUE(BeaconRegionsContainer(InfoDictionary{}).beaconRegions().empty());
    EXPECT_TRUE(BeaconRegionsContainer(regionsSetting("[]")).beaconRegions().empty());
    EXPECT_TRUE(console.lines().empty()) << "no setting, or an empty list, is not a mistake";
}

TEST(BeaconRegionsContainer, RefusesEachInvalidEntryByItsIndexAndKeepsTheOthers) {
    const ConsoleCapture console;
    const BeaconRegionsContainer container(regionsSetting(R"([
        "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
        {"major": 1},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E"},
        {"uuid": 42},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 65536},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": -1},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1.5},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": "1"},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": true},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "minor": 7},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "identifier": ""},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "identifier": 3},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "identifier": "RVLSleepRegion_07"},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "identifier": "lobby"},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 9, "identifier": "lobby"},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "identifier": "RVLBeaconRegion_16"},
        {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"}
    ])"));
    const std::string prefix = "RV_SDK_BEACON_REGIONS: entry ";
    const Strings expectedLines = {
        prefix + "0 refused: it is not an object",
        prefix + "1 refused: \"uuid\" is missing",
        prefix + "2 refused: \"uuid\" is not a UUID text: \"E2C56DB5-DFFB-48D2-B060-D0F5A71096E\"",
        prefix + "3 refused: \"uuid\" is not a UUID text: 42",
        prefix + "4 refused: \"major\" is not an integer from 0 to 65535: 65536",
        prefix + "5 refused: \"major\" is not an integer from 0 to 65535: -1",
        prefix + "6 refused: \"major\" is not an integer from 0 to 65535: 1.5",
        prefix + "7 refused: \"major\" is not an integer from 0 to 65535: \"1\"",
        prefix + "8 refused: \"minor\" is not an integer from 0 to 65535: true",
        prefix + "9 refused: \"minor\" is given without \"major\"",
        prefix + "10 refused: \"identifier\" is empty",
        prefix + "11 refused: \"identifier\" is not a text: 3",
        prefix + "12 refused: identifier \"RVLSleepRegion_07\" starts with \"RVLSleepRegion\", which the sleep "
                 "regions use",
        prefix + "14 refused: identifier \"lobby\" is used by an earlier region",
        // Entry 16's default name was taken by entry 15.
        prefix + "16 refused: identifier \"RVLBeaconRegion_16\" is used by an earlier region",
    };
    EXPECT_EQ(console.lines(), expectedLines);
    const std::vector<BeaconRegion> expected = {region("lobby", lobbyUuid, std::nullopt, std::nullopt),
                                                region("RVLBeaconRegion_16", lobbyUuid, std::nullopt, std::nullopt)};
    EXPECT_EQ(container.beaconRegions(), expected);
}

TEST(BeaconRegionsContainer, ASettingThatIsNoJsonArrayTextRefusesEverythingInOneLine) {
    const std::vector<std::pair<InfoValue, std::string>> settings = {
        {InfoValue{true}, "RV_SDK_BEACON_REGIONS: not a text; no beacon region is watched"},
        {InfoValue{std::int64_t{1}}, "RV_SDK_BEACON_REGIONS: not a text; no beacon region is watched"},
        {InfoValue{std::string(R"({"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"})")},
         "RV_SDK_BEACON_REGIONS: not a JSON array; no beacon region is watched"},
        {InfoValue{std::string(R"([{"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"})")},
         "RV_SDK_BEACON_REGIONS: not a JSON array; no beacon region is watched"},
        {InfoValue{std::string("")}, "RV_SDK_BEACON_REGIONS: not a JSON array; no beacon region is watched"},
    };
    for (const auto& [value, line] : settings) {
        const ConsoleCapture console;
        const BeaconRegionsContainer container(InfoDictionary{{BeaconRegionsContainer::infoKey, value}});
        EXPECT_TRUE(container.beaconRegions().empty()) << line;
        EXPECT_EQ(console.lines(), Strings{line});
    }
}

}  // namespace
}  // namespace rovalis
