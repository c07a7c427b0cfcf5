#include "sensing/RVLMotionAccelManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "events/EventRepository.h"
#include "sensing/MotionActivityHelpers.h"
#include "support/FakeDevice.h"
#include "support/RecordingMotionManagers.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/SerialExecutor.h"

namespace rovalis {
namespace {

using Strings = std::vector<std::string>;
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

std::optional<Decimal> magnitudeOf(double x, double y = 0.0, double z = 0.0) {
    return RVLCommons::calculateMagnitude({x, y, z});
}

TEST(RVLCommonsMotion, MagnitudeRoundsTheDoublesShortestDecimalToHundredthsWithTiesAwayFromZero) {
    EXPECT_EQ(RVLCommons::fromGToMs2({0.0, -0.5, 1.0}), (AccelerationVector{0.0, -0.5 * 9.80665, 9.80665}));
    EXPECT_EQ(RVLCommons::calculateMagnitude(RVLCommons::fromGToMs2({0.0, 0.0, 1.0})), (Decimal{981, 2}));
    EXPECT_EQ(magnitudeOf(3.0, -4.0), (Decimal{500, 2}));
    // Just below their ties as doubles (2.67499999...): scaling by 100 in binary rounds down.
    EXPECT_EQ(magnitudeOf(2.675), (Decimal{268, 2}));
    EXPECT_EQ(magnitudeOf(-1.005), (Decimal{101, 2}));
    EXPECT_EQ(magnitudeOf(0.125), (Decimal{13, 2}));  // an exact tie goes up, not to even
    EXPECT_EQ(magnitudeOf(0.004999), (Decimal{0, 2}));
    EXPECT_EQ(magnitudeOf(0.005), (Decimal{1, 2}));
    EXPECT_EQ(magnitudeOf(9.995), (Decimal{1000, 2}));
    EXPECT_EQ(magnitudeOf(1e15), (Decimal{100000000000000000, 2}));
    // No event could hold these.
    EXPECT_FALSE(magnitudeOf(nan, 0.0, 1.0));
    EXPECT_FALSE(magnitudeOf(0.0, std::numeric_limits<double>::infinity()));
    EXPECT_FALSE(magnitudeOf(1e200, 1e200));  // the sum of squares overflows
    EXPECT_FALSE(magnitudeOf(1e17));          // beyond 64-bit hundredths
}

TEST(MotionActivityHelpers, FlagsGiveCodesTextsAndTests) {
    using A = MotionActivity;
    const auto activity = [](std::initializer_list<bool A::*> flags, int confidence = 0) {
        A a;
        a.confidence = static_cast<MotionActivityConfidence>(confidence);
        for (const auto flag : flags) a.*flag = true;
        return a;
    };
    const A all = activity({&A::unknown, &A::cycling, &A::automotive, &A::running, &A::walking, &A::stationary});
    EXPECT_EQ(activityTypeArray(all), (std::vector<long>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(motionTypeStrings(all), "stationary,walking,running,automotive,cycling,unknown");
    EXPECT_EQ(activityTypeArray(activity({&A::cycling, &A::stationary})), (std::vector<long>{0, 4}));
    EXPECT_EQ(motionTypeStrings(activity({&A::automotive, &A::walking})), "walking,automotive");
    EXPECT_EQ(motionTypeStrings(A{}), "");
    EXPECT_EQ((Strings{confidenceString(activity({}, 0)), confidenceString(activity({}, 1)),
                       confidenceString(activity({}, 2)), confidenceString(activity({}, 7))}),
              (Strings{"Low", "Medium", "High", "Low"}));

    EXPECT_TRUE(isUnknown(activity({&A::unknown})));
    EXPECT_FALSE(isUnknown(activity({&A::unknown, &A::stationary})));
    EXPECT_TRUE(isStationaryOnly(activity({&A::stationary})));
    EXPECT_FALSE(isStationaryOnly(activity({&A::stationary, &A::unknown})));
    for (const auto flag : {&A::walking, &A::running, &A::automotive, &A::cycling}) {
        EXPECT_TRUE(isNonStationary(activity({flag, &A::stationary})));
        EXPECT_FALSE(isStationaryOnly(activity({flag, &A::stationary})));
    }
    EXPECT_FALSE(isNonStationary(activity({&A::stationary, &A::unknown})));
}

class MotionAccelManagerTest : public ::testing::Test {
protected:
    MotionAccelManagerTest() {
        manager = RVLMotionAccelManager::create(repository, motion, activities, defaults, clock, systemState,
                                                [this](const std::string& label) {
                                                    labels.push_back(label);
                                                    return std::make_shared<SerialExecutor>(label);
                                                });
    }

    // The stored events, once the managers' queues and the acceleration buffer are through.
    std::vector<std::string> storedEvents() {
        for (const auto& queue : {motion->queue(), activities->queue()}) {
            if (queue) queue->sync([] {});
        }
        repository->insertBuffers();
        std::vector<std::string> events;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) events.push_back(row.payload);
        return events;
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
    Strings labels;
    std::shared_ptr<RVLMotionAccelManager> manager;
};

TEST_F(MotionAccelManagerTest, SpeedUpRestartsBothOnANewQueueStopWaitsForTheUserSlowDownAlwaysStops) {
    EXPECT_EQ(motion->accelerometerUpdateInterval(), static_cast<double>(0.05f));
    manager->speedUp();
    EXPECT_EQ(motion->calls(), (Strings{"setAccelerometerUpdateInterval", "stopAccelerometerUpdates",
                                        "startAccelerometerUpdates"}));
    EXPECT_EQ(activities->calls(), (Strings{"stopActivityUpdates", "startActivityUpdates"}));
    const auto firstQueue = motion->queue();
    manager->speedUp();
    EXPECT_NE(motion->queue(), firstQueue);
    EXPECT_EQ(std::count(labels.begin(), labels.end(), "core-motion-accelerations-updates"), 2);

    // Nothing was started for a user who never activated tracking, so nothing is stopped.
    const auto callsBefore = motion->calls().size() + activities->calls().size();
    manager->stop();
    manager->halt();
    EXPECT_EQ(motion->calls().size() + activities->calls().size(), callsBefore);
    manager->slowDown(std::nullopt);
    EXPECT_FALSE(motion->isAccelerometerActive());
    EXPECT_EQ(activities->calls().back(), "stopActivityUpdates");

    manager->speedUp();
    defaults->setUserActivatedTrackingOnce(true);
    manager->halt();
    EXPECT_FALSE(motion->isAccelerometerActive());
    EXPECT_FALSE(activities->handler());
}

TEST_F(MotionAccelManagerTest, WithoutActivityAuthorizationOrAvailabilityOnlyTheAccelerometerRuns) {
    for (const auto status : {MotionAuthorizationStatus::notDetermined, MotionAuthorizationStatus::restricted,
                              MotionAuthorizationStatus::denied}) {
        activities->status = status;
        manager->speedUp();
        manager->slowDown(std::nullopt);
        EXPECT_TRUE(activities->calls().empty());
    }
    EXPECT_EQ(motion->calls().back(), "stopAccelerometerUpdates");
    activities->status = MotionAuthorizationStatus::authorized;
    activities->available = false;
    manager->speedUp();
    EXPECT_TRUE(motion->isAccelerometerActive());
    EXPECT_TRUE(activities->calls().empty());
}

TEST_F(MotionAccelManagerTest, SamplesAndClassificationsBecomeEventsAtTheirWallClockTime) {
    systemState->uptime = 5000.0;  // booted at 1699995000
    manager->speedUp();
    ASSERT_TRUE(motion->deliver({0.0, 0.0, 1.0, 4900.25}));
    ASSERT_TRUE(motion->deliver({nan, 0.0, 1.0, 4900.3}));  // dropped: no magnitude
    ASSERT_TRUE(motion->deliver({0.0, 0.0, 1.0, nan}));     // dropped: no time
    MotionActivity activity;
    activity.startDate = Date{1699999000.5};
    activity.confidence = MotionActivityConfidence::medium;
    activity.automotive = activity.stationary = true;
    ASSERT_TRUE(activities->deliver(activity));
    EXPECT_EQ(storedEvents(),
              (Strings{R"({"activities":["stationary","automotive"],"confidence":1,"tracked_at_ms":1699999000500,)"
                       R"("type":"IOSActivity"})",
                       R"({"magnitude":9.81,"tracked_at_ms":1699999900250,"type":"Acceleration"})"}));
}

TEST_F(MotionAccelManagerTest, TheManagersEndStopsUpdatesAndLateSamplesAreIgnored) {
    manager->speedUp();
    const auto handler = motion->handler();
    ASSERT_TRUE(motion->deliver({0.0, 0.0, 1.0, 10.0}));
    const std::weak_ptr<RVLMotionAccelManager> weak = manager;
    manager.reset();
    EXPECT_TRUE(weak.expired());  // the handlers do not keep it alive
    EXPECT_FALSE(motion->isAccelerometerActive());
    EXPECT_FALSE(activities->handler());
    handler({0.0, 0.0, 2.0, 12.0});  // a sample the platform had already taken
    EXPECT_EQ(storedEvents().size(), 1u);
}

}  // namespace
}  // namespace rovalis
