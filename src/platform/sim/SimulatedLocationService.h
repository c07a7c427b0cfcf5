#pragma once

#include <cstdint>
#include <map>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/sim/DeviceContext.h"
#include "platform/sim/LocationErrorModel.h"
#include "platform/sim/SimulationRandom.h"
#include "rovalis/platform/LocationManager.h"

namespace rovalis::sim {

class SimulatedBluetoothRadio;
class SimulatedLocationManager;

// The simulated device's one location service, shared by every location manager the app's
// processes make. All of it runs on the device's run loop; every report reaches a delegate
// there.
//
// Updates: while location is usable (services on, and "always", or "when in use" with the
// app in the foreground) the receiver runs at the finest accuracy any updating manager asks
// for, and every updating manager (that allows background updates, or while the app is in
// the foreground) gets each fix. Best, ten-metre and hundred-metre fixes come about every
// second, kilometre, coarser and approximate ones every 10 to 60 s. A manager that starts in best mode
// first gets the last known fix, old timestamp and all, 0.05 - 0.3 s after the start; the
// receiver's own first fix follows 0.3 - 1 s after it starts or moves to a finer mode, with
// the accuracy still converging (see LocationErrorModel).
//
// Regions are the app's, not a manager's: every manager lists all of them, they outlive the
// managers (and so a relaunch), and a region started with an identifier already monitored
// replaces it. Every 5 s the true position is checked against each region. A region's state
// at its start is taken silently; it then turns to outside once the true position has stayed
// farther than radius + margin from the centre for the crossing delay, and to inside once it
// has stayed nearer than radius - margin (at least half the radius) for the delay. The margin
// is the larger of 20 m and a tenth of the radius; the delay is drawn for each crossing from
// 20 - 60 s. Crossings the region asks to be told of go to the delegates of every live
// manager. Regions are watched only with "always", full accuracy and services on; when that
// comes back the states are taken again silently.
//
// Significant changes: while any manager monitors them (and, past a relaunch, until one
// stops them) the service checks the true position every 30 s and, with "always" and
// services on, reports a coarse fix (100 - 1500 m) to the monitoring managers once the device
// has moved 450 - 600 m (drawn anew after each report) from where it was at the last report,
// and at least 5 minutes after it. A manager that starts monitoring gets a fix of its own
// 0.5 - 3 s later.
//
// Beacons, through the device's Bluetooth radio. Beacon regions are the app's, like circular
// ones, and are watched under the same conditions. Each starts outside; it is inside while
// an iBeacon it matches has been heard at -90 dBm or better within the last 30 s. The entry
// is reported 1 - 5 s (drawn for each entry) after the first such advertisement, the exit
// once 30 s have passed since the last one (at the radio's next second). While the regions
// are not watched their states stay as they were and nothing is reported; when watching
// resumes, a region inside has 30 s to be heard again. Ranging is a manager's own and needs
// "when in use" or "always" and services on: every second the radio listens, each ranging
// manager gets a round for each of its constraints, with the matching iBeacons heard in that
// second (since ranging started), strongest first. A beacon's RSSI is the mean of the
// second's readings and its accuracy the distance the path-loss model gives for that mean and
// the beacon's measured power. The advertisements are read with the SDK's own parser, so a
// malformed one is ignored as the SDK would ignore it.
class SimulatedLocationService : public std::enable_shared_from_this<SimulatedLocationService> {
public:
    struct Settings {
        AuthorizationStatus authorization = AuthorizationStatus::authorizedAlways;
        AccuracyAuthorization accuracy = AccuracyAuthorization::fullAccuracy;
        bool servicesEnabled = true;
        bool appInForeground = false;
    };

    static constexpr double regionCheckInterval = 5.0;
    static constexpr double significantCheckInterval = 30.0;
    static constexpr double significantMinimumInterval = 300.0;
    static constexpr double regionMinimumMargin = 20.0;
    static constexpr double beaconRegionRssi = -90.0;
    static constexpr double beaconRegionExitDelay = 30.0;
    static constexpr double beaconRegionEntryDelayLow = 1.0;
    static constexpr double beaconRegionEntryDelayHigh = 5.0;

    static std::shared_ptr<SimulatedLocationService> create(DeviceContext context, Settings settings);
    ~SimulatedLocationService();

    SimulatedLocationService(const SimulatedLocationService&) = delete;
    SimulatedLocationService& operator=(const SimulatedLocationService&) = delete;

    // A new, independent manager. The service keeps only a weak reference to it.
    std::shared_ptr<SimulatedLocationManager> makeManager();

    // Settings changes, effective now. Those of authorization, accuracy and services are
    // reported to every live manager's delegate as an authorization change.
    void setAuthorization(AuthorizationStatus status);
    void setAccuracyAuthorization(AccuracyAuthorization accuracy);
    void setLocationServicesEnabled(bool enabled);
    void setAppInForeground(bool foreground);

    // Safe from any thread: the SDK may ask for the authorization off the main loop.
    Settings settings() const {
        std::lock_guard lock(settingsMutex_);
        return settings_;
    }
    LocationMode mode() const { return mode_; }
    // Sorted by identifier.
    std::vector<CircularRegion> monitoredRegions() const;
    bool isMonitoringSignificantChanges() const { return significantChanges_; }
    // The device's last known fix, from updates or significant changes.
    const std::optional<Location>& lastFix() const { return lastFix_; }

    // The radio that beacon regions and ranging listen through; without one nothing is heard.
    void setBluetoothRadio(std::shared_ptr<SimulatedBluetoothRadio> radio);
    // Sorted by identifier.
    std::vector<BeaconRegion> monitoredBeaconRegions() const;
    // True while the beacon region is inside.
    bool isInsideBeaconRegion(const std::string& identifier) const;

    // The margin by which the true position must be beyond a region's boundary to cross it.
    static double regionMargin(double radius);

private:
    friend class SimulatedLocationManager;

    struct BeaconRegionEntry {
        BeaconRegion region;
        bool inside = false;
        std::optional<Date> lastHeard;
        std::shared_ptr<RunLoopTimer> entryTimer;
    };

    struct Region {
        CircularRegion region;
        bool inside = false;
        std::optional<Date> crossingSince;
        double crossingDelay = 0.0;
        std::size_t span = 0;  // index into the log's spans
    };

    SimulatedLocationService(DeviceContext context, Settings settings);

    Date now() const { return context_.runLoop->now(); }
    bool updatesUsable() const;
    bool regionsUsable() const;
    bool significantChangesUsable() const;
    bool receivesUpdates(const SimulatedLocationManager& manager) const;
    // The live managers, oldest first.
    std::vector<std::shared_ptr<SimulatedLocationManager>> liveManagers();
    // Tells the delegate of every live manager; how many there were.
    std::size_t tellDelegates(
        const std::function<void(LocationManagerDelegate&, LocationManagerType&)>& tell);

    // From the managers.
    void updatesChanged();
    void managerStartedUpdating(SimulatedLocationManager& manager);
    void managerStartedSignificantChanges(SimulatedLocationManager& manager);
    void managerStoppedSignificantChanges();
    void managerGone(std::uint64_t id);
    void startMonitoring(const CircularRegion& region);
    void stopMonitoring(const std::string& identifier);
    void askForAuthorizationReport(const std::shared_ptr<SimulatedLocationManager>& manager);

    // Updates.
    void reconfigure();
    void scheduleFix(double delay);
    void produceFix();
    void deliverCachedFix(const std::weak_ptr<SimulatedLocationManager>& manager);

    // Regions.
    void updateRegionWatch();
    void takeRegionStates();
    void checkRegions();

    // Significant changes.
    void updateSignificantWatch();
    void checkSignificantChange();
    void deliverFirstSignificantChange(const std::weak_ptr<SimulatedLocationManager>& manager);
    Location makeSignificantFix();

    void settingsChanged(bool reportAuthorization);
    void reportAuthorizationChange();

    // Beacons.
    bool beaconRegionsUsable() const { return regionsUsable(); }
    bool rangingUsable() const;
    void startMonitoringBeaconRegion(const BeaconRegion& region);
    void stopMonitoringBeaconRegion(const std::string& identifier);
    // Listens while beacon regions are watched or a manager ranges, and meters the ranging.
    void updateBeaconWatch();
    void heardAdvertisements(const std::vector<BleAdvertisement>& heard);
    void enterBeaconRegion(const std::string& identifier);
    void reportBeaconRegionEvent(const BeaconRegion& region, RegionEventKind kind);
    void invalidateBeaconTimers();

    const DeviceContext context_;
    // Written on the loop under the mutex; the loop reads it without.
    mutable std::mutex settingsMutex_;
    Settings settings_;
    std::uint64_t nextManagerId_ = 1;
    std::vector<std::pair<std::uint64_t, std::weak_ptr<SimulatedLocationManager>>> managers_;

    LocationMode mode_ = LocationMode::off;
    LocationErrorModel errors_;
    SimulationRandom startRandom_;
    std::shared_ptr<RunLoopTimer> fixTimer_;
    std::optional<Location> lastFix_;
    std::optional<Date> lastUpdateFix_;     // when the receiver last made a fix
    std::optional<Date> satelliteLastRan_;  // when the receiver last stopped running satellite fixes

    std::map<std::string, Region> regions_;
    SimulationRandom regionRandom_;
    std::shared_ptr<RunLoopTimer> regionTimer_;

    bool significantChanges_ = false;
    SimulationRandom significantRandom_;
    std::shared_ptr<RunLoopTimer> significantTimer_;
    std::optional<LocationCoordinate2D> significantReference_;
    std::optional<Date> lastSignificantReport_;
    double significantThreshold_ = 500.0;

    std::shared_ptr<SimulatedBluetoothRadio> radio_;
    std::map<std::string, BeaconRegionEntry> beaconRegions_;
    bool beaconRegionsWatched_ = false;
    SimulationRandom beaconRegionRandom_{context_.seed, RandomStream::beaconRegions};
};

// One location manager of the simulated device: its own settings and delegate over the
// device's one location service. Used from the device's run loop. The platform's defaults:
// best accuracy, no distance filter, no background updates, automatic pausing (which the
// simulated device does not do).
class SimulatedLocationManager final : public LocationManagerType,
                                       public std::enable_shared_from_this<SimulatedLocationManager> {
public:
    SimulatedLocationManager(std::weak_ptr<SimulatedLocationService> service, std::shared_ptr<RunLoop> runLoop,
                             std::uint64_t id);
    ~SimulatedLocationManager() override;

    SimulatedLocationManager(const SimulatedLocationManager&) = delete;
    SimulatedLocationManager& operator=(const SimulatedLocationManager&) = delete;

    std::shared_ptr<LocationManagerDelegate> delegate() const override { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override;

    bool allowsBackgroundLocationUpdates() const override { return allowsBackground_; }
    void setAllowsBackgroundLocationUpdates(bool allows) override;
    bool pausesLocationUpdatesAutomatically() const override { return pausesAutomatically_; }
    void setPausesLocationUpdatesAutomatically(bool pauses) override { pausesAutomatically_ = pauses; }
    double distanceFilter() const override { return distanceFilter_; }
    void setDistanceFilter(double metres) override { distanceFilter_ = metres; }
    double desiredAccuracy() const override { return desiredAccuracy_; }
    void setDesiredAccuracy(double metres) override;

    std::vector<CircularRegion> monitoredRegions() const override;

    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;
    void startMonitoringSignificantLocationChanges() override;
    void stopMonitoringSignificantLocationChanges() override;
    void startMonitoring(const CircularRegion& region) override;
    void stopMonitoring(const CircularRegion& region) override;

    bool isRangingAvailable() const override { return true; }
    std::vector<BeaconRegion> monitoredBeaconRegions() const override;
    void startMonitoringBeaconRegion(const BeaconRegion& region) override;
    void stopMonitoringBeaconRegion(const BeaconRegion& region) override;
    std::vector<BeaconIdentityConstraint> rangedBeaconConstraints() const override;
    void startRangingBeacons(const BeaconIdentityConstraint& constraint) override;
    void stopRangingBeacons(const BeaconIdentityConstraint& constraint) override;

    AuthorizationStatus authorizationStatus() const override;
    AccuracyAuthorization accuracyAuthorization() const override;
    bool locationServicesEnabled() const override;

    bool isUpdatingLocation() const { return updating_; }
    bool isMonitoringSignificantLocationChanges() const { return significantChanges_; }

private:
    friend class SimulatedLocationService;

    std::shared_ptr<SimulatedLocationService> service() const { return service_.lock(); }
    // Hands fixes to the delegate, if the distance filter lets them through.
    bool deliver(const Location& fix);
    void cancelTimers();

    const std::weak_ptr<SimulatedLocationService> service_;
    const std::shared_ptr<RunLoop> runLoop_;
    const std::uint64_t id_;
    std::weak_ptr<LocationManagerDelegate> delegate_;
    bool allowsBackground_ = false;
    bool pausesAutomatically_ = true;
    double distanceFilter_ = kCLDistanceFilterNone;
    double desiredAccuracy_ = kCLLocationAccuracyBest;
    bool updating_ = false;
    bool significantChanges_ = false;
    // The first authorization report is owed until a delegate has heard it.
    bool authorizationReportOwed_ = true;
    std::optional<Location> lastDelivered_;
    std::shared_ptr<RunLoopTimer> cachedFixTimer_;
    std::shared_ptr<RunLoopTimer> significantTimer_;
    struct Ranging {
        BeaconIdentityConstraint constraint;
        Date since;
    };
    std::vector<Ranging> ranging_;  // in the order started
};

}  // namespace rovalis::sim
