#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/sim/SimTestSupport.h"

namespace rovalis::sim {
namespace {

using namespace test;
using Crossings = std::vector<std::string>;

CircularRegion region(std::string identifier, LocationCoordinate2D center, double radius, bool entry = true,
                      bool exit = true) {
    return CircularRegion{std::move(identifier), center, radius, entry, exit};
}

TEST(SimulatedRegions, CrossingsAskedForReachEveryManagerOnceBeyondTheMarginForTheDelay) {
    // Home for two minutes, then east at 1.5 m/s for 600 m.
    const auto away = destination(kHome, 90.0, 600.0);
    DeviceFixture f(PathBuilder().stay(120).to(away, 400).stay(3600).build());
    auto first = f.locationClient();
    auto second = f.locationClient();
    first.manager->startMonitoring(region("home", kHome, 100.0));
    first.manager->startMonitoring(region("quiet", kHome, 100.0, false, false));
    first.manager->startMonitoring(region("arrival", away, 150.0));
    first.manager->startMonitoring(region("exitOnly", away, 150.0, false, true));
    f.runFor(3600);

    ASSERT_EQ(first.delegate->crossings, (Crossings{"exit home", "enter arrival"}));
    EXPECT_EQ(second.delegate->crossings, first.delegate->crossings) << "although only the first started the regions";
    // The margin of a 100 m region is 20 m: the device is 120 m out 200 s after the start; then
    // 20 - 60 s of delay, on checks 5 s apart.
    const auto& events = f.device.log().regionEvents;
    ASSERT_EQ(events.size(), 2u);
    const double at = events[0].time.timeIntervalSince(f.at(0));
    EXPECT_TRUE(at >= 200.0 + 20.0 && at <= 200.0 + 5.0 + 60.0 + 5.0) << at;
    EXPECT_EQ(events[0].recipients, 2u);
    EXPECT_EQ(f.device.energy().regionEvents, 2u) << "only the crossings reported wake the app";
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
}

TEST(SimulatedRegions, RegionsAndSignificantChangeMonitoringBelongToTheAppAndOutliveItsProcesses) {
    DeviceFixture f(PathBuilder().stay(600).move(0.0, 10.0, 1800).stay(3600).build());
    auto first = f.locationClient();
    auto other = f.locationClient();
    first.manager->startMonitoring(region("home", kHome, 100.0));
    first.manager->startMonitoringSignificantLocationChanges();
    EXPECT_EQ(other.manager->monitoredRegions(), first.manager->monitoredRegions());
    f.runFor(100);

    // A relaunch: the process's managers go, a new process makes its own.
    const auto oldDelegate = first.delegate;
    first = other = {};
    f.relaunch();
    auto relaunched = f.locationClient();
    ASSERT_EQ(relaunched.manager->monitoredRegions(), (std::vector{region("home", kHome, 100.0)}));
    relaunched.manager->startMonitoring(region("home", kHome, 150.0));
    ASSERT_EQ(relaunched.manager->monitoredRegions(), (std::vector{region("home", kHome, 150.0)}))
        << "the same identifier replaces the region";
    const auto& spans = f.device.log().regionSpans;
    ASSERT_EQ(spans.size(), 2u);
    EXPECT_EQ(spans[0].to, f.at(100));

    f.runFor(1200);
    EXPECT_EQ(relaunched.delegate->crossings, Crossings{"exit home"});
    EXPECT_TRUE(oldDelegate->crossings.empty());
    EXPECT_EQ(f.device.log().significantChanges.size(), 1u) << "a change nobody monitors for stays pending";
    relaunched.manager->startMonitoringSignificantLocationChanges();
    f.runFor(5);
    EXPECT_EQ(relaunched.delegate->fixes.size(), 1u);

    relaunched.manager->stopMonitoringSignificantLocationChanges();
    relaunched.manager->stopMonitoring(region("home", kHome, 150.0));
    EXPECT_TRUE(f.device.monitoredRegions().empty());
    EXPECT_EQ(spans[1].to, f.at(1305));
    f.runFor(3600);
    EXPECT_EQ(relaunched.delegate->fixes.size(), 1u);
    EXPECT_EQ(f.device.energy().significantChangeFixes, 2u);
}

TEST(SimulatedRegions, RegionsAndSignificantChangesNeedAlwaysAndRegionStatesAreRetakenSilently) {
    DeviceFixture f(PathBuilder().stay(300).move(0.0, 1.5, 400).stay(1200).move(180.0, 1.5, 400).stay(1200).build());
    auto client = f.locationClient();
    client.manager->startMonitoring(region("home", kHome, 100.0));
    f.device.setAuthorization(AuthorizationStatus::authorizedWhenInUse);
    f.device.setAppInForeground(true);
    client.manager->startMonitoringSignificantLocationChanges();
    f.runFor(1200);  // left home meanwhile
    EXPECT_TRUE(client.delegate->crossings.empty());
    EXPECT_TRUE(client.delegate->fixes.empty()) << "no significant change without always";

    f.device.setAuthorization(AuthorizationStatus::authorizedAlways);
    f.runFor(600);
    EXPECT_TRUE(client.delegate->crossings.empty());
    f.runFor(1000);  // back home
    EXPECT_EQ(client.delegate->crossings, Crossings{"enter home"});
}

TEST(SimulatedSignificantChanges, FirstFixAtOnceThenEveryFiveHundredMetresAtMostEveryFiveMinutes) {
    // Home for ten minutes, then north at 10 m/s for half an hour.
    DeviceFixture f(PathBuilder().stay(600).move(0.0, 10.0, 1800).stay(3600).build());
    auto client = f.locationClient();
    client.manager->startMonitoringSignificantLocationChanges();
    f.runFor(6000);

    const auto& fixes = client.delegate->fixes;
    const auto& path = f.device.path();
    ASSERT_GE(fixes.size(), 6u);
    const double first = fixes[0].received.timeIntervalSince(f.at(0));
    EXPECT_TRUE(first >= 0.5 && first <= 3.0) << first;
    EXPECT_GT(fixes[1].received, f.at(600)) << "nothing while the device stays";
    for (std::size_t i = 0; i < fixes.size(); ++i) {
        const auto& [received, fix] = fixes[i];
        EXPECT_EQ(fix.timestamp, received);
        EXPECT_TRUE(fix.horizontalAccuracy >= 100.0 && fix.horizontalAccuracy <= 1500.0) << fix.horizontalAccuracy;
        EXPECT_LT(distanceBetween(fix.coordinate, path.at(received).coordinate), 5.0 * fix.horizontalAccuracy);
        if (i == 0) continue;
        EXPECT_GE(received.timeIntervalSince(fixes[i - 1].received), 300.0);
        EXPECT_GE(distanceBetween(path.at(received).coordinate, path.at(fixes[i - 1].received).coordinate), 450.0);
    }
    // 18 km in 30 minutes give one report about every five minutes, and none after the drive.
    EXPECT_LE(fixes.size(), 9u);
    EXPECT_LT(fixes.back().received, f.at(2400 + 330));
    EXPECT_EQ(f.device.energy().significantChangeFixes, fixes.size());
}

}  // namespace
}  // namespace rovalis::sim
