#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/sim/SimTestSupport.h"
#include "platform/sim/SimulatedBluetooth.h"
#include "sensing/BeaconFrames.h"

namespace rovalis::sim {
namespace {

using test::destination;
using test::DeviceFixture;
using test::kHome;
using test::ManualQueue;
using test::PathBuilder;

const Uuid kShopUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kOtherUuid = *Uuid::parse("0A1B2C3D-0000-4000-8000-00000000ABCD");

ScenarioBeacon iBeacon(Uuid uuid, std::uint16_t major, std::uint16_t minor, LocationCoordinate2D position) {
    ScenarioBeacon beacon;
    beacon.kind = ScenarioBeacon::Kind::iBeacon;
    beacon.uuid = uuid;
    beacon.major = major;
    beacon.minor = minor;
    beacon.position = position;
    return beacon;
}

ScenarioBeacon eddystoneUid(LocationCoordinate2D position, std::optional<std::string> url) {
    ScenarioBeacon beacon;
    beacon.kind = ScenarioBeacon::Kind::eddystoneUid;
    beacon.namespaceId = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    beacon.instanceId = {11, 12, 13, 14, 15, 16};
    beacon.position = position;
    beacon.power = ScenarioBeacon::defaultEddystonePower;
    beacon.interval = ScenarioBeacon::defaultEddystoneInterval;
    beacon.url = std::move(url);
    return beacon;
}

ScenarioBeacon eddystoneEid(LocationCoordinate2D position) {
    ScenarioBeacon beacon = eddystoneUid(position, std::nullopt);
    beacon.kind = ScenarioBeacon::Kind::eddystoneEid;
    beacon.ephemeralId = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    return beacon;
}

BeaconIdentityConstraint constraint(Uuid uuid, std::optional<std::uint16_t> major = std::nullopt,
                                    std::optional<std::uint16_t> minor = std::nullopt) {
    return {uuid, major, minor};
}

BeaconRegion beaconRegion(std::string identifier, BeaconIdentityConstraint constraint) {
    return BeaconRegion{std::move(identifier), constraint, true, true};
}

// Keeps the beacon reports of a location manager, with the virtual time they arrived.
class BeaconDelegate final : public LocationManagerDelegate {
public:
    struct Crossing {
        Date time;
        std::string identifier;
        bool entered = false;
        friend bool operator==(const Crossing&, const Crossing&) = default;
    };
    struct Round {
        Date time;
        BeaconIdentityConstraint constraint;
        std::vector<RangedBeacon> beacons;
        friend bool operator==(const Round&, const Round&) = default;
    };

    explicit BeaconDelegate(std::shared_ptr<const RVLDateSource> clock) : clock_(std::move(clock)) {}

    void locationManagerDidEnterBeaconRegion(LocationManagerType&, const BeaconRegion& region) override {
        crossings.push_back({clock_->now(), region.identifier, true});
    }
    void locationManagerDidExitBeaconRegion(LocationManagerType&, const BeaconRegion& region) override {
        crossings.push_back({clock_->now(), region.identifier, false});
    }
    void locationManagerDidRangeBeacons(LocationManagerType&, const std::vector<RangedBeacon>& beacons,
                                        const BeaconIdentityConstraint& constraint) override {
        rounds.push_back({clock_->now(), constraint, beacons});
    }

    std::vector<std::string> crossingNames() const {
        std::vector<std::string> names;
        for (const auto& crossing : crossings) names.push_back((crossing.entered ? "enter " : "exit ") + crossing.identifier);
        return names;
    }

    std::vector<Crossing> crossings;
    std::vector<Round> rounds;

private:
    const std::shared_ptr<const RVLDateSource> clock_;
};

struct BeaconClient {
    std::shared_ptr<LocationManagerType> manager;
    std::shared_ptr<BeaconDelegate> delegate;
};

BeaconClient beaconClient(DeviceFixture& f) {
    BeaconClient client{f.platform.makeLocationManager(), std::make_shared<BeaconDelegate>(f.device.clock())};
    client.manager->setDelegate(client.delegate);
    return client;
}

// Everything a scanner handed over, and how many tasks it took.
struct ScanRecord {
    explicit ScanRecord(std::shared_ptr<BluetoothScannerType> scanner) : scanner(std::move(scanner)) {}

    std::shared_ptr<BluetoothScannerType> scanner;
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::vector<BleAdvertisement> heard;
    std::size_t tasks = 0;

    void start(std::vector<std::uint16_t> services) {
        scanner->startScanning(std::move(services), queue, [this](const BleAdvertisement& ad) { heard.push_back(ad); });
    }
    void drain() { tasks += queue->drain(); }
};

// The iBeacon advertisements heard, read back.
struct HeardIBeacon {
    Date time;
    IBeaconAdvertisement advertisement;
    long rssi;
};
std::vector<HeardIBeacon> iBeaconsIn(const std::vector<BleAdvertisement>& heard) {
    std::vector<HeardIBeacon> result;
    for (const auto& ad : heard) {
        const auto payload = ad.manufacturerData.find(kIBeaconCompanyIdentifier);
        if (payload == ad.manufacturerData.end()) continue;
        const auto parsed = parseIBeacon(payload->second);
        EXPECT_TRUE(parsed.has_value());
        if (parsed) result.push_back({ad.timestamp, *parsed, ad.rssi});
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

TEST(SimulatedBeacons, WalkingPastAnIBeaconEntersItsRegionAndLeavesThirtySecondsAfterTheLastGoodAdvertisement) {
    DeviceFixture f(walkPastHome());
    f.device.placeBeacons({iBeacon(kShopUuid, 1, 2, kHome), iBeacon(kOtherUuid, 1, 1, destination(kHome, 0, 900))});
    ScanRecord scan{f.platform.makeBluetoothScanner()};
    scan.start({});
    auto client = beaconClient(f);
    auto other = beaconClient(f);
    client.manager->startMonitoringBeaconRegion(beaconRegion("shop", constraint(kShopUuid)));
    client.manager->startMonitoringBeaconRegion(beaconRegion("shop-3", constraint(kShopUuid, 1, 3)));
    client.manager->startMonitoringBeaconRegion(beaconRegion("far", constraint(kOtherUuid)));
    f.runFor(kWalkSeconds + 300);
    scan.drain();

    // The scanner hears the same advertisements: the region's moments follow from them.
    std::vector<Date> good;
    for (const auto& beacon : iBeaconsIn(scan.heard)) {
        EXPECT_EQ(beacon.advertisement.uuid, kShopUuid);  // the far one is never heard
        if (beacon.rssi >= -90) good.push_back(beacon.time);
    }
    ASSERT_FALSE(good.empty());
    ASSERT_EQ(client.delegate->crossingNames(), (std::vector<std::string>{"enter shop", "exit shop"}));
    const double entryDelay = client.delegate->crossings[0].time.timeIntervalSince(good.front());
    EXPECT_GE(entryDelay, 1.0);
    EXPECT_LE(entryDelay, 5.0);
    const double exitDelay = client.delegate->crossings[1].time.timeIntervalSince(good.back());
    EXPECT_GE(exitDelay, 30.0);
    EXPECT_LE(exitDelay, 31.0);
    // Heard at -90 dBm around the closest approach, and not from afar.
    EXPECT_LT(good.front(), f.at(kClosestApproach - 5));
    EXPECT_GT(good.front(), f.at(kClosestApproach - 250));
    EXPECT_GT(good.back(), f.at(kClosestApproach + 5));
    EXPECT_LT(good.back(), f.at(kClosestApproach + 250));
    // Every live manager's delegate hears the crossings.
    EXPECT_EQ(other.delegate->crossings, client.delegate->crossings);

    const auto& events = f.device.log().beaconRegionEvents;
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].identifier, "shop");
    EXPECT_EQ(events[0].kind, RegionEventKind::enter);
    EXPECT_EQ(events[1].kind, RegionEventKind::exit);
    EXPECT_EQ(events[1].recipients, 2u);
    EXPECT_EQ(f.device.energy().beaconRegionEvents, 2u);
    EXPECT_NEAR(f.device.energy().bluetoothScanSeconds, kWalkSeconds + 300, 1e-6);
    EXPECT_EQ(f.device.energy().rangingSeconds, 0.0);
}

TEST(SimulatedBeacons, RangingReportsEverySecondTheBeaconsHeardStrongestFirst) {
    DeviceFixture f(walkPastHome());
    // Two shop beacons 30 m apart along the walk, and a beacon of another UUID at the first.
    const auto second = destination(kHome, 90.0, 30.0);
    f.device.placeBeacons(
        {iBeacon(kShopUuid, 1, 1, kHome), iBeacon(kShopUuid, 1, 2, second), iBeacon(kOtherUuid, 1, 1, kHome)});
    ScanRecord scan{f.platform.makeBluetoothScanner()};
    scan.start({});
    auto client = beaconClient(f);
    client.manager->startRangingBeacons(constraint(kShopUuid));
    client.manager->startRangingBeacons(constraint(kShopUuid, 1, 2));
    EXPECT_EQ(client.manager->rangedBeaconConstraints(),
              (std::vector{constraint(kShopUuid), constraint(kShopUuid, 1, 2)}));
    f.runFor(kWalkSeconds + 300);
    scan.drain();

    // A round a second for each constraint, heard or not.
    std::vector<BeaconDelegate::Round> all, single;
    for (const auto& round : client.delegate->rounds) {
        (round.constraint == constraint(kShopUuid) ? all : single).push_back(round);
    }
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kWalkSeconds + 300));
    EXPECT_EQ(single.size(), all.size());

    // Each round is the second's readings of the scanner, averaged.
    std::map<std::uint16_t, long> strongest;
    std::size_t both = 0;
    for (const auto& round : all) {
        for (std::size_t i = 1; i < round.beacons.size(); ++i) {
            EXPECT_GE(round.beacons[i - 1].rssi, round.beacons[i].rssi);
        }
        if (round.beacons.size() == 2) ++both;
        for (const auto& beacon : round.beacons) {
            EXPECT_EQ(beacon.uuid, kShopUuid);
            EXPECT_EQ(beacon.timestamp, round.time);
            double sum = 0.0;
            int count = 0;
            for (const auto& heard : iBeaconsIn(scan.heard)) {
                if (heard.time > round.time.addingSeconds(-1.0) && heard.time <= round.time &&
                    heard.advertisement.minor == beacon.minor && heard.advertisement.uuid == kShopUuid) {
                    sum += static_cast<double>(heard.rssi);
                    ++count;
                }
            }
            ASSERT_GT(count, 0);
            EXPECT_EQ(beacon.rssi, std::lround(sum / count));
            EXPECT_NEAR(beacon.accuracy, BeaconSignalModel::distanceFor(-59.0, sum / count), 1e-9);
            strongest[beacon.minor] = std::max(strongest[beacon.minor], beacon.rssi);
        }
    }
    EXPECT_GT(both, 30u);
    // Near a beacon it is loud: the path passes 5 m from the first and 5 m from the second.
    EXPECT_GT(strongest[1], -85);
    EXPECT_GT(strongest[2], -85);

    // The first beacon's RSSI rises towards the closest approach and falls after it.
    const auto meanRssi = [&](double from, double to) {
        double sum = 0.0;
        int count = 0;
        for (const auto& round : all) {
            const double t = round.time.timeIntervalSince(f.at(0));
            if (t < from || t >= to) continue;
            for (const auto& beacon : round.beacons) {
                if (beacon.minor == 1) {
                    sum += static_cast<double>(beacon.rssi);
                    ++count;
                }
            }
        }
        return count > 0 ? sum / count : -200.0;
    };
    const double approaching = meanRssi(kClosestApproach - 30, kClosestApproach - 15);
    const double close = meanRssi(kClosestApproach - 5, kClosestApproach + 5);
    const double leaving = meanRssi(kClosestApproach + 15, kClosestApproach + 30);
    EXPECT_GT(close, approaching + 6.0);
    EXPECT_GT(close, leaving + 6.0);

    // Out of range, nothing is heard: at the start, 400 m off, and of the first beacon once
    // standing 400 m on.
    for (const auto& round : all) {
        const double t = round.time.timeIntervalSince(f.at(0));
        if (t < 30) {
            EXPECT_TRUE(round.beacons.empty()) << t;
        }
        for (const auto& beacon : round.beacons) EXPECT_FALSE(t > kWalkSeconds && beacon.minor == 1) << t;
    }
    // The single-beacon constraint hears only its beacon.
    for (const auto& round : single) {
        for (const auto& beacon : round.beacons) EXPECT_EQ(beacon.minor, 2);
    }

    // The log keeps the rounds that heard something, for the map; the ledger the ranging time.
    const auto& logged = f.device.log().rangingRounds;
    const auto heardRounds = std::count_if(client.delegate->rounds.begin(), client.delegate->rounds.end(),
                                           [](const auto& round) { return !round.beacons.empty(); });
    EXPECT_EQ(static_cast<std::ptrdiff_t>(logged.size()), heardRounds);
    ASSERT_FALSE(logged.empty());
    EXPECT_FALSE(logged.front().beacons.empty());
    EXPECT_EQ(logged.front().recipients, 1u);
    EXPECT_NEAR(f.device.energy().rangingSeconds, kWalkSeconds + 300, 1e-6);

    client.manager->stopRangingBeacons(constraint(kShopUuid));
    client.manager->stopRangingBeacons(constraint(kShopUuid, 1, 2));
    const auto rounds = client.delegate->rounds.size();
    f.runFor(10);
    EXPECT_EQ(client.delegate->rounds.size(), rounds);
    EXPECT_NEAR(f.device.energy().rangingSeconds, kWalkSeconds + 300, 1e-6);
}

TEST(SimulatedBeacons, TheScannerHandsOverParseableEddystoneFramesOnceASecond) {
    // Standing 10 m from an Eddystone UID beacon with a URL, 15 m from an EID beacon and an
    // iBeacon, and far from another UID beacon.
    DeviceFixture f(PathBuilder(destination(kHome, 0.0, 10.0)).stay(3600).build());
    auto far = eddystoneUid(destination(kHome, 90.0, 2000.0), std::nullopt);
    far.instanceId[5] = 0x99;
    f.device.placeBeacons({eddystoneUid(kHome, "https://example.com/cafe"),
                           eddystoneEid(destination(kHome, 180.0, 5.0)), iBeacon(kShopUuid, 1, 2, kHome), far});

    ScanRecord eddystone{f.platform.makeBluetoothScanner()};
    ScanRecord everything{f.platform.makeBluetoothScanner()};
    EXPECT_TRUE(eddystone.scanner->isScanningAvailable());
    eddystone.start({kEddystoneServiceUUID});
    everything.start({});
    EXPECT_TRUE(eddystone.scanner->isScanning());
    f.runFor(60);
    EXPECT_EQ(eddystone.queue->tasks.size(), 60u);
    eddystone.drain();
    everything.drain();

    std::set<std::string> addresses;
    std::vector<EddystoneTlm> telemetry;
    std::vector<std::pair<Date, std::string>> telemetrySources;
    std::size_t uids = 0, eids = 0, urls = 0;
    for (std::size_t i = 0; i < eddystone.heard.size(); ++i) {
        const auto& ad = eddystone.heard[i];
        if (i > 0) {
            EXPECT_GE(ad.timestamp, eddystone.heard[i - 1].timestamp);
        }
        EXPECT_GE(ad.rssi, -95);
        EXPECT_TRUE(ad.manufacturerData.empty());
        addresses.insert(ad.address);
        const auto frame = parseEddystoneFrame(ad.serviceData.at(kEddystoneServiceUUID));
        ASSERT_TRUE(frame.has_value());
        if (const auto* uid = std::get_if<EddystoneUid>(&*frame)) {
            ++uids;
            EXPECT_EQ(uid->txPower, -20);
            EXPECT_EQ(uid->identifierHex(), "0102030405060708090a0b0c0d0e0f10");
        } else if (const auto* eid = std::get_if<EddystoneEid>(&*frame)) {
            ++eids;
            EXPECT_EQ(eid->identifierHex(), "1122334455667788");
        } else if (const auto* url = std::get_if<EddystoneUrl>(&*frame)) {
            ++urls;
            EXPECT_EQ(url->url, "https://example.com/cafe");
        } else {
            telemetry.push_back(std::get<EddystoneTlm>(*frame));
            telemetrySources.emplace_back(ad.timestamp, ad.address);
        }
    }
    // Two beacons at two advertisements a second; the far one never.
    EXPECT_EQ(addresses.size(), 2u);
    EXPECT_GT(eddystone.heard.size(), 220u);
    EXPECT_LE(eddystone.heard.size(), 240u);
    // The identity most often; telemetry from both, the URL from the one that has it.
    EXPECT_GT(uids, 4 * urls);
    EXPECT_GT(eids, 3 * telemetry.size() / 2);
    EXPECT_GE(urls, 4u);
    EXPECT_GE(telemetry.size(), 16u);
    for (std::size_t i = 0; i < telemetry.size(); ++i) {
        const auto& tlm = telemetry[i];
        EXPECT_EQ(tlm.version, 0);
        ASSERT_TRUE(tlm.batteryMillivolts && tlm.temperatureCelsius);
        EXPECT_GE(*tlm.batteryMillivolts, 2000);
        EXPECT_LE(*tlm.batteryMillivolts, 3150);
        EXPECT_GE(*tlm.temperatureCelsius, 15.0);
        EXPECT_LE(*tlm.temperatureCelsius, 27.0);
        EXPECT_GT(tlm.secondsSincePowerOn, 86400.0);
        // The beacon has sent every interval since power-on, frames of all kinds counted.
        EXPECT_NEAR(tlm.advertisementCount, tlm.secondsSincePowerOn / 0.5, 2.0);
        for (std::size_t j = 0; j < i; ++j) {
            if (telemetrySources[j].second != telemetrySources[i].second) continue;
            // The same beacon: its uptime moves with the clock, and its count with it.
            EXPECT_NEAR(tlm.secondsSincePowerOn - telemetry[j].secondsSincePowerOn,
                        telemetrySources[i].first.timeIntervalSince(telemetrySources[j].first), 0.11);
            EXPECT_GT(tlm.advertisementCount, telemetry[j].advertisementCount);
        }
    }

    // The unfiltered scan hears the iBeacon too, with the same Eddystone advertisements.
    const auto iBeacons = iBeaconsIn(everything.heard);
    EXPECT_GT(iBeacons.size(), 55u);
    EXPECT_EQ(everything.heard.size(), eddystone.heard.size() + iBeacons.size());

    // Stopping drops what is still queued, and nothing more comes.
    f.runFor(1);
    ASSERT_EQ(eddystone.queue->tasks.size(), 1u);
    eddystone.scanner->stopScanning();
    EXPECT_FALSE(eddystone.scanner->isScanning());
    const auto before = eddystone.heard.size();
    f.runFor(5);
    eddystone.drain();
    EXPECT_EQ(eddystone.heard.size(), before);
    EXPECT_EQ(everything.queue->tasks.size(), 6u);
}

TEST(SimulatedBeacons, TheRadioListensOnlyWhileSomeoneScansRangesOrMonitors) {
    const auto path = PathBuilder().stay(3600).build();
    auto clock = std::make_shared<SettableDateSource>(path->start());
    auto loop = std::make_shared<VirtualRunLoop>(clock);
    auto meter = std::make_shared<EnergyMeter>(clock);
    const DeviceContext context{path, loop, meter, std::make_shared<DeviceLog>(), 3};
    auto radio = SimulatedBluetoothRadio::create(context);
    radio->placeBeacons({iBeacon(kShopUuid, 1, 2, kHome)});
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
    const DeviceContext otherSeed{path, loop, meter, std::make_shared<DeviceLog>(), 4};
    auto other = SimulatedBluetoothRadio::create(otherSeed);
    other->placeBeacons({iBeacon(kOtherUuid, 1, 2, kHome), iBeacon(kShopUuid, 1, 2, kHome)});
    EXPECT_EQ(other->address(1), radio->address(0));
    EXPECT_NE(other->address(0), radio->address(0));
    EXPECT_EQ(other->advertisement(1, 7).timestamp, radio->advertisement(0, 7).timestamp);
    EXPECT_EQ(other->advertisement(1, 8).timestamp.timeIntervalSince(radio->advertisement(0, 7).timestamp),
              ScenarioBeacon::defaultIBeaconInterval);
}

TEST(SimulatedBeacons, BeaconRegionsBelongToTheAppAndOutliveItsProcesses) {
    // Out of range for ten minutes, then past the beacon.
    const auto line = destination(kHome, 0.0, 5.0);
    DeviceFixture f(PathBuilder(destination(line, 270.0, 600.0))
                        .stay(600)
                        .to(destination(line, 90.0, 400.0), 1000.0 / kWalkSpeed)
                        .stay(300)
                        .build());
    f.device.placeBeacons({iBeacon(kShopUuid, 1, 2, kHome)});
    auto first = beaconClient(f);
    first.manager->startMonitoringBeaconRegion(beaconRegion("shop", constraint(kShopUuid)));
    first.manager->startRangingBeacons(constraint(kShopUuid));
    f.runFor(100);

    // A relaunch: the process's managers go, and their ranging with them.
    const auto oldDelegate = first.delegate;
    const auto roundsBefore = oldDelegate->rounds.size();
    EXPECT_EQ(roundsBefore, 100u);
    first = {};
    f.relaunch();
    auto relaunched = beaconClient(f);
    EXPECT_TRUE(relaunched.manager->isRangingAvailable());
    EXPECT_EQ(relaunched.manager->monitoredBeaconRegions(),
              (std::vector{beaconRegion("shop", constraint(kShopUuid))}));
    EXPECT_EQ(f.device.monitoredBeaconRegions(), relaunched.manager->monitoredBeaconRegions());
    EXPECT_TRUE(relaunched.manager->rangedBeaconConstraints().empty());

    f.runFor(600 + 1000.0 / kWalkSpeed + 300 - 100);
    EXPECT_EQ(relaunched.delegate->crossingNames(), (std::vector<std::string>{"enter shop", "exit shop"}));
    EXPECT_TRUE(relaunched.delegate->rounds.empty());
    EXPECT_TRUE(oldDelegate->crossings.empty());
    EXPECT_EQ(oldDelegate->rounds.size(), roundsBefore);
    EXPECT_NEAR(f.device.energy().rangingSeconds, 100.0, 1e-6);

    // A region with the same identifier replaces it; stopping removes it.
    auto replaced = beaconRegion("shop", constraint(kShopUuid, 7));
    replaced.notifyOnEntry = false;
    relaunched.manager->startMonitoringBeaconRegion(replaced);
    EXPECT_EQ(relaunched.manager->monitoredBeaconRegions(), (std::vector{replaced}));
    relaunched.manager->stopMonitoringBeaconRegion(replaced);
    EXPECT_TRUE(f.device.monitoredBeaconRegions().empty());
}

TEST(SimulatedBeacons, RegionsNeedAlwaysAndRangingNeedsSomePermission) {
    DeviceFixture f(walkPastHome());
    f.device.placeBeacons({iBeacon(kShopUuid, 1, 2, kHome)});
    f.device.setAuthorization(AuthorizationStatus::authorizedWhenInUse);
    auto client = beaconClient(f);
    client.manager->startMonitoringBeaconRegion(beaconRegion("shop", constraint(kShopUuid)));
    client.manager->startRangingBeacons(constraint(kShopUuid));
    f.runFor(kClosestApproach);
    // "When in use" ranges but watches no region.
    EXPECT_TRUE(client.delegate->crossings.empty());
    EXPECT_FALSE(client.delegate->rounds.empty());
    EXPECT_FALSE(client.delegate->rounds.back().beacons.empty());

    // Without location services nothing is ranged; back at "always" the region is entered
    // as soon as the beacon is heard again.
    f.device.setLocationServicesEnabled(false);
    const auto rounds = client.delegate->rounds.size();
    f.runFor(10);
    EXPECT_EQ(client.delegate->rounds.size(), rounds);
    f.device.setLocationServicesEnabled(true);
    f.device.setAuthorization(AuthorizationStatus::authorizedAlways);
    const Date back = f.device.now();
    f.runFor(10);
    EXPECT_EQ(client.delegate->rounds.size(), rounds + 10);
    ASSERT_EQ(client.delegate->crossingNames(), (std::vector<std::string>{"enter shop"}));
    EXPECT_LE(client.delegate->crossings[0].time.timeIntervalSince(back), 6.0);

    // Losing "always" while inside reports nothing, though the device walks away.
    f.device.setAuthorization(AuthorizationStatus::denied);
    f.runFor(kWalkSeconds + 300 - kClosestApproach - 20);
    EXPECT_EQ(client.delegate->crossings.size(), 1u);
}

TEST(SimulatedBeacons, TheSameSeedGivesTheSameBeaconDay) {
    const auto run = [](std::uint64_t seed) {
        SimulatedDeviceOptions options;
        options.seed = seed;
        DeviceFixture f(walkPastHome(), options);
        f.device.placeBeacons({iBeacon(kShopUuid, 1, 2, kHome), eddystoneUid(kHome, "https://example.com/cafe")});
        ScanRecord scan{f.platform.makeBluetoothScanner()};
        scan.start({kEddystoneServiceUUID});
        auto client = beaconClient(f);
        client.manager->startMonitoringBeaconRegion(beaconRegion("shop", constraint(kShopUuid)));
        client.manager->startRangingBeacons(constraint(kShopUuid));
        f.runFor(kWalkSeconds + 300);
        scan.drain();
        std::vector<std::pair<double, long>> heard;
        for (const auto& ad : scan.heard) heard.emplace_back(ad.timestamp.secondsSince1970, ad.rssi);
        return std::make_tuple(f.device.log(), client.delegate->crossings, client.delegate->rounds, heard);
    };
    const auto first = run(7);
    EXPECT_FALSE(std::get<0>(first).rangingRounds.empty());
    EXPECT_FALSE(std::get<3>(first).empty());
    EXPECT_TRUE(first == run(7));
    const auto other = run(8);
    EXPECT_NE(std::get<0>(other).rangingRounds, std::get<0>(first).rangingRounds);
    EXPECT_NE(std::get<3>(other), std::get<3>(first));
}

}  // namespace
}  // namespace rovalis::sim
