#include "platform/sim/SimulatedBattery.h"

#include <algorithm>
#include <cmath>

namespace rovalis::sim {

namespace {

constexpr double secondsPerHour = 3600.0;
// Keeps float levels such as 0.8f (a hair above 80 %) on their whole percent.
constexpr double percentSlack = 1e-4;

double wholePercentBelow(double level) { return std::floor(level * 100.0 + percentSlack) / 100.0; }

BatteryState stateFor(bool charging, double level) {
    if (!charging) return BatteryState::unplugged;
    return level >= 1.0 ? BatteryState::full : BatteryState::charging;
}

}  // namespace

std::shared_ptr<SimulatedBattery> SimulatedBattery::create(std::shared_ptr<RunLoop> runLoop,
                                                           std::shared_ptr<EnergyMeter> meter, Settings settings) {
    auto battery = std::shared_ptr<SimulatedBattery>(new SimulatedBattery(std::move(runLoop), meter, settings));
    meter->setListener([weak = std::weak_ptr(battery)](const PowerState& previous) {
        if (const auto self = weak.lock()) {
            self->settle(previous);
            self->reschedule();
        }
    });
    battery->reschedule();
    return battery;
}

SimulatedBattery::SimulatedBattery(std::shared_ptr<RunLoop> runLoop, std::shared_ptr<EnergyMeter> meter,
                                   Settings settings)
    : runLoop_(std::move(runLoop)),
      meter_(std::move(meter)),
      level_(std::clamp(static_cast<double>(settings.level), 0.0, 1.0)),
      settledUntil_(runLoop_->now()),
      charging_(settings.charging),
      foreground_(settings.appInForeground),
      lowPower_(settings.lowPowerMode),
      reported_(static_cast<float>(wholePercentBelow(level_))),
      state_(stateFor(settings.charging, level_)) {}

SimulatedBattery::~SimulatedBattery() {
    if (stepTimer_) stepTimer_->invalidate();
}

double SimulatedBattery::drainPerHour(const PowerState& power) const {
    double drain = lowPower_.load() ? 0.005 : 0.008;
    if (foreground_) drain += 0.10;
    if (const auto band = bandOf(power.location)) {
        switch (*band) {
            case AccuracyBand::tenMetres:
                drain += 0.09;
                break;
            case AccuracyBand::hundredMetres:
                drain += 0.03;
                break;
            case AccuracyBand::kilometre:
                drain += 0.006;
                break;
        }
    }
    if (power.accelerometer) drain += 0.01;
    if (power.activity) drain += 0.001;
    if (power.bluetoothScanning) drain += 0.02;
    if (power.ranging) drain += 0.015;
    return drain;
}

double SimulatedBattery::ratePerHour(const PowerState& power) const {
    if (!charging_) return -drainPerHour(power);
    // A full battery on the charger runs off the charger.
    if (level_ >= 1.0) return 0.0;
    return chargePerHour - drainPerHour(power);
}

void SimulatedBattery::settle(const PowerState& power) {
    const Date current = now();
    const double hours = current.timeIntervalSince(settledUntil_) / secondsPerHour;
    if (hours > 0.0) level_ = std::clamp(level_ + ratePerHour(power) * hours, 0.0, 1.0);
    settledUntil_ = std::max(settledUntil_, current);
}

void SimulatedBattery::reschedule() {
    if (stepTimer_) stepTimer_->invalidate();
    stepTimer_.reset();
    const double rate = ratePerHour(meter_->state());
    double target = 0.0;
    if (rate < 0.0) {
        target = (std::ceil(level_ * 100.0 - percentSlack) - 1.0) / 100.0;
        if (target < 0.0) return;
    } else if (rate > 0.0) {
        target = std::min(1.0, (std::floor(level_ * 100.0 + percentSlack) + 1.0) / 100.0);
    } else {
        return;
    }
    const double seconds = std::abs(target - level_) / std::abs(rate) * secondsPerHour;
    stepTimer_ = runLoop_->scheduleTimer(seconds, false, [weak = weak_from_this(), target] {
        if (const auto self = weak.lock()) self->step(target);
    });
}

void SimulatedBattery::step(double target) {
    settle(meter_->state());
    level_ = target;
    publish(static_cast<float>(wholePercentBelow(level_)), stateFor(charging_, level_));
    reschedule();
}

void SimulatedBattery::publish(float level, BatteryState state) {
    const bool levelChanged = reported_.exchange(level) != level;
    const bool stateChanged = state_.exchange(state) != state;
    const auto process = process_.lock();
    if (!process || !process->isMonitoring()) return;
    if (levelChanged) process->post(UIDeviceBatteryLevelDidChangeNotification);
    if (stateChanged) process->post(UIDeviceBatteryStateDidChangeNotification);
}

void SimulatedBattery::setCharging(bool charging) {
    settle(meter_->state());
    charging_ = charging;
    publish(reported_.load(), stateFor(charging_, level_));
    reschedule();
}

void SimulatedBattery::setLevel(float level) {
    settle(meter_->state());
    level_ = std::clamp(static_cast<double>(level), 0.0, 1.0);
    publish(static_cast<float>(wholePercentBelow(level_)), stateFor(charging_, level_));
    reschedule();
}

void SimulatedBattery::setLowPowerMode(bool enabled) {
    settle(meter_->state());
    lowPower_.store(enabled);
    reschedule();
}

void SimulatedBattery::setAppInForeground(bool foreground) {
    settle(meter_->state());
    foreground_ = foreground;
    reschedule();
}

// ---- SimulatedDeviceInfo ----

float SimulatedDeviceInfo::batteryLevel() const {
    const auto battery = battery_.lock();
    return monitoring_.load() && battery ? battery->level() : -1.0f;
}

BatteryState SimulatedDeviceInfo::batteryState() const {
    const auto battery = battery_.lock();
    return monitoring_.load() && battery ? battery->state() : BatteryState::unknown;
}

void SimulatedDeviceInfo::post(const char* name) const {
    if (const auto center = notificationCenter_.lock()) center->post(name);
}

// ---- SimulatedSystemState ----

bool SimulatedSystemState::isLowPowerModeEnabled() const {
    const auto battery = battery_.lock();
    return battery && battery->isLowPowerModeEnabled();
}

}  // namespace rovalis::sim
