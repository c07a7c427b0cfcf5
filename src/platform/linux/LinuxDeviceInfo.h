#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "rovalis/NotificationCenter.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/Device.h"

namespace rovalis {

namespace linuxpower {

// The machine's battery as the kernel's power-supply class describes it.
struct BatteryReading {
    // 0 to 1; -1 when there is no battery or its level cannot be read.
    float level = -1.0f;
    BatteryState state = BatteryState::unknown;

    friend bool operator==(const BatteryReading&, const BatteryReading&) = default;
};

// Reads the first battery under powerSupplyRoot (normally /sys/class/power_supply), in
// order of the supplies' names: a supply of type "Battery" that is not a peripheral's
// (scope "Device", such as a wireless mouse's) and not an empty bay (present "0").
// The level comes from "capacity" (percent), else energy_now / energy_full, else
// charge_now / charge_full; the state from "status".
BatteryReading readBattery(const std::filesystem::path& powerSupplyRoot);

}  // namespace linuxpower

// The battery of a Linux machine. The kernel tells nobody when the level moves, so while
// monitoring is on the battery is read every minute on a timer of the main run loop, and
// the level and state notifications are posted on the notification centre when the level
// (at whole percents) or the state has changed since the last reading.
//
// Must be owned by a std::shared_ptr (the timer holds it weakly). Level and state are read
// afresh at every call.
class LinuxDeviceInfo final : public RVLDeviceInfoType, public std::enable_shared_from_this<LinuxDeviceInfo> {
public:
    static constexpr const char* defaultPowerSupplyRoot = "/sys/class/power_supply";
    static constexpr double pollIntervalSeconds = 60.0;

    LinuxDeviceInfo(std::filesystem::path powerSupplyRoot, std::shared_ptr<RunLoop> mainRunLoop,
                    std::shared_ptr<NotificationCenter> notificationCenter);
    ~LinuxDeviceInfo() override;
    LinuxDeviceInfo(const LinuxDeviceInfo&) = delete;
    LinuxDeviceInfo& operator=(const LinuxDeviceInfo&) = delete;

    // Starts the polling; later calls change nothing.
    void enableBatteryMonitoring() override;
    float batteryLevel() const override;
    BatteryState batteryState() const override;

private:
    void poll();

    const std::filesystem::path root_;
    const std::shared_ptr<RunLoop> mainRunLoop_;
    const std::shared_ptr<NotificationCenter> notificationCenter_;
    std::mutex mutex_;
    std::shared_ptr<RunLoopTimer> timer_;
    // The reading last compared, the level in whole percents (-1 unknown).
    long lastPercent_ = -1;
    BatteryState lastState_ = BatteryState::unknown;
};

}  // namespace rovalis
