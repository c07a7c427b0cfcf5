#pragma once

#include <filesystem>

#include "rovalis/platform/Device.h"

namespace rovalis {

// What a Linux machine says about power saving and uptime.
class LinuxSystemState final : public SystemStateType {
public:
    // The firmware's platform profile; "low-power" is the machine's power-saving mode.
    static constexpr const char* defaultPlatformProfile = "/sys/firmware/acpi/platform_profile";

    explicit LinuxSystemState(std::filesystem::path platformProfile = defaultPlatformProfile);

    // True when the platform profile reads "low-power"; false when there is none.
    bool isLowPowerModeEnabled() const override;
    // Always available: nothing on Linux takes background time away from a process.
    BackgroundRefreshStatus backgroundRefreshStatus() const override { return BackgroundRefreshStatus::available; }
    // Seconds since boot, time spent suspended included (CLOCK_BOOTTIME).
    double systemUptime() const override;

private:
    const std::filesystem::path platformProfile_;
};

}  // namespace rovalis
