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
// advertisement to the scan's queue as the platform does. Used from the main run loop only.
class RecordingBluetoothScanner final : public BluetoothScannerType {
public:
    bool isScanningAvailable() const override { return available; }
    bool isScanning() const override { return static_cast<bool>(handler_); }
    void startScanning(std::vector<std::uint16_t> serviceUUIDs, std::shared_ptr<Executor> queue,
                       AdvertisementHandler handler) override {
        calls.push_back("startScanning");
        services = std::move(serviceUUIDs);
        this->queue = std::move(queue);
        handler_ = std::move(handler);
    }
    void stopScanning() override {
        calls.push_back("stopScanning");
        handler_ = nullptr;
    }

    // Hears one advertisement carrying service data; false when nobody scans.
    bool hear(const std::string& address, std::uint16_t service, Bytes data, double at, long rssi = -60) {
        if (!handler_) return false;
        const BleAdvertisement advertisement{address, rssi, {}, {{service, std::move(data)}}, Date{at}};
        queue->async([handler = handler_, advertisement] { handler(advertisement); });
        return true;
    }
    bool hear(const std::string& address, const EddystoneFrame& frame, double at, long rssi = -60) {
        return hear(address, kEddystoneServiceUUID, encodeEddystoneFrame(frame), at, rssi);
    }

    bool available = true;
    Strings calls;
    std::vector<std::uint16_t> services;
    std::shared_ptr<Executor> queue;

private:
    AdvertisementHandler handler_;
};

const EddystoneUid uid{-20, {0x8b, 0x0c, 0x2f, 0x4e, 0x76, 0x3c, 0x5a, 0x11, 0x0f, 0x2d}, {0, 0, 0, 0, 0x04, 0xd2}};
const EddystoneEid eid{-11, {0x1f, 0x2e, 0x3d, 0x4c, 0x5b, 0x6a, 0x79, 0x88}};

EddystoneTlm telemetry(std::uint32_t count) { return EddystoneTlm{0, 2950, 21.5, count, 3600.5, {}}; }

class EddystoneScannerTest : public ::testing::Test {
protected:
    EddystoneScannerTest() {
        scanner = EddystoneScanner::create(bluetooth, loop, [this](const std::string& label) {
            labels.push_back(label);
            return queue = std::make_shared<SerialExecutor>(label, tracker);
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

TEST_F(EddystoneScannerTest, ScansForTheEddystoneServiceOnOneQueueOfItsOwnUntilStopped) {
    startRecording();
    EXPECT_EQ(bluetooth->services, std::vector<std::uint16_t>{0xFEAA});
    EXPECT_EQ(bluetooth->queue, queue);

    // A second start keeps the running scan and only swaps the handler.
    std::vector<EddystoneSighting> second;
    scanner->startScanning([&](const EddystoneSighting& sighting) { second.push_back(sighting); });
    ASSERT_TRUE(bluetooth->hear("AA", uid, start));
    settle();
    EXPECT_TRUE(sightings.empty());
    EXPECT_EQ(second.size(), 1u);

    // A sighting parsed but not yet reported when the scan stops is dropped, even when a new
    // scan has started by the time the main loop gets to it.
    startRecording();
    bluetooth->hear("AA", uid, start + 1.0);
    queue->sync([] {});
    scanner->stopScanning();
    EXPECT_FALSE(scanner->isScanning() || bluetooth->isScanning());
    scanner->stopScanning();  // a second stop does not reach the platform
    startRecording();
    bluetooth->hear("AA", eid, start + 2.0);
    settle();
    ASSERT_EQ(sightings.size(), 1u);
    EXPECT_EQ(sightings[0].time, Date{start + 2.0});
    EXPECT_EQ(bluetooth->calls, (Strings{"startScanning", "stopScanning", "startScanning"}));
    EXPECT_EQ(labels, Strings{"rovalis.eddystone"}) << "the queue is made once";
}

TEST_F(EddystoneScannerTest, UidAndEidFramesAreSightingsInOrderOtherFramesDescribeTheirDeviceAndTheRestIsCounted) {
    startRecording();
    bluetooth->hear("AA", EddystoneUrl{-20, "https://example.com/b1"}, start + 1.0);
    bluetooth->hear("AA", telemetry(41), start + 2.0);
    bluetooth->hear("BB", uid, start + 3.0, -61);
    bluetooth->hear("AA", eid, start + 4.0, -75);
    bluetooth->hear("AA", telemetry(42), start + 5.0);
    bluetooth->hear("BB", uid, start + 6.0, -58);
    // Advertisements without a valid frame are counted and otherwise ignored.
    bluetooth->hear("CC", kEddystoneServiceUUID, {0x00, 0xEB, 0x01}, start + 7.0);        // short UID
    bluetooth->hear("CC", kEddystoneServiceUUID, {0x40, 0x00, 0x01, 0x02}, start + 7.0);  // unknown type
    bluetooth->hear("CC", 0xFEAB, encodeEddystoneFrame(uid), start + 7.0);                // another service
    queue->sync([] {});
    EXPECT_TRUE(sightings.empty()) << "nothing reaches the handler before the main loop runs";
    settle();

    EXPECT_EQ(sightings, (std::vector<EddystoneSighting>{{uid.identifierHex(), -61, Date{start + 3.0}, "BB"},
                                                         {eid.identifierHex(), -75, Date{start + 4.0}, "AA"},
                                                         {uid.identifierHex(), -58, Date{start + 6.0}, "BB"}}));
    // Most recently heard first, none of them the device that sent nothing valid. The identifying
    // frame joins what the other frames said; newer telemetry replaces older.
    EXPECT_EQ(scanner->knownBeacons(),
              (std::vector<KnownEddystoneBeacon>{
                  {"BB", uid.identifierHex(), std::nullopt, std::nullopt, Date{start + 6.0}},
                  {"AA", eid.identifierHex(), "https://example.com/b1", telemetry(42), Date{start + 5.0}}}));
    EXPECT_EQ(scanner->counters(), (EddystoneScanner::Counters{9, 3, 2, 1, 3}));
}

TEST_F(EddystoneScannerTest, RemembersTheMostRecentlyHeardDevicesOnly) {
    startRecording();
    const auto address = [](std::size_t i) { return "dev-" + std::to_string(i); };
    for (std::size_t i = 0; i < EddystoneScanner::maxKnownBeacons; ++i) bluetooth->hear(address(i), uid, start + i);
    bluetooth->hear(address(0), telemetry(1), start + 300.0);  // device 0 is heard again
    bluetooth->hear(address(256), eid, start + 301.0);        // one device too many
    settle();

    const auto known = scanner->knownBeacons();
    ASSERT_EQ(known.size(), EddystoneScanner::maxKnownBeacons);
    EXPECT_EQ(known[0].address, address(256));
    EXPECT_EQ(known[1].address, address(0));
    EXPECT_TRUE(known[1].eid) << "what device 0 said before is kept";
    EXPECT_EQ(known.back().address, address(2)) << "device 1 was heard least recently and is forgotten";
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
        bluetooth->hear("dev-" + std::to_string(i % 300), i % 2 ? EddystoneFrame(uid) : telemetry(i), start + i);
    }
    reader.join();
    settle();
    EXPECT_EQ(sightings.size(), 250u);
    EXPECT_EQ(scanner->counters(), (EddystoneScanner::Counters{500, 250, 250, 0, 0}));
}

// ---- Beacon regions from the host's Info settings ----

constexpr const char* lobbyUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

InfoDictionary regionsSetting(const std::string& json) { return {{BeaconRegionsContainer::infoKey, json}}; }

BeaconRegion region(const std::string& identifier, const std::string& uuid, std::optional<std::uint16_t> major = {},
                    std::optional<std::uint16_t> minor = {}) {
    return BeaconRegion{identifier, {*Uuid::parse(uuid), major, minor}};
}

TEST(BeaconRegionsContainer, ReadsTheRegionsTheHostListsInOrderAndRefusesEachInvalidEntryByItsIndex) {
    const std::string uuid = std::string(R"("uuid": ")") + lobbyUuid + '"';
    // Each entry, and why it is refused ("" when it is kept).
    const std::vector<std::pair<std::string, std::string>> entries = {
        {"{" + uuid + R"(, "major": 1, "minor": 2, "identifier": "lobby"})", ""},
        {R"({"uuid": "f7826da6-4fa2-4e98-8024-bc5b71e0893e", "major": 65535})", ""},
        {"{" + uuid + R"(, "minor": 0, "major": 0, "note": "unknown keys are ignored"})", ""},
        {'"' + std::string(lobbyUuid) + '"', "it is not an object"},
        {R"({"major": 1})", R"("uuid" is missing)"},
        {R"({"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E"})",
         R"("uuid" is not a UUID text: "E2C56DB5-DFFB-48D2-B060-D0F5A71096E")"},
        {R"({"uuid": 42})", R"("uuid" is not a UUID text: 42)"},
        {"{" + uuid + R"(, "major": 65536})", R"("major" is not an integer from 0 to 65535: 65536)"},
        {"{" + uuid + R"(, "major": -1})", R"("major" is not an integer from 0 to 65535: -1)"},
        {"{" + uuid + R"(, "major": 1.5})", R"("major" is not an integer from 0 to 65535: 1.5)"},
        {"{" + uuid + R"(, "major": 1, "minor": true})", R"("minor" is not an integer from 0 to 65535: true)"},
        {"{" + uuid + R"(, "minor": 7})", R"("minor" is given without "major")"},
        {"{" + uuid + R"(, "identifier": ""})", R"("identifier" is empty)"},
        {"{" + uuid + R"(, "identifier": 3})", R"("identifier" is not a text: 3)"},
        {"{" + uuid + R"(, "identifier": "RVLSleepRegion_07"})",
         R"(identifier "RVLSleepRegion_07" starts with "RVLSleepRegion", which the sleep regions use)"},
        {"{" + uuid + R"(, "major": 9, "identifier": "lobby"})", R"(identifier "lobby" is used by an earlier region)"},
        {"{" + uuid + R"(, "identifier": "RVLBeaconRegion_17"})", ""},
        // Its default name was taken by the entry before.
        {"{" + uuid + "}", R"(identifier "RVLBeaconRegion_17" is used by an earlier region)"},
    };
    std::string json = "[";
    Strings expectedLines;
    for (std::size_t index = 0; index < entries.size(); ++index) {
        json += (index == 0 ? "" : ",") + entries[index].first;
        if (entries[index].second.empty()) continue;
        expectedLines.push_back("RV_SDK_BEACON_REGIONS: entry " + std::to_string(index) + " refused: " +
                                entries[index].second);
    }
    const ConsoleCapture console;
    const BeaconRegionsContainer container(regionsSetting(json + "]"));
    EXPECT_EQ(console.lines(), expectedLines);
    EXPECT_EQ(container.beaconRegions(),
              (std::vector{region("lobby", lobbyUuid, 1, 2),
                           region("RVLBeaconRegion_1", "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", 65535),
                           region("RVLBeaconRegion_2", lobbyUuid, 0, 0), region("RVLBeaconRegion_17", lobbyUuid)}));
    EXPECT_TRUE(container.contains("RVLBeaconRegion_2") && !container.contains("RVLBeaconRegion_3"));
}

TEST(BeaconRegionsContainer, ASettingThatIsNoJsonArrayTextRefusesEverythingInOneLine) {
    const std::vector<std::pair<InfoDictionary, std::string>> settings = {
        {regionsSetting(R"({"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"})"), "not a JSON array"},
        {regionsSetting(R"([{"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"})"), "not a JSON array"},
        {{{BeaconRegionsContainer::infoKey, true}}, "not a text"},
        {regionsSetting("[]"), ""},  // an empty list is no mistake, and neither is no setting
        {{}, ""},
    };
    for (const auto& [info, refusal] : settings) {
        const ConsoleCapture console;
        EXPECT_TRUE(BeaconRegionsContainer(info).beaconRegions().empty()) << refusal;
        const std::string line = "RV_SDK_BEACON_REGIONS: " + refusal + "; no beacon region is watched";
        EXPECT_EQ(console.lines(), refusal.empty() ? Strings{} : Strings{line});
    }
}

}  // namespace
}  // namespace rovalis
