#pragma once

#include <functional>
#include <memory>
#include <string>

#include "rovalis/DateSource.h"
#include "rovalis/Executor.h"
#include "rovalis/Export.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/KeyValueStore.h"

namespace rovalis {

class BackgroundTaskScheduler;
class BluetoothScannerType;
class KeychainStore;
class LocationManagerType;
class MotionActivityManagerType;
class MotionManagerType;
class NetworkMonitor;
class NotificationCenter;
class RVLDeviceInfoType;
class SystemStateType;

// The platform services the SDK runs on, handed in one bundle to the composition root,
// which builds every component from it; no component reaches for a global. A host or the
// simulated device fills it in; on Linux the default bundle comes from the data root.
struct ROVALIS_EXPORT Platform {
    std::shared_ptr<RVLDateSource> dateSource;
    // Carries every location callback, timer and tracker call, and the host's callbacks.
    std::shared_ptr<RunLoop> mainRunLoop;
    // The persisted SDK state.
    std::shared_ptr<KeyValueStore> keyValueStore;
    // Credentials.
    std::shared_ptr<KeychainStore> keychain;
    // The network as the reachability service sees it; HTTP sessions consult it too.
    std::shared_ptr<NetworkMonitor> network;
    // Extra running time while a transfer must not be cut short.
    std::shared_ptr<BackgroundTaskScheduler> backgroundTasks;
    // The default notification centre: the app's lifecycle notifications and the device's
    // battery notifications arrive on it, and the SDK posts its own there.
    std::shared_ptr<NotificationCenter> notificationCenter;
    // A new, independent location manager of the device's one location service.
    std::function<std::shared_ptr<LocationManagerType>()> makeLocationManager;
    // New motion managers over the device's accelerometer and activity classifier.
    std::function<std::shared_ptr<MotionManagerType>()> makeMotionManager;
    std::function<std::shared_ptr<MotionActivityManagerType>()> makeMotionActivityManager;
    // A new Bluetooth LE scanner of the device's one radio.
    std::function<std::shared_ptr<BluetoothScannerType>()> makeBluetoothScanner;
    // The battery.
    std::shared_ptr<RVLDeviceInfoType> deviceInfo;
    // Low-power mode, background refresh and uptime.
    std::shared_ptr<SystemStateType> systemState;
    // The operating system's version text, as sent to the collection service.
    std::string systemVersion;

    // A new named serial queue with a thread of its own.
    std::unique_ptr<Executor> makeSerialExecutor(std::string label) const;
};

}  // namespace rovalis
