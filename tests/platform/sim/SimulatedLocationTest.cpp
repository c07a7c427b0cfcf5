#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "platform/sim/SimTestSupport.h"

namespace rovalis::sim {
namespace {

using test::DeviceFixture;
using test::kHome;
using test::PathBuilder;

// A walk north at 1.4 m/s for an hour, after a minute at home.
std::shared_ptr<const TruePath> walkNorth() { return PathBuilder().stay(60).move(0.0, 1.4, 3600).build(); }

struct Cadence {
    double shortest;
    double longest;
};

Cadence cadenceOf(const std::vector<test::RecordingDelegate::Fix>& fixes) {
    Cadence cadence{1e9, 0.0};
    for (std::size_t i = 1; i < fixes.size(); ++i) {
        const double gap = fixes[i].received.timeIntervalSince(fixes[i - 1].received);
        cadence.shortest = std::min(cadence.shortest, gap);
        cadence.longest = std::max(cadence.longest, gap);
    }
    return cadence;
}

TEST(SimulatedLocation, FixCadenceAndAccuracyFollowTheDesiredAccuracy) {
    struct Mode {
        double desired;
        double cadenceLow, cadenceHigh;
        double accuracyLow, accuracyHigh;
        bool speedKnown;
    };
    const Mode modes[] = {
        {kCLLocationAccuracyBest, 0.9, 1.1, 3.0, 10.0, true},
        {kCLLocationAccuracyNearestTenMeters, 0.9, 1.1, 3.0, 10.0, true},
        {kCLLocationAccuracyHundredMeters, 0.9, 1.1, 20.0, 65.0, false},
        {kCLLocationAccuracyKilometer, 10.0, 60.0, 300.0, 3000.0, false},
        {kCLLocationAccuracyThreeKilometers, 10.0, 60.0, 300.0, 3000.0, false},
    };
    for (const auto& mode : modes) {
        SCOPED_TRACE(mode.desired);
        DeviceFixture f(walkNorth());
        auto client = f.locationClient(mode.desired);
        client.manager->startUpdatingLocation();
        // Long enough for the error, which drifts, to show its spread.
        const double duration = mode.cadenceHigh > 2.0 ? 6.0 * 3600 : 1800.0;
        f.runFor(duration);

        // Past the first half minute the receiver has settled.
        const auto fixes = client.delegate->fixesBetween(f.at(30), f.at(duration));
        ASSERT_GT(fixes.size(), 20u);
        const auto cadence = cadenceOf(fixes);
        EXPECT_GE(cadence.shortest, mode.cadenceLow);
        EXPECT_LE(cadence.longest, mode.cadenceHigh);

        std::size_t withinAccuracy = 0;
        for (const auto& [received, fix] : fixes) {
            EXPECT_EQ(fix.timestamp, received);
            EXPECT_GE(fix.horizontalAccuracy, mode.accuracyLow);
            EXPECT_LE(fix.horizontalAccuracy, mode.accuracyHigh);
            const double error = distanceBetween(fix.coordinate, f.device.path().at(received).coordinate);
            if (error <= fix.horizontalAccuracy) ++withinAccuracy;
            EXPECT_LT(error, 5.0 * fix.horizontalAccuracy);
            if (mode.speedKnown && received > f.at(60) && received < f.at(3660)) {
                EXPECT_NEAR(fix.speed, 1.4, 1.0);
                EXPECT_TRUE(fix.course >= 0.0 && (fix.course < 15.0 || fix.course > 345.0)) << fix.course;
                EXPECT_GT(fix.verticalAccuracy, 0.0);
            } else if (!mode.speedKnown) {
                EXPECT_EQ(fix.speed, -1.0);
                EXPECT_EQ(fix.course, -1.0);
            }
        }
        // The accuracy is a radius that holds the true position about two times in three.
        const double share = static_cast<double>(withinAccuracy) / static_cast<double>(fixes.size());
        EXPECT_GT(share, 0.35);
        EXPECT_LT(share, 0.95);
    }
}

TEST(SimulatedLocation, ErrorDriftsFromFixToFixRatherThanJumping) {
    DeviceFixture f(PathBuilder().stay(3600).build());
    auto client = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    client.manager->startUpdatingLocation();
    f.runFor(1200);
    const auto fixes = client.delegate->fixesBetween(f.at(30), f.at(1200));
    ASSERT_GT(fixes.size(), 1000u);
    double step = 0.0, spread = 0.0;
    for (std::size_t i = 1; i < fixes.size(); ++i) {
        step += distanceBetween(fixes[i].location.coordinate, fixes[i - 1].location.coordinate);
        spread += distanceBetween(fixes[i].location.coordinate, kHome);
    }
    // Neighbouring fixes lie much closer together than they lie from the truth on average.
    EXPECT_LT(step, 0.5 * spread);
    // Standing still: no course, and a speed of zero.
    for (const auto& [received, fix] : fixes) {
        EXPECT_EQ(fix.course, -1.0);
        EXPECT_EQ(fix.speed, 0.0);
    }
}

TEST(SimulatedLocation, BestStartGivesTheCachedFixFirstThenConverges) {
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
    // The cached fix, old timestamp and all, comes within a moment.
    EXPECT_EQ(fixes[0].location.timestamp, lastRegular);
    EXPECT_LE(fixes[0].received.timeIntervalSince(started), 0.3);
    // Then fresh fixes whose accuracy converges; one of 63 m or better within a few seconds.
    EXPECT_EQ(fixes[1].location.timestamp, fixes[1].received);
    EXPECT_GT(fixes[1].location.horizontalAccuracy, fixes.back().location.horizontalAccuracy);
    const auto good = std::find_if(fixes.begin() + 1, fixes.end(),
                                   [](const auto& fix) { return fix.location.horizontalAccuracy <= 63.0; });
    ASSERT_NE(good, fixes.end());
    EXPECT_LE(good->received.timeIntervalSince(started), 4.0);
    EXPECT_LE(fixes.back().location.horizontalAccuracy, 10.0);
    // A cold receiver's first fresh fix is not yet that good.
    EXPECT_GT(fixes[1].location.horizontalAccuracy, 63.0);
}

TEST(SimulatedLocation, FreshDeviceStartsColdWithoutACachedFix) {
    DeviceFixture f(walkNorth());
    auto burst = f.locationClient(kCLLocationAccuracyBest);
    burst.manager->startUpdatingLocation();
    f.runFor(10);
    const auto& fixes = burst.delegate->fixes;
    ASSERT_FALSE(fixes.empty());
    EXPECT_EQ(fixes[0].location.timestamp, fixes[0].received);
    EXPECT_GE(fixes[0].received.timeIntervalSince(f.at(0)), 0.3);
    EXPECT_GT(fixes[0].location.horizontalAccuracy, 63.0);
    EXPECT_LE(fixes.back().location.horizontalAccuracy, 20.0);
}

TEST(SimulatedLocation, FinestRequestDrivesTheReceiverAndEveryUpdatingManagerGetsItsFixes) {
    DeviceFixture f(walkNorth());
    auto coarse = f.locationClient(kCLLocationAccuracyKilometer);
    auto fine = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    coarse.manager->startUpdatingLocation();
    f.runFor(5);
    EXPECT_EQ(f.device.locationMode(), LocationMode::kilometre);
    fine.manager->startUpdatingLocation();
    f.runFor(60);
    EXPECT_EQ(f.device.locationMode(), LocationMode::tenMetres);
    // The kilometre manager shares the receiver's fine fixes.
    EXPECT_GT(coarse.delegate->fixesBetween(f.at(35), f.at(65)).size(), 25u);

    fine.manager->stopUpdatingLocation();
    f.runFor(1);
    EXPECT_EQ(f.device.locationMode(), LocationMode::kilometre);
    const std::size_t before = fine.delegate->fixes.size();
    f.runFor(300);
    EXPECT_EQ(fine.delegate->fixes.size(), before);

    // A released manager no longer holds the receiver on.
    coarse.manager.reset();
    f.runFor(1);
    EXPECT_EQ(f.device.locationMode(), LocationMode::off);
}

TEST(SimulatedLocation, DistanceFilterAndBackgroundPermissionAreHonoured) {
    DeviceFixture f(walkNorth());
    auto filtered = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    filtered.manager->setDistanceFilter(50.0);
    filtered.manager->startUpdatingLocation();
    auto foregroundOnly = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    foregroundOnly.manager->setAllowsBackgroundLocationUpdates(false);
    foregroundOnly.manager->startUpdatingLocation();
    f.runFor(600);

    const auto& fixes = filtered.delegate->fixes;
    ASSERT_GT(fixes.size(), 5u);
    for (std::size_t i = 1; i < fixes.size(); ++i) {
        EXPECT_GE(fixes[i].location.distanceFrom(fixes[i - 1].location), 50.0);
    }
    // In the background, a manager that does not allow background updates gets nothing.
    EXPECT_TRUE(foregroundOnly.delegate->fixes.empty());
    f.device.setAppInForeground(true);
    f.runFor(10);
    EXPECT_FALSE(foregroundOnly.delegate->fixes.empty());
}

TEST(SimulatedLocation, WhenInUseDeliversOnlyInTheForeground) {
    SimulatedDeviceOptions options;
    options.authorization = AuthorizationStatus::authorizedWhenInUse;
    DeviceFixture f(walkNorth(), options);
    auto client = f.locationClient(kCLLocationAccuracyHundredMeters);
    client.manager->startUpdatingLocation();
    f.runFor(120);
    EXPECT_TRUE(client.delegate->fixes.empty());
    EXPECT_EQ(f.device.locationMode(), LocationMode::off);

    f.device.setAppInForeground(true);
    f.runFor(60);
    EXPECT_GT(client.delegate->fixes.size(), 50u);

    f.device.setAppInForeground(false);
    const std::size_t count = client.delegate->fixes.size();
    f.runFor(120);
    EXPECT_EQ(client.delegate->fixes.size(), count);
    // The foreground is not an authorization change.
    EXPECT_EQ(client.delegate->authorizations.size(), 1u);
}

TEST(SimulatedLocation, DeniedOrServicesOffDeliverNothingAndEveryManagerIsTold) {
    DeviceFixture f(walkNorth());
    auto first = f.locationClient(kCLLocationAccuracyNearestTenMeters);
    auto second = f.locationClient(kCLLocationAccuracyHundredMeters);
    first.manager->startUpdatingLocation();
    second.manager->startUpdatingLocation();
    f.runFor(10);
    EXPECT_EQ(first.delegate->authorizations, (std::vector{AuthorizationStatus::authorizedAlways}));

    f.device.setAuthorization(AuthorizationStatus::denied);
    f.runFor(0);
    const std::size_t firstCount = first.delegate->fixes.size();
    const std::size_t secondCount = second.delegate->fixes.size();
    f.runFor(300);
    EXPECT_EQ(first.delegate->fixes.size(), firstCount);
    EXPECT_EQ(second.delegate->fixes.size(), secondCount);
    for (const auto* delegate : {first.delegate.get(), second.delegate.get()}) {
        EXPECT_EQ(delegate->authorizations,
                  (std::vector{AuthorizationStatus::authorizedAlways, AuthorizationStatus::denied}));
    }

    f.device.setAuthorization(AuthorizationStatus::authorizedAlways);
    f.device.setLocationServicesEnabled(false);
    f.runFor(300);
    EXPECT_EQ(first.delegate->fixes.size(), firstCount);
    EXPECT_EQ(first.delegate->authorizations.size(), 4u);
    EXPECT_FALSE(first.manager->locationServicesEnabled());
    EXPECT_EQ(f.device.energy().locationSeconds(), f.device.energy().tenMetreSeconds);

    f.device.setLocationServicesEnabled(true);
    f.runFor(10);
    EXPECT_GT(first.delegate->fixes.size(), firstCount);
    EXPECT_EQ(second.delegate->authorizations.size(), 5u);
}

TEST(SimulatedLocation, ReducedAccuracyGivesApproximateFixesOnAGrid) {
    SimulatedDeviceOptions options;
    options.accuracy = AccuracyAuthorization::reducedAccuracy;
    DeviceFixture f(PathBuilder().stay(600).move(90.0, 1.0, 300).build(), options);
    auto client = f.locationClient(kCLLocationAccuracyBest);
    client.manager->startUpdatingLocation();
    f.runFor(600);
    const auto& fixes = client.delegate->fixes;
    ASSERT_GT(fixes.size(), 5u);
    EXPECT_EQ(f.device.locationMode(), LocationMode::approximate);
    for (const auto& [received, fix] : fixes) {
        EXPECT_GE(fix.horizontalAccuracy, 1000.0);
        EXPECT_LE(fix.horizontalAccuracy, 3000.0);
        // Standing still, every fix names the same grid cell.
        EXPECT_EQ(fix.coordinate, fixes[0].location.coordinate);
        EXPECT_LT(distanceBetween(fix.coordinate, kHome), 1500.0);
    }
    EXPECT_NE(fixes[0].location.coordinate, kHome);

    f.device.setAccuracyAuthorization(AccuracyAuthorization::fullAccuracy);
    f.runFor(30);
    EXPECT_EQ(f.device.locationMode(), LocationMode::best);
    EXPECT_LT(client.delegate->fixes.back().location.horizontalAccuracy, 20.0);
    EXPECT_EQ(client.delegate->authorizations.size(), 2u);
}

TEST(SimulatedLocation, EveryNewManagerHearsTheAuthorizationOnceSoonAfterItIsMade) {
    DeviceFixture f(walkNorth());
    auto early = f.locationClient();
    f.runFor(0);
    EXPECT_EQ(early.delegate->authorizations.size(), 1u);

    // A manager whose delegate comes later hears it then.
    auto late = f.platform.makeLocationManager();
    f.runFor(5);
    auto delegate = std::make_shared<test::RecordingDelegate>(f.device.clock());
    late->setDelegate(delegate);
    f.runFor(0);
    EXPECT_EQ(delegate->authorizations, (std::vector{AuthorizationStatus::authorizedAlways}));
    late->setDelegate(delegate);
    f.runFor(5);
    EXPECT_EQ(delegate->authorizations.size(), 1u);
    EXPECT_EQ(early.delegate->authorizations.size(), 1u);
}

}  // namespace
}  // namespace rovalis::sim
