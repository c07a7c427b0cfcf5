#include "platform/linux/GpsdLocationService.h"

#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
#include <string>
#include <vector>

#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

const LocationCoordinate2D home{48.137, 11.575};

// The connection as the service sees it; the test plays gpsd by calling the delegate.
class FakeConnection final : public GpsdConnection {
public:
    void setDelegate(std::weak_ptr<GpsdConnectionDelegate> d) override { delegate = std::move(d); }
    void start() override { ++starts; }
    void setWatching(bool watching) override { watchRequests.push_back(watching); }
    GpsdStatus status() const override { return current; }

    void report(GpsdStatus status) {
        current = status;
        delegate.lock()->gpsdStatusDidChange(status);
    }
    void deliver(const Location& fix) { delegate.lock()->gpsdDidReceiveFix(fix); }

    std::weak_ptr<GpsdConnectionDelegate> delegate;
    int starts = 0;
    std::vector<bool> watchRequests;
    GpsdStatus current;
};

class RecordingDelegate final : public LocationManagerDelegate {
public:
    void locationManagerDidUpdateLocations(LocationManagerType&, const std::vector<Location>& locations) override {
        fixes.insert(fixes.end(), locations.begin(), locations.end());
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
    void locationManagerDidFailWithError(LocationManagerType&, const Error& error) override {
        errors.push_back(error);
    }

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

    // One fix a second for `seconds` seconds, all at the same place.
    void deliverEverySecond(int seconds, double metres = 0.0) {
        for (int i = 0; i < seconds; ++i) {
            connection->deliver(fix(metres));
            clock->advance(1.0);
        }
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>(clock);
    std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
    std::shared_ptr<GpsdLocationService> service = GpsdLocationService::create(loop, clock, connection);
};

TEST_F(GpsdLocationServiceTest, ManagersAreIndependentClientsOfOneService) {
    EXPECT_EQ(connection->starts, 1);
    Client a = makeClient();
    Client b = makeClient();
    ASSERT_NE(a.manager, b.manager);
    EXPECT_EQ(a.manager->delegate(), a.delegate);
    EXPECT_EQ(b.manager->delegate(), b.delegate);

    // Settings are each manager's own.
    a.manager->setDesiredAccuracy(kCLLocationAccuracyKilometer);
    EXPECT_EQ(b.manager->desiredAccuracy(), kCLLocationAccuracyBest);

    // No per-application permission on Linux.
    EXPECT_EQ(a.manager->authorizationStatus(), AuthorizationStatus::authorizedAlways);
    EXPECT_EQ(a.manager->accuracyAuthorization(), AccuracyAuthorization::fullAccuracy);

    // Only managers that update get fixes.
    a.manager->startUpdatingLocation();
    loop->runUntilIdle();
    connection->deliver(fix(0.0));
    EXPECT_EQ(a.delegate->fixes.size(), 1u);
    EXPECT_TRUE(b.delegate->fixes.empty());

    // A delegate that has gone is simply not called; a manager that has gone is forgotten.
    a.delegate.reset();
    b.manager->startUpdatingLocation();
    connection->deliver(fix(0.0));
    EXPECT_EQ(b.delegate->fixes.size(), 1u);
    b.manager.reset();
    connection->deliver(fix(0.0));
    EXPECT_EQ(b.delegate->fixes.size(), 1u);
}

TEST_F(GpsdLocationServiceTest, UpdatesArePacedByTheFinestAccuracyAskedFor) {
    Client coarse = makeClient();
    coarse.manager->setDesiredAccuracy(kCLLocationAccuracyKilometer);
    coarse.manager->startUpdatingLocation();
    loop->runUntilIdle();

    // One fix a second from gpsd; a kilometre is served every ten seconds, the first at once.
    deliverEverySecond(25);
    EXPECT_EQ(coarse.delegate->fixes.size(), 3u);

    // A manager that asks for ten metres gets every fix, and so does the coarse one meanwhile.
    Client fine = makeClient();
    fine.manager->setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
    fine.manager->startUpdatingLocation();
    coarse.delegate->fixes.clear();
    deliverEverySecond(5);
    EXPECT_EQ(fine.delegate->fixes.size(), 5u);
    EXPECT_EQ(coarse.delegate->fixes.size(), 5u);

    // A fix far worse than asked for is still delivered, as the platform does.
    connection->deliver(fix(0.0, 1500.0));
    EXPECT_EQ(fine.delegate->fixes.back().horizontalAccuracy, 1500.0);

    // Once the fine manager stops, the pace falls back; a stopped manager gets nothing.
    fine.manager->stopUpdatingLocation();
    fine.delegate->fixes.clear();
    coarse.delegate->fixes.clear();
    clock->advance(1.0);
    deliverEverySecond(20);
    EXPECT_TRUE(fine.delegate->fixes.empty());
    EXPECT_EQ(coarse.delegate->fixes.size(), 2u);

    // A restart is served at once, whatever the pace.
    coarse.manager->stopUpdatingLocation();
    coarse.manager->startUpdatingLocation();
    const auto before = coarse.delegate->fixes.size();
    connection->deliver(fix(0.0));
    EXPECT_EQ(coarse.delegate->fixes.size(), before + 1);
}

TEST_F(GpsdLocationServiceTest, DistanceFilterHoldsBackFixesThatDidNotMoveFarEnough) {
    Client client = makeClient();
    client.manager->setDistanceFilter(50.0);
    client.manager->startUpdatingLocation();
    for (const double metres : {0.0, 20.0, 45.0, 60.0, 100.0, 115.0}) {
        connection->deliver(fix(metres));
        clock->advance(1.0);
    }
    // 0 is the first; 60 is 60 m from it; 115 is 55 m from 60.
    ASSERT_EQ(client.delegate->fixes.size(), 3u);
    EXPECT_EQ(client.delegate->fixes[1].coordinate, fix(60.0).coordinate);
    EXPECT_EQ(client.delegate->fixes[2].coordinate, fix(115.0).coordinate);
}

TEST_F(GpsdLocationServiceTest, GpsdWatchesOnlyWhileSomebodyNeedsFixes) {
    Client a = makeClient();
    Client b = makeClient();
    loop->runUntilIdle();
    EXPECT_TRUE(connection->watchRequests.empty());
    EXPECT_FALSE(service->isWatching());

    a.manager->startUpdatingLocation();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true}));

    // A restart within one task (as an accuracy switch does) leaves the watch alone.
    a.manager->stopUpdatingLocation();
    a.manager->setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
    a.manager->startUpdatingLocation();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true}));

    // Another need overlapping the first keeps it going.
    b.manager->startMonitoringSignificantLocationChanges();
    a.manager->stopUpdatingLocation();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true}));
    b.manager->stopMonitoringSignificantLocationChanges();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false}));

    // Monitored regions need fixes too, whichever manager added them.
    const CircularRegion region{"r", home, 100.0, true, true};
    a.manager->startMonitoring(region);
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false, true}));
    b.manager->stopMonitoring(region);
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false, true, false}));

    // A manager that goes away while updating no longer needs anything.
    b.manager->startUpdatingLocation();
    loop->runUntilIdle();
    b.manager.reset();
    loop->runUntilIdle();
    EXPECT_EQ(connection->watchRequests, (std::vector<bool>{true, false, true, false, true, false}));
    EXPECT_FALSE(service->isWatching());
}

TEST_F(GpsdLocationServiceTest, EveryDelegateHearsWhenLocationServicesTurnOnOrOff) {
    Client a = makeClient();
    Client b = makeClient();
    Client silent = makeClient();
    silent.delegate.reset();
    EXPECT_FALSE(a.manager->locationServicesEnabled());

    // Connected without a device is still off: nothing changed.
    connection->report({true, false});
    EXPECT_TRUE(a.delegate->authorizationChanges.empty());
    connection->report({true, true});
    EXPECT_TRUE(a.manager->locationServicesEnabled());
    EXPECT_EQ(a.delegate->authorizationChanges, (std::vector<bool>{true}));
    EXPECT_EQ(b.delegate->authorizationChanges, (std::vector<bool>{true}));
    connection->report({true, true});
    EXPECT_EQ(a.delegate->authorizationChanges.size(), 1u);

    // Whether the device goes or gpsd does, services are off.
    connection->report({true, false});
    connection->report({true, true});
    connection->report({false, false});
    EXPECT_EQ(a.delegate->authorizationChanges, (std::vector<bool>{true, false, true, false}));
    EXPECT_EQ(b.delegate->authorizationChanges, a.delegate->authorizationChanges);
    EXPECT_FALSE(b.manager->locationServicesEnabled());
    EXPECT_EQ(b.manager->authorizationStatus(), AuthorizationStatus::authorizedAlways);
}

TEST_F(GpsdLocationServiceTest, RegionCrossingsReachEveryManagerOfTheProcess) {
    Client geofences = makeClient();
    Client other = makeClient();
    const CircularRegion region{"stay_00", home, 100.0, false, true};
    const CircularRegion ring{"stay_0", fix(300.0).coordinate, 150.0, true, true};
    geofences.manager->startMonitoring(region);
    geofences.manager->startMonitoring(ring);
    loop->runUntilIdle();
    EXPECT_EQ(other.manager->monitoredRegions(), (std::vector<CircularRegion>{region, ring}));

    // Starting inside is silent; a vague fix decides nothing; leaving and returning report.
    for (const auto& [metres, accuracy] : std::vector<std::pair<double, double>>{
             {0.0, 10.0}, {120.0, 40.0}, {130.0, 20.0}, {310.0, 10.0}, {0.0, 10.0}}) {
        connection->deliver(fix(metres, accuracy));
    }
    const std::vector<std::string> expected{"exit stay_00", "enter stay_0", "exit stay_0"};
    EXPECT_EQ(geofences.delegate->regionEvents, expected);
    EXPECT_EQ(other.delegate->regionEvents, expected);
    // Region monitoring alone sends no fixes.
    EXPECT_TRUE(geofences.delegate->fixes.empty());

    // A region that cannot be monitored is refused later, with an error to its manager only.
    other.manager->startMonitoring(CircularRegion{"bad", home, -1.0, true, true});
    EXPECT_TRUE(other.delegate->errors.empty());
    loop->runUntilIdle();
    EXPECT_EQ(other.delegate->errors, (std::vector<Error>{GpsdLocationManager::regionMonitoringError()}));
    EXPECT_TRUE(geofences.delegate->errors.empty());
    EXPECT_EQ(geofences.manager->monitoredRegions().size(), 2u);

    other.manager->stopMonitoring(region);
    EXPECT_EQ(geofences.manager->monitoredRegions(), (std::vector<CircularRegion>{ring}));
}

TEST_F(GpsdLocationServiceTest, SignificantChangesComeAfterFiveHundredMetresAndFiveMinutes) {
    Client significant = makeClient();
    Client both = makeClient();
    significant.manager->startMonitoringSignificantLocationChanges();
    loop->runUntilIdle();

    connection->deliver(fix(0.0, 65.0));  // the first fix after a start
    clock->advance(60.0);
    connection->deliver(fix(800.0));      // far, but too soon
    clock->advance(300.0);
    connection->deliver(fix(900.0));      // far and late enough
    clock->advance(600.0);
    connection->deliver(fix(1300.0));     // late, but only 400 m on
    connection->deliver(fix(1450.0));
    ASSERT_EQ(significant.delegate->fixes.size(), 3u);
    EXPECT_EQ(significant.delegate->fixes[1].coordinate, fix(900.0).coordinate);
    EXPECT_EQ(significant.delegate->fixes[2].coordinate, fix(1450.0).coordinate);

    // A stop and a new start begin with the next fix again; managers keep their own record.
    significant.manager->stopMonitoringSignificantLocationChanges();
    connection->deliver(fix(1450.0));
    EXPECT_EQ(significant.delegate->fixes.size(), 3u);
    significant.manager->startMonitoringSignificantLocationChanges();
    both.manager->startMonitoringSignificantLocationChanges();
    both.manager->startUpdatingLocation();
    connection->deliver(fix(1460.0));
    EXPECT_EQ(significant.delegate->fixes.size(), 4u);
    // A fix that is both an update and a significant change arrives once.
    EXPECT_EQ(both.delegate->fixes.size(), 1u);
    clock->advance(1.0);
    connection->deliver(fix(1470.0));
    EXPECT_EQ(both.delegate->fixes.size(), 2u);
    EXPECT_EQ(significant.delegate->fixes.size(), 4u);
}

TEST_F(GpsdLocationServiceTest, DelegatesMayChangeManagersWhileFixesAreDelivered) {
    Client first = makeClient();
    Client second = makeClient();
    // The first delegate's reaction stops the second manager before its turn.
    class Stopper final : public LocationManagerDelegate {
    public:
        explicit Stopper(std::shared_ptr<LocationManagerType> target) : target_(std::move(target)) {}
        void locationManagerDidUpdateLocations(LocationManagerType&, const std::vector<Location>&) override {
            target_->stopUpdatingLocation();
            ++calls;
        }
        int calls = 0;

    private:
        std::shared_ptr<LocationManagerType> target_;
    };
    const auto stopper = std::make_shared<Stopper>(second.manager);
    first.manager->setDelegate(stopper);
    first.manager->startUpdatingLocation();
    second.manager->startUpdatingLocation();
    connection->deliver(fix(0.0));
    EXPECT_EQ(stopper->calls, 1);
    EXPECT_TRUE(second.delegate->fixes.empty());
}

}  // namespace
}  // namespace rovalis
