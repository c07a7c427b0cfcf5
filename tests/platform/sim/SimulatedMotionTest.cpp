#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "platform/sim/SimTestSupport.h"
#include "platform/sim/SimulatedMotion.h"
#include "rovalis/platform/Device.h"

namespace rovalis::sim {
namespace {

using namespace test;

TEST(SimulatedAccelerometer, SamplesAtTheIntervalStampedSinceBootOneTaskPerSecond) {
    DeviceFixture f(PathBuilder().stay(3600).build());
    const double uptimeAtStart = f.platform.systemState->systemUptime();
    EXPECT_TRUE(uptimeAtStart >= 2 * 3600.0 && uptimeAtStart <= 12 * 3600.0) << "booted 2 - 12 hours before";

    auto manager = f.platform.makeMotionManager();
    auto queue = std::make_shared<ManualQueue>();
    std::vector<AccelerometerData> samples;
    manager->setAccelerometerUpdateInterval(0.05);
    manager->startAccelerometerUpdates(
        queue, [&](std::span<const AccelerometerData> group) { samples.insert(samples.end(), group.begin(), group.end()); });
    f.runFor(10);
    ASSERT_EQ(queue->tasks.size(), 10u) << "one task per second";
    while (!queue->tasks.empty()) {
        const std::size_t before = samples.size();
        queue->tasks.front()();
        queue->tasks.pop_front();
        EXPECT_EQ(samples.size() - before, 20u) << "the twenty samples of one second";
    }
    EXPECT_NEAR(samples.front().timestamp, uptimeAtStart + 0.05, 1e-6);
    EXPECT_NEAR(samples.back().timestamp, f.platform.systemState->systemUptime(), 1e-6);
    for (std::size_t i = 1; i < samples.size(); ++i) {
        EXPECT_NEAR(samples[i].timestamp - samples[i - 1].timestamp, 0.05, 1e-6);
    }

    // A new interval applies from the last sample on; a stop ends the samples.
    manager->setAccelerometerUpdateInterval(0.1);
    f.runFor(2);
    EXPECT_EQ(queue->drain(), 2u);
    EXPECT_EQ(samples.size(), 220u);
    manager->stopAccelerometerUpdates();
    f.runFor(5);
    EXPECT_TRUE(queue->tasks.empty());
}

struct Activities {
    std::shared_ptr<MotionActivityManagerType> manager;
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::vector<MotionActivity> records;
    std::vector<ActivityClass> classes;  // each class reported, once in a row

    explicit Activities(DeviceFixture& f) : manager(f.platform.makeMotionActivityManager()) {
        manager->startActivityUpdates(queue, [this](const MotionActivity& record) {
            using enum ActivityClass;
            const ActivityClass seen = record.walking      ? walking
                                       : record.running    ? running
                                       : record.cycling    ? cycling
                                       : record.automotive ? automotive
                                                           : stationary;
            if (classes.empty() || classes.back() != seen) classes.push_back(seen);
            records.push_back(record);
        });
    }
};

TEST(SimulatedActivity, ClassesFollowTheTrueSpeedWithTheirStartDatesAndGrowMoreCertain) {
    DeviceFixture f(PathBuilder()
                        .stay(300)
                        .move(0, 1.4, 300)
                        .move(0, 3.5, 300)
                        .move(0, 6.0, 300)
                        .move(0, 15.0, 300)
                        .stay(600)
                        .build());
    Activities activities(f);
    f.runFor(2100);
    const std::size_t tasks = activities.queue->drain();
    EXPECT_EQ(tasks, activities.records.size()) << "one task for each record";

    using enum ActivityClass;
    ASSERT_EQ(activities.classes, (std::vector{stationary, walking, running, cycling, automotive, stationary}));
    EXPECT_EQ(activities.records[0].startDate, f.at(0)) << "first, the current activity";
    EXPECT_EQ(activities.records[0].confidence, MotionActivityConfidence::low);
    std::map<double, std::vector<MotionActivityConfidence>> byStart;
    for (const auto& record : activities.records) {
        byStart[record.startDate.timeIntervalSince(f.at(0))].push_back(record.confidence);
    }
    ASSERT_EQ(byStart.size(), 6u);
    double leg = 0.0;
    for (const auto& [start, confidences] : byStart) {
        EXPECT_TRUE(start >= leg && start <= leg + 5.0) << "the class began with its leg: " << start;
        EXPECT_TRUE(std::is_sorted(confidences.begin(), confidences.end()));
        EXPECT_EQ(confidences.back(), MotionActivityConfidence::high);
        leg += 300.0;
    }
    const auto& taken = f.device.log().activityChanges.at(3);
    EXPECT_GE(taken.time.timeIntervalSince(taken.startDate), SimulatedMotionService::classChangeDelay) << "cycling";
}

TEST(SimulatedActivity, UnsteadyMiddleSpeedsAreAVehicleNotABicycle) {
    PathBuilder builder;
    builder.stay(60);
    for (int leg = 0; leg < 10; ++leg) builder.move(0, leg % 2 == 0 ? 7.0 : 12.0, 30);
    DeviceFixture f(builder.build());
    Activities activities(f);
    f.runFor(360);
    activities.queue->drain();
    EXPECT_EQ(activities.classes, (std::vector{ActivityClass::stationary, ActivityClass::automotive}));
}

TEST(SimulatedActivity, NothingIsReportedWithoutMotionAuthorization) {
    SimulatedDeviceOptions options;
    options.motionAuthorization = MotionAuthorizationStatus::denied;
    DeviceFixture f(PathBuilder().stay(60).move(0, 1.4, 600).build(), options);
    Activities activities(f);
    f.runFor(600);
    EXPECT_TRUE(activities.queue->tasks.empty());
    EXPECT_EQ(f.device.energy().activitySeconds, 0.0);
    f.device.setMotionAuthorization(MotionAuthorizationStatus::authorized);
    f.runFor(600);
    EXPECT_FALSE(activities.queue->tasks.empty()) << "granted later, the next change is reported";
    EXPECT_GT(f.device.energy().activitySeconds, 0.0);
}

}  // namespace
}  // namespace rovalis::sim
