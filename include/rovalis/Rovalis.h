#pragma once

// The host-facing library: the shared entry object, the public interface, and what a Linux
// host tells the SDK about itself before it initialises it.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Executor.h"
#include "rovalis/Export.h"
#include "rovalis/HostInfo.h"
#include "rovalis/InfoDictionary.h"
#include "rovalis/Platform.h"
#include "rovalis/RovalisDelegate.h"
#include "rovalis/SleepRegions.h"

namespace rovalis {

// The application lifecycle, posted by the host on the platform's notification centre
// (`Platform::notificationCenter`; for the default Linux platform,
// `NotificationCenter::defaultCenter()`). A Linux host may post will-terminate when it is
// asked to stop (SIGTERM), from its own thread rather than from the signal handler.
inline constexpr const char* UIApplicationWillTerminateNotification = "UIApplicationWillTerminateNotification";
inline constexpr const char* UIApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* UIApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* UIApplicationDidReceiveMemoryWarningNotification =
    "UIApplicationDidReceiveMemoryWarningNotification";
// Posting this one too lets the SDK upload as soon as the app comes to the front.
inline constexpr const char* UIApplicationDidBecomeActiveNotification = "UIApplicationDidBecomeActiveNotification";

// What the SDK posts on the same centre. "RVLGeneralNotification" carries the user info
// {"paused": bool} at every change of the asleep flag, with the instance (the Rovalis*) as its
// sender; "RVLSDKNotification" carries the object {"message": "Asleep"} or {"message": "Awake"}.
inline constexpr const char* RVLGeneralNotification = "RVLGeneralNotification";
inline constexpr const char* RVLSDKNotification = "RVLSDKNotification";

// The launch options of the host (kept for the shape of the call; the SDK does not read them).
using LaunchOptions = InfoDictionary;

// The SDK as the host sees it. Every operation but initializeUsing raises
// InternalInconsistencyException before initialisation. Operations may be called from any
// thread; the tracking work itself runs on the SDK's main run loop, and the call returns once
// it is done there.
class ROVALIS_EXPORT Rovalis {
public:
    virtual ~Rovalis() = default;

    // Once, early at launch. A second call changes nothing. The delegate is held weakly: the
    // host keeps it alive.
    virtual void initializeUsing(std::shared_ptr<RovalisDelegate> delegate,
                                 const std::optional<LaunchOptions>& launchOptions) = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    // The system's hand-over of the background upload session's events after a relaunch.
    virtual void handleEventsForBackgroundURLSession(const std::string& identifier,
                                                     std::function<void()> completionHandler) = 0;
    // Deletes every stored event; the completion (may be empty) runs on the main run loop.
    virtual void clearDataWithCompletionHandler(std::function<void()> completionHandler) = 0;
    virtual bool isTrackingActive() = 0;
    virtual std::optional<std::string> userToken() = 0;
    virtual void setUserToken(const std::optional<std::string>& token) = 0;
    virtual bool wifiOnlyDataTransfer() = 0;
    virtual void setWifiOnlyDataTransfer(bool wifiOnly) = 0;
    // "Always" location permission with full accuracy, and location services on.
    virtual bool hasRequiredPermissions() = 0;
    virtual std::optional<std::string> version() = 0;
};

// What a host tells the SDK about itself. Everything but `host` is optional.
// When an upload that makes too little progress fails with a time-out (NSURLErrorDomain -1001),
// so that no service can hold the SDK's upload queue for long: no byte in either direction for
// idleTimeout seconds, or fewer than minimumBytesPerSecond on average over the last
// lowSpeedWindow seconds (0 switches that floor off). The defaults suit a phone's network.
struct TransferLimits {
    double idleTimeout = 60.0;
    double minimumBytesPerSecond = 1024.0;
    double lowSpeedWindow = 60.0;

    friend bool operator==(const TransferLimits&, const TransferLimits&) = default;
};

// The real Linux services the SDK builds for what the platform bundle leaves out.
struct LinuxPlatformSettings {
    // gpsd's JSON interface.
    std::string gpsdHost = "127.0.0.1";
    std::uint16_t gpsdPort = 2947;
    // The sysfs class directory of the battery and mains supplies.
    std::filesystem::path powerSupplyRoot = "/sys/class/power_supply";
    // Network interfaces that count as cellular besides those detected (PPP links, WWAN
    // devices and modem drivers, interfaces udev marks with ROVALIS_CELLULAR=1): exact
    // names, or a prefix followed by '*' ("usb*").
    std::vector<std::string> cellularInterfaces;

    friend bool operator==(const LinuxPlatformSettings&, const LinuxPlatformSettings&) = default;
};

// When uploads start besides the app becoming active and the network returning: on a new
// location once the last successful upload is older than `interval` seconds, and never two
// starts closer together than `minimumInterval` seconds.
struct UploadSchedule {
    double interval = 900.0;
    double minimumInterval = 300.0;

    friend bool operator==(const UploadSchedule&, const UploadSchedule&) = default;
};

struct RovalisConfiguration {
    // Display name, version, build, identifier, and the Info settings
    // ("RV_SDK_BEACON_TRACKING_ENABLED", "RV_SDK_EDDYSTONE_TRACKING_ENABLED").
    HostInfo host;
    // Where the SDK keeps its files; by default $XDG_DATA_HOME/rovalis/<host identifier>.
    std::optional<std::filesystem::path> dataRoot;
    // The platform services; by default the real Linux ones over the data root. A partly
    // filled bundle is completed with the Linux defaults.
    std::optional<Platform> platform;
    // The host's own main queue, when it has one and the bundle brings no main run loop: the
    // SDK's main-thread work, its timers and the host's callbacks then run as its tasks.
    std::shared_ptr<Executor> mainQueue;
    // The collection service of a production build.
    std::string productionBaseURL = "https://collect.rovalis.io/";
    // A debug build. An integration build talks to http://localhost:8080/ and detects stays
    // after 15 seconds unless serviceBaseURL and stayTimeLimit say otherwise.
    bool isDebug = false;
    bool isIntegration = false;
    // The collection service whatever the build; by default as above.
    std::optional<std::string> serviceBaseURL;
    // Seconds the device stays within the stay radius before the SDK sleeps; by default 600,
    // 15 in an integration build.
    std::optional<double> stayTimeLimit;
    UploadSchedule uploadSchedule;
    // The Linux services built over the data root (gpsd, power supplies, network).
    LinuxPlatformSettings linuxPlatform;
    // The regions laid around a stay; an invalid configuration is refused with a console
    // line and the defaults are used.
    SleepRegionConfiguration sleepRegions;
    // When a slow upload is given up (both sessions).
    TransferLimits transferLimits;
};

class ROVALIS_EXPORT RovalisCore {
public:
    // The process-wide SDK, made on first use and never destroyed.
    static Rovalis& sharedInstance();
    // Sets the configuration of the shared instance. Call it before initializeUsing; once the
    // shared instance is initialised it raises InternalInconsistencyException.
    static void configureSharedInstance(RovalisConfiguration configuration);
    // An independent SDK, as tests and the simulator use. Destroying it ends it the way the
    // end of the app's process would: what is buffered is written, nothing is uploaded or
    // stopped, and a new instance on the same data root finds everything again.
    static std::shared_ptr<Rovalis> makeInstance(RovalisConfiguration configuration);
};

}  // namespace rovalis
