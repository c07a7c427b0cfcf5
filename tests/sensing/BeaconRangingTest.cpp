#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "events/EventRepository.h"
#include "sensing/BeaconRanger.h"
#include "sensing/BeaconTracker.h"
#include "sensing/RegionMonitoringReceiver.h"
#include "support/RecordingLocationManager.h"
#include "support/TestSupport.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

using json = nlohmann::json;
using Texts = std::vector<std::string>;

constexpr double start = 1700000000.0;
const Uuid kitchenUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid shopUuid = *Uuid::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
const BeaconRegion kitchen{"Kitchen", {kitchenUuid, 1, std::nullopt}};
const BeaconRegion shop{"Shop", {shopUuid, std::nullopt, std::nullopt}};
const BeaconRegion neighbour{"Neighbour", {shopUuid, 7, 7}};  // watched, but not the SDK's

// The in-memory location manager, watching beacon regions and ranging too: it logs those calls
// in order ("startRangingBeacons:Kitchen" names the constraint by its region) and delivers rounds.
class BeaconLocationManager final : public test::RecordingLocationManager {
public:
    bool isRangingAvailable() const override { return rangingAvailable; }
    std::vector<BeaconRegion> monitoredBeaconRegions() const override { return beaconRegions; }
    void startMonitoringBeaconRegion(const BeaconRegion& region) override {
        beaconRegions.push_back(region);
        beaconCalls.push_back("startMonitoringBeaconRegion:" + region.identifier);
    }
    void stopMonitoringBeaconRegion(const BeaconRegion& region) override {
        std::erase_if(beaconRegions, [&](const BeaconRegion& each) { return each.identifier == region.identifier; });
        beaconCalls.push_back("stopMonitoringBeaconRegion:" + region.identifier);
    }
    void startRangingBeacons(const BeaconIdentityConstraint& constraint) override {
        ranged.push_back(constraint);
        beaconCalls.push_back("startRangingBeacons:" + nameOf(constraint));
    }
    void stopRangingBeacons(const BeaconIdentityConstraint& constraint) override {
        std::erase(ranged, constraint);
        beaconCalls.push_back("stopRangingBeacons:" + nameOf(constraint));
    }

    void deliverRound(const std::vector<RangedBeacon>& beacons, const BeaconRegion& region) {
        if (const auto target = delegate()) target->locationManagerDidRangeBeacons(*this, beacons, region.constraint);
    }

    bool rangingAvailable = true;
    std::vector<BeaconRegion> beaconRegions;
    std::vector<BeaconIdentityConstraint> ranged;
    Texts beaconCalls;

private:
    static std::string nameOf(const BeaconIdentityConstraint& constraint) {
        return constraint == kitchen.constraint ? "Kitchen" : constraint == shop.constraint ? "Shop" : "?";
    }
};

class FakeEddystoneScanner final : public EddystoneScannerType {
public:
    bool isAvailable() const override { return available; }
    void startScanning(SightingHandler handler) override {
        handler_ = std::move(handler);
        ++starts;
    }
    void stopScanning() override {
        handler_ = nullptr;
        ++stops;
    }
    void hear(const std::string& eid, long rssi, Date time) {
        if (handler_) handler_(EddystoneSighting{eid, rssi, time, "C0:FF:EE:00:00:01"});
    }
    bool isScanning() const { return handler_ != nullptr; }

    bool available = true;
    int starts = 0, stops = 0;

private:
    SightingHandler handler_;
};

class RecordingWakeUp final : public RVLInitiateWakeUpType, public RVLLocationUpdateReceiver {
public:
    void initiateWakeUpWithReason(const std::string& reason, const std::optional<Location>& location) override {
        reasons.push_back(reason);
        EXPECT_EQ(location, lastLocation());
    }
    void didUpdateLocation(const Location&, const std::string&) override {}
    std::optional<Location> lastLocation() const override {
        return Location{{52.52, 13.405}, 40.0, 12.0, 5.0, 0.0, -1.0, Date{start - 30}};
    }
    Texts reasons;
};

RangedBeacon beacon(const BeaconRegion& region, std::uint16_t minor, long rssi) {
    return RangedBeacon{region.constraint.uuid, region.constraint.major.value_or(3), minor, rssi, 2.5, Date{start}};
}

class BeaconRangerTest : public ::testing::Test {
protected:
    BeaconRangerTest() {
        debug->start();
        makeRanger(scanner);
    }

    void makeRanger(std::shared_ptr<EddystoneScannerType> eddystone) {
        ranger = BeaconRanger::create(locations, std::make_shared<BeaconRangerForwarder>(), regions, debug,
                                      std::move(eddystone), store, wakeUp, wakeUp, loop);
    }

    // Moves the clock to `seconds` after the start, running what falls due on the way.
    void at(double seconds) { loop->fastForwardBy(start + seconds - loop->now().secondsSince1970); }

    std::vector<json> stored(const std::string& type) {
        std::vector<json> found;
        for (const auto& event : store->fetchEventsPayloadTo(std::nullopt, 0)) {
            if (event.type == type) found.push_back(json::parse(event.payload));
        }
        return found;
    }
    // Each scan as "<time>: IBeacon <major>.<minor> <rssi> @<time>, Eddystone <eid> <rssi> @<time>", times
    // in seconds after the start.
    Texts scans() {
        const auto seconds = [](const json& ms) { return std::to_string(ms.get<long long>() / 1000 - 1700000000); };
        Texts texts;
        for (const auto& scan : stored("BeaconScan")) {
            std::string text = seconds(scan["tracked_at_ms"]) + ":";
            for (const auto& b : scan["beacons"]) {
                text += " " + b["protocol"].get<std::string>() + " ";
                text += b["protocol"] == "IBeacon" ? b["uuid"].get<std::string>().substr(0, 4) + " " +
                                                         b["major"].dump() + "." + b["minor"].dump()
                                                   : b["eid"].get<std::string>();
                text += " " + b["rssi"].dump() + " @" + seconds(b["tracked_at_ms"]);
            }
            texts.push_back(text);
        }
        return texts;
    }
    // The Debug comments, each with its topic where that is not "Beacon Ranging".
    Texts debugTexts() {
        Texts texts;
        for (const auto& event : stored("Debug")) {
            const auto topic = event["topic"].get<std::string>();
            texts.push_back((topic == "Beacon Ranging" ? "" : topic + ": ") + event["comment"].get<std::string>());
        }
        return texts;
    }

    test::ConsoleCapture console;
    test::TempDir dir;
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{start});
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>(clock);
    std::shared_ptr<EventRepository> store = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<DebugEventsManager> debug = std::make_shared<DebugEventsManager>(store, clock);
    // The SDK's regions, Kitchen and Shop, from the host's Info.
    std::shared_ptr<BeaconRegionsContainer> regions = std::make_shared<BeaconRegionsContainer>(
        InfoDictionary{{BeaconRegionsContainer::infoKey,
                        R"([{"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "identifier": "Kitchen"},
                            {"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "identifier": "Shop"}])"}});
    std::shared_ptr<BeaconLocationManager> locations = std::make_shared<BeaconLocationManager>();
    std::shared_ptr<FakeEddystoneScanner> scanner = std::make_shared<FakeEddystoneScanner>();
    std::shared_ptr<RecordingWakeUp> wakeUp = std::make_shared<RecordingWakeUp>();
    std::shared_ptr<BeaconRanger> ranger;
};

TEST_F(BeaconRangerTest, AWindowRecordsEveryBeaconHeardInArrivalOrderAsOneScanAtItsEnd) {
    // The report may carry another constraint: the SDK's own definition of the region counts.
    ranger->didEnterBeaconRegion(BeaconRegion{"Kitchen", {shopUuid, 9, 9}});
    EXPECT_EQ(locations->beaconCalls, Texts{"startRangingBeacons:Kitchen"});
    EXPECT_TRUE(scanner->isScanning());
    at(1);
    locations->deliverRound({beacon(kitchen, 7, -71), beacon(kitchen, 8, 0)}, kitchen);  // 0: not heard now
    scanner->hear("00112233445566778899aabbccddeeff", -80, Date{start + 1.5});
    at(2);
    locations->deliverRound({beacon(kitchen, 8, -64), beacon(kitchen, 7, -69)}, kitchen);
    locations->deliverRound({beacon(shop, 4, -50)}, shop);  // not ranged by this window
    at(9.99);
    EXPECT_TRUE(scans().empty());
    EXPECT_TRUE(wakeUp->reasons.empty());

    at(10);
    EXPECT_EQ(scans(), Texts{"10: IBeacon E2C5 1.7 -71 @1 Eddystone 00112233445566778899aabbccddeeff -80 @1 "
                             "IBeacon E2C5 1.8 -64 @2 IBeacon E2C5 1.7 -69 @2"});
    EXPECT_EQ(locations->beaconCalls, (Texts{"startRangingBeacons:Kitchen", "stopRangingBeacons:Kitchen"}));
    EXPECT_EQ(scanner->stops, 1);
    EXPECT_EQ(wakeUp->reasons, Texts{"beacon " + kitchenUuid.uuidString() + " 1.8 ranged in region Kitchen"});

    // Reports under way when the window closed change nothing.
    locations->deliverRound({beacon(kitchen, 7, -60)}, kitchen);
    scanner->hear("ff", -60, loop->now());
    at(30);
    EXPECT_EQ(scans().size(), 1u);
    EXPECT_EQ(wakeUp->reasons.size(), 1u);
}

TEST_F(BeaconRangerTest, AnEntryDuringTheWindowExtendsItAndRangesThatRegionToo) {
    ranger->didEnterBeaconRegion(kitchen);
    at(4);
    locations->deliverRound({beacon(kitchen, 7, -75)}, kitchen);
    at(6);
    ranger->didEnterBeaconRegion(shop);
    at(8);
    ranger->didEnterBeaconRegion(kitchen);  // already ranged: only the end moves
    at(12);
    locations->deliverRound({beacon(shop, 4, -58)}, shop);
    at(17.99);
    EXPECT_TRUE(scans().empty());
    at(18);
    EXPECT_EQ(locations->beaconCalls, (Texts{"startRangingBeacons:Kitchen", "startRangingBeacons:Shop",
                                             "stopRangingBeacons:Kitchen", "stopRangingBeacons:Shop"}));
    EXPECT_EQ(scanner->starts, 1);
    EXPECT_EQ(scanner->stops, 1);
    EXPECT_EQ(scans(), Texts{"18: IBeacon E2C5 1.7 -75 @4 IBeacon F782 3.4 -58 @12"});
    EXPECT_EQ(wakeUp->reasons, Texts{"beacon " + shopUuid.uuidString() + " 3.4 ranged in region Shop"});
    EXPECT_EQ(debugTexts(), (Texts{"forced ranging opened for beacon region Kitchen",
                                   "forced ranging extended for beacon region Shop",
                                   "forced ranging extended for beacon region Kitchen",
                                   "forced ranging closed with 2 iBeacon and 0 Eddystone sightings"}));
}

TEST_F(BeaconRangerTest, TheWakeUpReasonNamesTheStrongestBeaconAndAWindowThatHeardNothingRecordsAndAsksNothing) {
    struct Case {
        std::vector<RangedBeacon> round;
        std::vector<std::pair<std::string, long>> eddystones;
        std::optional<std::string> reason;
    };
    const std::vector<Case> cases = {
        // An iBeacon wins over a stronger Eddystone.
        {{beacon(kitchen, 2, -90), beacon(kitchen, 3, -61), beacon(kitchen, 4, -75)},
         {{"aa01", -40}},
         "beacon " + kitchenUuid.uuidString() + " 1.3 ranged in region Kitchen"},
        {{beacon(kitchen, 2, 0)}, {}, std::nullopt},  // at the edge of its range: entered, not heard
        {{}, {}, std::nullopt},
        {{}, {{"aa01", -88}, {"bb02", -66}, {"cc03", -70}}, "beacon bb02 seen during ranging of region Kitchen"},
    };
    Texts expected;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        ranger->didEnterBeaconRegion(kitchen);
        at(20.0 * i + 1);
        locations->deliverRound(cases[i].round, kitchen);
        for (const auto& [eid, rssi] : cases[i].eddystones) scanner->hear(eid, rssi, loop->now());
        at(20.0 * i + 20);
        if (cases[i].reason) expected.push_back(*cases[i].reason);
        EXPECT_EQ(wakeUp->reasons, expected) << i;
    }
    EXPECT_EQ(scans().size(), 2u);
    EXPECT_EQ(debugTexts(), (Texts{"forced ranging opened for beacon region Kitchen",
                                   "forced ranging closed with 3 iBeacon and 1 Eddystone sightings",
                                   "forced ranging opened for beacon region Kitchen",
                                   "forced ranging closed with 0 iBeacon and 3 Eddystone sightings, after 2 windows "
                                   "that heard nothing"}));
    EXPECT_TRUE(console.contains("forced ranging for beacon region Kitchen heard nothing"));
}

TEST_F(BeaconRangerTest, AWindowRecordsTheFirst300SightingsAndCountsTheRest) {
    ranger->didEnterBeaconRegion(kitchen);
    for (int round = 1; round <= 4; ++round) {
        at(round);
        std::vector<RangedBeacon> crowd;
        for (std::uint16_t minor = 0; minor < 100; ++minor) crowd.push_back(beacon(kitchen, minor, -70));
        locations->deliverRound(crowd, kitchen);
    }
    scanner->hear("aa01", -50, loop->now());  // past the limit, yet the strongest
    at(10);
    const auto recorded = stored("BeaconScan");
    ASSERT_EQ(recorded.size(), 1u);
    ASSERT_EQ(recorded[0]["beacons"].size(), BeaconRanger::maxSightingsPerWindow);
    EXPECT_EQ(recorded[0]["beacons"].back()["minor"], 99);
    EXPECT_EQ(recorded[0]["beacons"].back()["tracked_at_ms"], static_cast<std::int64_t>(start + 3) * 1000);
    EXPECT_EQ(debugTexts().back(),
              "forced ranging closed with 400 iBeacon and 1 Eddystone sightings, 101 past the first 300 counted but "
              "not recorded");
}

TEST_F(BeaconRangerTest, WithoutEddystoneOrRangingAWindowStillRunsAndARangerThatGoesStopsBoth) {
    makeRanger(nullptr);  // Eddystone tracking off
    ranger->didEnterBeaconRegion(kitchen);
    at(1);
    locations->deliverRound({beacon(kitchen, 7, -71)}, kitchen);
    at(10);
    EXPECT_EQ(scans().size(), 1u);

    scanner->available = false;
    locations->rangingAvailable = false;
    locations->beaconCalls.clear();
    makeRanger(scanner);
    ranger->didEnterBeaconRegion(kitchen);
    at(20);
    EXPECT_EQ(scanner->starts + scanner->stops, 0);
    EXPECT_TRUE(locations->beaconCalls.empty());
    EXPECT_EQ(wakeUp->reasons.size(), 1u);  // nothing could be heard

    scanner->available = locations->rangingAvailable = true;
    ranger->didEnterBeaconRegion(kitchen);
    at(21);
    locations->deliverRound({beacon(kitchen, 7, -71)}, kitchen);
    ranger.reset();
    EXPECT_TRUE(locations->ranged.empty());
    EXPECT_FALSE(scanner->isScanning());
    at(60);
    EXPECT_EQ(scans().size(), 1u);
    EXPECT_EQ(wakeUp->reasons.size(), 1u);
}

// ---- Watching the regions, and the hand-off from region monitoring

// ---- The SDK's transitions

TEST_F(BeaconRangerTest, EachWakeUpAndSleepScansForEddystoneBeaconsAndRecordsWhatItHeardWithoutAskingToWake) {
    ranger->didWakeUp();
    EXPECT_TRUE(scanner->isScanning());
    EXPECT_TRUE(locations->beaconCalls.empty()) << "a moment ranges no iBeacon region";
    at(2);
    scanner->hear("00112233445566778899aabbccddeeff", -70, loop->now());
    ranger->didFallAsleep();  // a window is open: it scans already
    EXPECT_EQ(scanner->starts, 1);
    at(10);
    EXPECT_EQ(scans(), Texts{"10: Eddystone 00112233445566778899aabbccddeeff -70 @2"});
    EXPECT_TRUE(wakeUp->reasons.empty());

    ranger->didFallAsleep();  // nothing near: nothing recorded
    at(20);
    EXPECT_EQ(scanner->stops, 2);
    EXPECT_EQ(scans().size(), 1u);

    // A region entered during a moment's scan makes it a ranging window, which asks to wake.
    ranger->didWakeUp();
    at(25);
    ranger->didEnterBeaconRegion(kitchen);
    at(26);
    locations->deliverRound({beacon(kitchen, 7, -71)}, kitchen);
    at(34.99);
    EXPECT_EQ(scans().size(), 1u) << "the entry extended the window";
    at(35);
    EXPECT_EQ(wakeUp->reasons, Texts{"beacon " + kitchenUuid.uuidString() + " 1.7 ranged in region Kitchen"});
    EXPECT_EQ(debugTexts(), (Texts{"Eddystone scan opened at wake-up",
                                   "Eddystone scan closed with 0 iBeacon and 1 Eddystone sightings",
                                   "Eddystone scan opened at wake-up", "forced ranging opened for beacon region Kitchen",
                                   "forced ranging closed with 1 iBeacon and 0 Eddystone sightings, after 1 window "
                                   "that heard nothing"}));

    // Without Eddystone tracking a transition scans for nothing.
    makeRanger(nullptr);
    ranger->didWakeUp();
    EXPECT_FALSE(ranger->isWindowOpen());
}

TEST_F(BeaconRangerTest, TrackingThatStopsClosesTheWindowAtOnceWithoutAWakeUpAndNoneOpensUntilItStartsAgain) {
    ranger->didEnterBeaconRegion(kitchen);
    at(1);
    locations->deliverRound({beacon(kitchen, 7, -71)}, kitchen);
    at(3);
    ranger->trackingWillStop();
    EXPECT_EQ(scans(), Texts{"3: IBeacon E2C5 1.7 -71 @1"});
    EXPECT_TRUE(locations->ranged.empty());
    EXPECT_FALSE(scanner->isScanning());
    EXPECT_EQ(debugTexts().back(), "forced ranging closed as tracking stops with 1 iBeacon and 0 Eddystone sightings");

    ranger->didEnterBeaconRegion(kitchen);
    ranger->didFallAsleep();
    EXPECT_FALSE(ranger->isWindowOpen());
    at(30);
    EXPECT_TRUE(wakeUp->reasons.empty());

    ranger->trackingStarted();
    ranger->didEnterBeaconRegion(kitchen);
    EXPECT_TRUE(ranger->isWindowOpen());
}

TEST_F(BeaconRangerTest, TheBeaconTrackerWatchesTheSdksRegionsAsleepAndAwakeAndTouchesNoOther) {
    locations->beaconRegions = {neighbour};
    const auto tracker = BeaconTracker::create(regions, locations, ranger);
    tracker->start();
    EXPECT_EQ(locations->beaconCalls,
              (Texts{"startMonitoringBeaconRegion:Kitchen", "startMonitoringBeaconRegion:Shop"}));
    tracker->slowDown(std::nullopt);  // asleep and awake alike
    EXPECT_TRUE(scanner->isScanning()) << "a sleep is a moment to scan";
    tracker->speedUp();
    tracker->trackingWillStop();
    EXPECT_FALSE(scanner->isScanning());
    tracker->stop();
    tracker->start();
    tracker->halt();
    EXPECT_EQ(locations->beaconRegions, std::vector<BeaconRegion>{neighbour});
    EXPECT_EQ(locations->beaconCalls.size(), 8u);

    // A location source that cannot detect beacons (Linux) is not asked to watch any.
    locations->beaconCalls.clear();
    locations->rangingAvailable = false;
    tracker->start();
    EXPECT_TRUE(locations->beaconCalls.empty());
    EXPECT_TRUE(console.contains("beacon regions are not monitored: this device cannot detect beacons"));
}

TEST_F(BeaconRangerTest, RegionMonitoringHandsBeaconCrossingsToRangingWhichOnlyLogsExitsAndIgnoresOtherRegions) {
    const auto forwarder = std::make_shared<GeofenceManagerForwarder>();
    const std::string sleepPrefix = SleepRegionConfiguration{}.identifierPrefix;
    const auto receiver = std::make_shared<RegionMonitoringReceiver>(clock, wakeUp, store, wakeUp, sleepPrefix, ranger);
    forwarder->setDelegate(receiver);
    const auto enter = [&](const BeaconRegion& r) { forwarder->locationManagerDidEnterBeaconRegion(*locations, r); };
    const auto exit = [&](const BeaconRegion& r) { forwarder->locationManagerDidExitBeaconRegion(*locations, r); };
    exit(kitchen);
    exit(neighbour);
    enter(neighbour);
    EXPECT_FALSE(ranger->isWindowOpen());
    EXPECT_TRUE(console.contains("entered a beacon region that is not the SDK's: Neighbour"));
    enter(shop);
    at(5);
    locations->deliverRound({beacon(shop, 4, -80)}, shop);
    enter(neighbour);  // extends nothing
    exit(shop);
    EXPECT_EQ(ranger->windowEnd(), Date{start + 10});
    at(60);
    EXPECT_EQ(locations->beaconCalls, (Texts{"startRangingBeacons:Shop", "stopRangingBeacons:Shop"}));
    EXPECT_EQ(wakeUp->reasons, Texts{"beacon " + shopUuid.uuidString() + " 3.4 ranged in region Shop"});
    // Exits are only logged: at the edge of a beacon's range they come again and again.
    EXPECT_EQ(debugTexts(), (Texts{"forced ranging opened for beacon region Shop",
                                   "forced ranging closed with 1 iBeacon and 0 Eddystone sightings"}));
    EXPECT_TRUE(console.contains("exited beacon region Shop"));
    EXPECT_TRUE(stored("GeofenceTrigger").empty());

    // Beacon tracking off: no ranger to hand them to.
    const auto alone = std::make_shared<RegionMonitoringReceiver>(clock, wakeUp, store, wakeUp, sleepPrefix);
    forwarder->setDelegate(alone);
    enter(kitchen);
    exit(kitchen);
    EXPECT_TRUE(console.contains("entered beacon region Kitchen with beacon tracking off"));
    EXPECT_TRUE(console.contains("exited beacon region Kitchen with beacon tracking off"));
}

}  // namespace
}  // namespace rovalis
