#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/AuthorizationManager.h"
#include "core/DebugEventsManager.h"
#include "core/RVLUpdateDetector.h"
#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventRepository.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/Rovalis.h"
#include "upload/CredentialsManager.h"
#include "upload/RVLAPIClient.h"
#include "upload/RVLSendDataQueue.h"
#include "upload/ReachabilityTracker.h"
#include "upload/UploadInterfaces.h"

namespace rovalis {

class TrackerRepository;

// The one object behind the public interface. It holds every long-lived component, owns the
// tracking state (on, off by the host, off by the SDK) and the sleep state (asleep or awake),
// and carries out their transitions: which trackers run, which events record them, which
// work the operations controller does.
//
// Threads: the state work runs on the platform's main run loop. A public call made elsewhere
// waits there for its work; operation completions hop there. The state itself is read from
// any thread (the flags are atomic).
class RVLGeneralLocationManager final : public Rovalis,
                                        public RVLTrackingStateChangeable,
                                        public RVLSleepAwakeState,
                                        public RVLInitiateSleepType,
                                        public RVLInitiateWakeUpType,
                                        public RVLSleepable,
                                        public RVLWakeupable,
                                        public RVLLocationUpdateReceiver,
                                        public std::enable_shared_from_this<RVLGeneralLocationManager> {
public:
    static constexpr const char* notInitializedReason =
        "The SDK must be initialized by calling the initialize function inside the didFinishLaunchingWithOptions App "
        "delegate.";

    // Nothing is built until initializeUsing.
    explicit RVLGeneralLocationManager(RovalisConfiguration configuration);
    // Ends the SDK as the end of its process would; see RovalisCore::makeInstance.
    ~RVLGeneralLocationManager() override;

    RVLGeneralLocationManager(const RVLGeneralLocationManager&) = delete;
    RVLGeneralLocationManager& operator=(const RVLGeneralLocationManager&) = delete;

    // Replaces the configuration; refused once initialised.
    void configure(RovalisConfiguration configuration);

    // Rovalis
    void initializeUsing(std::shared_ptr<RovalisDelegate> delegate,
                         const std::optional<LaunchOptions>& launchOptions) override;
    void start() override;
    void stop() override;
    void handleEventsForBackgroundURLSession(const std::string& identifier,
                                             std::function<void()> completionHandler) override;
    void clearDataWithCompletionHandler(std::function<void()> completionHandler) override;
    bool isTrackingActive() override;
    std::optional<std::string> userToken() override;
    void setUserToken(const std::optional<std::string>& token) override;
    bool wifiOnlyDataTransfer() override;
    void setWifiOnlyDataTransfer(bool wifiOnly) override;
    bool hasRequiredPermissions() override;
    std::optional<std::string> version() override;

    // RVLTrackingStateChangeable
    void initializeTracking() override;
    void startTrackingWithForced(bool forced) override;
    void stopTrackingWithReason(std::int64_t reason) override;

    // RVLSleepAwakeState
    bool isAsleep() const override;

    // RVLInitiateSleepType, RVLInitiateWakeUpType
    void initiateSleepWithReason(const std::string& reason) override;
    void initiateWakeUpWithReason(const std::string& reason,
                                  const std::optional<Location>& lastKnownLocation) override;

    // RVLSleepable, RVLWakeupable
    void sleepWithCenterLocation(const std::optional<Location>& center, const std::string& reason) override;
    void wakeUpWithReason(const std::string& reason, bool forced) override;

    // RVLLocationUpdateReceiver
    void didUpdateLocation(const Location& location, const std::string& provider) override;
    std::optional<Location> lastLocation() const override;
    void didStoreWaypoint(const Location& location) override;

    // Stores the flag and posts "RVLGeneralNotification" {"paused": value} when it changes.
    void setPaused(std::optional<bool> paused);
    std::optional<bool> paused() const;
    // The first tracker that writes debug events, or none.
    std::shared_ptr<RVLDebugEventsInsertable> debugEventsInsertable() const;
    // An application lifecycle notification.
    void receivedNotification(const Notification& notification);

    // The tracking state: 1 on, 0 off by the host, -1 off by the SDK.
    std::int64_t localTrackingState() const { return localTrackingStatePrivate_.load(); }
    // The platform the SDK runs on, complete once initialised.
    const Platform& platform() const { return platform_; }
    const std::vector<std::shared_ptr<RVLTracker>>& locationManagers() const { return locationManagers_; }
    const std::shared_ptr<EventRepository>& eventRepository() const { return eventRepository_; }

private:
    void throwErrorIfNotInitialized() const;
    // Runs the work on the main run loop and waits for it.
    void onMain(const std::function<void()>& work);
    void createTrackers();
    void observeUIApplicationNotifications();
    void applicationWillTerminate();
    void applicationDidEnterBackground();
    void updateTrackingState(std::int64_t state, const std::optional<std::string>& ttOffEventURI,
                             const std::function<void(bool)>& completion);
    void startTrackers();
    void stopTrackers(std::int64_t state);
    void insertToggleStandbyEventsWithState(bool state, const std::string& reason);
    void tellDelegateTrackingStatusChanged(bool isTracking);
    std::shared_ptr<RovalisDelegate> delegate() const { return delegate_.lock(); }

    RovalisConfiguration configuration_;
    Platform platform_;
    // Recursive: a host callback during initialisation may call back in.
    std::recursive_mutex initialization_;

    // The fields of the tracking core.
    std::atomic<bool> isInitialized_{false};
    std::weak_ptr<RovalisDelegate> delegate_;
    std::vector<std::shared_ptr<RVLTracker>> locationManagers_;
    std::shared_ptr<EventRepository> eventRepository_;
    std::shared_ptr<RVLAPIClient> apiManager_;
    std::shared_ptr<RVLAuthorizationManagerType> authorizationManager_;
    std::shared_ptr<RVLSendDataQueue> sendDataQueue_;
    std::shared_ptr<RVLOperationsControllerType> operationsController_;
    mutable std::mutex lastLocationMutex_;
    std::optional<Location> lastLocation_;
    std::shared_ptr<UserDefaultsManager> userDefaultsManager_;
    std::shared_ptr<CredentialsManager> credentialsManager_;
    std::unique_ptr<RVLUpdateDetector> updateDetector_;
    // -1 absent, 0 awake, 1 asleep.
    std::atomic<int> paused_{-1};
    std::atomic<std::int64_t> localTrackingStatePrivate_{0};
    std::optional<Date> toggleTrackingOffDate_;
    // The host asked to start before the platform knew the permission (Linux: before gpsd
    // first answered); the answer carries the start out or refuses it. Main run loop only.
    bool hostStartAwaitsAuthorization_ = false;
    // Asleep with the sleep regions laid round a centre, and none of them crossed since: the
    // regions' own evidence that the phone is still where it fell asleep. Main run loop only.
    bool asleepInsideCentreRegion_ = false;

    // Held for an orderly end: the reachability reports stop before the send queue goes.
    std::shared_ptr<ReachabilityTracker> reachabilityTracker_;
    std::shared_ptr<Executor> clearDataQueue_;
    std::vector<NotificationCenter::ObserverToken> observers_;
};

}  // namespace rovalis
