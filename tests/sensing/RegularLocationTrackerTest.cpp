#include "sensing/RegularLocationTracker.h"

#include <gtest/gtest.h>

#include "sensing/SensingFakes.h"
#include "support/RecordingLocationManager.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

class RegularLocationTrackerTest : public ::testing::Test {
protected:
    RegularLocationTrackerTest() { makeTracker(600.0); }

    void makeTracker(double timeLimit) {
        tracker.reset();
        auto detector = std::make_unique<StayDetector>(timeLimit);
        stayDetector = detector.get();
        tracker = RegularLocationTracker::create(locations, forwarder, sleeper, std::move(detector), receiver,
                                                 nullptr, loop);
    }
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
    StayDetector* stayDetector = nullptr;
    std::shared_ptr<RegularLocationTracker> tracker;
};

constexpr double ten = kCLLocationAccuracyNearestTenMeters, hundred = kCLLocationAccuracyHundredMeters;

TEST_F(RegularLocationTrackerTest, TheDutyCycleAsksForTenMetresAtOnceForTenSecondsOfEverySeventy) {
    EXPECT_TRUE(locations->allowsBackgroundLocationUpdates());
    EXPECT_FALSE(locations->pausesLocationUpdatesAutomatically());
    EXPECT_EQ(locations->desiredAccuracy(), hundred);
    EXPECT_EQ(locations->delegate(), forwarder);
    EXPECT_FALSE(locations->isUpdatingLocation());
    EXPECT_EQ(forwarder->delegate(), nullptr);  // fixes flow once regular tracking begins

    speedUp();
    EXPECT_EQ(forwarder->delegate(), tracker);
    EXPECT_EQ(locations->desiredAccuracy(), ten);
    // The service is restarted for each new accuracy.
    const std::vector<std::string> restart{"stopUpdatingLocation", "setDesiredAccuracy", "startUpdatingLocation"};
    EXPECT_EQ(std::vector<std::string>(locations->calls().end() - 3, locations->calls().end()), restart);
    EXPECT_EQ(accuracyAfter(9.9), ten);
    EXPECT_EQ(accuracyAfter(0.2), hundred);
    EXPECT_EQ(accuracyAfter(59.8), hundred);  // 69.9
    EXPECT_EQ(accuracyAfter(0.2), ten);
    EXPECT_EQ(accuracyAfter(9.8), ten);  // 79.9
    EXPECT_EQ(accuracyAfter(0.2), hundred);
    EXPECT_EQ(accuracyAfter(60.0), ten);  // 140.1
    EXPECT_EQ(std::vector<std::string>(locations->calls().end() - 3, locations->calls().end()), restart);
    EXPECT_TRUE(locations->isUpdatingLocation());

    // A second speed-up neither restarts the cycle nor opens another period, also during one.
    EXPECT_EQ(accuracyAfter(30.0), hundred);  // 170.1
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
    EXPECT_TRUE(locations->isUpdatingLocation());
    EXPECT_EQ(loop->nextPendingDelay(), std::nullopt);
    locations->deliverLocations({fix(5.0)});
    EXPECT_EQ(receiver->updates.size(), 1u);

    speedUp();  // a new cycle, with a fine period at once
    EXPECT_EQ(accuracyAfter(10.1), hundred);
}

TEST_F(RegularLocationTrackerTest, StopAndSlowDownDetachStopUpdatesAndEndTheCycle) {
    for (const bool slowDown : {false, true}) {
        SCOPED_TRACE(slowDown ? "slowDown" : "stop");
        speedUp();
        loop->fastForwardBy(3.0);
        slowDown ? tracker->slowDown(fix(5.0)) : tracker->stop();
        EXPECT_EQ(forwarder->delegate(), nullptr);
        EXPECT_FALSE(locations->isUpdatingLocation());
        EXPECT_EQ(loop->nextPendingDelay(), std::nullopt);
        locations->deliverLocations({fix(5.0)});
        EXPECT_TRUE(receiver->updates.empty());
    }
}

TEST_F(RegularLocationTrackerTest, FixesUpTo2600MetresAndUpTo3SecondsOldReachReceiverAndStayDetectorInOrder) {
    speedUp();
    const Location limitAccuracy = fix(2600.0), limitAge = fix(5.0, 3.0), fresh = fix(6.0);
    locations->deliverLocations(
        {fix(2600.1), limitAccuracy, fix(5.0, 3.5), limitAge, fix(2600.1, 3.5), fix(-1.0), fresh});
    const std::vector<Location> accepted{limitAccuracy, limitAge, fresh};
    ASSERT_EQ(receiver->updates.size(), 3u);
    for (std::size_t i = 0; i < accepted.size(); ++i) {
        EXPECT_EQ(receiver->updates[i], std::make_pair(accepted[i], std::string("regular")));
    }
    ASSERT_NE(stayDetector->cluster(), nullptr);
    EXPECT_EQ(stayDetector->cluster()->locations(), accepted);

    speedUp();  // starts the stay detector afresh
    EXPECT_EQ(stayDetector->cluster(), nullptr);
    EXPECT_FALSE(stayDetector->currentLocation());
}

TEST_F(RegularLocationTrackerTest, AStayAsksForSleepWithTheLimitInWholeMinutesTruncated) {
    makeTracker(15.0);
    speedUp();
    for (int i = 0; i < 4; ++i) {
        locations->deliverLocations({fix(5.0)});
        loop->fastForwardBy(5.5);
    }
    EXPECT_EQ(sleeper->reasons, std::vector<std::string>{"no movement in 0 minutes"});
    EXPECT_EQ(RegularLocationTracker::stayReason(600.0), "no movement in 10 minutes");
    EXPECT_EQ(RegularLocationTracker::stayReason(119.9), "no movement in 1 minutes");
}

TEST_F(RegularLocationTrackerTest, TheTimersHoldTheTrackerWeaklyAndGoWithIt) {
    speedUp();
    const std::weak_ptr<RegularLocationTracker> weak = tracker;
    tracker.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(loop->nextPendingDelay(), std::nullopt);
    locations->deliverLocations({fix(5.0)});  // the forwarder drops them
    EXPECT_TRUE(receiver->updates.empty());
}

}  // namespace
}  // namespace rovalis
