#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/linux/GpsdClient.h"
#include "platform/linux/SoftwareLocationMonitoring.h"
#include "rovalis/DateSource.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/LocationManager.h"

namespace rovalis {

class GpsdLocationManager;

// The device's one location service on Linux, fed by gpsd. It hands out independent
// location managers and does for them in software what the receiver cannot: pacing of
// updates by the finest accuracy asked for, circular region monitoring and the
// significant-change service. While no manager updates, monitors a region or watches for
// significant changes, gpsd is told to stop watching so that receivers may power down.
//
// Location services count as enabled while gpsd is reachable and knows a device. Linux
// has no per-application location permission: authorization is "always" with full
// accuracy once gpsd has first sent its device list (or named a device). Until then (gpsd not started yet,
// or slow to answer) nothing is known: authorization is "not determined" and
// authorizationKnown() is false. The first answer and every later change of the enabled
// state are reported to every manager's delegate as an authorization change.
//
// Lives on the main run loop: every report and every delegate call happens there.
class GpsdLocationService final : public GpsdConnectionDelegate,
                                  public std::enable_shared_from_this<GpsdLocationService> {
public:
    // The service over a gpsd client with these options; it connects at once.
    static std::shared_ptr<GpsdLocationService> create(std::shared_ptr<RunLoop> mainRunLoop,
                                                       std::shared_ptr<RVLDateSource> dateSource,
                                                       GpsdOptions options);
    // The service over any connection; it becomes the connection's delegate and starts it.
    static std::shared_ptr<GpsdLocationService> create(std::shared_ptr<RunLoop> mainRunLoop,
                                                       std::shared_ptr<RVLDateSource> dateSource,
                                                       std::shared_ptr<GpsdConnection> connection);
    GpsdLocationService(const GpsdLocationService&) = delete;
    GpsdLocationService& operator=(const GpsdLocationService&) = delete;

    // A new manager with its own delegate and settings. Safe from any thread.
    std::shared_ptr<LocationManagerType> makeLocationManager();

    bool locationServicesEnabled() const { return servicesEnabled_; }
    // Whether gpsd has answered with its device list since the service began.
    bool hasAnswered() const { return answered_; }
    // Whether gpsd has been asked to stream reports.
    bool isWatching() const { return watching_; }
    const std::shared_ptr<GpsdConnection>& connection() const { return connection_; }

    // GpsdConnectionDelegate
    void gpsdStatusDidChange(const GpsdStatus& status) override;
    void gpsdDidReceiveFix(const Location& fix) override;

private:
    friend class GpsdLocationManager;

    GpsdLocationService(std::shared_ptr<RunLoop> mainRunLoop, std::shared_ptr<RVLDateSource> dateSource,
                        std::shared_ptr<GpsdConnection> connection);

    // What the managers need may have changed: looked at once the current task is done,
    // so that a stop followed at once by a start does not toggle gpsd's watch.
    void managersDidChange();
    void updateWatching();
    std::vector<std::shared_ptr<GpsdLocationManager>> liveManagers();

    const std::shared_ptr<RunLoop> runLoop_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    const std::shared_ptr<GpsdConnection> connection_;

    std::mutex managersMutex_;
    std::vector<std::weak_ptr<GpsdLocationManager>> managers_;

    // Monitored regions are the process's, shared by every manager.
    RegionMonitor regions_;
    bool servicesEnabled_ = false;
    bool answered_ = false;
    bool watching_ = false;
    std::atomic<bool> demandCheckPending_{false};
};

// One client of the service: a location manager with its own delegate (held weakly) and
// settings. Updates go to the delegate while it updates, at least as often as its desired
// accuracy needs (more often when another manager asks for finer fixes), and regardless of
// how the fix's accuracy compares with the one asked for, as on the platform. Used from the
// main run loop.
class GpsdLocationManager final : public LocationManagerType {
public:
    ~GpsdLocationManager() override;
    GpsdLocationManager(const GpsdLocationManager&) = delete;
    GpsdLocationManager& operator=(const GpsdLocationManager&) = delete;

    std::shared_ptr<LocationManagerDelegate> delegate() const override { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override { delegate_ = std::move(delegate); }

    bool allowsBackgroundLocationUpdates() const override { return allowsBackground_; }
    void setAllowsBackgroundLocationUpdates(bool allows) override { allowsBackground_ = allows; }
    bool pausesLocationUpdatesAutomatically() const override { return pausesAutomatically_; }
    void setPausesLocationUpdatesAutomatically(bool pauses) override { pausesAutomatically_ = pauses; }
    double distanceFilter() const override { return distanceFilter_; }
    void setDistanceFilter(double metres) override { distanceFilter_ = metres; }
    double desiredAccuracy() const override { return desiredAccuracy_; }
    void setDesiredAccuracy(double metres) override { desiredAccuracy_ = metres; }

    // The process's monitored regions, whichever manager added them.
    std::vector<CircularRegion> monitoredRegions() const override;

    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;
    void startMonitoringSignificantLocationChanges() override;
    void stopMonitoringSignificantLocationChanges() override;
    // A region that cannot be monitored (no positive finite radius, a centre off the globe)
    // is refused with an error to the delegate, as the platform refuses it.
    void startMonitoring(const CircularRegion& region) override;
    void stopMonitoring(const CircularRegion& region) override;

    AuthorizationStatus authorizationStatus() const override {
        return service_->hasAnswered() ? AuthorizationStatus::authorizedAlways : AuthorizationStatus::notDetermined;
    }
    bool authorizationKnown() const override { return service_->hasAnswered(); }
    AccuracyAuthorization accuracyAuthorization() const override { return AccuracyAuthorization::fullAccuracy; }
    bool locationServicesEnabled() const override { return service_->locationServicesEnabled(); }

    // The error a refused region is reported with.
    static Error regionMonitoringError();

private:
    friend class GpsdLocationService;
    explicit GpsdLocationManager(std::shared_ptr<GpsdLocationService> service);

    // Whether this fix is due as a regular update, given the shortest interval between two.
    bool wantsUpdate(const Location& fix, Date now, double interval) const;

    const std::shared_ptr<GpsdLocationService> service_;
    std::weak_ptr<GpsdLocationManager> self_;
    std::weak_ptr<LocationManagerDelegate> delegate_;
    // The platform's defaults.
    bool allowsBackground_ = false;
    bool pausesAutomatically_ = true;
    double distanceFilter_ = kCLDistanceFilterNone;
    double desiredAccuracy_ = kCLLocationAccuracyBest;

    bool updating_ = false;
    std::optional<Date> lastUpdateAt_;
    std::optional<Location> lastUpdate_;
    bool monitoringSignificantChanges_ = false;
    SignificantChangeFilter significantChanges_;
};

// Platform::makeLocationManager on Linux: each call gives a new manager of one service,
// made on first use and shared by all later calls.
std::function<std::shared_ptr<LocationManagerType>()> makeGpsdLocationManagerFactory(
    std::shared_ptr<RunLoop> mainRunLoop, std::shared_ptr<RVLDateSource> dateSource, GpsdOptions options = {});

}  // namespace rovalis
