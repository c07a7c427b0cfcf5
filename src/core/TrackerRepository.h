#pragma once

// The composition root: builds every long-lived component once, on first use, hands each
// its collaborators, and returns the trackers the tracking core drives. It alone names the
// concrete classes; every component depends on interfaces.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/AuthorizationManager.h"
#include "core/BuildConfiguration.h"
#include "core/DebugEventsManager.h"
#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventRepository.h"
#include "rovalis/HostInfo.h"
#include "rovalis/Platform.h"
#include "rovalis/Rovalis.h"
#include "rovalis/RovalisDelegate.h"
#include "sensing/RegionCalculator.h"
#include "upload/CredentialsManager.h"
#include "upload/CurlUrlSession.h"
#include "upload/RVLAPIClient.h"
#include "upload/RVLCommons.h"
#include "upload/RVLOperationsController.h"
#include "upload/RVLSendDataQueue.h"
#include "upload/ReachabilityTracker.h"
#include "util/DataRoot.h"

namespace rovalis {

class BeaconRanger;
class BeaconRegionsContainer;
class BeaconTracker;
class EddystoneScannerType;
class GeofenceManagerForwarder;
class GeofenceTracker;
class RegionMonitoringReceiver;
class RegularLocationTracker;
class SignificantLocationTracker;
class BatteryMonitoringManager;
class SDKSettingsTracker;

// The collaborators the repository does not build: the state manager (which plays six roles),
// the receiver of accepted fixes, the host's delegate, and the makers of the platform's
// location and motion managers. Immutable after construction.
struct TrackerDependencies {
    using LocationManagerFactory = std::function<std::shared_ptr<LocationManagerType>()>;
    using MotionManagerFactory = std::function<std::shared_ptr<MotionManagerType>()>;
    using MotionActivityManagerFactory = std::function<std::shared_ptr<MotionActivityManagerType>()>;

    // The one state manager fills the six provider roles.
    template <typename StateManager>
    TrackerDependencies(const std::shared_ptr<StateManager>& singleStateManager,
                        std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                        std::weak_ptr<RovalisDelegate> sdkDelegate, LocationManagerFactory locationManagerType,
                        MotionManagerFactory motionManagerType, MotionActivityManagerFactory motionActivityManagerType)
        : trackingStateChanger(singleStateManager),
          sleepAwakeStateProvider(singleStateManager),
          sleepInitiationProvider(singleStateManager),
          awakeInitiationProvider(singleStateManager),
          sleepProvider(singleStateManager),
          wakeupProvider(singleStateManager),
          locationUpdateReceiver(std::move(locationUpdateReceiver)),
          sdkDelegate(std::move(sdkDelegate)),
          locationManagerType(std::move(locationManagerType)),
          motionManagerType(std::move(motionManagerType)),
          motionActivityManagerType(std::move(motionActivityManagerType)) {}

    const std::weak_ptr<RVLTrackingStateChangeable> trackingStateChanger;
    const std::weak_ptr<RVLSleepAwakeState> sleepAwakeStateProvider;
    const std::weak_ptr<RVLInitiateSleepType> sleepInitiationProvider;
    const std::weak_ptr<RVLInitiateWakeUpType> awakeInitiationProvider;
    const std::weak_ptr<RVLSleepable> sleepProvider;
    const std::weak_ptr<RVLWakeupable> wakeupProvider;
    const std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver;
    const std::weak_ptr<RovalisDelegate> sdkDelegate;
    const LocationManagerFactory locationManagerType;
    const MotionManagerFactory motionManagerType;
    const MotionActivityManagerFactory motionActivityManagerType;
};

// What the components need of the platform and the host besides the dependencies.
struct TrackerEnvironment {
    Platform platform;
    DataRoot dataRoot;
    HostInfo host;
    BuildConfiguration buildConfiguration;
    // The collection service of a production build (an integration build uses the local one).
    std::string productionBaseURL;
    // The host's own service and stay limit, which replace the build's defaults.
    std::optional<std::string> serviceBaseURL;
    std::optional<double> stayTimeLimit;
    UploadSchedule uploadSchedule;
    RegionCalculator sleepRegions = RegionCalculator::sleepRegions();
    CurlUrlSessionOptions sessionOptions;
    RVLAPIClientOptions apiClientOptions;
};

class TrackerRepository {
public:
    // The host's Info settings that switch beacon tracking (region monitoring and ranging of
    // iBeacon regions) and Eddystone scanning during ranging on; each only with a boolean true.
    static constexpr const char* beaconTrackingSwitch = "RV_SDK_BEACON_TRACKING_ENABLED";
    static constexpr const char* eddystoneTrackingSwitch = "RV_SDK_EDDYSTONE_TRACKING_ENABLED";

    template <typename T>
    using Factory = std::function<std::shared_ptr<T>(TrackerRepository&)>;

    TrackerRepository(TrackerDependencies dependencies, TrackerEnvironment environment);

    TrackerRepository(const TrackerRepository&) = delete;
    TrackerRepository& operator=(const TrackerRepository&) = delete;

    // Choices made before the first access to the matching component. A factory takes what
    // it needs from the repository's accessors.
    void registerMotionActivityTracker(Factory<RVLTracker> factory);
    void registerAPIClient(Factory<RVLAPIClient> factory);
    void registerOperationsController(Factory<RVLOperationsControllerType> factory);
    void registerSendDataQueue(Factory<RVLSendDataQueue> factory);

    // Each builds its component on first access and keeps it; the setters substitute one.
    std::shared_ptr<EventRepository> eventRepository();
    std::shared_ptr<EventRecordInsertable> eventInserter();
    std::shared_ptr<UserDefaultsManager> userDefaultsManager();
    std::shared_ptr<CredentialsManager> credentialsManager();
    std::shared_ptr<RVLAuthorizationManagerType> authorizationManager();
    std::shared_ptr<RVLAPIClient> apiManager();
    std::shared_ptr<RVLOperationsControllerType> operationsController();
    std::shared_ptr<RVLSendDataQueue> sendDataQueue();
    std::shared_ptr<ReachabilityTracker> reachabilityTracker();
    std::shared_ptr<DebugEventsManager> debugEventsManager();
    std::shared_ptr<RVLCommons> commons();

    void setEventRepository(std::shared_ptr<EventRepository> value) { eventRepository_ = std::move(value); }
    void setUserDefaultsManager(std::shared_ptr<UserDefaultsManager> value) { userDefaultsManager_ = std::move(value); }
    void setCredentialsManager(std::shared_ptr<CredentialsManager> value) { credentialsManager_ = std::move(value); }
    void setAuthorizationManager(std::shared_ptr<RVLAuthorizationManagerType> value) {
        authorizationManager_ = std::move(value);
    }
    void setApiManager(std::shared_ptr<RVLAPIClient> value) { apiManager_ = std::move(value); }
    void setOperationsController(std::shared_ptr<RVLOperationsControllerType> value) {
        operationsController_ = std::move(value);
    }
    void setSendDataQueue(std::shared_ptr<RVLSendDataQueue> value) { sendDataQueue_ = std::move(value); }

    // The trackers, in the order of every start, stop, halt, speed-up and slow-down.
    std::vector<std::shared_ptr<RVLTracker>> createTrackers();

    const TrackerDependencies& dependencies() const { return dependencies_; }
    const TrackerEnvironment& environment() const { return environment_; }
    // The collection service this build talks to.
    std::string baseURL() const;

private:
    std::shared_ptr<RegularLocationTracker> regularLocationTracker();
    std::shared_ptr<SignificantLocationTracker> significantLocationTracker();
    std::shared_ptr<BatteryMonitoringManager> batteryMonitoringManager();
    std::shared_ptr<BeaconRegionsContainer> beaconRegionsContainer();
    // None while Eddystone tracking is off.
    std::shared_ptr<EddystoneScannerType> eddystoneScanner();
    std::shared_ptr<BeaconRanger> beaconRanger();
    std::shared_ptr<RegionMonitoringReceiver> regionMonitoringReceiver();
    std::shared_ptr<LocationManagerType> geofenceAndBeaconLocationManager();
    std::shared_ptr<GeofenceManagerForwarder> geofenceAndBeaconForwarder();
    std::shared_ptr<GeofenceTracker> geofenceLocationTracker();
    std::shared_ptr<BeaconTracker> beaconTracker();
    std::shared_ptr<SDKSettingsTracker> sdkSettingsTracker();
    std::shared_ptr<RVLTracker> motionActivityTracker();

    bool isBeaconTrackingEnabled() const;
    bool isEddystoneTrackingEnabled() const;
    // A fresh location manager, as every tracker but the geofence and beacon ones gets.
    std::shared_ptr<LocationManagerType> freshLocationManager();
    // A new serial queue with a thread of its own, counted by the platform's work tracker.
    std::shared_ptr<Executor> makeQueue(const std::string& label);

    const TrackerDependencies dependencies_;
    const TrackerEnvironment environment_;

    Factory<RVLTracker> motionActivityTrackerType_;
    Factory<RVLAPIClient> apiClientType_;
    Factory<RVLOperationsControllerType> operationsControllerType_;
    Factory<RVLSendDataQueue> sendDataQueueType_;

    std::shared_ptr<EventRepository> eventRepository_;
    std::shared_ptr<UserDefaultsManager> userDefaultsManager_;
    std::shared_ptr<CredentialsManager> credentialsManager_;
    std::shared_ptr<RVLAuthorizationManagerType> authorizationManager_;
    std::shared_ptr<RVLAPIClient> apiManager_;
    std::shared_ptr<RVLOperationsControllerType> operationsController_;
    std::shared_ptr<RVLSendDataQueue> sendDataQueue_;
    std::shared_ptr<RegularLocationTracker> regularLocationTracker_;
    std::shared_ptr<SignificantLocationTracker> significantLocationTracker_;
    std::shared_ptr<BatteryMonitoringManager> batteryMonitoringManager_;
    std::shared_ptr<BeaconRegionsContainer> beaconRegionsContainer_;
    std::shared_ptr<EddystoneScannerType> eddystoneScanner_;
    std::shared_ptr<BeaconRanger> beaconRanger_;
    std::shared_ptr<RegionMonitoringReceiver> regionMonitoringReceiver_;
    std::shared_ptr<LocationManagerType> geofenceAndBeaconLocationManager_;
    std::shared_ptr<GeofenceManagerForwarder> geofenceAndBeaconForwarder_;
    std::shared_ptr<GeofenceTracker> geofenceLocationTracker_;
    std::shared_ptr<BeaconTracker> beaconTracker_;
    std::shared_ptr<SDKSettingsTracker> sdkSettingsTracker_;
    std::shared_ptr<ReachabilityTracker> reachabilityTracker_;
    std::shared_ptr<DebugEventsManager> debugEventsManager_;
    std::shared_ptr<RVLTracker> motionActivityTracker_;
    std::shared_ptr<RVLCommons> commons_;
};

}  // namespace rovalis
