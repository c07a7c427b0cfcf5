#include <gtest/gtest.h>

#include "platform/sim/SimTestSupport.h"

namespace rovalis::sim {
namespace {

using namespace test;

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
    f.runFor(20);
    burst.manager->stopUpdatingLocation();
    f.runFor(30);
    regular.manager->stopUpdatingLocation();
    f.runFor(100);

    auto accelerometer = f.platform.makeMotionManager();
    auto activity = f.platform.makeMotionActivityManager();
    accelerometer->startAccelerometerUpdates(std::make_shared<ManualQueue>(), [](std::span<const AccelerometerData>) {});
    activity->startActivityUpdates(std::make_shared<ManualQueue>(), [](const MotionActivity&) {});
    f.runFor(20);
    accelerometer->stopAccelerometerUpdates();
    f.runFor(20);
    activity.reset();  // released while running
    f.runFor(60);

    const EnergyLedger& ledger = f.device.energy();
    EXPECT_NEAR(ledger.hundredMetreSeconds, 60.0, 1e-6);
    EXPECT_NEAR(ledger.tenMetreSeconds, 60.0, 1e-6);
    EXPECT_NEAR(ledger.burstSeconds, 20.0, 1e-6);
    EXPECT_EQ(ledger.kilometreSeconds, 0.0);
    EXPECT_NEAR(ledger.accelerometerSeconds, 20.0, 1e-6);
    EXPECT_NEAR(ledger.activitySeconds, 40.0, 1e-6);

    // The restart passes through off for no time, which the log does not keep.
    using enum LocationMode;
    std::vector<std::pair<double, LocationMode>> modes;
    for (const auto& change : f.device.log().modeChanges) {
        modes.emplace_back(change.time.timeIntervalSince(f.at(0)), change.mode);
    }
    EXPECT_EQ(modes, (std::vector<std::pair<double, LocationMode>>{
                         {0, hundredMetres}, {60, tenMetres}, {70, best}, {90, tenMetres}, {120, off}}));
}

TEST(SimulatedDeviceDeathTest, MisuseIsFatal) {
    EXPECT_DEATH(SimulatedDevice(nullptr), "Fatal error: SimulatedDevice needs a true path");

    Platform orphan;
    {
        DeviceFixture f(PathBuilder().stay(600).build());
        auto accelerometer = f.platform.makeMotionManager();
        EXPECT_DEATH(accelerometer->startAccelerometerUpdates(nullptr, [](std::span<const AccelerometerData>) {}),
                     "Fatal error: startAccelerometerUpdates needs a queue and a handler");
        auto activity = f.platform.makeMotionActivityManager();
        EXPECT_DEATH(activity->startActivityUpdates(std::make_shared<ManualQueue>(), nullptr),
                     "Fatal error: startActivityUpdates needs a queue and a handler");
        orphan = f.platform;
    }
    // A bundle cannot make managers once its device is gone.
    EXPECT_DEATH(orphan.makeLocationManager(), "Fatal error: a location manager was asked of a simulated device");
}

// Fixes, a region and significant changes over a drive.
DeviceLog drive(std::uint64_t seed) {
    SimulatedDeviceOptions options;
    options.seed = seed;
    DeviceFixture f(PathBuilder().stay(300).move(45.0, 12.0, 900).build(), options);
    auto client = f.locationClient(kCLLocationAccuracyHundredMeters);
    client.manager->startUpdatingLocation();
    client.manager->startMonitoring({"home", kHome, 100.0});
    client.manager->startMonitoringSignificantLocationChanges();
    f.runFor(1200);
    return f.device.log();
}

TEST(SimulatedDevice, TheSameSeedGivesTheSameLogAndAnotherSeedAnotherOne) {
    const DeviceLog first = drive(7);
    EXPECT_TRUE(first == drive(7));
    const DeviceLog other = drive(8);
    EXPECT_NE(first.fixes, other.fixes);
    EXPECT_NE(first.regionEvents, other.regionEvents);
    EXPECT_NE(first.significantChanges, other.significantChanges);
}

}  // namespace
}  // namespace rovalis::sim
