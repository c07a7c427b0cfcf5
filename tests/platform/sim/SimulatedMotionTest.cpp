#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>

#include "platform/sim/SimTestSupport.h"
#include "platform/sim/SimulatedMotion.h"
#include "rovalis/platform/Device.h"

namespace rovalis::sim {
namespace {

using test::DeviceFixture;
using test::ManualQueue;
using test::PathBuilder;

double magnitude(const AccelerometerData& data) {
    return std::sqrt(data.x * data.x + data.y * data.y + data.z * data.z);
}

struct Accelerometer {
    std::shared_ptr<MotionManagerType> manager;
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::vector<AccelerometerData> samples;

    explicit Accelerometer(DeviceFixture& f, double interval = 0.05) : manager(f.platform.makeMotionManager()) {
        manager->setAccelerometerUpdateInterval(interval);
        manager->startAccelerometerUpdates(queue, [this](const AccelerometerData& data) { samples.push_back(data); });
    }
};

TEST(SimulatedAccelerometer, SamplesAtTheIntervalStampedSinceBootOneTaskPerSecond) {
    DeviceFixture f(PathBuilder().stay(3600).build());
    const double uptimeAtStart = f.platform.systemState->systemUptime();
    EXPECT_GE(uptimeAtStart, 2 * 3600.0);
    EXPECT_LE(uptimeAtStart, 12 * 3600.0);
    EXPECT_DOUBLE_EQ(uptimeAtStart, f.at(0).timeIntervalSince(f.device.bootDate()));

    Accelerometer accelerometer(f);
    EXPECT_TRUE(accelerometer.manager->isAccelerometerAvailable());
    EXPECT_TRUE(accelerometer.manager->isAccelerometerActive());
    f.runFor(10);

    // Ten tasks, each with the twenty samples of its second.
    ASSERT_EQ(accelerometer.queue->tasks.size(), 10u);
    while (!accelerometer.queue->tasks.empty()) {
        const std::size_t before = accelerometer.samples.size();
        accelerometer.queue->tasks.front()();
        accelerometer.queue->tasks.pop_front();
        EXPECT_EQ(accelerometer.samples.size() - before, 20u);
    }
    const auto& samples = accelerometer.samples;
    EXPECT_NEAR(samples.front().timestamp, uptimeAtStart + 0.05, 1e-6);
    EXPECT_NEAR(samples.back().timestamp, f.platform.systemState->systemUptime(), 1e-6);
    for (std::size_t i = 1; i < samples.size(); ++i) {
        EXPECT_NEAR(samples[i].timestamp - samples[i - 1].timestamp, 0.05, 1e-6);
    }

    // A new interval applies from the last sample on; a stop ends the samples.
    accelerometer.manager->setAccelerometerUpdateInterval(0.1);
    f.runFor(2);
    EXPECT_EQ(accelerometer.queue->drain(), 2u);
    EXPECT_EQ(samples.size(), 220u);
    accelerometer.manager->stopAccelerometerUpdates();
    f.runFor(5);
    EXPECT_TRUE(accelerometer.queue->tasks.empty());
    EXPECT_FALSE(accelerometer.manager->isAccelerometerActive());
}

TEST(SimulatedAccelerometer, TheClockWaitsForTheSamplesOnTheAppsOwnQueue) {
    DeviceFixture f(PathBuilder().stay(3600).build());
    std::shared_ptr<Executor> queue = f.platform.makeSerialExecutor("core-motion-accelerations-updates");
    auto manager = f.platform.makeMotionManager();
    manager->setAccelerometerUpdateInterval(0.05);
    std::atomic<int> handled{0};
    std::atomic<double> last{0.0};
    manager->startAccelerometerUpdates(queue, [&](const AccelerometerData& data) {
        ++handled;
        last = data.timestamp;
    });
    for (int second = 1; second <= 30; ++second) {
        f.runFor(1);
        // Every sample of the second was handled before the run returned.
        EXPECT_EQ(handled.load(), 20 * second);
        EXPECT_NEAR(last.load(), f.platform.systemState->systemUptime(), 1e-6);
    }
    manager->stopAccelerometerUpdates();
}

TEST(SimulatedAccelerometer, MagnitudeFollowsWhatTheDeviceIsDoing) {
    // Standing, walking, running, then in a car.
    DeviceFixture f(PathBuilder().stay(60).move(0, 1.4, 60).move(0, 3.5, 60).move(0, 15.0, 120).build());
    Accelerometer accelerometer(f);
    f.runFor(300);
    accelerometer.queue->drain();

    std::map<int, std::vector<double>> bySegment;  // 0 standing, 1 walking, 2 running, 3 driving
    for (const auto& sample : accelerometer.samples) {
        const double t = f.device.bootDate().addingSeconds(sample.timestamp).timeIntervalSince(f.at(0));
        const int segment = t < 55 ? 0 : t < 65 ? -1 : t < 115 ? 1 : t < 125 ? -1 : t < 175 ? 2 : t < 185 ? -1 : 3;
        if (segment >= 0) bySegment[segment].push_back(magnitude(sample));
    }
    const auto range = [](const std::vector<double>& values) {
        const auto [low, high] = std::minmax_element(values.begin(), values.end());
        return std::pair{*low, *high};
    };
    const auto [standLow, standHigh] = range(bySegment[0]);
    EXPECT_GT(standLow, 0.97);
    EXPECT_LT(standHigh, 1.03);
    const auto [walkLow, walkHigh] = range(bySegment[1]);
    EXPECT_GT(walkHigh - walkLow, 0.35);
    EXPECT_LT(walkHigh - walkLow, 1.1);
    const auto [runLow, runHigh] = range(bySegment[2]);
    EXPECT_GT(runHigh - runLow, walkHigh - walkLow);
    const auto [carLow, carHigh] = range(bySegment[3]);
    EXPECT_LT(carHigh - carLow, 0.35);
    EXPECT_GT(carHigh - carLow, standHigh - standLow);
}

struct Activities {
    std::shared_ptr<MotionActivityManagerType> manager;
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::vector<MotionActivity> records;

    explicit Activities(DeviceFixture& f) : manager(f.platform.makeMotionActivityManager()) {
        manager->startActivityUpdates(queue, [this](const MotionActivity& activity) { records.push_back(activity); });
    }

    std::vector<ActivityClass> classes() const {
        std::vector<ActivityClass> result;
        for (const auto& record : records) {
            const ActivityClass activity = record.walking      ? ActivityClass::walking
                                           : record.running    ? ActivityClass::running
                                           : record.cycling    ? ActivityClass::cycling
                                           : record.automotive ? ActivityClass::automotive
                                                               : ActivityClass::stationary;
            if (result.empty() || result.back() != activity) result.push_back(activity);
        }
        return result;
    }
};

TEST(SimulatedActivity, ClassesFollowTheTrueSpeedWithTheirStartDates) {
    DeviceFixture f(PathBuilder()
                        .stay(300)
                        .move(0, 1.4, 300)
                        .move(0, 3.5, 300)
                        .move(0, 6.0, 300)
                        .move(0, 15.0, 300)
                        .stay(600)
                        .build());
    Activities activities(f);
    EXPECT_TRUE(activities.manager->isActivityAvailable());
    f.runFor(2100);
    // Each record was handed over as a task of its own on the queue given.
    const std::size_t tasks = activities.queue->drain();
    EXPECT_EQ(tasks, activities.records.size());

    using enum ActivityClass;
    EXPECT_EQ(activities.classes(), (std::vector{stationary, walking, running, cycling, automotive, stationary}));
    // The first report is the current activity, soon after the start, with low confidence.
    ASSERT_FALSE(activities.records.empty());
    EXPECT_EQ(activities.records[0].startDate, f.at(0));
    EXPECT_EQ(activities.records[0].confidence, MotionActivityConfidence::low);
    // Each new class is reported with the moment it began, and grows more certain.
    std::map<double, std::vector<MotionActivityConfidence>> byStart;
    for (const auto& record : activities.records) {
        byStart[record.startDate.timeIntervalSince(f.at(0))].push_back(record.confidence);
    }
    std::vector<double> starts;
    for (const auto& [start, confidences] : byStart) {
        starts.push_back(start);
        EXPECT_TRUE(std::is_sorted(confidences.begin(), confidences.end()));
        EXPECT_EQ(confidences.back(), MotionActivityConfidence::high);
    }
    ASSERT_EQ(starts.size(), 6u);
    for (std::size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i], 300.0 * static_cast<double>(i));
        EXPECT_LE(starts[i], 300.0 * static_cast<double>(i) + 5.0);
    }
    const auto& changes = f.device.log().activityChanges;
    ASSERT_EQ(changes.size(), 6u);
    EXPECT_EQ(changes[3].activity, cycling);
    EXPECT_GE(changes[3].time.timeIntervalSince(changes[3].startDate), SimulatedMotionService::classChangeDelay);
}

TEST(SimulatedActivity, UnsteadyMiddleSpeedsAreAVehicleNotABicycle) {
    PathBuilder builder;
    builder.stay(60);
    for (int leg = 0; leg < 10; ++leg) builder.move(0, leg % 2 == 0 ? 7.0 : 12.0, 30);
    DeviceFixture f(builder.build());
    Activities activities(f);
    f.runFor(360);
    activities.queue->drain();
    EXPECT_EQ(activities.classes(), (std::vector{ActivityClass::stationary, ActivityClass::automotive}));
    EXPECT_EQ(SimulatedMotionService::classify(6.0, true), ActivityClass::cycling);
    EXPECT_EQ(SimulatedMotionService::classify(6.0, false), ActivityClass::automotive);
}

TEST(SimulatedActivity, NothingIsReportedWithoutMotionAuthorization) {
    SimulatedDeviceOptions options;
    options.motionAuthorization = MotionAuthorizationStatus::denied;
    DeviceFixture f(PathBuilder().stay(60).move(0, 1.4, 600).build(), options);
    Activities activities(f);
    Accelerometer accelerometer(f);
    EXPECT_EQ(activities.manager->authorizationStatus(), MotionAuthorizationStatus::denied);
    f.runFor(600);
    EXPECT_TRUE(activities.queue->tasks.empty());
    EXPECT_FALSE(accelerometer.queue->tasks.empty());
    EXPECT_EQ(f.device.energy().activitySeconds, 0.0);

    // Granted later, the next change is reported.
    f.device.setMotionAuthorization(MotionAuthorizationStatus::authorized);
    EXPECT_EQ(activities.manager->authorizationStatus(), MotionAuthorizationStatus::authorized);
    f.runFor(600);
    activities.queue->drain();
    EXPECT_FALSE(activities.records.empty());
    EXPECT_GT(f.device.energy().activitySeconds, 0.0);
}

}  // namespace
}  // namespace rovalis::sim
