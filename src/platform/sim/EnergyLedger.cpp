#include "platform/sim/EnergyLedger.h"

#include <algorithm>

namespace rovalis::sim {

double EnergyLedger::baselineGpsSeconds(Date start, Date end) { return std::max(0.0, end.timeIntervalSince(start)); }

EnergyMeter::EnergyMeter(std::shared_ptr<const RVLDateSource> clock)
    : clock_(std::move(clock)), bookedUntil_(clock_->now()) {}

void EnergyMeter::book(EnergyLedger& ledger, const PowerState& state, double seconds) {
    if (seconds <= 0.0) return;
    if (const auto band = bandOf(state.location)) {
        switch (*band) {
            case AccuracyBand::tenMetres:
                ledger.tenMetreSeconds += seconds;
                break;
            case AccuracyBand::hundredMetres:
                ledger.hundredMetreSeconds += seconds;
                break;
            case AccuracyBand::kilometre:
                ledger.kilometreSeconds += seconds;
                break;
        }
    }
    if (state.location == LocationMode::best) ledger.burstSeconds += seconds;
    if (state.accelerometer) ledger.accelerometerSeconds += seconds;
    if (state.activity) ledger.activitySeconds += seconds;
    if (state.bluetoothScanning) ledger.bluetoothScanSeconds += seconds;
    if (state.ranging) ledger.rangingSeconds += seconds;
}

void EnergyMeter::change(PowerState next) {
    if (next == state_) return;
    const Date now = clock_->now();
    book(ledger_, state_, now.timeIntervalSince(bookedUntil_));
    bookedUntil_ = std::max(bookedUntil_, now);
    const PowerState previous = state_;
    state_ = next;
    if (listener_) listener_(previous);
}

void EnergyMeter::setLocationMode(LocationMode mode) {
    PowerState next = state_;
    next.location = mode;
    change(next);
}

void EnergyMeter::setAccelerometerActive(bool active) {
    PowerState next = state_;
    next.accelerometer = active;
    change(next);
}

void EnergyMeter::setActivityActive(bool active) {
    PowerState next = state_;
    next.activity = active;
    change(next);
}

void EnergyMeter::setBluetoothScanning(bool scanning) {
    PowerState next = state_;
    next.bluetoothScanning = scanning;
    change(next);
}

void EnergyMeter::setRanging(bool ranging) {
    PowerState next = state_;
    next.ranging = ranging;
    change(next);
}

EnergyLedger EnergyMeter::ledger() const {
    EnergyLedger ledger = ledger_;
    book(ledger, state_, clock_->now().timeIntervalSince(bookedUntil_));
    return ledger;
}

}  // namespace rovalis::sim
