#include "platform/linux/SoftwareLocationMonitoring.h"

#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace rovalis {
namespace {

const LocationCoordinate2D home{52.52, 13.405};

// A fix `metres` north of `from` with the given accuracy.
Location northOf(LocationCoordinate2D from, double metres, double accuracy) {
    Location fix;
    GeographicLib::Geodesic::WGS84().Direct(from.latitude, from.longitude, 0.0, metres, fix.coordinate.latitude,
                                            fix.coordinate.longitude);
    fix.horizontalAccuracy = accuracy;
    return fix;
}

CircularRegion regionAt(const std::string& identifier, LocationCoordinate2D center, double radius,
                        bool notifyOnEntry = true, bool notifyOnExit = true) {
    return CircularRegion{identifier, center, radius, notifyOnEntry, notifyOnExit};
}

std::vector<std::string> crossingsOf(RegionMonitor& monitor, const Location& fix) {
    std::vector<std::string> result;
    for (const auto& crossing : monitor.process(fix)) {
        result.push_back((crossing.entered ? "enter " : "exit ") + crossing.region.identifier);
    }
    return result;
}

TEST(SoftwareRegionMonitoring, AccuracyDecidesWhetherASideIsKnown) {
    const CircularRegion region = regionAt("r", home, 100.0);
    const struct {
        double distance, accuracy;
        RegionSide side;
    } rows[] = {
        {0.0, 0.0, RegionSide::inside},      {50.0, 10.0, RegionSide::inside},
        {94.9, 5.0, RegionSide::inside},     {95.1, 5.0, RegionSide::unknown},
        {99.0, 0.0, RegionSide::inside},     {101.0, 0.0, RegionSide::outside},
        {150.0, 49.0, RegionSide::outside},  {150.0, 51.0, RegionSide::unknown},
        {0.0, 200.0, RegionSide::unknown},   {5000.0, 10.0, RegionSide::outside},
        // A negative accuracy (an invalid fix) is taken at face value of its position.
        {50.0, -1.0, RegionSide::inside},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(regionSide(region, northOf(home, row.distance, row.accuracy)), row.side)
            << row.distance << " m, accuracy " << row.accuracy;
    }
}

TEST(SoftwareRegionMonitoring, CrossingsFollowHysteresisAndTheNotifySettings) {
    const LocationCoordinate2D away = northOf(home, 1000.0, 0.0).coordinate;
    RegionMonitor monitor;
    monitor.startMonitoring(regionAt("home", home, 100.0));
    monitor.startMonitoring(regionAt("away", away, 100.0, /*notifyOnEntry=*/false));

    // The first side learnt is the initial state: nothing to report.
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 0.0, 10.0)).empty());
    // On the border within the accuracy: still inside.
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 95.0, 20.0)).empty());
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 130.0, 40.0)).empty());
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 150.0, 20.0)), (std::vector<std::string>{"exit home"}));
    // Once outside, a vague fix near the centre does not bring it back.
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 150.0, 20.0)).empty());
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 20.0, 90.0)).empty());
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 20.0, 10.0)), (std::vector<std::string>{"enter home"}));
    // Into the other region: its entry is not notified, the exit from home is.
    EXPECT_EQ(crossingsOf(monitor, northOf(away, 0.0, 5.0)), (std::vector<std::string>{"exit home"}));
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 0.0, 5.0)), (std::vector<std::string>{"enter home", "exit away"}));

    // Adding a region again under its identifier starts it afresh: the next side is silent.
    monitor.startMonitoring(regionAt("home", home, 50.0));
    EXPECT_EQ(monitor.regions().size(), 2u);
    EXPECT_EQ(monitor.regions().front().radius, 50.0);
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 300.0, 5.0)).empty());
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 0.0, 5.0)), (std::vector<std::string>{"enter home"}));

    monitor.stopMonitoring("away");
    monitor.stopMonitoring("unknown");
    ASSERT_EQ(monitor.regions().size(), 1u);
    EXPECT_EQ(monitor.regions().front().identifier, "home");
    monitor.stopMonitoring("home");
    EXPECT_TRUE(monitor.empty());
    EXPECT_TRUE(monitor.process(northOf(away, 0.0, 5.0)).empty());
}

TEST(SoftwareRegionMonitoring, OnlyRegionsOnTheGlobeWithAPositiveRadiusAreMonitorable) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_TRUE(isMonitorableRegion(regionAt("r", home, 100.0)));
    EXPECT_TRUE(isMonitorableRegion(regionAt("r", {-90.0, 180.0}, 0.5)));
    for (const CircularRegion& region :
         {regionAt("r", home, 0.0), regionAt("r", home, -5.0), regionAt("r", home, nan), regionAt("r", home, inf),
          regionAt("r", {90.5, 0.0}, 10.0), regionAt("r", {0.0, -180.5}, 10.0), regionAt("r", {nan, 0.0}, 10.0)}) {
        EXPECT_FALSE(isMonitorableRegion(region)) << region.center.latitude << "," << region.center.longitude << " r "
                                                  << region.radius;
    }
}

TEST(SoftwareSignificantChanges, FirstFixThenFarEnoughAndLateEnough) {
    SignificantChangeFilter filter;
    const Date start{1700000000.0};
    const Location first = northOf(home, 0.0, 50.0);
    EXPECT_TRUE(filter.accepts(first, start));
    filter.record(first, start);

    const Location far = northOf(home, 600.0, 50.0);
    const Location near = northOf(home, 400.0, 50.0);
    EXPECT_FALSE(filter.accepts(far, start.addingSeconds(240.0)));   // too soon
    EXPECT_FALSE(filter.accepts(near, start.addingSeconds(3600.0)));  // too close
    EXPECT_TRUE(filter.accepts(far, start.addingSeconds(300.0)));
    filter.record(far, start.addingSeconds(300.0));

    // Measured from the last one reported, not from the first.
    EXPECT_FALSE(filter.accepts(northOf(home, 900.0, 50.0), start.addingSeconds(900.0)));
    EXPECT_TRUE(filter.accepts(northOf(home, 1200.0, 50.0), start.addingSeconds(900.0)));

    filter.reset();
    EXPECT_TRUE(filter.accepts(far, start.addingSeconds(301.0)));
}

TEST(SoftwareUpdatePacing, FinerAccuracyMeansMoreFrequentFixes) {
    for (const double accuracy : {kCLLocationAccuracyBestForNavigation, kCLLocationAccuracyBest, 5.0,
                                  kCLLocationAccuracyNearestTenMeters}) {
        EXPECT_EQ(minimumUpdateInterval(accuracy), 0.0) << accuracy;
    }
    for (const double accuracy : {10.5, kCLLocationAccuracyHundredMeters, 999.0}) {
        EXPECT_EQ(minimumUpdateInterval(accuracy), 1.0) << accuracy;
    }
    for (const double accuracy : {kCLLocationAccuracyKilometer, kCLLocationAccuracyThreeKilometers, 1.0e9}) {
        EXPECT_EQ(minimumUpdateInterval(accuracy), 10.0) << accuracy;
    }
}

}  // namespace
}  // namespace rovalis
