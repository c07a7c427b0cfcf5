#include "sensing/GeofenceTracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <GeographicLib/Geodesic.hpp>
#include <nlohmann/json.hpp>

#include "core/PauseManager.h"
#include "events/EventRepository.h"
#include "sensing/SensingFakes.h"
#include "support/RecordingLocationManager.h"
#include "support/TestSupport.h"

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

TEST(RegionCalculator, TheCentreRegionReportsExitsOnlyAndTheRingLiesAtEvenBearings) {
    const RegionCalculator calculator{200.0, 1.0, 4, "Ring"};
    const LocationCoordinate2D center{48.137, 11.575};
    const auto regions = calculator.regions(center);
    ASSERT_EQ(regions.size(), 5u);
    EXPECT_EQ(regions[0], (CircularRegion{"Ring_00", center, 200.0, false, true}));
    for (int i = 0; i < 4; ++i) {
        const CircularRegion& region = regions[static_cast<std::size_t>(i) + 1];
        EXPECT_EQ(region, (CircularRegion{"Ring_" + std::to_string(i), region.center, calculator.outerRadius(), true,
                                          true}));
        const auto [distance, azimuth] = between(center, region.center);
        EXPECT_NEAR(std::remainder(azimuth - 90.0 * i, 360.0), 0.0, 0.3) << region.identifier;
        EXPECT_NEAR(distance, calculator.outerCenterDistance(), calculator.outerCenterDistance() * 0.005);
    }
    EXPECT_EQ(RegionCalculator({150.0, 1.2, 0, "Lone"}).regions(center).size(), 1u);
}

TEST(RegionCalculator, AtSpreadFactorOneTheCirclesTouchAndTheSleepRegionsOverlap) {
    for (const std::int64_t n : {3, 4, 6, 8}) {
        const RegionCalculator touching{150.0, 1.0, n, "T"};
        const double r = touching.outerRadius(), d = touching.outerCenterDistance();
        EXPECT_NEAR(d - r, 150.0, 1e-9) << n;                                           // the centre circle
        EXPECT_NEAR(2.0 * d * std::sin(pi / static_cast<double>(n)), 2.0 * r, 1e-9) << n;  // the neighbours
    }
    const RegionCalculator sleep = RegionCalculator::sleepRegions();
    EXPECT_EQ(sleep.regions({0.0, 0.0}).size(), 7u);
    EXPECT_EQ(sleep.radius, 150.0);
    EXPECT_EQ(sleep.identifierPrefix, "RVLSleepRegion");
    EXPECT_NEAR(sleep.outerRadius(), 180.0, 1e-9);
    EXPECT_NEAR(sleep.outerCenterDistance(), 270.0, 1e-9);
}

TEST(RegionCalculator, TheDestinationIsOnTheSphereAndWrapsAcrossTheAntimeridian) {
    const double d = 5000.0, angle = d / 6371000.0 * 180.0 / pi;
    const auto east = RegionCalculator::destination({0.0, 0.0}, d, 90.0);
    EXPECT_NEAR(east.latitude, 0.0, 1e-12);
    EXPECT_NEAR(east.longitude, angle, 1e-12);
    EXPECT_NEAR(RegionCalculator::destination({0.0, 10.0}, d, 0.0).latitude, angle, 1e-12);

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

    std::vector<nlohmann::json> events() {
        std::vector<nlohmann::json> result;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) {
            result.push_back(nlohmann::json::parse(row.payload));
        }
        return result;
    }
    std::vector<CircularRegion> sleepRegions() const {
        auto regions = locations->monitoredRegions();
        EXPECT_EQ(regions.at(0), beaconRegion);  // never touched
        return {regions.begin() + 1, regions.end()};
    }

    const CircularRegion beaconRegion{"BeaconRegion_A", {52.0, 13.0}, 50.0, true, true};
    const Location stay = test::fixAt(52.52, 13.405, 12.0, Date{start - 30.0});
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{start});
    std::shared_ptr<test::RecordingLocationManager> locations = std::make_shared<test::RecordingLocationManager>();
    std::shared_ptr<GeofenceManagerForwarder> forwarder = std::make_shared<GeofenceManagerForwarder>();
    std::shared_ptr<test::RecordingWakeUpInitiator> waker = std::make_shared<test::RecordingWakeUpInitiator>();
    std::shared_ptr<test::RecordingLocationUpdateReceiver> updates =
        std::make_shared<test::RecordingLocationUpdateReceiver>();
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<RegionMonitoringReceiver> receiver =
        std::make_shared<RegionMonitoringReceiver>(clock, waker, repository, updates);
    std::shared_ptr<GeofenceTracker> tracker = GeofenceTracker::create(clock, receiver, repository, locations,
                                                                       forwarder, waker,
                                                                       RegionCalculator::sleepRegions());
};

TEST_F(GeofenceTrackerTest, SlowDownLaysTheSleepRegionsAroundTheCentreAndRecordsEachAsGeofenceCreate) {
    EXPECT_EQ(forwarder->delegate(), receiver);
    tracker->slowDown(stay);
    const auto expected = RegionCalculator::sleepRegions().regions(stay.coordinate);
    EXPECT_EQ(sleepRegions(), expected);
    const auto stored = events();
    ASSERT_EQ(stored.size(), 7u);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(stored[i], (nlohmann::json{{"type", "GeofenceCreate"},
                                             {"tracked_at_ms", std::llround(start * 1000.0)},
                                             {"reason", i == 0 ? "EXIT" : "ENTER"},
                                             {"radius", expected[i].radius},
                                             {"latitude", expected[i].center.latitude},
                                             {"longitude", expected[i].center.longitude},
                                             {"identifier", expected[i].identifier}}));
    }

    // A new sleep replaces the regions; one without a centre lays none.
    const Location elsewhere = test::fixAt(48.137, 11.575, 8.0, Date{start});
    tracker->slowDown(elsewhere);
    EXPECT_EQ(sleepRegions(), RegionCalculator::sleepRegions().regions(elsewhere.coordinate));
    test::ConsoleCapture console;
    tracker->slowDown(std::nullopt);
    EXPECT_TRUE(sleepRegions().empty());
    EXPECT_TRUE(console.contains("no center location: no geofences laid out"));
}

TEST_F(GeofenceTrackerTest, WakingStoppingAndHaltingRemoveEverySleepRegionEvenOnesOfAnEarlierProcess) {
    for (const auto operation : {&GeofenceTracker::speedUp, &GeofenceTracker::stop, &GeofenceTracker::halt}) {
        // Regions the platform kept from an earlier process: this tracker never laid them.
        const auto earlier = RegionCalculator::sleepRegions().regions({40.0, -3.7});
        for (const auto& region : earlier) locations->startMonitoring(region);
        test::ConsoleCapture console;
        ((*tracker).*operation)();
        EXPECT_TRUE(sleepRegions().empty());
        EXPECT_EQ(console.lines().size(), earlier.size());
        EXPECT_TRUE(console.contains("monitoring stopped on CircularRegion (identifier:'RVLSleepRegion_00', "
                                     "center:<+40.00000000,-3.70000000>, radius:150.00m)"));
    }
}

TEST_F(GeofenceTrackerTest, ASleepRegionCrossingIsRecordedAndAsksForAWakeUpWithTheLastLocation) {
    tracker->slowDown(stay);
    const auto regions = sleepRegions();
    const Location last = test::fixAt(52.53, 13.41, 20.0, Date{start + 5.0});
    updates->last = last;
    clock->advance(600.0);
    locations->deliverExitRegion(regions[0]);
    updates->last.reset();
    locations->deliverEnterRegion(regions[3]);

    ASSERT_EQ(waker->requests.size(), 2u);
    EXPECT_EQ(waker->requests[0].reason, "exited geofence RVLSleepRegion_00");
    EXPECT_EQ(preWakeUpReasonCode(waker->requests[0].reason), 0);
    EXPECT_EQ(waker->requests[0].lastKnownLocation, last);
    EXPECT_EQ(waker->requests[1].reason, "entered surrounding geofence RVLSleepRegion_2");
    EXPECT_EQ(preWakeUpReasonCode(waker->requests[1].reason), 1);
    EXPECT_EQ(waker->requests[1].lastKnownLocation, std::nullopt);

    const auto stored = events();
    ASSERT_EQ(stored.size(), 9u);
    EXPECT_EQ(stored[7], (nlohmann::json{{"type", "GeofenceTrigger"},
                                         {"tracked_at_ms", std::llround((start + 600.0) * 1000.0)},
                                         {"reason", "EXIT"},
                                         {"radius", regions[0].radius},
                                         {"latitude", regions[0].center.latitude},
                                         {"longitude", regions[0].center.longitude},
                                         {"identifier", "RVLSleepRegion_00"}}));
    EXPECT_EQ(stored[8]["reason"], "ENTER");
    EXPECT_EQ(stored[8]["identifier"], "RVLSleepRegion_2");
}

TEST_F(GeofenceTrackerTest, CrossingsOfOtherRegionsAreLeftAlone) {
    test::ConsoleCapture console;
    locations->deliverEnterRegion(beaconRegion);
    locations->deliverExitRegion(beaconRegion);
    EXPECT_TRUE(waker->requests.empty());
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(console.lines().size(), 2u);
}

}  // namespace
}  // namespace rovalis
