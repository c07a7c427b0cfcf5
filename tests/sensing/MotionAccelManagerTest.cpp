#include "sensing/RVLMotionAccelManager.h"

#include <gtest/gtest.h>

#include <limits>

#include "sensing/MotionActivityHelpers.h"
#include "sensing/SensingFakes.h"
#include "support/FakeDevice.h"
#include "support/RecordingMotionManagers.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/SerialExecutor.h"
#include "util/SettableDateSource.h"

namespace rovalis {
namespace {

using Strings = std::vector<std::string>;
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

std::optional<Decimal> magnitudeOf(double x, double y = 0.0, double z = 0.0) {
    return RVLCommons::calculateMagnitude({x, y, z});
}

TEST(RVLCommonsMotion, MagnitudeRoundsTheDoublesShortestDecimalToHundredthsWithTiesAwayFromZero) {
    EXPECT_EQ(RVLCommons::calculateMagnitude(RVLCommons::fromGToMs2({0.0, 0.0, 1.0})), (Decimal{981, 2}));
    // Just below its tie as a double (2.67499999...): scaling by 100 in binary would round down.
    EXPECT_EQ(magnitudeOf(2.675), (Decimal{268, 2}));
    EXPECT_EQ(magnitudeOf(0.125), (Decimal{13, 2})) << "an exact tie goes up, not to even";
    EXPECT_EQ(magnitudeOf(9.995), (Decimal{1000, 2}));
    // No event could hold these.
    EXPECT_FALSE(magnitudeOf(nan, 0.0, 1.0));
    EXPECT_FALSE(magnitudeOf(1e200, 1e200)) << "the sum of squares overflows";
    EXPECT_FALSE(magnitudeOf(1e17)) << "beyond 64-bit hundredths";
}

TEST(MotionActivityHelpers, FlagsGiveCodesTextsAndTests) {
    MotionActivity all, stationary;
    all.stationary = all.walking = all.running = all.automotive = all.cycling = all.unknown = true;
    stationary.stationary = true;
    EXPECT_EQ(activityTypeArray(all), (std::vector<long>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(motionTypeStrings(all), "stationary,walking,running,automotive,cycling,unknown");
    Strings confidences;
    for (const int code : {0, 1, 2, 7}) {
        all.confidence = static_cast<MotionActivityConfidence>(code);
        confidences.push_back(confidenceString(all));
    }
    EXPECT_EQ(confidences, (Strings{"Low", "Medium", "High", "Low"}));
    EXPECT_TRUE(isNonStationary(all) && !isStationaryOnly(all) && !isUnknown(all));
    EXPECT_TRUE(!isNonStationary(stationary) && isStationaryOnly(stationary) && !isUnknown(stationary));
}

class MotionAccelManagerTest : public ::testing::Test {
protected:
    // The stored events, once the queues the samples and classifications arrive on and the
    // acceleration buffer are through.
    std::vector<nlohmann::json> storedEvents() {
        for (const auto& queue : {motion->queue, activities->queue}) {
            if (queue) queue->sync([] {});
        }
        repository->insertBuffers();
        return test::storedEvents(*repository);
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{1700000000.0});
    std::shared_ptr<test::FakeSystemState> systemState = std::make_shared<test::FakeSystemState>();
    std::shared_ptr<test::RecordingMotionManager> motion = std::make_shared<test::RecordingMotionManager>();
    std::shared_ptr<test::RecordingMotionActivityManager> activities =
        std::make_shared<test::RecordingMotionActivityManager>();
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    // Stands in for the main run loop.
    std::shared_ptr<Executor> mainQueue = std::make_shared<SerialExecutor>("main");
    std::shared_ptr<RVLMotionAccelManager> manager = RVLMotionAccelManager::create(
        repository, motion, activities, defaults, clock, systemState, mainQueue,
        [](const std::string& label) { return std::make_shared<SerialExecutor>(label); });
};

TEST_F(MotionAccelManagerTest, SpeedUpRestartsBothSamplesOnTheMainQueueStopWaitsForTheUserSlowDownAlwaysStops) {
    EXPECT_EQ(motion->interval, static_cast<double>(0.05f));
    manager->speedUp();
    EXPECT_EQ(activities->calls, (Strings{"stopActivityUpdates", "startActivityUpdates"}));
    manager->speedUp();
    EXPECT_EQ(motion->calls, (Strings{"stopAccelerometerUpdates", "startAccelerometerUpdates",
                                      "stopAccelerometerUpdates", "startAccelerometerUpdates"}));
    EXPECT_EQ(motion->queue, mainQueue);

    // Nothing was started for a user who never activated tracking, so nothing is stopped.
    const auto callsBefore = motion->calls.size() + activities->calls.size();
    manager->stop();
    manager->halt();
    EXPECT_EQ(motion->calls.size() + activities->calls.size(), callsBefore);
    manager->slowDown(std::nullopt);
    EXPECT_FALSE(motion->handler);
    EXPECT_FALSE(activities->handler);

    manager->speedUp();
    defaults->setUserActivatedTrackingOnce(true);
    manager->halt();
    EXPECT_FALSE(motion->handler);
    EXPECT_FALSE(activities->handler);
}

TEST_F(MotionAccelManagerTest, WithoutActivityAuthorizationOrAvailabilityOnlyTheAccelerometerRuns) {
    for (const auto status : {MotionAuthorizationStatus::notDetermined, MotionAuthorizationStatus::restricted,
                              MotionAuthorizationStatus::denied}) {
        activities->status = status;
        manager->speedUp();
        manager->slowDown(std::nullopt);
    }
    activities->status = MotionAuthorizationStatus::authorized;
    activities->available = false;
    manager->speedUp();
    EXPECT_TRUE(motion->handler);
    EXPECT_TRUE(activities->calls.empty());
}

TEST_F(MotionAccelManagerTest, SamplesAndClassificationsBecomeEventsAtTheirWallClockTime) {
    systemState->uptime = 5000.0;  // booted at 1699995000
    manager->speedUp();
    ASSERT_TRUE(motion->deliver({{0.0, 0.0, 1.0, 4900.25},
                                 {nan, 0.0, 1.0, 4900.3},     // dropped: no magnitude
                                 {0.0, 0.0, 1.0, nan},        // dropped: no time
                                 {0.0, 0.6, 0.8, 4900.35}}));
    MotionActivity activity;
    activity.startDate = Date{1699999000.5};
    activity.confidence = MotionActivityConfidence::medium;
    activity.automotive = activity.stationary = true;
    ASSERT_TRUE(activities->deliver(activity));
    EXPECT_EQ(storedEvents(), (std::vector<nlohmann::json>{
                                  {{"type", "IOSActivity"}, {"tracked_at_ms", 1699999000500}, {"confidence", 1},
                                   {"activities", {"stationary", "automotive"}}},
                                  {{"type", "Acceleration"}, {"tracked_at_ms", 1699999900250}, {"magnitude", 9.81}},
                                  {{"type", "Acceleration"}, {"tracked_at_ms", 1699999900350}, {"magnitude", 9.81}}}));
}

TEST_F(MotionAccelManagerTest, TheManagersEndStopsUpdatesAndLateSamplesAreIgnored) {
    manager->speedUp();
    const auto handler = motion->handler;
    ASSERT_TRUE(motion->deliver({{0.0, 0.0, 1.0, 10.0}}));
    const std::weak_ptr<RVLMotionAccelManager> weak = manager;
    manager.reset();
    EXPECT_TRUE(weak.expired()) << "the handlers do not keep it alive";
    EXPECT_FALSE(motion->handler);
    EXPECT_FALSE(activities->handler);
    handler(std::vector<AccelerometerData>{{0.0, 0.0, 2.0, 12.0}});  // a sample the platform had already taken
    EXPECT_EQ(storedEvents().size(), 1u);
}

}  // namespace
}  // namespace rovalis
