#include "core/RVLGeneralLocationManager.h"

#include <algorithm>

#include "core/PauseManager.h"
#include "core/TrackerRepository.h"
#include "platform/linux/LinuxPlatform.h"
#include "rovalis/Console.h"
#include "rovalis/Exceptions.h"
#include "upload/AccessTokenDecoder.h"
#include "util/DataRoot.h"
#include "util/ExecutorRunLoop.h"

namespace rovalis {

namespace {

constexpr const char* forcedWakeUpReason = "forced speedUp on app start";
constexpr const char* applicationTerminatesReason = "application terminates";
// The two APP_UPDATE events are at least this far apart, so that they keep their order.
constexpr double appUpdateEventSpacing = 0.01;

// The lifecycle notifications the tracking core listens to, in the order it registers them.
constexpr const char* observedApplicationNotifications[] = {
    UIApplicationWillTerminateNotification,
    UIApplicationDidEnterBackgroundNotification,
    UIApplicationWillEnterForegroundNotification,
    UIApplicationDidReceiveMemoryWarningNotification,
};

DataRoot dataRootFor(const RovalisConfiguration& configuration) {
    return DataRoot(configuration.dataRoot.value_or(DataRoot::defaultPath(configuration.host.identifier)));
}

// The host's bundle with what it left out taken from the real Linux platform; a host's own
// main queue carries the main run loop when the bundle brings none.
Platform completePlatform(std::optional<Platform> given, const std::shared_ptr<Executor>& hostMainQueue,
                          const DataRoot& root, const LinuxPlatformSettings& linuxSettings) {
    Platform platform = given ? std::move(*given) : Platform{};
    if (!platform.mainRunLoop && hostMainQueue) {
        if (!platform.dateSource) platform.dateSource = std::make_shared<SystemDateSource>();
        platform.mainRunLoop = std::make_shared<ExecutorRunLoop>(hostMainQueue, platform.dateSource);
    }
    const bool complete = platform.dateSource && platform.mainRunLoop && platform.keyValueStore &&
                          platform.keychain && platform.network && platform.backgroundTasks &&
                          platform.notificationCenter && platform.makeLocationManager && platform.makeMotionManager &&
                          platform.makeMotionActivityManager && platform.makeBluetoothScanner && platform.deviceInfo &&
                          platform.systemState;
    if (complete) return platform;
    Platform linux = makeLinuxPlatform(root, platform.dateSource, platform.mainRunLoop, linuxSettings);
    auto fill = [](auto& field, auto& fallback) {
        if (!field) field = std::move(fallback);
    };
    fill(platform.dateSource, linux.dateSource);
    fill(platform.mainRunLoop, linux.mainRunLoop);
    fill(platform.keyValueStore, linux.keyValueStore);
    fill(platform.keychain, linux.keychain);
    fill(platform.network, linux.network);
    fill(platform.backgroundTasks, linux.backgroundTasks);
    fill(platform.notificationCenter, linux.notificationCenter);
    fill(platform.makeLocationManager, linux.makeLocationManager);
    fill(platform.makeMotionManager, linux.makeMotionManager);
    fill(platform.makeMotionActivityManager, linux.makeMotionActivityManager);
    fill(platform.makeBluetoothScanner, linux.makeBluetoothScanner);
    fill(platform.deviceInfo, linux.deviceInfo);
    fill(platform.systemState, linux.systemState);
    if (platform.systemVersion.empty()) platform.systemVersion = linux.systemVersion;
    return platform;
}

}  // namespace

RVLGeneralLocationManager::RVLGeneralLocationManager(RovalisConfiguration configuration)
    : configuration_(std::move(configuration)) {}

RVLGeneralLocationManager::~RVLGeneralLocationManager() {
    if (!isInitialized_) return;
    for (const auto token : observers_) platform_.notificationCenter->removeObserver(token);
    // Network reports stop first: they start sends through the queue that goes next, so a
    // report still being handled must be over before it goes.
    if (reachabilityTracker_) {
        reachabilityTracker_->setChangeListener(nullptr);
        reachabilityTracker_->stop();
        reachabilityTracker_->finishReportsUnderWay();
    }
    // The trackers go on the main run loop, where their timers and delegates live.
    auto trackers = std::move(locationManagers_);
    if (!platform_.mainRunLoop->isCurrent()) {
        platform_.mainRunLoop->sync([&trackers] { trackers.clear(); });
    }
    trackers.clear();
    reachabilityTracker_.reset();
    sendDataQueue_.reset();
    // Waits for the operation running now; the queued ones end with the controller.
    operationsController_.reset();
    authorizationManager_.reset();
    apiManager_.reset();
    clearDataQueue_.reset();
    // Last: the store writes what is still buffered.
    eventRepository_.reset();
}

void RVLGeneralLocationManager::configure(RovalisConfiguration configuration) {
    std::lock_guard lock(initialization_);
    if (isInitialized_) {
        throw InternalInconsistencyException("The SDK is already initialized; configure it before initializing it.");
    }
    configuration_ = std::move(configuration);
}

void RVLGeneralLocationManager::throwErrorIfNotInitialized() const {
    if (!isInitialized_) throw InternalInconsistencyException(notInitializedReason);
}

void RVLGeneralLocationManager::onMain(const std::function<void()>& work) { platform_.mainRunLoop->sync(work); }

// ---- Initialisation

void RVLGeneralLocationManager::initializeUsing(std::shared_ptr<RovalisDelegate> delegate,
                                                const std::optional<LaunchOptions>& /*launchOptions*/) {
    std::lock_guard lock(initialization_);
    if (isInitialized_) return;
    platform_ = completePlatform(configuration_.platform, configuration_.mainQueue, dataRootFor(configuration_),
                                 configuration_.linuxPlatform);
    configuration_.platform.reset();
    onMain([&] {
        createTrackers();
        // From here on the host's callbacks may call back into the public interface.
        isInitialized_ = true;
        if (!userDefaultsManager_->isFirstStart()) userDefaultsManager_->setIsFirstStart(true);
        // Every process starts asleep, so that the forced wake-up at start finds it asleep.
        paused_ = 1;
        delegate_ = delegate;
        apiManager_->setSdkDelegate(delegate);
        authorizationManager_->setSdkDelegate(delegate);
        initializeTracking();
        observeUIApplicationNotifications();
    });
}

void RVLGeneralLocationManager::createTrackers() {
    auto self = shared_from_this();
    TrackerDependencies dependencies(self, self, std::weak_ptr<RovalisDelegate>(), platform_.makeLocationManager,
                                     platform_.makeMotionManager, platform_.makeMotionActivityManager);
    SleepRegionConfiguration sleepRegions = configuration_.sleepRegions;
    if (!sleepRegions.isValid()) {
        Console::log("the sleep region configuration is not valid; the default regions are used");
        sleepRegions = SleepRegionConfiguration{};
    }
    RVLAPIClientOptions apiClientOptions;
    apiClientOptions.transferLimits = configuration_.transferLimits;
    TrackerEnvironment environment{
        .platform = platform_,
        .dataRoot = dataRootFor(configuration_),
        .host = configuration_.host,
        .buildConfiguration = BuildConfiguration(configuration_.isDebug, configuration_.isIntegration),
        .productionBaseURL = configuration_.productionBaseURL,
        .serviceBaseURL = configuration_.serviceBaseURL,
        .stayTimeLimit = configuration_.stayTimeLimit,
        .uploadSchedule = configuration_.uploadSchedule,
        .sleepRegions = RegionCalculator::sleepRegions(sleepRegions),
        .sessionOptions = {},
        .apiClientOptions = apiClientOptions,
    };
    TrackerRepository repository(std::move(dependencies), std::move(environment));
    eventRepository_ = repository.eventRepository();
    userDefaultsManager_ = repository.userDefaultsManager();
    credentialsManager_ = repository.credentialsManager();
    apiManager_ = repository.apiManager();
    authorizationManager_ = repository.authorizationManager();
    operationsController_ = repository.operationsController();
    sendDataQueue_ = repository.sendDataQueue();
    locationManagers_ = repository.createTrackers();
    reachabilityTracker_ = repository.reachabilityTracker();
    updateDetector_ = std::make_unique<RVLUpdateDetector>(userDefaultsManager_, repository.commons()->appInfo());
    clearDataQueue_ = platform_.makeSerialExecutor("rovalis.clearData");
}

void RVLGeneralLocationManager::observeUIApplicationNotifications() {
    std::weak_ptr<RVLGeneralLocationManager> weakSelf = weak_from_this();
    for (const char* name : observedApplicationNotifications) {
        observers_.push_back(platform_.notificationCenter->addObserver(name, [weakSelf](const Notification& note) {
            if (const auto self = weakSelf.lock()) self->receivedNotification(note);
        }));
    }
    // Coming to the front is one of the moments to upload.
    std::weak_ptr<RVLSendDataQueue> weakQueue = sendDataQueue_;
    observers_.push_back(platform_.notificationCenter->addObserver(
        UIApplicationDidBecomeActiveNotification, [weakQueue](const Notification&) {
            if (const auto queue = weakQueue.lock()) queue->applicationDidBecomeActive();
        }));
}

// ---- The public interface

void RVLGeneralLocationManager::start() {
    throwErrorIfNotInitialized();
    onMain([this] { startTrackingWithForced(true); });
}

void RVLGeneralLocationManager::stop() {
    throwErrorIfNotInitialized();
    onMain([this] { stopTrackingWithReason(0); });
}

bool RVLGeneralLocationManager::isTrackingActive() {
    throwErrorIfNotInitialized();
    return localTrackingStatePrivate_ == 1;
}

std::optional<std::string> RVLGeneralLocationManager::userToken() {
    throwErrorIfNotInitialized();
    return credentialsManager_->accessToken();
}

void RVLGeneralLocationManager::setUserToken(const std::optional<std::string>& token) {
    throwErrorIfNotInitialized();
    if (token && token != credentialsManager_->accessToken()) {
        const AccessTokenDecoder decoder(*token);
        const auto& userId = decoder.userId();
        if (userId && userId != credentialsManager_->userId()) {
            credentialsManager_->createDeviceId();
        } else {
            // Makes a device id only when none is stored.
            (void)credentialsManager_->deviceId();
        }
    }
    credentialsManager_->setAccessToken(token);
}

bool RVLGeneralLocationManager::wifiOnlyDataTransfer() {
    throwErrorIfNotInitialized();
    return userDefaultsManager_->wifiOnlyDataTransfer();
}

void RVLGeneralLocationManager::setWifiOnlyDataTransfer(bool wifiOnly) {
    throwErrorIfNotInitialized();
    onMain([&] {
        userDefaultsManager_->setWifiOnlyDataTransfer(wifiOnly);
        for (const auto& tracker : locationManagers_) {
            if (auto* persistable = dynamic_cast<RVLStatePersistable*>(tracker.get())) {
                persistable->persistStateWithForced(false);
            }
        }
    });
}

void RVLGeneralLocationManager::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                                    std::function<void()> completionHandler) {
    throwErrorIfNotInitialized();
    apiManager_->registerCallback(std::move(completionHandler), identifier);
}

void RVLGeneralLocationManager::clearDataWithCompletionHandler(std::function<void()> completionHandler) {
    throwErrorIfNotInitialized();
    std::weak_ptr<EventRepository> weakEvents = eventRepository_;
    std::shared_ptr<RunLoop> mainRunLoop = platform_.mainRunLoop;
    clearDataQueue_->async([weakEvents, mainRunLoop, completion = std::move(completionHandler)] {
        if (const auto events = weakEvents.lock()) events->deleteEventsWithUpTo(Date::distantFuture());
        if (!completion) return;
        if (mainRunLoop->isCurrent()) {
            completion();
        } else {
            mainRunLoop->async(completion);
        }
    });
}

bool RVLGeneralLocationManager::hasRequiredPermissions() {
    throwErrorIfNotInitialized();
    bool authorized = false;
    onMain([&] { authorized = authorizationManager_->fullyAuthorizedAlready(); });
    return authorized;
}

std::optional<std::string> RVLGeneralLocationManager::version() {
    throwErrorIfNotInitialized();
    return RVLCommons::sdkVersion();
}

// ---- Tracking state

void RVLGeneralLocationManager::initializeTracking() {
    const std::int64_t stored = userDefaultsManager_->storedTrackingStatus();
    localTrackingStatePrivate_ = stored;
    updateTrackingState(stored, std::nullopt, [](bool) {});
}

void RVLGeneralLocationManager::startTrackingWithForced(bool forced) {
    const std::int64_t state = localTrackingStatePrivate_;
    // The first authorization answer after a host's early start carries that start out.
    if (hostStartAwaitsAuthorization_) forced = true;
    hostStartAwaitsAuthorization_ = false;
    if (state == 1) return;
    // The host's stop is undone only by the host; an interruption by the SDK only by the SDK.
    const bool refusedByState = (state == 0 && !forced) || (state == -1 && forced);
    // Nothing has been denied yet while the platform does not know: the start waits for it.
    if (forced && !refusedByState && !authorizationManager_->authorizationKnown()) {
        hostStartAwaitsAuthorization_ = true;
        Console::log("start waits until the location service has answered");
        return;
    }
    const bool refused = refusedByState || !authorizationManager_->fullyAuthorizedAlready();
    if (refused) {
        tellDelegateTrackingStatusChanged(false);
        return;
    }
    userDefaultsManager_->setUserActivatedTrackingOnce(true);
    const std::int64_t reason = forced ? 0 : userDefaultsManager_->storedTrackingInterruptedReason();
    eventRepository_->insertToggleTrackingEventWithTrackedAtMs(platform_.dateSource->now(), true, reason);
    updateTrackingState(1, std::nullopt, [](bool) {});
}

void RVLGeneralLocationManager::stopTrackingWithReason(std::int64_t reason) {
    const std::int64_t state = localTrackingStatePrivate_;
    if (hostStartAwaitsAuthorization_) {
        // The host's stop withdraws its waiting start; the platform's answer refuses it.
        hostStartAwaitsAuthorization_ = false;
        if (reason != 0) tellDelegateTrackingStatusChanged(false);
    }
    if (state == 0) return;
    if (reason != 0 && state == -1) return;
    for (const auto& tracker : locationManagers_) {
        if (auto* preparable = dynamic_cast<RVLTrackingStopPreparable*>(tracker.get())) preparable->trackingWillStop();
    }
    userDefaultsManager_->setStoredTrackingInterruptedReason(reason);
    toggleTrackingOffDate_ = platform_.dateSource->now();
    const auto eventURI = eventRepository_->insertToggleTrackingEventWithTrackedAtMs(*toggleTrackingOffDate_, false,
                                                                                     static_cast<long>(reason));
    updateTrackingState(reason != 0 ? -1 : 0, eventURI, [](bool) {});
}

void RVLGeneralLocationManager::updateTrackingState(std::int64_t state,
                                                    const std::optional<std::string>& ttOffEventURI,
                                                    const std::function<void(bool)>& completion) {
    if (state == 1) {
        tellDelegateTrackingStatusChanged(true);
        localTrackingStatePrivate_ = 1;
        userDefaultsManager_->setStoredTrackingStatus(1);
        startTrackers();
        wakeUpWithReason(forcedWakeUpReason, true);
        operationsController_->performPostStartOperationsWithCompletion(completion);
    } else {
        tellDelegateTrackingStatusChanged(false);
        localTrackingStatePrivate_ = state;
        userDefaultsManager_->setStoredTrackingStatus(state);
        std::weak_ptr<RVLGeneralLocationManager> weakSelf = weak_from_this();
        std::shared_ptr<RunLoop> mainRunLoop = platform_.mainRunLoop;
        operationsController_->performPreShutDownOperationsWithTtOffEventURI(
            ttOffEventURI, [weakSelf, mainRunLoop, state, completion](bool succeeded) {
                mainRunLoop->async([weakSelf, state, completion, succeeded] {
                    const auto self = weakSelf.lock();
                    if (!self) return;
                    // Tracking switched on again while the uploads ran has started the
                    // trackers anew: stopping them now would leave it on with nothing running.
                    if (self->localTrackingStatePrivate_ == state) self->stopTrackers(state);
                    completion(succeeded);
                });
            });
    }
    // Called once more at once: the completions given here do nothing, so twice is harmless.
    completion(true);
}

void RVLGeneralLocationManager::startTrackers() {
    for (const auto& tracker : locationManagers_) tracker->start();
    if (const auto debug = debugEventsInsertable()) {
        debug->insertLogDebugEvent("started " + std::to_string(locationManagers_.size()) + " location managers");
    }
    if (updateDetector_->hasAppUpdated()) {
        // Stamped apart rather than waited apart: nothing here sleeps on the main run loop.
        const Date off = platform_.dateSource->now();
        eventRepository_->insertToggleTrackingEventWithTrackedAtMs(off, false, 5);
        const Date on = std::max(platform_.dateSource->now(), off.addingSeconds(appUpdateEventSpacing));
        eventRepository_->insertToggleTrackingEventWithTrackedAtMs(on, true, 5);
    }
}

void RVLGeneralLocationManager::stopTrackers(std::int64_t state) {
    if (state != 0) {
        if (const auto debug = debugEventsInsertable()) {
            debug->insertLogDebugEvent("halting " + std::to_string(locationManagers_.size()) + " location managers");
        }
        for (const auto& tracker : locationManagers_) tracker->halt();
    } else {
        for (const auto& tracker : locationManagers_) tracker->stop();
    }
    setPaused(true);
}

void RVLGeneralLocationManager::tellDelegateTrackingStatusChanged(bool isTracking) {
    if (const auto host = delegate()) host->trackingStatusChanged(isTracking);
}

// ---- Sleep state

bool RVLGeneralLocationManager::isAsleep() const { return paused_ == 1; }

std::optional<bool> RVLGeneralLocationManager::paused() const {
    const int value = paused_;
    if (value < 0) return std::nullopt;
    return value == 1;
}

void RVLGeneralLocationManager::setPaused(std::optional<bool> paused) {
    const int value = paused ? (*paused ? 1 : 0) : -1;
    if (paused_.exchange(value) == value) return;
    InfoDictionary userInfo;
    if (paused) userInfo["paused"] = *paused;
    platform_.notificationCenter->post(
        Notification{RVLGeneralNotification, std::nullopt, std::move(userInfo), static_cast<const Rovalis*>(this)});
}

void RVLGeneralLocationManager::initiateSleepWithReason(const std::string& reason) {
    if (isAsleep()) return;
    if (localTrackingStatePrivate_ != 1) return;
    operationsController_->performSlowDownOperationsWithReason(reason, lastLocation());
}

// A beacon is heard from where the phone sleeps as well as on the way somewhere else; while no
// sleep region has reported a crossing, the phone has not left its centre region, and a beacon
// heard again and again at the edge of its range must not keep waking it. Leaving is for the
// regions to report. Without that evidence (a sleep without a centre, or after a crossing the
// burst turned down) a beacon's wake-up goes to the location burst like any other.
void RVLGeneralLocationManager::initiateWakeUpWithReason(const std::string& reason,
                                                         const std::optional<Location>& lastKnownLocation) {
    if (localTrackingStatePrivate_ != 1 || !isAsleep()) return;
    const long kind = preWakeUpReasonCode(reason);
    if (kind == static_cast<long>(PreWakeUp::Reason::exitedGeofence) ||
        kind == static_cast<long>(PreWakeUp::Reason::enteredGeofence)) {
        asleepInsideCentreRegion_ = false;
    }
    if (namesBeacon(reason) && asleepInsideCentreRegion_) {
        Console::log("stays asleep inside its centre region: " + reason);
        return;
    }
    operationsController_->performSpeedUpOperationsWithReason(reason, lastKnownLocation);
}

void RVLGeneralLocationManager::sleepWithCenterLocation(const std::optional<Location>& center,
                                                        const std::string& reason) {
    if (isAsleep()) return;
    for (const auto& tracker : locationManagers_) tracker->slowDown(center);
    asleepInsideCentreRegion_ = center.has_value();  // the geofence tracker laid its regions round it
    insertToggleStandbyEventsWithState(true, reason);
    platform_.notificationCenter->post(RVLSDKNotification, InfoDictionary{{"message", std::string("Asleep")}});
    setPaused(true);
}

void RVLGeneralLocationManager::wakeUpWithReason(const std::string& reason, bool forced) {
    if (!isAsleep()) return;
    asleepInsideCentreRegion_ = false;
    for (const auto& tracker : locationManagers_) tracker->speedUp();
    if (!forced) insertToggleStandbyEventsWithState(false, reason);
    platform_.notificationCenter->post(RVLSDKNotification, InfoDictionary{{"message", std::string("Awake")}});
    setPaused(false);
}

void RVLGeneralLocationManager::insertToggleStandbyEventsWithState(bool state, const std::string& reason) {
    eventRepository_->insertToggleStandbyEventWithTrackedAtMs(platform_.dateSource->now(), state, reason);
}

// ---- Fixes

// The regular tracker hands over only fixes that passed the fix check (sensing/LocationVerifier.h).
void RVLGeneralLocationManager::didUpdateLocation(const Location& location, const std::string& provider) {
    {
        std::lock_guard lock(lastLocationMutex_);
        lastLocation_ = location;
    }
    eventRepository_->insertWaypointEventWithTrackedAtMs(
        location.timestamp, location.coordinate.latitude, location.coordinate.longitude, location.speed,
        location.course, location.horizontalAccuracy, location.altitude, provider);
    sendDataQueue_->updateTime();
    didStoreWaypoint(location);
}

void RVLGeneralLocationManager::didStoreWaypoint(const Location& location) {
    if (auto* host = dynamic_cast<RovalisLocationDelegate*>(delegate().get())) host->didTrackLocation(location);
}

std::optional<Location> RVLGeneralLocationManager::lastLocation() const {
    std::lock_guard lock(lastLocationMutex_);
    return lastLocation_;
}

// ---- Debug events and the application lifecycle

std::shared_ptr<RVLDebugEventsInsertable> RVLGeneralLocationManager::debugEventsInsertable() const {
    for (const auto& tracker : locationManagers_) {
        if (auto debug = std::dynamic_pointer_cast<RVLDebugEventsInsertable>(tracker)) return debug;
    }
    return nullptr;
}

void RVLGeneralLocationManager::receivedNotification(const Notification& notification) {
    onMain([&] {
        // While tracking runs, lifecycle notifications are ignored entirely.
        if (localTrackingStatePrivate_ == 1) return;
        if (const auto debug = debugEventsInsertable()) debug->insertApplicationNotificationDebugEvent(notification.name);
        if (notification.name == UIApplicationWillTerminateNotification) {
            applicationWillTerminate();
        } else if (notification.name == UIApplicationDidEnterBackgroundNotification) {
            applicationDidEnterBackground();
        }
    });
}

void RVLGeneralLocationManager::applicationWillTerminate() {
    eventRepository_->insertBuffers();
    initiateSleepWithReason(applicationTerminatesReason);
}

void RVLGeneralLocationManager::applicationDidEnterBackground() { eventRepository_->insertBuffers(); }

}  // namespace rovalis
