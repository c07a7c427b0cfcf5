#include "sensing/RegularLocationTracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <GeographicLib/Geodesic.hpp>

#include "sensing/SensingFakes.h"
#include "support/RecordingLocationManager.h"
#include "support/SpoiledFixes.h"
#include "support/TestSupport.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

class RegularLocationTrackerTest : public ::testing::Test {
protected:
    void speedUp() {
        tracker->speedUp();
        loop->runUntilIdle();
    }
    // The accuracy asked for `seconds` from now.
    double accuracyAfter(double seconds) {
        loop->fastForwardBy(seconds);
        return locations->desiredAccuracy();
    }
    Location fix(double accuracy, double age = 0.0) const {
        return test::fixAt(52.52, 13.405, accuracy, clock->now().addingSeconds(-age));
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{1700000000.0});
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>(clock);
    std::shared_ptr<test::RecordingLocationManager> locations = std::make_shared<test::RecordingLocationManager>();
    std::shared_ptr<LocationManagerForwarder> forwarder = std::make_shared<LocationManagerForwarder>();
    std::shared_ptr<test::RecordingSleepInitiator> sleeper = std::make_shared<test::RecordingSleepInitiator>();
    std::shared_ptr<test::RecordingLocationUpdateReceiver> receiver =
        std::make_shared<test::RecordingLocationUpdateReceiver>();
    std::unique_ptr<StayDetector> ownedDetector = std::make_unique<StayDetector>(600.0);
    StayDetector* stayDetector = ownedDetector.get();
    std::shared_ptr<RegularLocationTracker> tracker = RegularLocationTracker::create(
        locations, forwarder, sleeper, std::move(ownedDetector), receiver, nullptr, loop);
};

constexpr double ten = kCLLocationAccuracyNearestTenMeters, hundred = kCLLocationAccuracyHundredMeters;

TEST_F(RegularLocationTrackerTest, TheDutyCycleAsksForTenMetresAtOnceForTenSecondsOfEverySeventy) {
    speedUp();
    EXPECT_EQ(locations->desiredAccuracy(), ten) << "the first fine period opens at once";
    const std::vector<std::string> restart{"stopUpdatingLocation", "setDesiredAccuracy", "startUpdatingLocation"};
    EXPECT_EQ(std::vector<std::string>(locations->calls().end() - 3, locations->calls().end()), restart)
        << "the service is restarted for each new accuracy";
    EXPECT_EQ(accuracyAfter(9.9), ten);
    EXPECT_EQ(accuracyAfter(0.2), hundred);  // 10.1
    EXPECT_EQ(accuracyAfter(59.8), hundred);  // 69.9
    EXPECT_EQ(accuracyAfter(0.2), ten);

    // A second speed-up neither restarts the cycle nor opens another period, also during one.
    EXPECT_EQ(accuracyAfter(100.0), hundred);  // 170.1
    speedUp();
    EXPECT_EQ(locations->desiredAccuracy(), hundred);
    EXPECT_EQ(accuracyAfter(39.8), hundred);  // 209.9
    EXPECT_EQ(accuracyAfter(5.0), ten);
    speedUp();
    EXPECT_EQ(accuracyAfter(5.2), hundred);  // 220.1
}

TEST_F(RegularLocationTrackerTest, HaltDuringAFinePeriodLeavesTenMetresAndFixesStillFlow) {
    speedUp();
    loop->fastForwardBy(5.0);
    tracker->halt();
    EXPECT_EQ(accuracyAfter(300.0), ten);
    EXPECT_EQ(loop->nextPendingDelay(), std::nullopt);
    locations->deliverLocations({fix(5.0)});
    EXPECT_EQ(receiver->updates.size(), 1u);

    speedUp();  // a new cycle, with a fine period at once
    EXPECT_EQ(accuracyAfter(10.1), hundred);
}

TEST_F(RegularLocationTrackerTest, StopDetachesStopsUpdatesAndEndsTheCycleAndTheTrackerGoesWithItsTimers) {
    speedUp();
    tracker->stop();
    EXPECT_FALSE(locations->isUpdatingLocation());
    EXPECT_EQ(loop->nextPendingDelay(), std::nullopt);
    locations->deliverLocations({fix(5.0)});
    EXPECT_TRUE(receiver->updates.empty());

    speedUp();
    const std::weak_ptr<RegularLocationTracker> weak = tracker;
    tracker.reset();
    EXPECT_TRUE(weak.expired()) << "the timers and the forwarder hold the tracker weakly";
    EXPECT_EQ(loop->nextPendingDelay(), std::nullopt);
    locations->deliverLocations({fix(5.0)});
    EXPECT_TRUE(receiver->updates.empty());
}

TEST_F(RegularLocationTrackerTest, FixesUpTo2600MetresAndUpTo3SecondsOldReachTheStayDetectorWhoseStayAsksForSleep) {
    speedUp();
    const Location limitAccuracy = fix(2600.0), limitAge = fix(5.0, 3.0), fresh = fix(6.0);
    locations->deliverLocations({fix(2600.1), limitAccuracy, fix(5.0, 3.5), limitAge, fix(-1.0), fresh});
    const std::vector<Location> accepted{limitAccuracy, limitAge, fresh};
    ASSERT_EQ(receiver->updates.size(), 3u);
    for (std::size_t i = 0; i < accepted.size(); ++i) {
        EXPECT_EQ(receiver->updates[i], std::make_pair(accepted[i], std::string("regular")));
    }
    ASSERT_NE(stayDetector->cluster(), nullptr);
    EXPECT_EQ(stayDetector->cluster()->locations(), accepted);

    speedUp();
    EXPECT_EQ(stayDetector->cluster(), nullptr) << "regular tracking starts the stay detector afresh";
    EXPECT_FALSE(stayDetector->currentLocation());

    for (int i = 0; i < 3; ++i) {
        locations->deliverLocations({fix(5.0)});
        loop->fastForwardBy(301.0);
    }
    EXPECT_EQ(sleeper->reasons, std::vector<std::string>{"no movement in 10 minutes"});
    EXPECT_EQ(RegularLocationTracker::stayReason(119.9), "no movement in 1 minutes") << "whole minutes, truncated";
}

TEST_F(RegularLocationTrackerTest, AFixThatIsNotUsableIsDroppedWithOneLineBeforeTheReceiverAndTheStayDetector) {
    speedUp();
    locations->deliverLocations({fix(5.0), fix(5.0)});  // a cluster and a smoothed position to keep
    const std::vector<Location> cluster = stayDetector->cluster()->locations();
    const std::optional<Location> smoothed = stayDetector->currentLocation();
    for (const auto& [spoiled, defect] : test::spoiledFixes(fix(5.0))) {
        SCOPED_TRACE(defect);
        test::ConsoleCapture console;
        locations->deliverLocations({spoiled});
        EXPECT_EQ(console.lines(), std::vector<std::string>{"dropped a location fix from regular updates: " + defect});
    }
    EXPECT_EQ(receiver->updates.size(), 2u);
    EXPECT_EQ(stayDetector->cluster()->locations(), cluster);
    EXPECT_EQ(stayDetector->currentLocation(), smoothed);

    // The edges of the globe, a zero accuracy and the platform's -1 for unknown speed and course are usable.
    Location edge = fix(0.0);
    edge.coordinate = {-90.0, 180.0};
    edge.speed = edge.course = -1.0;
    locations->deliverLocations({edge});
    ASSERT_EQ(receiver->updates.size(), 3u);
    EXPECT_EQ(receiver->updates.back().first, edge);
}

TEST_F(RegularLocationTrackerTest, ADriveOf12KilometresWithOneNaNFixInTheMiddleIsNoStay) {
    // 30 km/h for 24 minutes, a fix every 5 seconds. After the middle more than the 10-minute
    // limit is left: a NaN that reached the stay detector would pull every later fix into its
    // cluster and report a stay on the road.
    speedUp();
    test::ConsoleCapture console;
    constexpr int steps = 24 * 60 / 5;
    for (int step = 0; step <= steps; ++step) {
        double latitude = 0.0, longitude = 0.0;
        GeographicLib::Geodesic::WGS84().Direct(52.52, 13.405, 0.0, 12000.0 * step / steps, latitude, longitude);
        if (step == steps / 2) latitude = std::nan("");
        locations->deliverLocations({test::fixAt(latitude, longitude, 10.0, clock->now())});
        loop->fastForwardBy(5.0);
    }
    EXPECT_TRUE(sleeper->reasons.empty());
    EXPECT_EQ(receiver->updates.size(), static_cast<std::size_t>(steps));
    EXPECT_EQ(console.lines().size(), 1u);
}

}  // namespace
}  // namespace rovalis
