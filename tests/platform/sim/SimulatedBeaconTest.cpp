#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/sim/SimTestSupport.h"
#include "platform/sim/SimulatedBluetooth.h"
#include "sensing/BeaconFrames.h"
#include "util/SettableDateSource.h"

namespace rovalis::sim {
namespace {

using test::destination;
using test::DeviceFixture;
using test::kHome;
using test::ManualQueue;
using test::PathBuilder;
using Kind = ScenarioBeacon::Kind;
using Names = std::vector<std::string>;

const Uuid kShopUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kOtherUuid = *Uuid::parse("0A1B2C3D-0000-4000-8000-00000000ABCD");
const BeaconIdentityConstraint kShop{kShopUuid, std::nullopt, std::nullopt};

ScenarioBeacon iBeacon(std::uint16_t minor, LocationCoordinate2D position, Uuid uuid = kShopUuid) {
    return {.kind = Kind::iBeacon, .uuid = uuid, .major = 1, .minor = minor, .position = position, .url = std::nullopt};
}

ScenarioBeacon eddystone(Kind kind, LocationCoordinate2D position, std::optional<std::string> url = std::nullopt) {
    return {.kind = kind, .uuid = {}, .namespaceId = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10},
            .instanceId = {11, 12, 13, 14, 15, 16}, .ephemeralId = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88},
            .position = position, .power = ScenarioBeacon::defaultEddystonePower, .url = std::move(url),
            .interval = ScenarioBeacon::defaultEddystoneInterval};
}

// An app's location manager, and the beacon reports its delegate got, with the virtual time of each.
class BeaconClient final : public LocationManagerDelegate {
public:
    struct Round {
        Date time;
        BeaconIdentityConstraint constraint;
        std::vector<RangedBeacon> beacons;
        friend bool operator==(const Round&, const Round&) = default;
    };

    static std::shared_ptr<BeaconClient> of(DeviceFixture& f) {
        auto client = std::make_shared<BeaconClient>();
        client->clock = f.device.clock();
        client->manager = f.platform.makeLocationManager();
        client->manager->setDelegate(client);
        return client;
    }

    void locationManagerDidEnterBeaconRegion(LocationManagerType&, const BeaconRegion& region) override {
        crossings.push_back("enter " + region.identifier);
        crossingTimes.push_back(clock->now());
    }
    void locationManagerDidExitBeaconRegion(LocationManagerType&, const BeaconRegion& region) override {
        crossings.push_back("exit " + region.identifier);
        crossingTimes.push_back(clock->now());
    }
    void locationManagerDidRangeBeacons(LocationManagerType&, const std::vector<RangedBeacon>& beacons,
                                        const BeaconIdentityConstraint& constraint) override {
        rounds.push_back({clock->now(), constraint, beacons});
    }

    std::shared_ptr<const RVLDateSource> clock;
    std::shared_ptr<LocationManagerType> manager;
    Names crossings;  // "enter shop", "exit shop", ...
    std::vector<Date> crossingTimes;
    std::vector<Round> rounds;
};

// Everything a scanner handed over.
struct ScanRecord {
    explicit ScanRecord(std::shared_ptr<BluetoothScannerType> scanner) : scanner(std::move(scanner)) {}

    void start(std::vector<std::uint16_t> services) {
        scanner->startScanning(std::move(services), queue, [this](const BleAdvertisement& ad) { heard.push_back(ad); });
    }

    std::shared_ptr<BluetoothScannerType> scanner;
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::vector<BleAdvertisement> heard;
};

// The iBeacon advertisements among those heard, each read back.
std::vector<std::pair<BleAdvertisement, IBeaconAdvertisement>> iBeaconsIn(const std::vector<BleAdvertisement>& heard) {
    std::vector<std::pair<BleAdvertisement, IBeaconAdvertisement>> result;
    for (const auto& ad : heard) {
        const auto payload = ad.manufacturerData.find(kIBeaconCompanyIdentifier);
        if (payload != ad.manufacturerData.end()) result.emplace_back(ad, parseIBeacon(payload->second).value());
    }
    return result;
}

// A walk due east along a line 5 m north of kHome: from 400 m west to 400 m east at 1.4 m/s,
// then standing for five minutes. The closest approach is at 286 s.
constexpr double kWalkSpeed = 1.4;
constexpr double kWalkSeconds = 800.0 / kWalkSpeed;
constexpr double kClosestApproach = 400.0 / kWalkSpeed;
std::shared_ptr<const TruePath> walkPastHome() {
    const auto line = destination(kHome, 0.0, 5.0);
    return PathBuilder(destination(line, 270.0, 400.0))
        .to(destination(line, 90.0, 400.0), kWalkSeconds)
        .stay(300)
        .build();
}

TEST(SimulatedBeacons, TheSignalFallsTwentyTwoDecibelsADecadeFromHalfAMetreOut) {
    EXPECT_DOUBLE_EQ(BeaconSignalModel::meanRssi(-59.0, 10.0), -81.0);
    EXPECT_DOUBLE_EQ(BeaconSignalModel::meanRssi(-59.0, 0.1), -59.0 + 22.0 * std::log10(2.0));
    EXPECT_DOUBLE_EQ(BeaconSignalModel::distanceFor(-59.0, -81.0), 10.0);
    // An Eddystone beacon's power is given at 0 m; out of reach the mean is 5 sigma under -95 dBm.
    EXPECT_EQ(BeaconSignalModel::powerAtOneMetre(eddystone(Kind::eddystoneUid, kHome)), -61.0);
    EXPECT_NEAR(BeaconSignalModel::reach(-59.0), 351.1, 0.1);
    EXPECT_NEAR(BeaconSignalModel::reach(-61.0), 284.8, 0.1);
}

TEST(SimulatedBeacons, WalkingPastIBeaconsEntersAndLeavesTheirRegionAndRangesThemEverySecond) {
    DeviceFixture f(walkPastHome());
    // Two shop beacons 30 m apart along the walk, the second sending four times a second, and a
    // beacon of another UUID at the first.
    auto fast = iBeacon(2, destination(kHome, 90.0, 30.0));
    fast.interval = 0.25;
    f.device.placeBeacons({iBeacon(1, kHome), fast, iBeacon(1, kHome, kOtherUuid)});
    ScanRecord scan{f.platform.makeBluetoothScanner()};
    scan.start({});
    const auto client = BeaconClient::of(f), other = BeaconClient::of(f);
    const BeaconIdentityConstraint second{kShopUuid, 1, 2};
    client->manager->startMonitoringBeaconRegion({"shop", kShop});
    client->manager->startMonitoringBeaconRegion({"shop-3", {kShopUuid, 1, 3}});
    client->manager->startRangingBeacons(kShop);
    client->manager->startRangingBeacons(second);
    f.runFor(kWalkSeconds + 300);
    scan.queue->drain();
    const auto heard = iBeaconsIn(scan.heard);

    // The region is entered 1 - 5 s after the first advertisement of its beacons the scanner heard
    // at -90 dBm or more, and left 30 s after the last; every live manager's delegate hears it.
    std::vector<Date> good;
    for (const auto& [ad, beacon] : heard) {
        if (beacon.uuid == kShopUuid && ad.rssi >= -90) good.push_back(ad.timestamp);
    }
    ASSERT_FALSE(good.empty());
    ASSERT_GE(client->crossings.size(), 2u);  // and more where a far one was heard well more than 30 s on
    for (std::size_t i = 0; i < client->crossings.size(); ++i) {
        EXPECT_EQ(client->crossings[i], i % 2 == 0 ? "enter shop" : "exit shop");
    }
    const double entryDelay = client->crossingTimes.front().timeIntervalSince(good.front());
    EXPECT_TRUE(entryDelay >= 1.0 && entryDelay <= 5.0) << entryDelay;
    const double exitDelay = client->crossingTimes.back().timeIntervalSince(good.back());
    EXPECT_TRUE(exitDelay >= 30.0 && exitDelay <= 31.0) << exitDelay;
    EXPECT_GT(good.front(), f.at(kClosestApproach - 250)) << "heard well only near the beacons";
    EXPECT_LT(good.back(), f.at(kClosestApproach + 250));
    EXPECT_EQ(other->crossingTimes, client->crossingTimes);
    EXPECT_TRUE(other->rounds.empty()) << "only the manager that ranges gets rounds";
    ASSERT_EQ(f.device.log().beaconRegionEvents.size(), client->crossings.size());
    EXPECT_EQ(f.device.log().beaconRegionEvents.back().recipients, 2u);
    EXPECT_EQ(f.device.energy().beaconRegionEvents, client->crossings.size());

    // Each round holds the mean of the second's readings of each beacon of its constraint, strongest first.
    std::size_t both = 0, withBeacons = 0;
    for (const auto& round : client->rounds) {
        both += round.beacons.size() == 2;
        withBeacons += !round.beacons.empty();
        for (std::size_t i = 0; i < round.beacons.size(); ++i) {
            const RangedBeacon& beacon = round.beacons[i];
            EXPECT_TRUE(round.constraint.matches(beacon.uuid, beacon.major, beacon.minor));
            EXPECT_TRUE(i == 0 || round.beacons[i - 1].rssi >= beacon.rssi) << "strongest first";
            EXPECT_EQ(beacon.timestamp, round.time);
            double sum = 0.0;
            int count = 0;
            for (const auto& [ad, advertisement] : heard) {
                if (ad.timestamp > round.time.addingSeconds(-1.0) && ad.timestamp <= round.time &&
                    advertisement.uuid == beacon.uuid && advertisement.minor == beacon.minor) {
                    sum += static_cast<double>(ad.rssi);
                    ++count;
                }
            }
            ASSERT_GT(count, 0);
            EXPECT_EQ(beacon.rssi, std::lround(sum / count));
            EXPECT_NEAR(beacon.accuracy, BeaconSignalModel::distanceFor(-59.0, sum / count), 1e-9);
        }
    }
    // A round a second for each constraint, heard or not: the first ones 400 m off are empty.
    EXPECT_EQ(client->rounds.size(), 2 * static_cast<std::size_t>(kWalkSeconds + 300));
    EXPECT_TRUE(client->rounds.front().beacons.empty());
    EXPECT_GT(both, 30u);
    // The log keeps the rounds that heard something, for the map; the ledger the radio and ranging time.
    EXPECT_EQ(f.device.log().rangingRounds.size(), withBeacons);
    EXPECT_EQ(f.device.log().rangingRounds.front().recipients, 1u);
    EXPECT_NEAR(f.device.energy().bluetoothScanSeconds, kWalkSeconds + 300, 1e-6);
    EXPECT_NEAR(f.device.energy().rangingSeconds, kWalkSeconds + 300, 1e-6);

    client->manager->stopRangingBeacons(kShop);
    client->manager->stopRangingBeacons(second);
    const auto rounds = client->rounds.size();
    f.runFor(10);
    EXPECT_EQ(client->rounds.size(), rounds);
    EXPECT_NEAR(f.device.energy().rangingSeconds, kWalkSeconds + 300, 1e-6);
}

TEST(SimulatedBeacons, TheScannerHandsOverTheFramesOfTheServicesAskedForOnceASecond) {
    // Standing 10 m from an Eddystone UID beacon with a URL and an iBeacon, 15 m from an EID beacon.
    DeviceFixture f(PathBuilder(destination(kHome, 0.0, 10.0)).stay(3600).build());
    f.device.placeBeacons({eddystone(Kind::eddystoneUid, kHome, "https://example.com/cafe"), iBeacon(2, kHome),
                           eddystone(Kind::eddystoneEid, destination(kHome, 180.0, 5.0))});
    ScanRecord eddystones{f.platform.makeBluetoothScanner()};
    ScanRecord everything{f.platform.makeBluetoothScanner()};
    eddystones.start({kEddystoneServiceUUID});
    everything.start({});
    f.runFor(60);
    EXPECT_EQ(eddystones.queue->drain(), 60u);

    // What the beacons were placed as.
    const EddystoneFrame uid = EddystoneUid{-20, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {11, 12, 13, 14, 15, 16}};
    const EddystoneFrame eid = EddystoneEid{-20, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}};
    const EddystoneFrame url = EddystoneUrl{-20, "https://example.com/cafe"};
    std::set<std::string> addresses;
    std::map<std::size_t, std::size_t> frames;  // by their index in EddystoneFrame: UID, EID, URL, TLM
    for (std::size_t i = 0; i < eddystones.heard.size(); ++i) {
        const auto& ad = eddystones.heard[i];
        EXPECT_TRUE(i == 0 || ad.timestamp >= eddystones.heard[i - 1].timestamp);
        EXPECT_GE(ad.rssi, -95);
        addresses.insert(ad.address);
        const auto frame = parseEddystoneFrame(ad.serviceData.at(kEddystoneServiceUUID)).value();
        ++frames[frame.index()];
        const auto* tlm = std::get_if<EddystoneTlm>(&frame);
        if (!tlm) {
            EXPECT_TRUE(frame == uid || frame == eid || frame == url) << "frame kind " << frame.index();
            continue;
        }
        // On for a day or more, sending every 0.5 s since, frames of all kinds counted.
        EXPECT_GT(tlm->secondsSincePowerOn, 86400.0);
        EXPECT_NEAR(tlm->advertisementCount, tlm->secondsSincePowerOn / 0.5, 2.0);
        EXPECT_TRUE(tlm->batteryMillivolts >= 2000 && tlm->batteryMillivolts <= 3150);
        EXPECT_TRUE(tlm->temperatureCelsius >= 15.0 && tlm->temperatureCelsius <= 27.0);
    }
    // Two beacons at two advertisements a second, not the iBeacon. The identity most often;
    // telemetry from both, the URL from the one that has it.
    EXPECT_EQ(addresses.size(), 2u);
    EXPECT_TRUE(eddystones.heard.size() > 220u && eddystones.heard.size() <= 240u) << eddystones.heard.size();
    EXPECT_GT(frames[0], 4 * frames[2]);
    EXPECT_GT(frames[1], 3 * frames[3] / 2);
    EXPECT_GE(frames[2], 4u);
    EXPECT_GE(frames[3], 16u);

    // Stopping drops what is still queued, and nothing more comes; another scanner goes on.
    f.runFor(1);
    ASSERT_EQ(eddystones.queue->tasks.size(), 1u);
    eddystones.scanner->stopScanning();
    EXPECT_FALSE(eddystones.scanner->isScanning());
    const auto before = eddystones.heard.size();
    f.runFor(5);
    eddystones.queue->drain();
    EXPECT_EQ(eddystones.heard.size(), before);
    EXPECT_EQ(everything.queue->tasks.size(), 66u);
}

TEST(SimulatedBeacons, TheRadioListensOnlyWhileSomeoneScansRangesOrMonitors) {
    const auto path = PathBuilder().stay(3600).build();
    auto clock = std::make_shared<SettableDateSource>(path->start());
    auto loop = std::make_shared<VirtualRunLoop>(clock);
    auto meter = std::make_shared<EnergyMeter>(clock);
    auto radio = SimulatedBluetoothRadio::create({path, loop, meter, std::make_shared<DeviceLog>(), 3});
    radio->placeBeacons({iBeacon(2, kHome)});
    EXPECT_FALSE(radio->isListening());

    auto scanner = radio->makeScanner();
    auto queue = std::make_shared<ManualQueue>();
    int heard = 0;
    scanner->startScanning({}, queue, [&](const BleAdvertisement&) { ++heard; });
    EXPECT_TRUE(radio->isListening());
    loop->fastForwardBy(10);
    queue->drain();
    EXPECT_GE(heard, 9);
    // A scanner that goes while scanning stops the radio at once.
    scanner.reset();
    loop->runUntilIdle();
    EXPECT_FALSE(radio->isListening());
    EXPECT_FALSE(loop->nextPendingDelay().has_value());
    EXPECT_NEAR(meter->ledger().bluetoothScanSeconds, 10.0, 1e-9);

    // The location service's listening.
    int told = 0;
    radio->setSystemListener([&](const std::vector<BleAdvertisement>&) { ++told; });
    radio->setSystemListening(true);
    loop->fastForwardBy(3);
    EXPECT_EQ(told, 3);
    radio->setSystemListening(false);
    EXPECT_FALSE(loop->nextPendingDelay().has_value());
    EXPECT_NEAR(meter->ledger().bluetoothScanSeconds, 10.0, 1e-9);

    // A beacon's advertisements are fixed by its identity, whatever the device's seed.
    auto other = SimulatedBluetoothRadio::create({path, loop, meter, std::make_shared<DeviceLog>(), 4});
    other->placeBeacons({iBeacon(2, kHome, kOtherUuid), iBeacon(2, kHome)});
    EXPECT_EQ(other->address(1), radio->address(0));
    EXPECT_NE(other->address(0), radio->address(0));
    EXPECT_EQ(other->advertisement(1, 7).timestamp, radio->advertisement(0, 7).timestamp);
    EXPECT_EQ(other->advertisement(1, 8).timestamp.timeIntervalSince(radio->advertisement(0, 7).timestamp),
              ScenarioBeacon::defaultIBeaconInterval);
}

TEST(SimulatedBeacons, BeaconRegionsBelongToTheAppAndOutliveItsProcesses) {
    DeviceFixture f(walkPastHome());  // out of range for the first 100 s
    f.device.placeBeacons({iBeacon(2, kHome)});
    const auto first = BeaconClient::of(f);
    first->manager->startMonitoringBeaconRegion({"shop", kShop});
    first->manager->startRangingBeacons(kShop);
    f.runFor(100);

    // A relaunch: the process's managers go, and their ranging with them.
    EXPECT_EQ(first->rounds.size(), 100u);
    first->manager.reset();
    f.relaunch();
    const auto relaunched = BeaconClient::of(f);
    EXPECT_EQ(relaunched->manager->monitoredBeaconRegions(), (std::vector{BeaconRegion{"shop", kShop}}));
    EXPECT_TRUE(relaunched->manager->rangedBeaconConstraints().empty());
    f.runFor(kWalkSeconds + 300 - 100);
    EXPECT_EQ(relaunched->crossings, (Names{"enter shop", "exit shop"}));
    EXPECT_TRUE(relaunched->rounds.empty());
    EXPECT_TRUE(first->crossings.empty());
    EXPECT_EQ(first->rounds.size(), 100u);
    EXPECT_NEAR(f.device.energy().rangingSeconds, 100.0, 1e-6);

    // A region with the same identifier replaces it; stopping removes it.
    const BeaconRegion replaced{"shop", {kShopUuid, 7, std::nullopt}, false, true};
    relaunched->manager->startMonitoringBeaconRegion(replaced);
    EXPECT_EQ(f.device.monitoredBeaconRegions(), (std::vector{replaced}));
    relaunched->manager->stopMonitoringBeaconRegion(replaced);
    EXPECT_TRUE(f.device.monitoredBeaconRegions().empty());
}

TEST(SimulatedBeacons, RegionsNeedAlwaysAndRangingNeedsSomePermission) {
    DeviceFixture f(walkPastHome());
    f.device.placeBeacons({iBeacon(2, kHome)});
    f.device.setAuthorization(AuthorizationStatus::authorizedWhenInUse);
    const auto client = BeaconClient::of(f);
    client->manager->startMonitoringBeaconRegion({"shop", kShop});
    client->manager->startRangingBeacons(kShop);
    f.runFor(kClosestApproach);
    // "When in use" ranges but watches no region.
    EXPECT_TRUE(client->crossings.empty());
    ASSERT_FALSE(client->rounds.empty());
    EXPECT_FALSE(client->rounds.back().beacons.empty());

    // Without location services nothing is ranged; back at "always" the region is entered as
    // soon as the beacon is heard again.
    f.device.setLocationServicesEnabled(false);
    const auto rounds = client->rounds.size();
    f.runFor(10);
    EXPECT_EQ(client->rounds.size(), rounds);
    f.device.setLocationServicesEnabled(true);
    f.device.setAuthorization(AuthorizationStatus::authorizedAlways);
    const Date back = f.device.now();
    f.runFor(10);
    EXPECT_EQ(client->rounds.size(), rounds + 10);
    ASSERT_EQ(client->crossings, Names{"enter shop"});
    EXPECT_LE(client->crossingTimes[0].timeIntervalSince(back), 6.0);

    // Losing "always" while inside reports nothing, though the device walks away.
    f.device.setAuthorization(AuthorizationStatus::denied);
    f.runFor(kWalkSeconds + 300 - kClosestApproach - 20);
    EXPECT_EQ(client->crossings.size(), 1u);
}

TEST(SimulatedBeacons, TheSameSeedGivesTheSameBeaconDay) {
    const auto run = [](std::uint64_t seed) {
        SimulatedDeviceOptions options;
        options.seed = seed;
        DeviceFixture f(walkPastHome(), options);
        f.device.placeBeacons({iBeacon(2, kHome)});
        const auto client = BeaconClient::of(f);
        client->manager->startMonitoringBeaconRegion({"shop", kShop});
        client->manager->startRangingBeacons(kShop);
        f.runFor(kWalkSeconds + 300);
        return std::make_tuple(f.device.log(), client->crossingTimes, client->rounds);
    };
    const auto first = run(7);
    EXPECT_EQ(std::get<1>(first).size(), 2u);
    EXPECT_TRUE(first == run(7));
    EXPECT_NE(std::get<2>(run(8)), std::get<2>(first));
}

}  // namespace
}  // namespace rovalis::sim
