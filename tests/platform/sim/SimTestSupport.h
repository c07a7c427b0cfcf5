#pragma once

// Synthetic paths and recording clients for the simulated device's tests.

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <GeographicLib/Geodesic.hpp>

#include "platform/sim/SimulatedDevice.h"
#include "rovalis/Executor.h"
#include "rovalis/platform/LocationManager.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis::sim::test {

inline constexpr double kStart = 1700000000.0;
inline const LocationCoordinate2D kHome{52.52, 13.405};

// `from` moved `metres` along `bearing` (degrees) on the WGS84 ellipsoid.
inline LocationCoordinate2D destination(LocationCoordinate2D from, double bearing, double metres) {
    LocationCoordinate2D to;
    GeographicLib::Geodesic::WGS84().Direct(from.latitude, from.longitude, bearing, metres, to.latitude, to.longitude);
    return to;
}

// A true path built leg by leg, from `from` at kStart.
class PathBuilder {
public:
    explicit PathBuilder(LocationCoordinate2D from = kHome) { points_.push_back({Date{kStart}, from, std::nullopt}); }

    // Straight to a point, arriving after `seconds`.
    PathBuilder& to(LocationCoordinate2D coordinate, double seconds) {
        points_.push_back({points_.back().time.addingSeconds(seconds), coordinate, std::nullopt});
        return *this;
    }
    PathBuilder& stay(double seconds) { return to(points_.back().coordinate, seconds); }
    PathBuilder& move(double bearing, double speed, double seconds) {
        return to(destination(points_.back().coordinate, bearing, speed * seconds), seconds);
    }
    std::shared_ptr<const TruePath> build() const { return std::make_shared<const TruePath>(points_); }

private:
    std::vector<TracePoint> points_;
};

// Keeps what a location manager reports, with the virtual time each fix arrived.
class RecordingDelegate final : public LocationManagerDelegate {
public:
    struct Fix {
        Date received;
        Location location;
    };

    explicit RecordingDelegate(std::shared_ptr<const RVLDateSource> clock) : clock_(std::move(clock)) {}

    void locationManagerDidUpdateLocations(LocationManagerType&, const std::vector<Location>& locations) override {
        for (const auto& location : locations) fixes.push_back({clock_->now(), location});
    }
    void locationManagerDidEnterRegion(LocationManagerType&, const CircularRegion& region) override {
        crossings.push_back("enter " + region.identifier);
    }
    void locationManagerDidExitRegion(LocationManagerType&, const CircularRegion& region) override {
        crossings.push_back("exit " + region.identifier);
    }
    void locationManagerDidChangeAuthorization(LocationManagerType& manager) override {
        authorizations.push_back(manager.authorizationStatus());
    }

    std::vector<Fix> fixes;
    std::vector<std::string> crossings;  // "enter home", "exit home", ...
    std::vector<AuthorizationStatus> authorizations;

private:
    const std::shared_ptr<const RVLDateSource> clock_;
};

// A queue whose tasks wait until the test runs them, so that a test sees how work was handed over.
class ManualQueue final : public Executor {
public:
    void async(std::function<void()> task) override { tasks.push_back(std::move(task)); }
    void sync(const std::function<void()>& task) override { task(); }
    bool isCurrent() const override { return false; }

    // Runs every waiting task; returns how many there were.
    std::size_t drain() {
        const auto waiting = std::exchange(tasks, {});
        for (const auto& task : waiting) task();
        return waiting.size();
    }

    std::deque<std::function<void()>> tasks;
};

// A device over a path, one app process on it, and location managers with recording delegates.
struct DeviceFixture {
    explicit DeviceFixture(std::shared_ptr<const TruePath> path, SimulatedDeviceOptions options = {})
        : device(std::move(path), std::move(options)) {
        relaunch();
    }

    // A new process: a new bundle over the same device.
    void relaunch() { platform = device.makeProcessPlatform(std::make_shared<InMemoryKeyValueStore>(), nullptr); }

    struct Client {
        std::shared_ptr<LocationManagerType> manager;
        std::shared_ptr<RecordingDelegate> delegate;
    };
    // A manager as the SDK configures its own: background updates allowed, no pausing.
    Client locationClient(double desiredAccuracy = kCLLocationAccuracyBest) {
        Client client{platform.makeLocationManager(), std::make_shared<RecordingDelegate>(device.clock())};
        client.manager->setAllowsBackgroundLocationUpdates(true);
        client.manager->setPausesLocationUpdatesAutomatically(false);
        client.manager->setDesiredAccuracy(desiredAccuracy);
        client.manager->setDelegate(client.delegate);
        return client;
    }

    void runFor(double seconds) { device.runUntil(device.now().addingSeconds(seconds)); }
    Date at(double secondsAfterStart) const { return Date{kStart + secondsAfterStart}; }

    SimulatedDevice device;
    Platform platform;
};

}  // namespace rovalis::sim::test
