#include "platform/linux/GpsdLocationService.h"

#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
#include <functional>
#include <string>
#include <vector>

#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

const LocationCoordinate2D home{48.137, 11.575};

// The connection as the service sees it; the test plays gpsd by calling the service's
// delegate methods itself.
class FakeConnection final : public GpsdConnection {
public:
    void setDelegate(std::weak_ptr<GpsdConnectionDelegate>) override {}
    void start() override {}
    void setWatching(bool watching) override { watchRequests.push_back(watching); }
    GpsdStatus status() const override { return {}; }

    std::vector<bool> watchRequests;
};

class RecordingDelegate final : public LocationManagerDelegate {
public:
    void locationManagerDidUpdateLocations(LocationManagerType&, const std::vector<Location>& locations) override {
        fixes.insert(fixes.end(), locations.begin(), locations.end());
        if (onUpdate) onUpdate();
    }
    void locationManagerDidEnterRegion(LocationManagerType&, const CircularRegion& region) override {
        regionEvents.push_back("enter " + region.identifier);
    }
    void locationManagerDidExitRegion(LocationManagerType&, const CircularRegion& region) override {
        regionEvents.push_back("exit " + region.identifier);
    }
    void locationManagerDidChangeAuthorization(LocationManagerType& manager) override {
        authorizationChanges.push_back(manager.locationServicesEnabled());
    }
    void locationManagerDidFailWithError(LocationManagerType&, const Error& error) override { errors.push_back(error); }

    std::function<void()> onUpdate;
    std::vector<Location> fixes;
    std::vector<std::string> regionEvents;
    std::vector<bool> authorizationChanges;  // services enabled, as seen in each call
    std::vector<Error> errors;
};

class GpsdLocationServiceTest : public ::testing::Test {
protected:
    struct Client {
        std::shared_ptr<LocationManagerType> manager;
        std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    };

    Client makeClient() {
        Client client{service->makeLocationManager()};
        client.manager->setDelegate(client.delegate);
        return client;
    }

    // A fix `metres` north of home, stamped now.
    Location fix(double metres, double accuracy = 5.0) const {
        Location location;
        GeographicLib::Geodesic::WGS84().Direct(home.latitude, home.longitude, 0.0, metres,
                                                location.coordinate.latitude, location.coordinate.longitude);
        location.horizontalAccuracy = accuracy;
        location.timestamp = clock->now();
        return location;
    }

    void deliver(double metres, double accuracy = 5.0) { service->gpsdDidReceiveFix(fix(metres, accuracy)); }
    // One fix a second for `seconds` seconds, all at home.
    void deliverEverySecond(int seconds) {
        for (int i = 0; i < seconds; ++i, clock->advance(1.0)) deliver(0.0);
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>(clock);
    std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
    std::shared_ptr<GpsdLocationService> service = GpsdLocationService::create(loop, clock, connection);
};

TEST_F(GpsdLocationServiceTest, UpdatesArePacedByTheFinestAccuracyAskedFor) {
    Client coarse = makeClient();
    Client idle = makeClient();
    coarse.manager->setDesiredAccuracy(kCLLocationAccuracyKilometer);
    coarse.manager->startUpdatingLocation();
    deliverEverySecond(25);
    EXPECT_EQ(coarse.delegate->fixes.size(), 3u) << "a kilometre is served every ten seconds, the first at once";
    EXPECT_TRUE(idle.delegate->fixes.empty()) << "a manager that does not update gets nothing";

    Client fine = makeClient();
    fine.manager->setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
    fine.manager->startUpdatingLocation();
    coarse.delegate->fixes.clear();
    deliverEverySecond(5);
    EXPECT_EQ(fine.delegate->fixes.size(), 5u);
    EXPECT_EQ(coarse.delegate->fixes.size(), 5u) << "the finest accuracy asked for sets the pace for all";
    deliver(0.0, 1500.0);
    EXPECT_EQ(fine.delegate->fixes.back().horizontalAccuracy, 1500.0) << "a poor fix is still delivered";

    fine.manager->stopUpdatingLocation();
    fine.delegate->fixes.clear();
    coarse.delegate->fixes.clear();
    clock->advance(1.0);
    deliverEverySecond(20);
    EXPECT_TRUE(fine.delegate->fixes.empty());
    EXPECT_EQ(coarse.delegate->fixes.size(), 2u) << "the pace falls back once the fine manager stops";

    coarse.manager->stopUpdatingLocation();
    coarse.manager->startUpdatingLocation();
    deliver(0.0);
    EXPECT_EQ(coarse.delegate->fixes.size(), 3u) << "a restart is served at once";
}

TEST_F(GpsdLocationServiceTest, DistanceFilterHoldsBackFixesThatDidNotMoveFarEnough) {
    Client client = makeClient();
    client.manager->setDistanceFilter(50.0);
    client.manager->startUpdatingLocation();
    for (const double metres : {0.0, 45.0, 60.0, 100.0, 115.0}) deliver(metres);
    // 60 is 60 m from 0; 115 is 55 m from 60.
    EXPECT_EQ(client.delegate->fixes, (std::vector{fix(0.0), fix(60.0), fix(115.0)}));
}

TEST_F(GpsdLocationServiceTest, GpsdWatchesOnlyWhileSomebodyNeedsFixes) {
    Client a = makeClient();
    Client b = makeClient();
    a.manager->startUpdatingLocation();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true}));

    a.manager->stopUpdatingLocation();
    a.manager->startUpdatingLocation();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true})) << "a restart within one task leaves it alone";

    b.manager->startMonitoringSignificantLocationChanges();
    a.manager->stopUpdatingLocation();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true})) << "significant changes need fixes";
    b.manager->stopMonitoringSignificantLocationChanges();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false}));

    const CircularRegion region{"r", home, 100.0, true, true};
    a.manager->startMonitoring(region);
    loop->runUntilIdle();
    b.manager->stopMonitoring(region);
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false, true, false})) << "regions need fixes";

    b.manager->startUpdatingLocation();
    loop->runUntilIdle();
    b.manager.reset();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false, true, false, true, false}))
        << "a manager that goes away while updating needs nothing more";
    EXPECT_FALSE(service->isWatching());
}

TEST_F(GpsdLocationServiceTest, EveryDelegateHearsWhenLocationServicesTurnOnOrOff) {
    Client a = makeClient();
    Client b = makeClient();
    service->gpsdStatusDidChange({true, false});
    EXPECT_TRUE(a.delegate->authorizationChanges.empty()) << "connected without a device is still off";
    service->gpsdStatusDidChange({true, true});
    service->gpsdStatusDidChange({true, true});
    service->gpsdStatusDidChange({true, false});
    service->gpsdStatusDidChange({true, true});
    service->gpsdStatusDidChange({false, false});
    EXPECT_EQ(a.delegate->authorizationChanges, (std::vector<bool>{true, false, true, false}));
    EXPECT_EQ(b.delegate->authorizationChanges, a.delegate->authorizationChanges);
}

TEST_F(GpsdLocationServiceTest, RegionCrossingsReachEveryManagerOfTheProcess) {
    Client geofences = makeClient();
    Client other = makeClient();
    const CircularRegion region{"stay_00", home, 100.0, true, true};
    geofences.manager->startMonitoring(region);
    EXPECT_EQ(other.manager->monitoredRegions(), std::vector<CircularRegion>{region});

    for (const double metres : {0.0, 150.0, 0.0}) deliver(metres);
    const std::vector<std::string> expected{"exit stay_00", "enter stay_00"};
    EXPECT_EQ(geofences.delegate->regionEvents, expected);
    EXPECT_EQ(other.delegate->regionEvents, expected);
    EXPECT_TRUE(geofences.delegate->fixes.empty()) << "region monitoring alone sends no fixes";

    other.manager->startMonitoring(CircularRegion{"bad", home, -1.0, true, true});
    EXPECT_TRUE(other.delegate->errors.empty()) << "refused later, never from inside the call";
    loop->runUntilIdle();
    EXPECT_EQ(other.delegate->errors, (std::vector<Error>{GpsdLocationManager::regionMonitoringError()}));
    EXPECT_TRUE(geofences.delegate->errors.empty());
    EXPECT_EQ(geofences.manager->monitoredRegions().size(), 1u);
}

TEST_F(GpsdLocationServiceTest, SignificantChangesComeAfterFiveHundredMetresAndFiveMinutes) {
    Client significant = makeClient();
    Client both = makeClient();
    significant.manager->startMonitoringSignificantLocationChanges();
    deliver(0.0);
    clock->advance(60.0);
    deliver(800.0);  // far, but too soon
    clock->advance(300.0);
    deliver(900.0);
    ASSERT_EQ(significant.delegate->fixes.size(), 2u);
    EXPECT_EQ(significant.delegate->fixes[1].coordinate, fix(900.0).coordinate) << "far and late enough";

    significant.manager->stopMonitoringSignificantLocationChanges();
    deliver(900.0);
    significant.manager->startMonitoringSignificantLocationChanges();
    deliver(910.0);
    EXPECT_EQ(significant.delegate->fixes.size(), 3u) << "nothing while stopped; the first fix after a start";

    both.manager->startMonitoringSignificantLocationChanges();
    both.manager->startUpdatingLocation();
    deliver(920.0);
    EXPECT_EQ(both.delegate->fixes.size(), 1u) << "a fix that is an update and a significant change arrives once";
    EXPECT_EQ(significant.delegate->fixes.size(), 3u) << "each manager keeps its own record";
}

TEST_F(GpsdLocationServiceTest, DelegatesMayChangeManagersWhileFixesAreDelivered) {
    Client first = makeClient();
    Client second = makeClient();
    first.delegate->onUpdate = [&] { second.manager->stopUpdatingLocation(); };
    first.manager->startUpdatingLocation();
    second.manager->startUpdatingLocation();
    deliver(0.0);
    EXPECT_TRUE(second.delegate->fixes.empty()) << "stopped before its turn";
}

}  // namespace
}  // namespace rovalis
