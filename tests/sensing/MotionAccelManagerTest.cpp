#include "sensing/RVLMotionAccelManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "events/EventRepository.h"
#include "sensing/MotionActivityHelpers.h"
#include "support/FakeDevice.h"
#include "support/RecordingMotionManagers.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/SerialExecutor.h"

namespace rovalis {
namespace {

using test::FakeSystemState;
using test::RecordingMotionActivityManager;
using test::RecordingMotionManager;
using test::TempDir;
using Strings = std::vector<std::string>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double inf = std::numeric_limits<double>::infinity();

std::optional<Decimal> magnitudeOf(double x, double y = 0.0, double z = 0.0) {
    return RVLCommons::calculateMagnitude({x, y, z});
}

TEST(RVLCommonsMotion, OneGOnOneAxisIsStandardGravityAndItsMagnitudeRoundsTo981) {
    const AccelerationVector ms2 = RVLCommons::fromGToMs2({0.0, -0.5, 1.0});
    EXPECT_EQ(ms2, (AccelerationVector{0.0, -0.5 * 9.80665, 9.80665}));
    EXPECT_EQ(RVLCommons::calculateMagnitude(RVLCommons::fromGToMs2({0.0, 0.0, 1.0})), (Decimal{981, 2}));
}

TEST(RVLCommonsMotion, MagnitudeRoundsTheDecimalTheDoubleStandsForWithTiesAwayFromZero) {
    EXPECT_EQ(magnitudeOf(3.0, -4.0), (Decimal{500, 2}));
    // These doubles lie just below their ties (2.675 is 2.67499999...), so scaling by 100 in
    // binary would round them down.
    EXPECT_EQ(magnitudeOf(2.675), (Decimal{268, 2}));
    EXPECT_EQ(magnitudeOf(-1.005), (Decimal{101, 2}));
    // An exact binary tie goes away from zero, not to the even neighbour.
    EXPECT_EQ(magnitudeOf(0.125), (Decimal{13, 2}));
    EXPECT_EQ(magnitudeOf(0.005), (Decimal{1, 2}));
    EXPECT_EQ(magnitudeOf(0.004999), (Decimal{0, 2}));
    EXPECT_EQ(magnitudeOf(0.0001), (Decimal{0, 2}));
    EXPECT_EQ(magnitudeOf(0.0), (Decimal{0, 2}));
    EXPECT_EQ(magnitudeOf(9.995), (Decimal{1000, 2}));  // the carry moves into a new digit
    EXPECT_EQ(magnitudeOf(123456.785), (Decimal{12345679, 2}));
}

TEST(RVLCommonsMotion, AMagnitudeNoDecimalCanHoldIsNone) {
    EXPECT_FALSE(magnitudeOf(nan, 0.0, 1.0));
    EXPECT_FALSE(magnitudeOf(0.0, inf, 1.0));
    EXPECT_FALSE(magnitudeOf(1e200, 1e200));  // the sum of squares overflows
    EXPECT_FALSE(magnitudeOf(1e17));          // finite, but beyond 64-bit hundredths
    EXPECT_EQ(magnitudeOf(1e15), (Decimal{100000000000000000, 2}));
}

TEST(MotionActivityHelpers, FlagsGiveCodesTextsAndTests) {
    const auto activity = [](std::initializer_list<bool MotionActivity::*> flags,
                             MotionActivityConfidence confidence = MotionActivityConfidence::low) {
        MotionActivity a;
        a.confidence = confidence;
        for (const auto flag : flags) a.*flag = true;
        return a;
    };
    using A = MotionActivity;
    const MotionActivity all = activity({&A::unknown, &A::cycling, &A::automotive, &A::running, &A::walking,
                                         &A::stationary});
    EXPECT_EQ(activityTypeArray(all), (std::vector<long>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(motionTypeStrings(all), "stationary,walking,running,automotive,cycling,unknown");
    EXPECT_EQ(activityTypeArray(activity({&A::cycling, &A::stationary})), (std::vector<long>{0, 4}));
    EXPECT_EQ(motionTypeStrings(activity({&A::automotive, &A::walking})), "walking,automotive");
    EXPECT_EQ(motionTypeStrings(activity({&A::cycling})), "cycling");
    EXPECT_EQ(motionTypeStrings(MotionActivity{}), "");
    EXPECT_TRUE(activityTypeArray(MotionActivity{}).empty());

    EXPECT_EQ(confidenceString(activity({}, MotionActivityConfidence::low)), "Low");
    EXPECT_EQ(confidenceString(activity({}, MotionActivityConfidence::medium)), "Medium");
    EXPECT_EQ(confidenceString(activity({}, MotionActivityConfidence::high)), "High");
    EXPECT_EQ(confidenceString(activity({}, static_cast<MotionActivityConfidence>(7))), "Low");

    EXPECT_TRUE(isUnknown(activity({&A::unknown})));
    EXPECT_FALSE(isUnknown(activity({&A::unknown, &A::stationary})));
    EXPECT_TRUE(isStationaryOnly(activity({&A::stationary})));
    EXPECT_FALSE(isStationaryOnly(activity({&A::stationary, &A::unknown})));
    EXPECT_FALSE(isStationaryOnly(activity({&A::stationary, &A::automotive})));
    for (const auto flag : {&A::walking, &A::running, &A::automotive, &A::cycling}) {
        EXPECT_TRUE(isNonStationary(activity({flag, &A::stationary})));
    }
    EXPECT_FALSE(isNonStationary(activity({&A::stationary, &A::unknown})));
}

class MotionAccelManagerTest : public ::testing::Test {
protected:
    MotionAccelManagerTest() { makeManager(); }

    void makeManager() {
        manager = RVLMotionAccelManager::create(repository, motion, activities, defaults, clock, systemState,
                                                [this](const std::string& label) {
                                                    labels.push_back(label);
                                                    return std::make_shared<SerialExecutor>(label);
                                                });
    }

    // Waits for what the managers' queues were given so far, and writes buffered rows.
    std::vector<nlohmann::json> storedEvents() {
        for (const auto& queue : {motion->queue(), activities->queue()}) {
            if (queue) queue->sync([] {});
        }
        repository->insertBuffers();
        std::vector<nlohmann::json> events;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) {
            events.push_back(nlohmann::json::parse(row.payload));
        }
        return events;
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{1700000000.0});
    std::shared_ptr<FakeSystemState> systemState = std::make_shared<FakeSystemState>();
    std::shared_ptr<RecordingMotionManager> motion = std::make_shared<RecordingMotionManager>();
    std::shared_ptr<RecordingMotionActivityManager> activities = std::make_shared<RecordingMotionActivityManager>();
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    Strings labels;
    std::shared_ptr<RVLMotionAccelManager> manager;
};

TEST_F(MotionAccelManagerTest, SetupSamplesAtTheSinglePrecisionIntervalAndNotesWhetherActivityIsAvailable) {
    EXPECT_EQ(motion->accelerometerUpdateInterval(), static_cast<double>(0.05f));
    EXPECT_NE(motion->accelerometerUpdateInterval(), 0.05);
    EXPECT_TRUE(manager->motionActivityActive());
    EXPECT_EQ(motion->calls(), Strings{"setAccelerometerUpdateInterval"});

    activities->setAvailable(false);
    makeManager();
    EXPECT_FALSE(manager->motionActivityActive());
    activities->setAvailable(true);  // available later: setup's answer stands
    manager->speedUp();
    const auto calls = activities->calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "startActivityUpdates"), 0);
}

TEST_F(MotionAccelManagerTest, SpeedUpRestartsTheAccelerometerOnANewQueueThenActivityUpdates) {
    manager->speedUp();
    EXPECT_EQ(motion->calls(), (Strings{"setAccelerometerUpdateInterval", "stopAccelerometerUpdates",
                                        "startAccelerometerUpdates"}));
    EXPECT_EQ(activities->calls(), (Strings{"stopActivityUpdates", "startActivityUpdates"}));
    ASSERT_EQ(labels.size(), 2u);
    EXPECT_EQ(labels[0], "core-motion-accelerations-updates");
    const auto firstQueue = motion->queue();

    manager->speedUp();
    EXPECT_NE(motion->queue(), firstQueue);
    EXPECT_EQ(labels.back(), "core-motion-accelerations-updates");
    EXPECT_EQ(std::count(labels.begin(), labels.end(), "core-motion-accelerations-updates"), 2);
}

TEST_F(MotionAccelManagerTest, StopWaitsForTheUsersFirstActivationButSlowDownAlwaysStops) {
    manager->speedUp();
    const auto motionCalls = motion->calls().size();
    const auto activityCalls = activities->calls().size();
    manager->stop();
    manager->halt();
    EXPECT_EQ(motion->calls().size(), motionCalls);
    EXPECT_EQ(activities->calls().size(), activityCalls);
    EXPECT_TRUE(motion->isAccelerometerActive());

    manager->slowDown(std::nullopt);
    EXPECT_EQ(motion->calls().back(), "stopAccelerometerUpdates");
    EXPECT_EQ(activities->calls().back(), "stopActivityUpdates");
    EXPECT_FALSE(motion->isAccelerometerActive());

    manager->speedUp();
    defaults->setUserActivatedTrackingOnce(true);
    manager->halt();
    EXPECT_FALSE(motion->isAccelerometerActive());
    EXPECT_EQ(activities->calls().back(), "stopActivityUpdates");
}

TEST_F(MotionAccelManagerTest, WithoutActivityAuthorizationOnlyTheAccelerometerRuns) {
    for (const auto status : {MotionAuthorizationStatus::notDetermined, MotionAuthorizationStatus::restricted,
                              MotionAuthorizationStatus::denied}) {
        activities->setAuthorizationStatus(status);
        manager->speedUp();
        manager->slowDown(std::nullopt);
        EXPECT_EQ(activities->calls(), Strings{});
    }
    EXPECT_EQ(motion->calls().size(), 1u + 3u * 3u);  // the interval, then stop-start-stop three times

    activities->setAuthorizationStatus(MotionAuthorizationStatus::authorized);
    activities->setAvailable(false);  // withdrawn after setup
    manager->speedUp();
    EXPECT_EQ(activities->calls(), Strings{});
}

TEST_F(MotionAccelManagerTest, SamplesAndClassificationsBecomeEventsAtTheirWallClockTime) {
    systemState->uptime = 5000.0;
    manager->speedUp();
    // Booted at 1700000000 - 5000; the sample was taken 4900.25 s after boot.
    ASSERT_TRUE(motion->deliver({0.0, 0.0, 1.0, 4900.25}));
    ASSERT_TRUE(motion->deliver({nan, 0.0, 1.0, 4900.3}));  // dropped: no magnitude
    ASSERT_TRUE(motion->deliver({0.0, 0.0, 1.0, inf}));     // dropped: no time
    ASSERT_TRUE(motion->deliver({0.3, 0.4, 0.0, 4900.5}));
    MotionActivity activity;
    activity.startDate = Date{1699999000.5};
    activity.confidence = MotionActivityConfidence::medium;
    activity.automotive = activity.stationary = true;
    ASSERT_TRUE(activities->deliver(activity));

    const auto events = storedEvents();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0], nlohmann::json::parse(
                             R"({"activities":["stationary","automotive"],"confidence":1,)"
                             R"("tracked_at_ms":1699999000500,"type":"IOSActivity"})"));
    EXPECT_EQ(events[1].dump(), R"({"magnitude":9.81,"tracked_at_ms":1699999900250,"type":"Acceleration"})");
    EXPECT_EQ(events[2].dump(), R"({"magnitude":4.9,"tracked_at_ms":1699999900500,"type":"Acceleration"})");
    EXPECT_EQ(manager->epochTimestampFromAccelerationTimestampInMilliseconds(4900.25), Date{1699999900.25});
}

TEST_F(MotionAccelManagerTest, TheManagersEndStopsUpdatesAndLateSamplesAreIgnored) {
    manager->speedUp();
    const auto handler = motion->handler();
    ASSERT_TRUE(motion->deliver({0.0, 0.0, 1.0, 10.0}));
    const std::weak_ptr<RVLMotionAccelManager> weak = manager;
    manager.reset();
    EXPECT_TRUE(weak.expired());  // the handler does not keep it alive
    EXPECT_EQ(motion->calls().back(), "stopAccelerometerUpdates");
    EXPECT_EQ(activities->calls().back(), "stopActivityUpdates");
    EXPECT_FALSE(motion->deliver({0.0, 0.0, 1.0, 11.0}));
    handler({0.0, 0.0, 2.0, 12.0});  // a sample the platform had already taken
    EXPECT_EQ(storedEvents().size(), 1u);
}

}  // namespace
}  // namespace rovalis
