#include "platform/linux/GpsdLocationService.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace rovalis {

// ---- GpsdLocationService ----

std::shared_ptr<GpsdLocationService> GpsdLocationService::create(std::shared_ptr<RunLoop> mainRunLoop,
                                                                 std::shared_ptr<RVLDateSource> dateSource,
                                                                 GpsdOptions options) {
    auto client = GpsdClient::create(mainRunLoop, std::move(options));
    return create(std::move(mainRunLoop), std::move(dateSource), std::move(client));
}

std::shared_ptr<GpsdLocationService> GpsdLocationService::create(std::shared_ptr<RunLoop> mainRunLoop,
                                                                 std::shared_ptr<RVLDateSource> dateSource,
                                                                 std::shared_ptr<GpsdConnection> connection) {
    std::shared_ptr<GpsdLocationService> service(
        new GpsdLocationService(std::move(mainRunLoop), std::move(dateSource), std::move(connection)));
    service->connection_->setDelegate(service);
    service->connection_->start();
    return service;
}

GpsdLocationService::GpsdLocationService(std::shared_ptr<RunLoop> mainRunLoop,
                                         std::shared_ptr<RVLDateSource> dateSource,
                                         std::shared_ptr<GpsdConnection> connection)
    : runLoop_(std::move(mainRunLoop)), dateSource_(std::move(dateSource)), connection_(std::move(connection)) {
    const GpsdStatus status = connection_->status();
    servicesEnabled_ = status.connected && status.hasDevice;
    answered_ = servicesEnabled_ || (status.connected && status.deviceListKnown);
}

std::shared_ptr<LocationManagerType> GpsdLocationService::makeLocationManager() {
    std::shared_ptr<GpsdLocationManager> manager(new GpsdLocationManager(shared_from_this()));
    manager->self_ = manager;
    std::lock_guard lock(managersMutex_);
    std::erase_if(managers_, [](const auto& weak) { return weak.expired(); });
    managers_.push_back(manager);
    return manager;
}

std::vector<std::shared_ptr<GpsdLocationManager>> GpsdLocationService::liveManagers() {
    std::vector<std::shared_ptr<GpsdLocationManager>> live;
    std::lock_guard lock(managersMutex_);
    std::erase_if(managers_, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : managers_) {
        if (auto manager = weak.lock()) live.push_back(std::move(manager));
    }
    return live;
}

void GpsdLocationService::managersDidChange() {
    if (demandCheckPending_.exchange(true)) return;
    runLoop_->async([weak = weak_from_this()] {
        if (const auto service = weak.lock()) service->updateWatching();
    });
}

void GpsdLocationService::updateWatching() {
    demandCheckPending_ = false;
    bool wanted = !regions_.empty();
    for (const auto& manager : liveManagers()) {
        wanted = wanted || manager->updating_ || manager->monitoringSignificantChanges_;
    }
    if (wanted == watching_) return;
    watching_ = wanted;
    connection_->setWatching(wanted);
}

void GpsdLocationService::gpsdStatusDidChange(const GpsdStatus& status) {
    const bool enabled = status.connected && status.hasDevice;
    // Once gpsd has answered, a lost connection is a real "off", not "not known yet".
    const bool answered = answered_ || enabled || (status.connected && status.deviceListKnown);
    if (enabled == servicesEnabled_ && answered == answered_) return;
    servicesEnabled_ = enabled;
    answered_ = answered;
    for (const auto& manager : liveManagers()) {
        if (const auto delegate = manager->delegate_.lock()) delegate->locationManagerDidChangeAuthorization(*manager);
    }
}

void GpsdLocationService::gpsdDidReceiveFix(const Location& fix) {
    const Date now = dateSource_->now();
    const auto crossings = regions_.process(fix);

    const auto managers = liveManagers();
    double finest = std::numeric_limits<double>::infinity();
    for (const auto& manager : managers) {
        if (manager->updating_) finest = std::min(finest, manager->desiredAccuracy_);
    }
    const double interval = minimumUpdateInterval(finest);
    const std::vector<Location> locations{fix};
    for (const auto& manager : managers) {
        // Flags are read at each manager's turn: an earlier delegate may have changed them.
        const bool update = manager->updating_ && manager->wantsUpdate(fix, now, interval);
        const bool significant =
            manager->monitoringSignificantChanges_ && manager->significantChanges_.accepts(fix, now);
        if (!update && !significant) continue;
        if (update) {
            manager->lastUpdateAt_ = now;
            manager->lastUpdate_ = fix;
        }
        if (significant) manager->significantChanges_.record(fix, now);
        // A fix that is both an update and a significant change is delivered once.
        if (const auto delegate = manager->delegate_.lock()) {
            delegate->locationManagerDidUpdateLocations(*manager, locations);
        }
    }

    for (const auto& crossing : crossings) {
        for (const auto& manager : liveManagers()) {
            const auto delegate = manager->delegate_.lock();
            if (!delegate) continue;
            if (crossing.entered) {
                delegate->locationManagerDidEnterRegion(*manager, crossing.region);
            } else {
                delegate->locationManagerDidExitRegion(*manager, crossing.region);
            }
        }
    }
}

// ---- GpsdLocationManager ----

GpsdLocationManager::GpsdLocationManager(std::shared_ptr<GpsdLocationService> service) : service_(std::move(service)) {}

GpsdLocationManager::~GpsdLocationManager() {
    if (updating_ || monitoringSignificantChanges_) service_->managersDidChange();
}

Error GpsdLocationManager::regionMonitoringError() {
    return Error{"kCLErrorDomain", 5, "The region cannot be monitored."};
}

std::vector<CircularRegion> GpsdLocationManager::monitoredRegions() const { return service_->regions_.regions(); }

void GpsdLocationManager::startUpdatingLocation() {
    if (!updating_) {
        // The first fix after a start is never held back.
        lastUpdateAt_.reset();
        lastUpdate_.reset();
    }
    updating_ = true;
    service_->managersDidChange();
}

void GpsdLocationManager::stopUpdatingLocation() {
    updating_ = false;
    service_->managersDidChange();
}

void GpsdLocationManager::startMonitoringSignificantLocationChanges() {
    if (!monitoringSignificantChanges_) significantChanges_.reset();
    monitoringSignificantChanges_ = true;
    service_->managersDidChange();
}

void GpsdLocationManager::stopMonitoringSignificantLocationChanges() {
    monitoringSignificantChanges_ = false;
    service_->managersDidChange();
}

void GpsdLocationManager::startMonitoring(const CircularRegion& region) {
    if (!isMonitorableRegion(region)) {
        // Reported later, never from inside the call, as the platform does.
        service_->runLoop_->async([self = self_] {
            const auto manager = self.lock();
            if (!manager) return;
            if (const auto delegate = manager->delegate_.lock()) {
                delegate->locationManagerDidFailWithError(*manager, regionMonitoringError());
            }
        });
        return;
    }
    service_->regions_.startMonitoring(region);
    service_->managersDidChange();
}

void GpsdLocationManager::stopMonitoring(const CircularRegion& region) {
    service_->regions_.stopMonitoring(region.identifier);
    service_->managersDidChange();
}

bool GpsdLocationManager::wantsUpdate(const Location& fix, Date now, double interval) const {
    if (lastUpdateAt_ && now.timeIntervalSince(*lastUpdateAt_) < interval) return false;
    if (distanceFilter_ > 0.0 && lastUpdate_ && fix.distanceFrom(*lastUpdate_) < distanceFilter_) return false;
    return true;
}

// ---- Factory ----

std::function<std::shared_ptr<LocationManagerType>()> makeGpsdLocationManagerFactory(
    std::shared_ptr<RunLoop> mainRunLoop, std::shared_ptr<RVLDateSource> dateSource, GpsdOptions options) {
    struct Shared {
        std::mutex mutex;
        std::shared_ptr<RunLoop> runLoop;
        std::shared_ptr<RVLDateSource> dateSource;
        GpsdOptions options;
        std::shared_ptr<GpsdLocationService> service;
    };
    auto shared = std::make_shared<Shared>();
    shared->runLoop = std::move(mainRunLoop);
    shared->dateSource = std::move(dateSource);
    shared->options = std::move(options);
    return [shared]() -> std::shared_ptr<LocationManagerType> {
        std::shared_ptr<GpsdLocationService> service;
        {
            std::lock_guard lock(shared->mutex);
            if (!shared->service) {
                shared->service = GpsdLocationService::create(shared->runLoop, shared->dateSource, shared->options);
            }
            service = shared->service;
        }
        return service->makeLocationManager();
    };
}

}  // namespace rovalis
