#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/sim/DeviceLog.h"
#include "rovalis/Date.h"
#include "rovalis/DateSource.h"

namespace rovalis::sim {

// What the device spent its energy on: seconds of location updates by the band the
// receiver actually ran at, the part of them at best accuracy (the short bursts before a
// transition), the wake-ups that region events and significant changes caused, and the
// seconds the motion sensors ran, the app scanned for Bluetooth LE advertisements and
// ranged beacons.
struct EnergyLedger {
    double tenMetreSeconds = 0.0;      // best and ten-metre
    double hundredMetreSeconds = 0.0;  // hundred-metre
    double kilometreSeconds = 0.0;     // kilometre and coarser, approximate
    double burstSeconds = 0.0;         // best accuracy; also counted in tenMetreSeconds
    std::uint64_t regionEvents = 0;            // crossings delivered to the app
    std::uint64_t significantChangeFixes = 0;  // significant-change fixes delivered to the app
    double accelerometerSeconds = 0.0;
    double activitySeconds = 0.0;
    double bluetoothScanSeconds = 0.0;
    double rangingSeconds = 0.0;
    std::uint64_t beaconRegionEvents = 0;  // beacon-region crossings delivered to the app

    double locationSeconds() const { return tenMetreSeconds + hundredMetreSeconds + kilometreSeconds; }
    std::uint64_t wakeUps() const { return regionEvents + significantChangeFixes + beaconRegionEvents; }

    // The seconds of satellite fixes that an app asking for ten-metre fixes all the time
    // would have spent between two moments: the baseline the ledger is compared with.
    static double baselineGpsSeconds(Date start, Date end);

    friend bool operator==(const EnergyLedger&, const EnergyLedger&) = default;
};

// What draws power at a moment.
struct PowerState {
    LocationMode location = LocationMode::off;
    bool accelerometer = false;
    bool activity = false;
    bool bluetoothScanning = false;
    bool ranging = false;

    friend bool operator==(const PowerState&, const PowerState&) = default;
};

// Keeps the ledger up to date: every change of the power state first books the time spent
// in the state before. Lives on the device's run loop.
class EnergyMeter {
public:
    explicit EnergyMeter(std::shared_ptr<const RVLDateSource> clock);

    EnergyMeter(const EnergyMeter&) = delete;
    EnergyMeter& operator=(const EnergyMeter&) = delete;

    void setLocationMode(LocationMode mode);
    void setAccelerometerActive(bool active);
    void setActivityActive(bool active);
    void setBluetoothScanning(bool scanning);
    void setRanging(bool ranging);
    void countRegionEvent() { ++ledger_.regionEvents; }
    void countBeaconRegionEvent() { ++ledger_.beaconRegionEvents; }
    void countSignificantChangeFix() { ++ledger_.significantChangeFixes; }

    const PowerState& state() const { return state_; }
    // The ledger with the time up to now booked.
    EnergyLedger ledger() const;

    // Told after every change, with the state that held until now (the battery drains by it).
    void setListener(std::function<void(const PowerState& previous)> listener) { listener_ = std::move(listener); }

private:
    void change(PowerState next);
    static void book(EnergyLedger& ledger, const PowerState& state, double seconds);

    const std::shared_ptr<const RVLDateSource> clock_;
    PowerState state_;
    EnergyLedger ledger_;
    Date bookedUntil_;
    std::function<void(const PowerState&)> listener_;
};

}  // namespace rovalis::sim
