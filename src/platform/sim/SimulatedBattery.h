#pragma once

#include <atomic>
#include <memory>

#include "platform/sim/EnergyLedger.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/Device.h"

namespace rovalis::sim {

class SimulatedDeviceInfo;

// The simulated device's battery. It drains by what the device is doing and charges while
// plugged in; the level is reported in whole percent.
//
// Drain, in percent of a full battery per hour: 0.8 at rest (0.5 in low-power mode), 10
// more with the app in the foreground (the screen is on), 9 more while satellite fixes run
// (best and ten-metre), 3 at hundred metres, 0.6 at kilometre and coarser, 1 for the
// accelerometer, 0.1 for the activity classifier, 2 for a Bluetooth LE scan and 1.5 for
// ranging beacons. A charger adds 40 % an hour until the
// battery is full, after which it holds the level; the state is then full.
//
// Every change of the reported level, and of the state, is posted on the notification
// centre of the app's current process, if that process has turned battery monitoring on.
// Runs on the device's run loop; the level and state may be read from any thread.
class SimulatedBattery : public std::enable_shared_from_this<SimulatedBattery> {
public:
    struct Settings {
        float level = 0.8f;
        bool charging = false;
        bool lowPowerMode = false;
        bool appInForeground = false;
    };

    static constexpr double chargePerHour = 0.40;

    // Drains by the meter's power state, which it follows from now on.
    static std::shared_ptr<SimulatedBattery> create(std::shared_ptr<RunLoop> runLoop, std::shared_ptr<EnergyMeter> meter,
                                                    Settings settings);
    ~SimulatedBattery();

    SimulatedBattery(const SimulatedBattery&) = delete;
    SimulatedBattery& operator=(const SimulatedBattery&) = delete;

    float level() const { return reported_.load(); }
    BatteryState state() const { return state_.load(); }
    bool isLowPowerModeEnabled() const { return lowPower_.load(); }

    void setCharging(bool charging);
    void setLevel(float level);
    void setLowPowerMode(bool enabled);
    void setAppInForeground(bool foreground);

    // The process whose notification centre hears of changes from now on.
    void setCurrentProcess(std::weak_ptr<SimulatedDeviceInfo> process) { process_ = std::move(process); }

    // Fraction of a full battery per hour that the device uses in a power state.
    double drainPerHour(const PowerState& power) const;

private:
    SimulatedBattery(std::shared_ptr<RunLoop> runLoop, std::shared_ptr<EnergyMeter> meter, Settings settings);

    Date now() const { return runLoop_->now(); }
    // Brings the level up to now, at the rate of the power state that held.
    void settle(const PowerState& power);
    double ratePerHour(const PowerState& power) const;
    // Plans the timer for the next whole-percent step at the present rate.
    void reschedule();
    void step(double target);
    void publish(float level, BatteryState state);

    const std::shared_ptr<RunLoop> runLoop_;
    const std::shared_ptr<EnergyMeter> meter_;
    double level_;
    Date settledUntil_;
    bool charging_;
    bool foreground_;
    std::atomic<bool> lowPower_;
    std::atomic<float> reported_;
    std::atomic<BatteryState> state_;
    std::shared_ptr<RunLoopTimer> stepTimer_;
    std::weak_ptr<SimulatedDeviceInfo> process_;
};

// The battery as one process sees it: unknown until the process turns monitoring on, and
// only then are changes posted on its notification centre.
class SimulatedDeviceInfo final : public RVLDeviceInfoType {
public:
    SimulatedDeviceInfo(std::weak_ptr<SimulatedBattery> battery, std::weak_ptr<NotificationCenter> notificationCenter)
        : battery_(std::move(battery)), notificationCenter_(std::move(notificationCenter)) {}

    void enableBatteryMonitoring() override { monitoring_.store(true); }
    float batteryLevel() const override;
    BatteryState batteryState() const override;

    bool isMonitoring() const { return monitoring_.load(); }
    void post(const char* name) const;

private:
    const std::weak_ptr<SimulatedBattery> battery_;
    const std::weak_ptr<NotificationCenter> notificationCenter_;
    std::atomic<bool> monitoring_{false};
};

// Low-power mode (shared with the battery), background refresh and the time since boot.
class SimulatedSystemState final : public SystemStateType {
public:
    SimulatedSystemState(std::weak_ptr<SimulatedBattery> battery, std::shared_ptr<const RVLDateSource> clock,
                         Date bootDate)
        : battery_(std::move(battery)), clock_(std::move(clock)), bootDate_(bootDate) {}

    bool isLowPowerModeEnabled() const override;
    BackgroundRefreshStatus backgroundRefreshStatus() const override { return BackgroundRefreshStatus::available; }
    double systemUptime() const override { return clock_->now().timeIntervalSince(bootDate_); }

private:
    const std::weak_ptr<SimulatedBattery> battery_;
    const std::shared_ptr<const RVLDateSource> clock_;
    const Date bootDate_;
};

}  // namespace rovalis::sim
