#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/sim/SimTestSupport.h"
#include "platform/sim/SimulatedLocationService.h"

namespace rovalis::sim {
namespace {

using test::destination;
using test::DeviceFixture;
using test::kHome;
using test::PathBuilder;

CircularRegion region(std::string identifier, LocationCoordinate2D center, double radius, bool entry = true,
                      bool exit = true) {
    return CircularRegion{std::move(identifier), center, radius, entry, exit};
}

std::vector<std::string> describe(const std::vector<test::RecordingDelegate::Crossing>& crossings) {
    std::vector<std::string> result;
    for (const auto& crossing : crossings) result.push_back((crossing.entered ? "enter " : "exit ") + crossing.identifier);
    return result;
}

TEST(SimulatedRegions, ExitFiresOnceAfterTheDeviceHasStayedBeyondTheMargin) {
    // Home for two minutes, then east at 1.5 m/s for 600 m.
    DeviceFixture f(PathBuilder().stay(120).move(90.0, 1.5, 400).stay(3600).build());
    auto first = f.locationClient();
    auto second = f.locationClient();
    first.manager->startMonitoring(region("home", kHome, 100.0));
    f.runFor(3600);

    // The margin of a 100 m region is 20 m: the device is 120 m out 200 s after the start.
    EXPECT_EQ(SimulatedLocationService::regionMargin(100.0), 20.0);
    ASSERT_EQ(describe(first.delegate->crossings), (std::vector<std::string>{"exit home"}));
    const double at = first.delegate->crossings[0].time.timeIntervalSince(f.at(0));
    EXPECT_GE(at, 200.0 + 20.0);
    EXPECT_LE(at, 200.0 + 5.0 + 60.0 + 5.0);
    // Every live manager's delegate hears it, although only one started the region.
    EXPECT_EQ(describe(second.delegate->crossings), describe(first.delegate->crossings));

    const auto& events = f.device.log().regionEvents;
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, RegionEventKind::exit);
    EXPECT_EQ(events[0].recipients, 2u);
    EXPECT_EQ(f.device.energy().regionEvents, 1u);
}

TEST(SimulatedRegions, LoiteringOnTheBoundaryCrossesNothing) {
    // Back and forth between 90 m and 115 m east of home for about half an hour.
    PathBuilder builder(destination(kHome, 90.0, 90.0));
    for (int leg = 0; leg < 40; ++leg) builder.to(destination(kHome, 90.0, leg % 2 == 0 ? 115.0 : 90.0), 50.0);
    DeviceFixture f(builder.build());
    auto client = f.locationClient();
    // Inside this one, 85 - 110 m from the centre of the other.
    client.manager->startMonitoring(region("inner", kHome, 100.0));
    client.manager->startMonitoring(region("outer", destination(kHome, 90.0, 200.0), 100.0));
    f.runFor(2000);
    EXPECT_TRUE(client.delegate->crossings.empty());
    EXPECT_TRUE(f.device.log().regionEvents.empty());
}

TEST(SimulatedRegions, OnlyTheCrossingsARegionAsksForAreReported) {
    const auto outerCentre = destination(kHome, 90.0, 400.0);
    DeviceFixture f(PathBuilder().stay(60).to(outerCentre, 270).stay(1200).to(kHome, 270).stay(1200).build());
    auto client = f.locationClient();
    // As laid out around a stay: the centre tells of exits only, the ring of both.
    client.manager->startMonitoring(region("stay_00", kHome, 100.0, false, true));
    client.manager->startMonitoring(region("stay_0", outerCentre, 150.0));
    client.manager->startMonitoring(region("quiet", kHome, 100.0, false, false));
    f.runFor(3000);
    EXPECT_EQ(describe(client.delegate->crossings),
              (std::vector<std::string>{"exit stay_00", "enter stay_0", "exit stay_0"}));
    // Only the reported crossings wake the app.
    EXPECT_EQ(f.device.energy().regionEvents, 3u);
}

TEST(SimulatedRegions, RegionsBelongToTheAppAndOutliveItsProcesses) {
    DeviceFixture f(PathBuilder().stay(600).move(0.0, 1.5, 400).stay(3600).build());
    auto first = f.locationClient();
    auto other = f.locationClient();
    first.manager->startMonitoring(region("home", kHome, 100.0));
    EXPECT_EQ(other.manager->monitoredRegions(), first.manager->monitoredRegions());
    f.runFor(100);

    // A relaunch: the process's managers go, a new process makes its own.
    const auto oldDelegate = first.delegate;
    first = {};
    other = {};
    f.relaunch();
    auto relaunched = f.locationClient();
    ASSERT_EQ(relaunched.manager->monitoredRegions(), (std::vector{region("home", kHome, 100.0)}));

    // The same identifier replaces the region.
    relaunched.manager->startMonitoring(region("home", kHome, 150.0));
    ASSERT_EQ(relaunched.manager->monitoredRegions(), (std::vector{region("home", kHome, 150.0)}));
    const auto& spans = f.device.log().regionSpans;
    ASSERT_EQ(spans.size(), 2u);
    EXPECT_EQ(spans[0].to, f.at(100));
    EXPECT_EQ(spans[1].from, f.at(100));
    EXPECT_FALSE(spans[1].to.has_value());

    f.runFor(1200);
    EXPECT_EQ(describe(relaunched.delegate->crossings), (std::vector<std::string>{"exit home"}));
    EXPECT_TRUE(oldDelegate->crossings.empty());

    relaunched.manager->stopMonitoring(region("home", kHome, 150.0));
    EXPECT_TRUE(f.device.monitoredRegions().empty());
    EXPECT_EQ(f.device.log().regionSpans[1].to, f.at(1300));
}

TEST(SimulatedRegions, RegionsNeedAlwaysAndTakeTheirStatesAgainSilentlyWhenItReturns) {
    DeviceFixture f(PathBuilder().stay(300).move(0.0, 1.5, 400).stay(1200).move(180.0, 1.5, 400).stay(1200).build());
    auto client = f.locationClient();
    client.manager->startMonitoring(region("home", kHome, 100.0));
    f.device.setAuthorization(AuthorizationStatus::authorizedWhenInUse);
    f.runFor(1200);  // left home meanwhile
    EXPECT_TRUE(client.delegate->crossings.empty());

    f.device.setAuthorization(AuthorizationStatus::authorizedAlways);
    f.runFor(600);
    EXPECT_TRUE(client.delegate->crossings.empty());
    f.runFor(1000);  // back home
    EXPECT_EQ(describe(client.delegate->crossings), (std::vector<std::string>{"enter home"}));
}

// ---- significant changes ----

TEST(SimulatedSignificantChanges, FirstFixAtOnceThenEveryFiveHundredMetresAtMostEveryFiveMinutes) {
    // Home for ten minutes, then north at 10 m/s for half an hour.
    DeviceFixture f(PathBuilder().stay(600).move(0.0, 10.0, 1800).stay(3600).build());
    auto client = f.locationClient();
    client.manager->startMonitoringSignificantLocationChanges();
    f.runFor(6000);

    const auto& fixes = client.delegate->fixes;
    ASSERT_GE(fixes.size(), 6u);
    const double first = fixes[0].received.timeIntervalSince(f.at(0));
    EXPECT_GE(first, 0.5);
    EXPECT_LE(first, 3.0);
    for (const auto& [received, fix] : fixes) {
        EXPECT_EQ(fix.timestamp, received);
        EXPECT_GE(fix.horizontalAccuracy, 100.0);
        EXPECT_LE(fix.horizontalAccuracy, 1500.0);
        EXPECT_LT(distanceBetween(fix.coordinate, f.device.path().at(received).coordinate),
                  5.0 * fix.horizontalAccuracy);
    }
    // Nothing while the device stays; then at least five minutes and 450 m apart.
    EXPECT_GT(fixes[1].received, f.at(600));
    for (std::size_t i = 1; i < fixes.size(); ++i) {
        EXPECT_GE(fixes[i].received.timeIntervalSince(fixes[i - 1].received), 300.0);
        const auto& path = f.device.path();
        EXPECT_GE(distanceBetween(path.at(fixes[i].received).coordinate, path.at(fixes[i - 1].received).coordinate),
                  450.0);
    }
    // 18 km in 30 minutes give one report about every five minutes.
    EXPECT_LE(fixes.size(), 9u);
    EXPECT_LT(fixes.back().received, f.at(2400 + 330));
    EXPECT_EQ(f.device.energy().significantChangeFixes, fixes.size());
    EXPECT_EQ(f.device.log().significantChanges.size(), fixes.size());
}

TEST(SimulatedSignificantChanges, MonitoringOutlivesTheProcessUntilAManagerStopsIt) {
    DeviceFixture f(PathBuilder().stay(600).move(0.0, 10.0, 1800).stay(3600).build());
    auto client = f.locationClient();
    client.manager->startMonitoringSignificantLocationChanges();
    f.runFor(60);
    client = {};
    f.relaunch();
    f.runFor(1200);
    // Nobody heard the changes meanwhile; the service kept running.
    ASSERT_EQ(f.device.log().significantChanges.size(), 1u);

    auto relaunched = f.locationClient();
    relaunched.manager->startMonitoringSignificantLocationChanges();
    f.runFor(5);
    ASSERT_EQ(relaunched.delegate->fixes.size(), 1u);
    relaunched.manager->stopMonitoringSignificantLocationChanges();
    f.runFor(3600);
    EXPECT_EQ(relaunched.delegate->fixes.size(), 1u);
    EXPECT_EQ(f.device.energy().significantChangeFixes, 2u);
}

TEST(SimulatedSignificantChanges, NeedAlways) {
    SimulatedDeviceOptions options;
    options.authorization = AuthorizationStatus::authorizedWhenInUse;
    options.appInForeground = true;
    DeviceFixture f(PathBuilder().move(0.0, 10.0, 1800).build(), options);
    auto client = f.locationClient();
    client.manager->startMonitoringSignificantLocationChanges();
    f.runFor(1800);
    EXPECT_TRUE(client.delegate->fixes.empty());
}

}  // namespace
}  // namespace rovalis::sim
