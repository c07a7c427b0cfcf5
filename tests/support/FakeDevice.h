#pragma once

#include "rovalis/platform/Device.h"

namespace rovalis::test {

// A battery whose level and state the test sets.
class FakeDeviceInfo final : public RVLDeviceInfoType {
public:
    void enableBatteryMonitoring() override { monitoringEnabled = true; }
    float batteryLevel() const override { return level; }
    BatteryState batteryState() const override { return state; }

    float level = 0.5f;
    BatteryState state = BatteryState::unplugged;
    bool monitoringEnabled = false;
};

// Low-power mode, background refresh and uptime as the test sets them.
class FakeSystemState final : public SystemStateType {
public:
    bool isLowPowerModeEnabled() const override { return lowPowerMode; }
    BackgroundRefreshStatus backgroundRefreshStatus() const override { return refreshStatus; }
    double systemUptime() const override { return uptime; }

    bool lowPowerMode = false;
    BackgroundRefreshStatus refreshStatus = BackgroundRefreshStatus::available;
    double uptime = 3600.0;
};

}  // namespace rovalis::test
