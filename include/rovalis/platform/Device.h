#pragma once

#include <cstdint>

#include "rovalis/Export.h"

namespace rovalis {

// The platform's battery states, with their raw values.
enum class BatteryState : std::int32_t { unknown = 0, unplugged = 1, charging = 2, full = 3 };

// The device's battery. Level changes and state changes are posted on the platform's
// notification centre as "UIDeviceBatteryLevelDidChangeNotification" and
// "UIDeviceBatteryStateDidChangeNotification" while monitoring is on.
class ROVALIS_EXPORT RVLDeviceInfoType {
public:
    virtual ~RVLDeviceInfoType() = default;

    virtual void enableBatteryMonitoring() = 0;
    // 0 to 1; negative when the level is unknown.
    virtual float batteryLevel() const = 0;
    virtual BatteryState batteryState() const = 0;
};

inline constexpr const char* UIDeviceBatteryLevelDidChangeNotification = "UIDeviceBatteryLevelDidChangeNotification";
inline constexpr const char* UIDeviceBatteryStateDidChangeNotification = "UIDeviceBatteryStateDidChangeNotification";

// The platform's raw values.
enum class BackgroundRefreshStatus : std::int32_t { restricted = 0, denied = 1, available = 2 };

// What the system says about the process and the app: the low-power switch, whether the app
// may refresh in the background, and how long the device has been up (the clock of motion
// samples).
class ROVALIS_EXPORT SystemStateType {
public:
    virtual ~SystemStateType() = default;

    virtual bool isLowPowerModeEnabled() const = 0;
    virtual BackgroundRefreshStatus backgroundRefreshStatus() const = 0;
    // Seconds since the device booted.
    virtual double systemUptime() const = 0;
};

}  // namespace rovalis
