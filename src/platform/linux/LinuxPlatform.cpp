#include "platform/linux/LinuxPlatform.h"

#include "platform/linux/FileKeychain.h"
#include "platform/linux/GpsdLocationService.h"
#include "platform/linux/LinuxBackgroundTasks.h"
#include "platform/linux/LinuxBluetooth.h"
#include "platform/linux/LinuxDeviceInfo.h"
#include "platform/linux/LinuxMotion.h"
#include "platform/linux/LinuxNetworkMonitor.h"
#include "platform/linux/LinuxSystemState.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "rovalis/NotificationCenter.h"
#include "util/ThreadRunLoop.h"

#include <sys/utsname.h>

namespace rovalis {

namespace {

// The kernel release stands for the system version.
std::string kernelRelease() {
    struct utsname name {};
    if (::uname(&name) != 0) return {};
    return name.release;
}

}  // namespace

Platform makeLinuxPlatform(const DataRoot& root, std::shared_ptr<RVLDateSource> dateSource,
                           std::shared_ptr<RunLoop> mainRunLoop, const LinuxPlatformSettings& settings) {
    Platform platform;
    platform.dateSource = dateSource ? std::move(dateSource) : std::make_shared<SystemDateSource>();
    platform.mainRunLoop = mainRunLoop ? std::move(mainRunLoop) : std::make_shared<ThreadRunLoop>(platform.dateSource);
    platform.keyValueStore = std::make_shared<SqliteKeyValueStore>(root.root() / "Preferences.sqlite");
    platform.keychain = std::make_shared<FileKeychain>(root.privateDirectory("Keychain"));
    platform.network = std::make_shared<LinuxNetworkMonitor>(linuxnet::CellularMarks{settings.cellularInterfaces});
    platform.backgroundTasks = std::make_shared<LinuxBackgroundTasks>();
    platform.notificationCenter = NotificationCenter::defaultCenter();
    GpsdOptions gpsd;
    gpsd.host = settings.gpsdHost;
    gpsd.port = settings.gpsdPort;
    platform.makeLocationManager = makeGpsdLocationManagerFactory(platform.mainRunLoop, platform.dateSource, gpsd);
    platform.makeMotionManager = [] { return std::make_shared<LinuxMotionManager>(); };
    platform.makeMotionActivityManager = [] { return std::make_shared<LinuxMotionActivityManager>(); };
    platform.makeBluetoothScanner = [] { return std::make_shared<LinuxBluetoothScanner>(); };
    platform.deviceInfo = std::make_shared<LinuxDeviceInfo>(settings.powerSupplyRoot,
                                                            platform.mainRunLoop, platform.notificationCenter);
    platform.systemState = std::make_shared<LinuxSystemState>();
    platform.systemVersion = kernelRelease();
    return platform;
}

}  // namespace rovalis
