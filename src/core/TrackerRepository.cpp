#include "core/TrackerRepository.h"

#include <curl/curl.h>

#include "core/PauseManager.h"
#include "rovalis/Console.h"
#include "rovalis/platform/Beacons.h"
#include "sensing/BatteryMonitoringManager.h"
#include "sensing/BeaconRanger.h"
#include "sensing/BeaconRangerForwarder.h"
#include "sensing/BeaconRegionsContainer.h"
#include "sensing/BeaconTracker.h"
#include "sensing/EddystoneScanner.h"
#include "sensing/GeofenceTracker.h"
#include "sensing/LocationManagerForwarder.h"
#include "sensing/RVLMotionAccelManager.h"
#include "sensing/RegionMonitoringReceiver.h"
#include "sensing/RegularLocationTracker.h"
#include "sensing/SDKSettingsTracker.h"
#include "sensing/SignificantLocationTracker.h"
#include "sensing/StayDetector.h"
#include "util/Fatal.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {

namespace {

// The host part of a URL ("collect.rovalis.io" of "https://collect.rovalis.io/"), or the
// whole text when it is not a URL.
std::string hostOf(const std::string& url) {
    std::string host = url;
    CURLU* handle = curl_url();
    if (handle == nullptr) return host;
    char* part = nullptr;
    if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
        curl_url_get(handle, CURLUPART_HOST, &part, 0) == CURLUE_OK) {
        host = part;
        curl_free(part);
    }
    curl_url_cleanup(handle);
    return host;
}

// How long the pause manager's burst of accurate fixes may last.
constexpr double pauseBurstTimeout = 30.0;

}  // namespace

TrackerRepository::TrackerRepository(TrackerDependencies dependencies, TrackerEnvironment environment)
    : dependencies_(std::move(dependencies)), environment_(std::move(environment)) {
    if (!dependencies_.locationManagerType || !dependencies_.motionManagerType ||
        !dependencies_.motionActivityManagerType) {
        fatalError("TrackerDependencies need the location, motion and motion-activity manager makers");
    }
}

void TrackerRepository::registerMotionActivityTracker(Factory<RVLTracker> factory) {
    motionActivityTrackerType_ = std::move(factory);
}
void TrackerRepository::registerAPIClient(Factory<RVLAPIClient> factory) { apiClientType_ = std::move(factory); }
void TrackerRepository::registerOperationsController(Factory<RVLOperationsControllerType> factory) {
    operationsControllerType_ = std::move(factory);
}
void TrackerRepository::registerSendDataQueue(Factory<RVLSendDataQueue> factory) {
    sendDataQueueType_ = std::move(factory);
}

std::string TrackerRepository::baseURL() const {
    return serviceBaseURL(environment_.buildConfiguration, environment_.productionBaseURL, environment_.serviceBaseURL);
}

bool TrackerRepository::isBeaconTrackingEnabled() const { return environment_.host.isSwitchOn(beaconTrackingSwitch); }

bool TrackerRepository::isEddystoneTrackingEnabled() const {
    return environment_.host.isSwitchOn(eddystoneTrackingSwitch);
}

std::shared_ptr<LocationManagerType> TrackerRepository::freshLocationManager() {
    auto manager = dependencies_.locationManagerType();
    if (!manager) fatalError("The platform made no location manager");
    return manager;
}

std::shared_ptr<Executor> TrackerRepository::makeQueue(const std::string& label) {
    return std::shared_ptr<Executor>(environment_.platform.makeSerialExecutor(label));
}

// ---- Events, state and credentials

std::shared_ptr<EventRepository> TrackerRepository::eventRepository() {
    if (!eventRepository_) {
        eventRepository_ = std::make_shared<EventRepository>(
            environment_.dataRoot.privateDirectory("Store") / "RovalisSDK.sqlite",
            workTrackerOf(environment_.platform.mainRunLoop),
            CommitDelay{environment_.platform.mainRunLoop, EventRepository::commitDelaySeconds});
    }
    return eventRepository_;
}

std::shared_ptr<EventRecordInsertable> TrackerRepository::eventInserter() { return eventRepository(); }

std::shared_ptr<UserDefaultsManager> TrackerRepository::userDefaultsManager() {
    if (!userDefaultsManager_) {
        userDefaultsManager_ = std::make_shared<UserDefaultsManager>(environment_.platform.keyValueStore);
    }
    return userDefaultsManager_;
}

std::shared_ptr<CredentialsManager> TrackerRepository::credentialsManager() {
    if (!credentialsManager_) {
        credentialsManager_ = std::make_shared<CredentialsManager>(environment_.platform.keychain, environment_.host);
    }
    return credentialsManager_;
}

std::shared_ptr<RVLCommons> TrackerRepository::commons() {
    if (!commons_) {
        commons_ = std::make_shared<RVLCommons>(environment_.dataRoot.documents(), environment_.host,
                                                environment_.platform.systemVersion);
    }
    return commons_;
}

std::shared_ptr<DebugEventsManager> TrackerRepository::debugEventsManager() {
    if (!debugEventsManager_) {
        debugEventsManager_ = std::make_shared<DebugEventsManager>(eventRepository(), environment_.platform.dateSource);
    }
    return debugEventsManager_;
}

std::shared_ptr<RVLAuthorizationManagerType> TrackerRepository::authorizationManager() {
    if (!authorizationManager_) {
        authorizationManager_ = AuthorizationManager::create(
            freshLocationManager(), std::make_shared<AuthorizationManagerForwarder>(),
            dependencies_.motionActivityManagerType(), dependencies_.trackingStateChanger, userDefaultsManager(),
            debugEventsManager());
    }
    return authorizationManager_;
}

// ---- Uploads

std::shared_ptr<RVLAPIClient> TrackerRepository::apiManager() {
    if (!apiManager_) {
        if (apiClientType_) {
            apiManager_ = apiClientType_(*this);
        } else {
            const Platform& platform = environment_.platform;
            auto sessions = std::make_shared<CurlUrlSessionFactory>(
                environment_.dataRoot.privateDirectory("BackgroundSessions"), platform.network, platform.mainRunLoop,
                platform.dateSource, workTrackerOf(platform.mainRunLoop), environment_.sessionOptions);
            auto defaults = userDefaultsManager();
            auto credentials = credentialsManager();
            apiManager_ = RVLAPIClient::create(baseURL(), defaults, defaults, eventRepository(), credentials,
                                               credentials, credentials, debugEventsManager(), std::move(sessions),
                                               commons(), platform.mainRunLoop, environment_.apiClientOptions);
        }
    }
    return apiManager_;
}

std::shared_ptr<ReachabilityTracker> TrackerRepository::reachabilityTracker() {
    if (!reachabilityTracker_) {
        const Platform& platform = environment_.platform;
        auto defaults = userDefaultsManager();
        reachabilityTracker_ = std::make_shared<ReachabilityTracker>(
            eventRepository(), defaults, defaults, platform.dateSource, *platform.network, hostOf(baseURL()),
            makeQueue("org.rovalis.reachabilityTracker"), workTrackerOf(platform.mainRunLoop));
    }
    return reachabilityTracker_;
}

std::shared_ptr<RVLOperationsControllerType> TrackerRepository::operationsController() {
    if (!operationsController_) {
        if (operationsControllerType_) {
            operationsController_ = operationsControllerType_(*this);
        } else {
            const Platform& platform = environment_.platform;
            auto events = eventRepository();
            const auto makeLocationManager = dependencies_.locationManagerType;
            const auto receiver = dependencies_.locationUpdateReceiver;
            PauseManagerFactory pauseManagers = [makeLocationManager, platform, receiver](
                                                    std::weak_ptr<RVLEventInsertable> eventRepository,
                                                    std::weak_ptr<RVLPauseRecordModifier> pauseRecordManager) {
                return std::make_shared<PauseManager>(
                    makeLocationManager(), std::move(eventRepository), std::move(pauseRecordManager),
                    platform.dateSource, platform.mainRunLoop, pauseBurstTimeout, [receiver](const Location& fix) {
                        if (const auto live = receiver.lock()) live->didStoreWaypoint(fix);
                    });
            };
            operationsController_ = std::make_shared<RVLOperationsController>(
                dependencies_.sleepProvider, dependencies_.wakeupProvider, events, events, events, events, apiManager(),
                userDefaultsManager(), reachabilityTracker(), credentialsManager(), debugEventsManager(),
                OperationsEnvironment{
                    .eventsQueue = makeQueue("RVLOperationsController.eventsQueue"),
                    .mainQueue = platform.mainRunLoop,
                    .backgroundTasks = platform.backgroundTasks,
                    .commons = commons(),
                    .dateSource = platform.dateSource,
                    .pauseManagerFactory = std::move(pauseManagers),
                });
        }
    }
    return operationsController_;
}

std::shared_ptr<RVLSendDataQueue> TrackerRepository::sendDataQueue() {
    if (!sendDataQueue_) {
        if (sendDataQueueType_) {
            sendDataQueue_ = sendDataQueueType_(*this);
        } else {
            sendDataQueue_ = std::make_shared<RVLSendDataQueue>(operationsController(), userDefaultsManager(),
                                                                reachabilityTracker(), environment_.platform.dateSource,
                                                                environment_.uploadSchedule.interval,
                                                                environment_.uploadSchedule.minimumInterval);
        }
    }
    return sendDataQueue_;
}

// ---- Trackers

std::shared_ptr<RegularLocationTracker> TrackerRepository::regularLocationTracker() {
    if (!regularLocationTracker_) {
        regularLocationTracker_ = RegularLocationTracker::create(
            freshLocationManager(), std::make_shared<LocationManagerForwarder>(), dependencies_.sleepInitiationProvider,
            std::make_unique<StayDetector>(stayTimeLimit(environment_.buildConfiguration, environment_.stayTimeLimit)),
            dependencies_.locationUpdateReceiver, debugEventsManager(), environment_.platform.mainRunLoop);
    }
    return regularLocationTracker_;
}

std::shared_ptr<SignificantLocationTracker> TrackerRepository::significantLocationTracker() {
    if (!significantLocationTracker_) {
        significantLocationTracker_ = SignificantLocationTracker::create(
            freshLocationManager(), std::make_shared<LocationManagerForwarder>(),
            dependencies_.awakeInitiationProvider, eventRepository(), environment_.platform.dateSource);
    }
    return significantLocationTracker_;
}

std::shared_ptr<BatteryMonitoringManager> TrackerRepository::batteryMonitoringManager() {
    if (!batteryMonitoringManager_) {
        batteryMonitoringManager_ = std::make_shared<BatteryMonitoringManager>(
            eventRepository(), environment_.platform.deviceInfo, environment_.platform.dateSource,
            environment_.platform.notificationCenter);
    }
    return batteryMonitoringManager_;
}

std::shared_ptr<BeaconRegionsContainer> TrackerRepository::beaconRegionsContainer() {
    if (!beaconRegionsContainer_) beaconRegionsContainer_ = std::make_shared<BeaconRegionsContainer>(environment_.host.info);
    return beaconRegionsContainer_;
}

std::shared_ptr<EddystoneScannerType> TrackerRepository::eddystoneScanner() {
    if (!eddystoneScanner_ && isEddystoneTrackingEnabled()) {
        const Platform& platform = environment_.platform;
        std::shared_ptr<BluetoothScannerType> bluetooth;
        if (platform.makeBluetoothScanner) bluetooth = platform.makeBluetoothScanner();
        if (!bluetooth) {
            Console::log("the platform has no Bluetooth LE scanner: no Eddystone scanning");
            return nullptr;
        }
        eddystoneScanner_ = EddystoneScanner::create(
            std::move(bluetooth), platform.mainRunLoop,
            // The repository is gone long before the scanner's last queue is made.
            [platform](const std::string& label) {
                return std::shared_ptr<Executor>(platform.makeSerialExecutor(label));
            });
    }
    return eddystoneScanner_;
}

std::shared_ptr<BeaconRanger> TrackerRepository::beaconRanger() {
    if (!beaconRanger_) {
        beaconRanger_ = BeaconRanger::create(freshLocationManager(), std::make_shared<BeaconRangerForwarder>(),
                                             beaconRegionsContainer(), debugEventsManager(), eddystoneScanner(),
                                             eventInserter(), dependencies_.awakeInitiationProvider,
                                             dependencies_.locationUpdateReceiver, environment_.platform.mainRunLoop);
    }
    return beaconRanger_;
}

std::shared_ptr<RegionMonitoringReceiver> TrackerRepository::regionMonitoringReceiver() {
    if (!regionMonitoringReceiver_) {
        // Without beacon tracking no beacon region is watched, and a report of one (a region
        // left from an earlier process) finds no ranger.
        regionMonitoringReceiver_ = std::make_shared<RegionMonitoringReceiver>(
            environment_.platform.dateSource, dependencies_.awakeInitiationProvider, eventInserter(),
            dependencies_.locationUpdateReceiver, environment_.sleepRegions.identifierPrefix,
            isBeaconTrackingEnabled() ? beaconRanger() : nullptr);
    }
    return regionMonitoringReceiver_;
}

std::shared_ptr<LocationManagerType> TrackerRepository::geofenceAndBeaconLocationManager() {
    if (!geofenceAndBeaconLocationManager_) geofenceAndBeaconLocationManager_ = freshLocationManager();
    return geofenceAndBeaconLocationManager_;
}

std::shared_ptr<GeofenceManagerForwarder> TrackerRepository::geofenceAndBeaconForwarder() {
    if (!geofenceAndBeaconForwarder_) geofenceAndBeaconForwarder_ = std::make_shared<GeofenceManagerForwarder>();
    return geofenceAndBeaconForwarder_;
}

std::shared_ptr<GeofenceTracker> TrackerRepository::geofenceLocationTracker() {
    if (!geofenceLocationTracker_) {
        geofenceLocationTracker_ = GeofenceTracker::create(
            environment_.platform.dateSource, regionMonitoringReceiver(), eventInserter(),
            geofenceAndBeaconLocationManager(), geofenceAndBeaconForwarder(), dependencies_.awakeInitiationProvider,
            environment_.sleepRegions);
    }
    return geofenceLocationTracker_;
}

std::shared_ptr<BeaconTracker> TrackerRepository::beaconTracker() {
    if (!beaconTracker_) {
        beaconTracker_ =
            BeaconTracker::create(beaconRegionsContainer(), geofenceAndBeaconLocationManager(), beaconRanger());
    }
    return beaconTracker_;
}

std::shared_ptr<SDKSettingsTracker> TrackerRepository::sdkSettingsTracker() {
    if (!sdkSettingsTracker_) {
        sdkSettingsTracker_ = std::make_shared<SDKSettingsTracker>(
            eventInserter(), environment_.platform.dateSource, userDefaultsManager(), environment_.platform.systemState);
    }
    return sdkSettingsTracker_;
}

std::shared_ptr<RVLTracker> TrackerRepository::motionActivityTracker() {
    if (!motionActivityTracker_) {
        if (motionActivityTrackerType_) {
            motionActivityTracker_ = motionActivityTrackerType_(*this);
        } else {
            const Platform& platform = environment_.platform;
            motionActivityTracker_ = RVLMotionAccelManager::create(
                eventRepository(), dependencies_.motionManagerType(), dependencies_.motionActivityManagerType(),
                userDefaultsManager(), platform.dateSource, platform.systemState, platform.mainRunLoop,
                // The repository is gone long before the tracker's last queue is made.
                [platform](const std::string& label) {
                    return std::shared_ptr<Executor>(platform.makeSerialExecutor(label));
                });
        }
    }
    return motionActivityTracker_;
}

std::vector<std::shared_ptr<RVLTracker>> TrackerRepository::createTrackers() {
    std::vector<std::shared_ptr<RVLTracker>> trackers;
    trackers.push_back(regularLocationTracker());
    trackers.push_back(significantLocationTracker());
    trackers.push_back(batteryMonitoringManager());
    trackers.push_back(geofenceLocationTracker());
    if (isBeaconTrackingEnabled()) trackers.push_back(beaconTracker());
    trackers.push_back(sdkSettingsTracker());
    trackers.push_back(debugEventsManager());
    trackers.push_back(motionActivityTracker());
    trackers.push_back(reachabilityTracker());
    return trackers;
}

}  // namespace rovalis
