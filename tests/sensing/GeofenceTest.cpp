#include "sensing/GeofenceTracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <GeographicLib/Geodesic.hpp>

#include "core/PauseManager.h"
#include "sensing/SensingFakes.h"
#include "support/RecordingLocationManager.h"
#include "support/TestSupport.h"
#include "util/SettableDateSource.h"

namespace rovalis {
namespace {

constexpr double start = 1700000000.0;
constexpr double pi = std::numbers::pi;

// Geodesic distance and initial azimuth (degrees, -180..180) on the WGS84 ellipsoid.
std::pair<double, double> between(const LocationCoordinate2D& from, const LocationCoordinate2D& to) {
    double distance = 0.0, azimuth = 0.0, backAzimuth = 0.0;
    GeographicLib::Geodesic::WGS84().Inverse(from.latitude, from.longitude, to.latitude, to.longitude, distance,
                                              azimuth, backAzimuth);
    return {distance, azimuth};
}

TEST(RegionCalculator, TheCentreRegionReportsExitsOnlyAndTheRingTouchesItAtEvenBearings) {
    const RegionCalculator calculator{200.0, 1.0, 4, "Ring"};
    const LocationCoordinate2D center{48.137, 11.575};
    const auto regions = calculator.regions(center);
    ASSERT_EQ(regions.size(), 5u);
    EXPECT_EQ(regions[0], (CircularRegion{"Ring_00", center, 200.0, false, true}));
    const double r = calculator.outerRadius(), d = calculator.outerCenterDistance();
    EXPECT_NEAR(d - r, 200.0, 1e-9) << "touches the centre region";
    EXPECT_NEAR(2.0 * d * std::sin(pi / 4.0), 2.0 * r, 1e-9) << "touches its neighbours";
    for (int i = 0; i < 4; ++i) {
        const CircularRegion& region = regions[static_cast<std::size_t>(i) + 1];
        EXPECT_EQ(region, (CircularRegion{"Ring_" + std::to_string(i), region.center, r, true, true}));
        const auto [distance, azimuth] = between(center, region.center);
        EXPECT_NEAR(std::remainder(azimuth - 90.0 * i, 360.0), 0.0, 0.3) << region.identifier;
        EXPECT_NEAR(distance, d, d * 0.005);
    }

    const RegionCalculator sleep = RegionCalculator::sleepRegions();
    EXPECT_EQ(sleep.regions({0.0, 0.0}).size(), 7u);
    EXPECT_EQ(sleep.radius, 150.0);
    EXPECT_NEAR(sleep.outerRadius(), 180.0, 1e-9);
    EXPECT_NEAR(sleep.outerCenterDistance(), 270.0, 1e-9);
}

TEST(RegionCalculator, TheDestinationIsOnTheSphereAndWrapsAcrossTheAntimeridian) {
    const double d = 5000.0, angle = d / 6371000.0 * 180.0 / pi;
    const auto east = RegionCalculator::destination({0.0, 0.0}, d, 90.0);
    EXPECT_NEAR(east.latitude, 0.0, 1e-12);
    EXPECT_NEAR(east.longitude, angle, 1e-12);

    const auto across = RegionCalculator::destination({-16.5, 179.99}, d, 90.0);
    EXPECT_TRUE(across.longitude >= -180.0 && across.longitude < -179.9) << across.longitude;
    EXPECT_NEAR(between({-16.5, 179.99}, across).first, d, d * 0.005);
    const auto back = RegionCalculator::destination({-16.5, -179.99}, d, 270.0);
    EXPECT_TRUE(back.longitude > 179.9 && back.longitude < 180.0) << back.longitude;
}

TEST(RegionCalculatorDeathTest, ANegativeCountIsAProgrammingError) {
    EXPECT_DEATH(RegionCalculator({150.0, 1.2, -1, "Bad"}).outerRegions({0.0, 0.0}),
                 "Invalid RegionCalculator.count: -1");
}

class GeofenceTrackerTest : public ::testing::Test {
protected:
    GeofenceTrackerTest() { locations->startMonitoring(beaconRegion); }

    std::vector<CircularRegion> sleepRegions() const {
        auto regions = locations->monitoredRegions();
        EXPECT_EQ(regions.at(0), beaconRegion) << "a foreign region is never touched";
        return {regions.begin() + 1, regions.end()};
    }
    static nlohmann::json geofence(const char* type, double at, const char* reason, const CircularRegion& region) {
        return {{"type", type}, {"tracked_at_ms", std::llround(at * 1000.0)}, {"reason", reason},
                {"radius", region.radius}, {"latitude", region.center.latitude},
                {"longitude", region.center.longitude}, {"identifier", region.identifier}};
    }

    test::ConsoleCapture console;  // the trackers' console lines stay out of the test output
    const CircularRegion beaconRegion{"BeaconRegion_A", {52.0, 13.0}, 50.0, true, true};
    const Location stay = test::fixAt(52.52, 13.405, 12.0, Date{start - 30.0});
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{start});
    std::shared_ptr<test::RecordingLocationManager> locations = std::make_shared<test::RecordingLocationManager>();
    std::shared_ptr<test::RecordingWakeUpInitiator> waker = std::make_shared<test::RecordingWakeUpInitiator>();
    std::shared_ptr<test::RecordingLocationUpdateReceiver> updates =
        std::make_shared<test::RecordingLocationUpdateReceiver>();
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<GeofenceTracker> tracker = GeofenceTracker::create(
        clock, std::make_shared<RegionMonitoringReceiver>(clock, waker, repository, updates), repository, locations,
        std::make_shared<GeofenceManagerForwarder>(), waker, RegionCalculator::sleepRegions());
};

TEST_F(GeofenceTrackerTest, SleepRegionsAreLaidAroundTheCentreAndRecordedAndTheirCrossingsAskForAWakeUp) {
    locations->deliverEnterRegion(beaconRegion);
    locations->deliverExitRegion(beaconRegion);
    EXPECT_TRUE(waker->requests.empty() && test::storedEvents(*repository).empty())
        << "crossings of other regions are left alone";

    tracker->slowDown(stay);
    const auto regions = RegionCalculator::sleepRegions().regions(stay.coordinate);
    EXPECT_EQ(sleepRegions(), regions);
    const Location last = test::fixAt(52.53, 13.41, 20.0, Date{start + 5.0});
    updates->last = last;
    clock->advance(600.0);
    locations->deliverExitRegion(regions[0]);
    updates->last.reset();
    locations->deliverEnterRegion(regions[3]);

    ASSERT_EQ(waker->requests.size(), 2u);
    EXPECT_EQ(waker->requests[0], std::make_pair(std::string("exited geofence RVLSleepRegion_00"),
                                                 std::optional<Location>(last)));
    EXPECT_EQ(preWakeUpReasonCode(waker->requests[0].first), 0);
    EXPECT_EQ(waker->requests[1].first, "entered surrounding geofence RVLSleepRegion_2");
    EXPECT_EQ(preWakeUpReasonCode(waker->requests[1].first), 1);
    EXPECT_EQ(waker->requests[1].second, std::nullopt);
    const auto stored = test::storedEvents(*repository);
    ASSERT_EQ(stored.size(), 9u);
    for (std::size_t i = 0; i < regions.size(); ++i) {
        EXPECT_EQ(stored[i], geofence("GeofenceCreate", start, i == 0 ? "EXIT" : "ENTER", regions[i]));
    }
    EXPECT_EQ(stored[7], geofence("GeofenceTrigger", start + 600.0, "EXIT", regions[0]));
    EXPECT_EQ(stored[8], geofence("GeofenceTrigger", start + 600.0, "ENTER", regions[3]));

    tracker->slowDown(test::fixAt(48.137, 11.575, 8.0, Date{start}));
    EXPECT_EQ(sleepRegions(), RegionCalculator::sleepRegions().regions({48.137, 11.575})) << "a new sleep replaces";
    tracker->slowDown(std::nullopt);
    EXPECT_TRUE(sleepRegions().empty()) << "a sleep without a centre lays none";
}

TEST_F(GeofenceTrackerTest, WakingStoppingAndHaltingRemoveEverySleepRegionEvenOnesOfAnEarlierProcess) {
    for (const auto operation : {&GeofenceTracker::speedUp, &GeofenceTracker::stop, &GeofenceTracker::halt}) {
        for (const auto& region : RegionCalculator::sleepRegions().regions({40.0, -3.7})) {
            locations->startMonitoring(region);
        }
        ((*tracker).*operation)();
        EXPECT_TRUE(sleepRegions().empty());
    }
}

}  // namespace
}  // namespace rovalis
