#include "platform/linux/SoftwareLocationMonitoring.h"

#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
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

std::vector<std::string> crossingsOf(RegionMonitor& monitor, const Location& fix) {
    std::vector<std::string> result;
    for (const auto& crossing : monitor.process(fix)) {
        result.push_back((crossing.entered ? "enter " : "exit ") + crossing.region.identifier);
    }
    return result;
}

TEST(SoftwareRegionMonitoring, AccuracyDecidesWhetherASideIsKnown) {
    const CircularRegion region{"r", home, 100.0, true, true};
    EXPECT_EQ(regionSide(region, northOf(home, 94.9, 5.0)), RegionSide::inside);
    EXPECT_EQ(regionSide(region, northOf(home, 95.1, 5.0)), RegionSide::unknown);
    EXPECT_EQ(regionSide(region, northOf(home, 104.9, 5.0)), RegionSide::unknown);
    EXPECT_EQ(regionSide(region, northOf(home, 105.1, 5.0)), RegionSide::outside);
    EXPECT_EQ(regionSide(region, northOf(home, 99.5, -1.0)), RegionSide::inside) << "an invalid accuracy counts as none";
}

TEST(SoftwareRegionMonitoring, CrossingsFollowHysteresisAndTheNotifySettings) {
    const LocationCoordinate2D away = northOf(home, 1000.0, 0.0).coordinate;
    RegionMonitor monitor;
    monitor.startMonitoring(CircularRegion{"home", home, 100.0, true, true});
    monitor.startMonitoring(CircularRegion{"away", away, 100.0, /*notifyOnEntry=*/false, true});

    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 0.0, 10.0)).empty()) << "the first side learnt is silent";
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 130.0, 40.0)).empty()) << "a vague fix decides nothing";
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 150.0, 20.0)), (std::vector<std::string>{"exit home"}));
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 150.0, 20.0)).empty()) << "a side is reported once";
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 20.0, 90.0)).empty()) << "a vague fix does not bring it back";
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 20.0, 10.0)), (std::vector<std::string>{"enter home"}));
    // Into the other region: its entry is not notified; back home, its exit is.
    EXPECT_EQ(crossingsOf(monitor, northOf(away, 0.0, 5.0)), (std::vector<std::string>{"exit home"}));
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 0.0, 5.0)), (std::vector<std::string>{"enter home", "exit away"}));

    // Added again under its identifier, a region starts afresh: the next side is silent.
    monitor.startMonitoring(CircularRegion{"home", home, 50.0, true, true});
    EXPECT_EQ(monitor.regions().size(), 2u);
    EXPECT_TRUE(crossingsOf(monitor, northOf(home, 300.0, 5.0)).empty());
    EXPECT_EQ(crossingsOf(monitor, northOf(home, 0.0, 5.0)), (std::vector<std::string>{"enter home"}));
    monitor.stopMonitoring("away");
    monitor.stopMonitoring("home");
    EXPECT_TRUE(monitor.empty());
}

TEST(SoftwareRegionMonitoring, OnlyRegionsOnTheGlobeWithAPositiveRadiusAreMonitorable) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const auto make = [](LocationCoordinate2D center, double radius) {
        return CircularRegion{"r", center, radius, true, true};
    };
    EXPECT_TRUE(isMonitorableRegion(make({-90.0, 180.0}, 0.5)));
    for (const CircularRegion& region :
         {make(home, 0.0), make(home, nan), make({90.5, 0.0}, 10.0), make({0.0, -180.5}, 10.0)}) {
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

    const Location far = northOf(home, 500.5, 50.0);
    EXPECT_FALSE(filter.accepts(far, start.addingSeconds(299.0))) << "too soon";
    EXPECT_FALSE(filter.accepts(northOf(home, 499.0, 50.0), start.addingSeconds(3600.0))) << "too close";
    EXPECT_TRUE(filter.accepts(far, start.addingSeconds(300.0))) << "five minutes is late enough";
    filter.record(far, start.addingSeconds(300.0));
    EXPECT_FALSE(filter.accepts(northOf(home, 900.0, 50.0), start.addingSeconds(900.0)))
        << "measured from the last fix reported, not the first";

    filter.reset();
    EXPECT_TRUE(filter.accepts(far, start.addingSeconds(301.0)));
}

TEST(SoftwareUpdatePacing, FinerAccuracyMeansMoreFrequentFixes) {
    EXPECT_EQ(minimumUpdateInterval(kCLLocationAccuracyBestForNavigation), 0.0);
    EXPECT_EQ(minimumUpdateInterval(kCLLocationAccuracyNearestTenMeters), 0.0);
    EXPECT_EQ(minimumUpdateInterval(10.5), 1.0);
    EXPECT_EQ(minimumUpdateInterval(999.0), 1.0);
    EXPECT_EQ(minimumUpdateInterval(kCLLocationAccuracyKilometer), 10.0);
}

}  // namespace
}  // namespace rovalis
