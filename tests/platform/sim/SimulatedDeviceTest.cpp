#include <gtest/gtest.h>

#include "platform/sim/SimTestSupport.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/platform/BackgroundTasks.h"
#include "rovalis/platform/Device.h"

namespace rovalis::sim {
namespace {

using test::destination;
using test::DeviceFixture;
using test::kHome;
using test::ManualQueue;
using test::PathBuilder;

TEST(SimulatedDevice, EachProcessGetsItsOwnNotificationCentreOverTheOneDevice) {
    SimulatedDeviceOptions options;
    options.systemVersion = "16.2";
    options.connection = SimulatedConnection::cellular;
    DeviceFixture f(PathBuilder().stay(600).build(), options);
    const Platform first = f.platform;
    f.relaunch();
    const Platform& second = f.platform;

    EXPECT_NE(first.notificationCenter, second.notificationCenter);
    EXPECT_EQ(first.mainRunLoop, second.mainRunLoop);
    EXPECT_EQ(first.dateSource, second.dateSource);
    EXPECT_EQ(first.workTracker, f.device.workTracker());
    EXPECT_EQ(first.network, f.device.sharedNetwork());
    EXPECT_EQ(f.device.network().connection(), SimulatedConnection::cellular);
    EXPECT_EQ(second.systemVersion, "16.2");
    EXPECT_EQ(second.dateSource->now(), f.at(0));
    EXPECT_NE(second.backgroundTasks->beginBackgroundTask([] {}), UIBackgroundTaskInvalid);

    // The bundle's queues count their work, so the clock waits for it.
    auto queue = second.makeSerialExecutor("test-queue");
    std::size_t seen = 0;
    queue->async([&] { seen = f.device.workTracker()->outstanding(); });
    f.runFor(1);
    EXPECT_EQ(seen, 1u);
    EXPECT_TRUE(f.device.workTracker()->isIdle());
}

TEST(SimulatedDevice, RunUntilLandsOnTheTimeAndNeverGoesBack) {
    DeviceFixture f(PathBuilder().stay(600).build());
    int fired = 0;
    f.device.runLoop().scheduleTimer(10.0, false, [&] { ++fired; });
    f.device.runUntil(f.at(123.456));
    EXPECT_EQ(f.device.now(), f.at(123.456));
    EXPECT_EQ(fired, 1);
    f.device.runUntil(f.at(100));
    EXPECT_EQ(f.device.now(), f.at(123.456));
}

TEST(SimulatedDevice, LedgerBooksEverySecondOfAScriptedSequence) {
    DeviceFixture f(PathBuilder().stay(3600).build());
    auto regular = f.locationClient(kCLLocationAccuracyHundredMeters);
    regular.manager->startUpdatingLocation();
    f.runFor(60);
    // The duty cycle's switch to ten metres: a restart at one instant.
    regular.manager->stopUpdatingLocation();
    regular.manager->setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
    regular.manager->startUpdatingLocation();
    f.runFor(10);
    auto burst = f.locationClient(kCLLocationAccuracyBest);
    burst.manager->startUpdatingLocation();
    f.runFor(30);
    burst.manager->stopUpdatingLocation();
    f.runFor(20);
    regular.manager->stopUpdatingLocation();
    f.runFor(100);

    auto accelerometer = f.platform.makeMotionManager();
    auto activity = f.platform.makeMotionActivityManager();
    accelerometer->startAccelerometerUpdates(std::make_shared<ManualQueue>(), [](const AccelerometerData&) {});
    activity->startActivityUpdates(std::make_shared<ManualQueue>(), [](const MotionActivity&) {});
    f.runFor(20);
    accelerometer->stopAccelerometerUpdates();
    f.runFor(20);
    activity.reset();  // released while running
    f.runFor(60);

    const EnergyLedger& ledger = f.device.energy();
    EXPECT_NEAR(ledger.hundredMetreSeconds, 60.0, 1e-6);
    EXPECT_NEAR(ledger.tenMetreSeconds, 60.0, 1e-6);
    EXPECT_NEAR(ledger.burstSeconds, 30.0, 1e-6);
    EXPECT_EQ(ledger.kilometreSeconds, 0.0);
    EXPECT_NEAR(ledger.locationSeconds(), 120.0, 1e-6);
    EXPECT_NEAR(ledger.accelerometerSeconds, 20.0, 1e-6);
    EXPECT_NEAR(ledger.activitySeconds, 40.0, 1e-6);
    EXPECT_EQ(ledger.wakeUps(), 0u);
    EXPECT_EQ(EnergyLedger::baselineGpsSeconds(f.at(0), f.device.now()), 320.0);

    using enum LocationMode;
    std::vector<std::pair<double, LocationMode>> modes;
    for (const auto& change : f.device.log().modeChanges) modes.emplace_back(change.time.timeIntervalSince(f.at(0)), change.mode);
    EXPECT_EQ(modes, (std::vector<std::pair<double, LocationMode>>{
                         {0, hundredMetres}, {60, tenMetres}, {70, best}, {100, tenMetres}, {120, off}}));
    for (const auto& fix : f.device.log().fixes) {
        const double t = fix.time.timeIntervalSince(f.at(0));
        EXPECT_EQ(fix.band, t < 60 ? AccuracyBand::hundredMetres : AccuracyBand::tenMetres) << t;
    }
}

TEST(SimulatedDeviceDeathTest, MisuseIsFatal) {
    EXPECT_DEATH(SimulatedDevice(nullptr), "Fatal error: SimulatedDevice needs a true path");

    Platform orphan;
    {
        DeviceFixture f(PathBuilder().stay(600).build());
        auto accelerometer = f.platform.makeMotionManager();
        EXPECT_DEATH(accelerometer->startAccelerometerUpdates(nullptr, [](const AccelerometerData&) {}),
                     "Fatal error: startAccelerometerUpdates needs a queue and a handler");
        auto activity = f.platform.makeMotionActivityManager();
        EXPECT_DEATH(activity->startActivityUpdates(std::make_shared<ManualQueue>(), nullptr),
                     "Fatal error: startActivityUpdates needs a queue and a handler");
        orphan = f.platform;
    }
    // A bundle cannot make managers once its device is gone.
    EXPECT_DEATH(orphan.makeLocationManager(), "Fatal error: a location manager was asked of a simulated device");
}

// A day in small: regular fixes with bursts, a stay with regions and significant changes,
// a drive, motion throughout.
DeviceLog scriptedDay(std::uint64_t seed, EnergyLedger* energy = nullptr) {
    SimulatedDeviceOptions options;
    options.seed = seed;
    DeviceFixture f(PathBuilder().stay(900).move(45.0, 12.0, 900).stay(900).move(225.0, 1.4, 600).build(), options);
    auto regular = f.locationClient(kCLLocationAccuracyHundredMeters);
    auto regions = f.locationClient();
    auto accelerometer = f.platform.makeMotionManager();
    auto activity = f.platform.makeMotionActivityManager();
    accelerometer->startAccelerometerUpdates(std::make_shared<ManualQueue>(), [](const AccelerometerData&) {});
    activity->startActivityUpdates(std::make_shared<ManualQueue>(), [](const MotionActivity&) {});
    regular.manager->startUpdatingLocation();
    f.runFor(300);
    regular.manager->stopUpdatingLocation();
    auto burst = f.locationClient(kCLLocationAccuracyBest);
    burst.manager->startUpdatingLocation();
    f.runFor(5);
    burst.manager->stopUpdatingLocation();
    regions.manager->startMonitoring({"stay_00", kHome, 100.0, false, true});
    regions.manager->startMonitoring({"stay_0", destination(kHome, 45.0, 300.0), 100.0, true, true});
    regions.manager->startMonitoringSignificantLocationChanges();
    f.runFor(3000);
    regular.manager->startUpdatingLocation();
    f.runFor(300);
    if (energy) *energy = f.device.energy();
    return f.device.log();
}

TEST(SimulatedDevice, TheSameSeedGivesTheSameDayAndAnotherSeedAnotherOne) {
    EnergyLedger firstEnergy, againEnergy;
    const DeviceLog first = scriptedDay(7, &firstEnergy);
    const DeviceLog again = scriptedDay(7, &againEnergy);
    const DeviceLog other = scriptedDay(8);

    // The day was eventful.
    EXPECT_GT(first.fixes.size(), 500u);
    // Out of the stay's centre; the drive through the ring is too quick to count as an entry.
    EXPECT_EQ(first.regionEvents.size(), 1u);
    EXPECT_GE(first.significantChanges.size(), 3u);
    EXPECT_GE(first.activityChanges.size(), 3u);

    EXPECT_TRUE(first == again);
    EXPECT_EQ(firstEnergy, againEnergy);
    EXPECT_NE(first.fixes, other.fixes);
    EXPECT_NE(first.significantChanges, other.significantChanges);
}

}  // namespace
}  // namespace rovalis::sim
