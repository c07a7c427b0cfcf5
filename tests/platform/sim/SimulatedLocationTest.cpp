#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "platform/sim/SimTestSupport.h"

namespace rovalis::sim {
namespace {

using namespace test;

// A minute at home, then a walk north at 1.4 m/s for an hour.
std::shared_ptr<const TruePath> walkNorth() { return PathBuilder().stay(60).move(0.0, 1.4, 3600).build(); }

TEST(SimulatedLocation, FixCadenceAccuracyAndErrorFollowTheDesiredAccuracy) {
    struct Mode {
        double desired, cadenceLow, cadenceHigh, accuracyLow, accuracyHigh;
        bool satellite;
    };
    // Exactly ten and a hundred metres still ask for those modes.
    const Mode modes[] = {
        {kCLLocationAccuracyNearestTenMeters, 0.9, 1.1, 3.0, 10.0, true},
        {kCLLocationAccuracyHundredMeters, 0.9, 1.1, 20.0, 65.0, false},
        {kCLLocationAccuracyKilometer, 10.0, 60.0, 300.0, 3000.0, false},
    };
    for (const auto& mode : modes) {
        SCOPED_TRACE(mode.desired);
        // A quarter of an hour at home, then a walk north at 1.4 m/s.
        DeviceFixture f(PathBuilder().stay(900).move(0.0, 1.4, 3600).build());
        auto client = f.locationClient(mode.desired);
        client.manager->startUpdatingLocation();
        // Long enough for the error, which drifts, to show its spread.
        f.runFor(mode.cadenceHigh < 2.0 ? 1800.0 : 6.0 * 3600);

        // Past the first half minute the receiver has settled.
        std::vector<RecordingDelegate::Fix> fixes;
        std::copy_if(client.delegate->fixes.begin(), client.delegate->fixes.end(), std::back_inserter(fixes),
                     [&](const auto& fix) { return fix.received >= f.at(30); });
        ASSERT_GT(fixes.size(), 20u);
        std::size_t withinAccuracy = 0;
        double step = 0.0, spread = 0.0;  // at home: between neighbouring fixes, and from the truth
        for (std::size_t i = 0; i < fixes.size(); ++i) {
            const auto& [received, fix] = fixes[i];
            EXPECT_EQ(fix.timestamp, received);
            EXPECT_TRUE(fix.horizontalAccuracy >= mode.accuracyLow && fix.horizontalAccuracy <= mode.accuracyHigh)
                << "accuracy " << fix.horizontalAccuracy;
            const double error = distanceBetween(fix.coordinate, f.device.path().at(received).coordinate);
            if (error <= fix.horizontalAccuracy) ++withinAccuracy;
            EXPECT_LT(error, 5.0 * fix.horizontalAccuracy);
            const bool home = received < f.at(900);
            if (!mode.satellite || home) {
                EXPECT_EQ(fix.speed, mode.satellite ? 0.0 : -1.0) << "only satellite fixes know the speed";
                EXPECT_EQ(fix.course, -1.0);
            } else {
                EXPECT_NEAR(fix.speed, 1.4, 1.0);
                EXPECT_TRUE(fix.course < 15.0 || fix.course > 345.0) << "course " << fix.course;
                EXPECT_GT(fix.verticalAccuracy, 0.0);
            }
            if (i == 0) continue;
            const double gap = received.timeIntervalSince(fixes[i - 1].received);
            EXPECT_TRUE(gap >= mode.cadenceLow && gap <= mode.cadenceHigh) << "cadence " << gap;
            if (home) {
                step += distanceBetween(fix.coordinate, fixes[i - 1].location.coordinate);
                spread += error;
            }
        }
        // The accuracy is a radius that holds the true position about two times in three.
        const double share = static_cast<double>(withinAccuracy) / static_cast<double>(fixes.size());
        EXPECT_TRUE(share > 0.35 && share < 0.95) << "share within the accuracy " << share;
        if (mode.satellite) {
            EXPECT_LT(step, 0.5 * spread) << "the error drifts from fix to fix rather than jumping";
        }
    }
}

TEST(SimulatedLocation, BestStartGivesTheCachedFixFirstThenConvergesFromCold) {
    DeviceFixture f(walkNorth());
    auto regular = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    regular.manager->startUpdatingLocation();
    f.runFor(120);
    regular.manager->stopUpdatingLocation();
    const Date lastRegular = regular.delegate->fixes.back().location.timestamp;
    f.runFor(600);

    auto burst = f.locationClient(kCLLocationAccuracyBest);
    const Date started = f.device.now();
    burst.manager->startUpdatingLocation();
    f.runFor(30);
    const auto& fixes = burst.delegate->fixes;
    ASSERT_GT(fixes.size(), 5u);
    EXPECT_EQ(fixes[0].location.timestamp, lastRegular) << "the cached fix keeps its old timestamp";
    EXPECT_LE(fixes[0].received.timeIntervalSince(started), 0.3);
    EXPECT_EQ(fixes[1].location.timestamp, fixes[1].received);
    // Ten minutes after the last fix the receiver starts cold, and reaches 63 m within a few seconds.
    EXPECT_GT(fixes[1].location.horizontalAccuracy, 63.0);
    const auto good = std::find_if(fixes.begin() + 1, fixes.end(),
                                   [](const auto& fix) { return fix.location.horizontalAccuracy <= 63.0; });
    ASSERT_NE(good, fixes.end());
    EXPECT_LE(good->received.timeIntervalSince(started), 4.0);
    EXPECT_LE(fixes.back().location.horizontalAccuracy, 10.0);
}

TEST(SimulatedLocation, EveryManagerThatMayHearSharesTheFinestFixesThroughItsOwnFilter) {
    DeviceFixture f(walkNorth());
    auto coarse = f.locationClient(kCLLocationAccuracyKilometer);
    auto fine = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    auto foregroundOnly = f.locationClient(kCLLocationAccuracyBest);
    fine.manager->setDistanceFilter(50.0);
    foregroundOnly.manager->setAllowsBackgroundLocationUpdates(false);
    for (const auto* client : {&coarse, &fine, &foregroundOnly}) client->manager->startUpdatingLocation();
    f.runFor(600);
    EXPECT_EQ(f.device.locationMode(), LocationMode::tenMetres) << "a manager that may not hear asks for nothing";
    EXPECT_GT(coarse.delegate->fixes.size(), 500u) << "the coarse manager shares the fine fixes";
    EXPECT_TRUE(foregroundOnly.delegate->fixes.empty());
    const auto& filtered = fine.delegate->fixes;
    ASSERT_GT(filtered.size(), 5u);
    for (std::size_t i = 1; i < filtered.size(); ++i) {
        EXPECT_GE(filtered[i].location.distanceFrom(filtered[i - 1].location), 50.0) << "distance filter";
    }

    f.device.setAppInForeground(true);
    f.runFor(10);
    EXPECT_EQ(f.device.locationMode(), LocationMode::best);
    EXPECT_FALSE(foregroundOnly.delegate->fixes.empty());
    coarse = fine = foregroundOnly = {};
    f.runFor(1);
    EXPECT_EQ(f.device.locationMode(), LocationMode::off) << "released managers no longer hold the receiver on";
}

TEST(SimulatedLocation, EveryManagerHearsEachAuthorizationChangeAndWhenInUseGivesFixesOnlyInTheForeground) {
    using enum AuthorizationStatus;
    DeviceFixture f(walkNorth());
    auto first = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    auto second = f.locationClient();
    first.manager->startUpdatingLocation();
    f.runFor(10);
    f.device.setAuthorization(denied);
    f.runFor(10);
    EXPECT_EQ(f.device.locationMode(), LocationMode::off) << "denied";
    f.device.setAuthorization(authorizedAlways);
    f.device.setLocationServicesEnabled(false);
    f.runFor(10);
    EXPECT_EQ(f.device.locationMode(), LocationMode::off) << "services off";
    EXPECT_FALSE(first.manager->locationServicesEnabled());
    f.device.setLocationServicesEnabled(true);
    f.runFor(10);
    EXPECT_EQ(f.device.locationMode(), LocationMode::tenMetres);
    f.device.setAuthorization(authorizedWhenInUse);
    f.runFor(10);
    EXPECT_EQ(f.device.locationMode(), LocationMode::off) << "when in use, in the background";
    f.device.setAppInForeground(true);
    const std::size_t count = first.delegate->fixes.size();
    f.runFor(10);
    EXPECT_GT(first.delegate->fixes.size(), count + 5) << "when in use, in the foreground";
    for (const auto* delegate : {first.delegate.get(), second.delegate.get()}) {
        EXPECT_EQ(delegate->authorizations, (std::vector{authorizedAlways, denied, authorizedAlways, authorizedAlways,
                                                         authorizedAlways, authorizedWhenInUse}))
            << "the foreground is no authorization change";
    }

    // A manager whose delegate comes later hears the status then, and only once.
    auto late = f.platform.makeLocationManager();
    f.runFor(5);
    auto delegate = std::make_shared<RecordingDelegate>(f.device.clock());
    late->setDelegate(delegate);
    f.runFor(0);
    late->setDelegate(delegate);
    f.runFor(5);
    EXPECT_EQ(delegate->authorizations, (std::vector{authorizedWhenInUse}));
}

}  // namespace
}  // namespace rovalis::sim
