#include "platform/sim/SimulatedLocationService.h"

#include <algorithm>

namespace rovalis::sim {

namespace {

// Delays of the receiver, in seconds.
constexpr double cachedFixDelayLow = 0.05;
constexpr double cachedFixDelayHigh = 0.3;
constexpr double firstFixDelayLow = 0.3;
constexpr double firstFixDelayHigh = 1.0;
constexpr double fastCadenceLow = 0.95;
constexpr double fastCadenceHigh = 1.05;
constexpr double slowCadenceLow = 10.0;
constexpr double slowCadenceHigh = 60.0;
// A fix older than this is no help to a starting receiver.
constexpr double recentFixAge = 60.0;
constexpr double satelliteWarmAge = 30.0;
constexpr double regionDelayLow = 20.0;
constexpr double regionDelayHigh = 60.0;
constexpr double significantDelayLow = 0.5;
constexpr double significantDelayHigh = 3.0;
constexpr double significantThresholdLow = 450.0;
constexpr double significantThresholdHigh = 600.0;

bool fastCadence(LocationMode mode) {
    return mode == LocationMode::best || mode == LocationMode::tenMetres || mode == LocationMode::hundredMetres;
}

bool satellite(LocationMode mode) { return mode == LocationMode::best || mode == LocationMode::tenMetres; }

}  // namespace

// ---- SimulatedLocationService ----

std::shared_ptr<SimulatedLocationService> SimulatedLocationService::create(DeviceContext context, Settings settings) {
    return std::shared_ptr<SimulatedLocationService>(new SimulatedLocationService(std::move(context), settings));
}

SimulatedLocationService::SimulatedLocationService(DeviceContext context, Settings settings)
    : context_(std::move(context)),
      settings_(settings),
      errors_(SimulationRandom(context_.seed, RandomStream::locationFixes)),
      startRandom_(context_.seed, RandomStream::locationStarts),
      regionRandom_(context_.seed, RandomStream::regions),
      significantRandom_(context_.seed, RandomStream::significantChanges) {
    context_.log->noteMode(now(), LocationMode::off);
}

SimulatedLocationService::~SimulatedLocationService() {
    for (const auto* timer : {&fixTimer_, &regionTimer_, &significantTimer_}) {
        if (*timer) (*timer)->invalidate();
    }
    invalidateBeaconTimers();
}

std::shared_ptr<SimulatedLocationManager> SimulatedLocationService::makeManager() {
    const std::uint64_t id = nextManagerId_++;
    auto manager = std::make_shared<SimulatedLocationManager>(weak_from_this(), context_.runLoop, id);
    managers_.emplace_back(id, manager);
    askForAuthorizationReport(manager);
    return manager;
}

std::vector<std::shared_ptr<SimulatedLocationManager>> SimulatedLocationService::liveManagers() {
    std::vector<std::shared_ptr<SimulatedLocationManager>> live;
    std::erase_if(managers_, [](const auto& entry) { return entry.second.expired(); });
    for (const auto& [id, weak] : managers_) {
        if (auto manager = weak.lock()) live.push_back(std::move(manager));
    }
    return live;
}

std::size_t SimulatedLocationService::tellDelegates(
    const std::function<void(LocationManagerDelegate&, LocationManagerType&)>& tell) {
    std::size_t told = 0;
    for (const auto& manager : liveManagers()) {
        if (const auto delegate = manager->delegate()) {
            tell(*delegate, *manager);
            ++told;
        }
    }
    return told;
}

bool SimulatedLocationService::updatesUsable() const {
    if (!settings_.servicesEnabled) return false;
    return settings_.authorization == AuthorizationStatus::authorizedAlways ||
           (settings_.authorization == AuthorizationStatus::authorizedWhenInUse && settings_.appInForeground);
}

bool SimulatedLocationService::regionsUsable() const {
    return significantChangesUsable() && settings_.accuracy == AccuracyAuthorization::fullAccuracy;
}

bool SimulatedLocationService::significantChangesUsable() const {
    return settings_.servicesEnabled && settings_.authorization == AuthorizationStatus::authorizedAlways;
}

bool SimulatedLocationService::receivesUpdates(const SimulatedLocationManager& manager) const {
    return manager.updating_ && (settings_.appInForeground || manager.allowsBackground_);
}

// ---- updates ----

void SimulatedLocationService::updatesChanged() { reconfigure(); }

void SimulatedLocationService::managerStartedUpdating(SimulatedLocationManager& manager) {
    reconfigure();
    if (manager.desiredAccuracy_ >= 0.0 || !lastFix_) return;
    const double delay = startRandom_.uniform(cachedFixDelayLow, cachedFixDelayHigh);
    if (manager.cachedFixTimer_) manager.cachedFixTimer_->invalidate();
    manager.cachedFixTimer_ = context_.runLoop->scheduleTimer(
        delay, false, [self = weak_from_this(), target = manager.weak_from_this()] {
            if (const auto service = self.lock()) service->deliverCachedFix(target);
        });
}

void SimulatedLocationService::deliverCachedFix(const std::weak_ptr<SimulatedLocationManager>& target) {
    const auto manager = target.lock();
    if (!manager || !lastFix_ || mode_ == LocationMode::off || !receivesUpdates(*manager)) return;
    const Location cached = *lastFix_;
    if (manager->deliver(cached)) {
        context_.log->fixes.push_back({now(), cached, bandOf(mode_).value_or(AccuracyBand::kilometre), true});
    }
}

void SimulatedLocationService::reconfigure() {
    LocationMode next = LocationMode::off;
    if (updatesUsable()) {
        std::optional<double> finest;
        for (const auto& manager : liveManagers()) {
            if (!receivesUpdates(*manager)) continue;
            // The smaller the value, the finer the mode it asks for.
            finest = std::min(finest.value_or(manager->desiredAccuracy_), manager->desiredAccuracy_);
        }
        if (finest) {
            next = settings_.accuracy == AccuracyAuthorization::reducedAccuracy ? LocationMode::approximate
                                                                                 : modeForDesiredAccuracy(*finest);
        }
    }
    if (next == mode_) return;
    const LocationMode previous = mode_;
    const Date current = now();
    mode_ = next;
    if (satellite(previous) && !satellite(next)) satelliteLastRan_ = current;

    if (next == LocationMode::off) {
        if (fixTimer_) fixTimer_->invalidate();
        fixTimer_.reset();
    } else if (previous == LocationMode::off || isFiner(next, previous)) {
        std::optional<Location> recent;
        if (lastFix_ && lastUpdateFix_ && current.timeIntervalSince(*lastUpdateFix_) <= recentFixAge) {
            recent = lastFix_;
        }
        const bool warm = satellite(previous) ||
                          (satelliteLastRan_ && current.timeIntervalSince(*satelliteLastRan_) <= satelliteWarmAge);
        errors_.beginAcquisition(current, recent, warm);
        scheduleFix(startRandom_.uniform(firstFixDelayLow, firstFixDelayHigh));
    } else if (fastCadence(previous) && !fastCadence(next)) {
        scheduleFix(startRandom_.uniform(slowCadenceLow, slowCadenceHigh));
    }
    context_.energy->setLocationMode(next);
    context_.log->noteMode(current, next);
}

void SimulatedLocationService::scheduleFix(double delay) {
    if (fixTimer_) fixTimer_->invalidate();
    fixTimer_ = context_.runLoop->scheduleTimer(delay, false, [self = weak_from_this()] {
        if (const auto service = self.lock()) service->produceFix();
    });
}

void SimulatedLocationService::produceFix() {
    fixTimer_.reset();
    if (mode_ == LocationMode::off) return;
    const Date current = now();
    const LocationMode mode = mode_;
    const Location fix = errors_.fix(current, mode, context_.path->at(current));
    lastFix_ = fix;
    lastUpdateFix_ = current;
    // The next fix is planned before delivery: a delegate may restart the updates.
    scheduleFix(fastCadence(mode) ? startRandom_.uniform(fastCadenceLow, fastCadenceHigh)
                                  : startRandom_.uniform(slowCadenceLow, slowCadenceHigh));
    bool delivered = false;
    for (const auto& manager : liveManagers()) {
        if (receivesUpdates(*manager) && updatesUsable()) delivered = manager->deliver(fix) || delivered;
    }
    if (delivered) context_.log->fixes.push_back({current, fix, *bandOf(mode), false});
}

// ---- regions ----

double SimulatedLocationService::regionMargin(double radius) { return std::max(regionMinimumMargin, 0.1 * radius); }

std::vector<CircularRegion> SimulatedLocationService::monitoredRegions() const {
    std::vector<CircularRegion> regions;
    regions.reserve(regions_.size());
    for (const auto& [identifier, entry] : regions_) regions.push_back(entry.region);
    return regions;
}

void SimulatedLocationService::startMonitoring(const CircularRegion& region) {
    const Date current = now();
    auto& log = *context_.log;
    if (const auto found = regions_.find(region.identifier); found != regions_.end()) {
        log.regionSpans[found->second.span].to = current;
        regions_.erase(found);
    }
    Region entry;
    entry.region = region;
    entry.inside = distanceBetween(context_.path->at(current).coordinate, region.center) <= region.radius;
    entry.span = log.regionSpans.size();
    log.regionSpans.push_back({region, current, std::nullopt});
    regions_.emplace(region.identifier, std::move(entry));
    updateRegionWatch();
}

void SimulatedLocationService::stopMonitoring(const std::string& identifier) {
    const auto found = regions_.find(identifier);
    if (found == regions_.end()) return;
    context_.log->regionSpans[found->second.span].to = now();
    regions_.erase(found);
    updateRegionWatch();
}

void SimulatedLocationService::updateRegionWatch() {
    const bool watch = !regions_.empty() && regionsUsable();
    if (watch == (regionTimer_ != nullptr)) return;
    if (!watch) {
        regionTimer_->invalidate();
        regionTimer_.reset();
        return;
    }
    // What happened while the regions were not watched is not reported.
    takeRegionStates();
    regionTimer_ = context_.runLoop->scheduleTimer(regionCheckInterval, true, [self = weak_from_this()] {
        if (const auto service = self.lock()) service->checkRegions();
    });
}

void SimulatedLocationService::takeRegionStates() {
    const auto position = context_.path->at(now()).coordinate;
    for (auto& [identifier, entry] : regions_) {
        entry.inside = distanceBetween(position, entry.region.center) <= entry.region.radius;
        entry.crossingSince.reset();
    }
}

void SimulatedLocationService::checkRegions() {
    if (!regionsUsable()) return;
    const Date current = now();
    const auto position = context_.path->at(current).coordinate;
    std::vector<std::pair<CircularRegion, RegionEventKind>> crossings;
    for (auto& [identifier, entry] : regions_) {
        const double distance = distanceBetween(position, entry.region.center);
        const double margin = regionMargin(entry.region.radius);
        const bool beyond = entry.inside ? distance > entry.region.radius + margin
                                         : distance < std::max(entry.region.radius - margin, entry.region.radius * 0.5);
        if (!beyond) {
            entry.crossingSince.reset();
            continue;
        }
        if (!entry.crossingSince) {
            entry.crossingSince = current;
            entry.crossingDelay = regionRandom_.uniform(regionDelayLow, regionDelayHigh);
            continue;
        }
        if (current.timeIntervalSince(*entry.crossingSince) < entry.crossingDelay) continue;
        entry.inside = !entry.inside;
        entry.crossingSince.reset();
        const RegionEventKind kind = entry.inside ? RegionEventKind::enter : RegionEventKind::exit;
        if (kind == RegionEventKind::enter ? entry.region.notifyOnEntry : entry.region.notifyOnExit) {
            crossings.emplace_back(entry.region, kind);
        }
    }
    // Delivered after the check: a delegate may stop or start regions.
    for (const auto& [region, kind] : crossings) {
        // Captured by name: clang 14 does not let a lambda use a structured binding (a C++20 rule).
        const std::size_t recipients = tellDelegates(
            [&region = region, kind = kind](LocationManagerDelegate& delegate, LocationManagerType& manager) {
                if (kind == RegionEventKind::enter) {
                    delegate.locationManagerDidEnterRegion(manager, region);
                } else {
                    delegate.locationManagerDidExitRegion(manager, region);
                }
            });
        if (recipients > 0) context_.energy->countRegionEvent();
        context_.log->regionEvents.push_back({current, region.identifier, kind, recipients});
    }
}

// ---- significant changes ----

void SimulatedLocationService::managerStartedSignificantChanges(SimulatedLocationManager& manager) {
    significantChanges_ = true;
    updateSignificantWatch();
    if (manager.significantTimer_) manager.significantTimer_->invalidate();
    manager.significantTimer_ =
        context_.runLoop->scheduleTimer(significantRandom_.uniform(significantDelayLow, significantDelayHigh), false,
                                        [self = weak_from_this(), target = manager.weak_from_this()] {
                                            if (const auto service = self.lock()) {
                                                service->deliverFirstSignificantChange(target);
                                            }
                                        });
}

void SimulatedLocationService::managerStoppedSignificantChanges() {
    const auto live = liveManagers();
    significantChanges_ = std::any_of(live.begin(), live.end(), [](const auto& m) { return m->significantChanges_; });
    updateSignificantWatch();
}

void SimulatedLocationService::updateSignificantWatch() {
    const bool watch = significantChanges_;
    if (watch == (significantTimer_ != nullptr)) return;
    if (!watch) {
        significantTimer_->invalidate();
        significantTimer_.reset();
        return;
    }
    significantTimer_ = context_.runLoop->scheduleTimer(significantCheckInterval, true, [self = weak_from_this()] {
        if (const auto service = self.lock()) service->checkSignificantChange();
    });
}

Location SimulatedLocationService::makeSignificantFix() {
    const Date current = now();
    const auto truth = context_.path->at(current);
    const Location fix = LocationErrorModel::coarseFix(significantRandom_, current, truth,
                                                       settings_.accuracy == AccuracyAuthorization::reducedAccuracy);
    significantReference_ = truth.coordinate;
    lastSignificantReport_ = current;
    significantThreshold_ = significantRandom_.uniform(significantThresholdLow, significantThresholdHigh);
    lastFix_ = fix;
    return fix;
}

void SimulatedLocationService::deliverFirstSignificantChange(const std::weak_ptr<SimulatedLocationManager>& target) {
    const auto manager = target.lock();
    if (!manager || !manager->significantChanges_ || !significantChangesUsable()) return;
    const Location fix = makeSignificantFix();
    const std::size_t recipients = manager->deliver(fix) ? 1 : 0;
    if (recipients > 0) context_.energy->countSignificantChangeFix();
    context_.log->significantChanges.push_back({fix, recipients});
}

void SimulatedLocationService::checkSignificantChange() {
    if (!significantChangesUsable()) return;
    const Date current = now();
    if (lastSignificantReport_ && current.timeIntervalSince(*lastSignificantReport_) < significantMinimumInterval) {
        return;
    }
    if (significantReference_ &&
        distanceBetween(context_.path->at(current).coordinate, *significantReference_) < significantThreshold_) {
        return;
    }
    std::vector<std::shared_ptr<SimulatedLocationManager>> recipients;
    for (auto& manager : liveManagers()) {
        if (manager->significantChanges_) recipients.push_back(std::move(manager));
    }
    // Nobody to tell (the app is between processes): the change stays pending.
    if (recipients.empty()) return;
    const Location fix = makeSignificantFix();
    std::size_t told = 0;
    for (const auto& manager : recipients) {
        if (manager->significantChanges_ && manager->deliver(fix)) ++told;
    }
    if (told > 0) context_.energy->countSignificantChangeFix();
    context_.log->significantChanges.push_back({fix, told});
}

// ---- settings and authorization ----

void SimulatedLocationService::setAuthorization(AuthorizationStatus status) {
    if (settings_.authorization == status) return;
    {
        std::lock_guard lock(settingsMutex_);
        settings_.authorization = status;
    }
    settingsChanged(true);
}

void SimulatedLocationService::setAccuracyAuthorization(AccuracyAuthorization accuracy) {
    if (settings_.accuracy == accuracy) return;
    {
        std::lock_guard lock(settingsMutex_);
        settings_.accuracy = accuracy;
    }
    settingsChanged(true);
}

void SimulatedLocationService::setLocationServicesEnabled(bool enabled) {
    if (settings_.servicesEnabled == enabled) return;
    {
        std::lock_guard lock(settingsMutex_);
        settings_.servicesEnabled = enabled;
    }
    settingsChanged(true);
}

void SimulatedLocationService::setAppInForeground(bool foreground) {
    if (settings_.appInForeground == foreground) return;
    {
        std::lock_guard lock(settingsMutex_);
        settings_.appInForeground = foreground;
    }
    settingsChanged(false);
}

void SimulatedLocationService::settingsChanged(bool reportAuthorization) {
    reconfigure();
    updateRegionWatch();
    updateSignificantWatch();
    updateBeaconWatch();
    if (reportAuthorization) reportAuthorizationChange();
}

void SimulatedLocationService::reportAuthorizationChange() {
    context_.runLoop->async([self = weak_from_this()] {
        const auto service = self.lock();
        if (!service) return;
        for (const auto& manager : service->liveManagers()) {
            const auto delegate = manager->delegate();
            if (!delegate) continue;
            manager->authorizationReportOwed_ = false;
            delegate->locationManagerDidChangeAuthorization(*manager);
        }
    });
}

void SimulatedLocationService::askForAuthorizationReport(const std::shared_ptr<SimulatedLocationManager>& manager) {
    context_.runLoop->async([target = std::weak_ptr(manager)] {
        const auto manager = target.lock();
        if (!manager || !manager->authorizationReportOwed_) return;
        const auto delegate = manager->delegate();
        if (!delegate) return;
        manager->authorizationReportOwed_ = false;
        delegate->locationManagerDidChangeAuthorization(*manager);
    });
}

void SimulatedLocationService::managerGone(std::uint64_t id) {
    std::erase_if(managers_, [id](const auto& entry) { return entry.first == id || entry.second.expired(); });
    reconfigure();
    updateBeaconWatch();  // its ranging ends with it
    // The app's significant-change monitoring and its regions outlive the manager.
}

// ---- SimulatedLocationManager ----

SimulatedLocationManager::SimulatedLocationManager(std::weak_ptr<SimulatedLocationService> service,
                                                   std::shared_ptr<RunLoop> runLoop, std::uint64_t id)
    : service_(std::move(service)), runLoop_(std::move(runLoop)), id_(id) {}

SimulatedLocationManager::~SimulatedLocationManager() {
    cancelTimers();
    if (service_.expired()) return;
    // Always later, on the loop: a manager may be released on another thread, or in the middle
    // of the service's own work when a delivery held the last reference. The loop runs the task
    // before it moves time, so the receiver stops at this very moment all the same.
    runLoop_->async([service = service_, id = id_] {
        if (const auto live = service.lock()) live->managerGone(id);
    });
}

void SimulatedLocationManager::cancelTimers() {
    if (cachedFixTimer_) cachedFixTimer_->invalidate();
    if (significantTimer_) significantTimer_->invalidate();
    cachedFixTimer_.reset();
    significantTimer_.reset();
}

void SimulatedLocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
    delegate_ = std::move(delegate);
    if (authorizationReportOwed_ && !delegate_.expired()) {
        if (const auto live = service()) live->askForAuthorizationReport(shared_from_this());
    }
}

void SimulatedLocationManager::setAllowsBackgroundLocationUpdates(bool allows) {
    if (allowsBackground_ == allows) return;
    allowsBackground_ = allows;
    if (const auto live = service()) live->updatesChanged();
}

void SimulatedLocationManager::setDesiredAccuracy(double metres) {
    if (desiredAccuracy_ == metres) return;
    desiredAccuracy_ = metres;
    if (const auto live = service(); live && updating_) live->updatesChanged();
}

std::vector<CircularRegion> SimulatedLocationManager::monitoredRegions() const {
    const auto live = service();
    return live ? live->monitoredRegions() : std::vector<CircularRegion>{};
}

void SimulatedLocationManager::startUpdatingLocation() {
    if (updating_) return;
    updating_ = true;
    lastDelivered_.reset();
    if (const auto live = service()) live->managerStartedUpdating(*this);
}

void SimulatedLocationManager::stopUpdatingLocation() {
    if (!updating_) return;
    updating_ = false;
    if (cachedFixTimer_) cachedFixTimer_->invalidate();
    cachedFixTimer_.reset();
    if (const auto live = service()) live->updatesChanged();
}

void SimulatedLocationManager::startMonitoringSignificantLocationChanges() {
    significantChanges_ = true;
    if (const auto live = service()) live->managerStartedSignificantChanges(*this);
}

void SimulatedLocationManager::stopMonitoringSignificantLocationChanges() {
    significantChanges_ = false;
    if (significantTimer_) significantTimer_->invalidate();
    significantTimer_.reset();
    if (const auto live = service()) live->managerStoppedSignificantChanges();
}

void SimulatedLocationManager::startMonitoring(const CircularRegion& region) {
    if (const auto live = service()) live->startMonitoring(region);
}

void SimulatedLocationManager::stopMonitoring(const CircularRegion& region) {
    if (const auto live = service()) live->stopMonitoring(region.identifier);
}

AuthorizationStatus SimulatedLocationManager::authorizationStatus() const {
    const auto live = service();
    return live ? live->settings().authorization : AuthorizationStatus::notDetermined;
}

AccuracyAuthorization SimulatedLocationManager::accuracyAuthorization() const {
    const auto live = service();
    return live ? live->settings().accuracy : AccuracyAuthorization::fullAccuracy;
}

bool SimulatedLocationManager::locationServicesEnabled() const {
    const auto live = service();
    return live && live->settings().servicesEnabled;
}

bool SimulatedLocationManager::deliver(const Location& fix) {
    if (distanceFilter_ > 0.0 && lastDelivered_ && fix.distanceFrom(*lastDelivered_) < distanceFilter_) return false;
    lastDelivered_ = fix;
    const auto target = delegate_.lock();
    if (!target) return false;
    target->locationManagerDidUpdateLocations(*this, {fix});
    return true;
}

}  // namespace rovalis::sim
