#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/sim/DeviceContext.h"
#include "platform/sim/Scenario.h"
#include "platform/sim/SimulationRandom.h"
#include "rovalis/platform/Beacons.h"

namespace rovalis::sim {

// How strongly the device hears a beacon: the log-distance path-loss model
//
//     RSSI(d) = P1 - 10 n log10(d) + X
//
// with d the distance in metres (no less than 0.5: the phone is never inside the beacon), P1
// the power at 1 m (an iBeacon's measured power; an Eddystone beacon's transmit power at 0 m
// less 41 dB), n = 2.2 (streets and rooms with people in the way, a little worse than free
// space) and X Gaussian noise of σ = 4 dB, drawn anew for every advertisement. The RSSI is a
// whole number of dBm; an advertisement below -95 dBm is not heard. A beacon farther than
// its reach, where the mean RSSI is 5σ under that threshold, is not heard at all (and draws
// no noise): about 350 m for an iBeacon of -59 dBm, 285 m for an Eddystone beacon of -20 dBm.
struct BeaconSignalModel {
    static constexpr double pathLossExponent = 2.2;
    static constexpr double noiseSigma = 4.0;
    static constexpr double sensitivity = -95.0;
    static constexpr double eddystoneLossToOneMetre = 41.0;
    static constexpr double shortestDistance = 0.5;

    static double powerAtOneMetre(const ScenarioBeacon& beacon);
    static double meanRssi(double powerAtOneMetre, double distance);
    // The distance at which the mean RSSI is `rssi`: what a receiver estimates from it.
    static double distanceFor(double powerAtOneMetre, double rssi);
    static double reach(double powerAtOneMetre);
};

class SimulatedBluetoothScanner;

// The simulated device's Bluetooth LE radio, and the beacons placed around the device.
//
// Each beacon advertises every interval from power-on, which was 1 - 300 days before the
// path starts, at a phase of its own. It has a fixed static device address, and its
// power-on time, phase, battery and temperature follow from its identity alone, so a beacon
// looks the same on every run and with every seed. An iBeacon sends one advertisement: the
// manufacturer data of company 0x004C. An Eddystone beacon sends service data of service
// 0xFEAA: its UID or EID frame, except that of every ten advertisements the fifth is a TLM
// frame and the tenth a URL frame when the beacon has a URL. The TLM frame says how many
// frames the beacon has sent since power-on and for how long it has been on, its battery
// (3000 - 3150 mV at power-on, 1 - 2 mV less a day) and its temperature (17 - 25 °C, 1.5 °C
// up and down over the day).
//
// The radio listens only while someone needs it: a scanner scans, or the location service
// monitors beacon regions or ranges. Then, so that a simulated day stays fast, it works out
// once a second what the device heard in that second (see BeaconSignalModel), each
// advertisement with its own timestamp, and hands it over at once: to every scanning
// scanner, as one task on the scanner's queue, and to the location service. While nobody
// listens, no timer runs. Used from the device's run loop.
class SimulatedBluetoothRadio : public std::enable_shared_from_this<SimulatedBluetoothRadio> {
public:
    static constexpr double listeningInterval = 1.0;

    // Told, on the run loop, of every advertisement heard in the last second, in time order.
    using Listener = std::function<void(const std::vector<BleAdvertisement>& heard)>;

    static std::shared_ptr<SimulatedBluetoothRadio> create(DeviceContext context);
    ~SimulatedBluetoothRadio();

    SimulatedBluetoothRadio(const SimulatedBluetoothRadio&) = delete;
    SimulatedBluetoothRadio& operator=(const SimulatedBluetoothRadio&) = delete;

    // Replaces the beacons around the device.
    void placeBeacons(std::vector<ScenarioBeacon> beacons);
    const std::vector<ScenarioBeacon>& beacons() const { return beacons_; }
    // The device address of the beacon `beacons()[index]`.
    const std::string& address(std::size_t index) const { return transmitters_.at(index).address; }

    // A new scanner; the radio keeps only a weak reference to it.
    std::shared_ptr<SimulatedBluetoothScanner> makeScanner();

    // The location service's hearing: the listener is called while listening is on.
    void setSystemListener(Listener listener) { systemListener_ = std::move(listener); }
    void setSystemListening(bool listening);

    bool isListening() const { return timer_ != nullptr; }
    bool isScanning();

    // What the beacon sends as its advertisement number `count` since power-on (from 0), with
    // its timestamp and no RSSI.
    BleAdvertisement advertisement(std::size_t index, std::uint64_t count) const;

private:
    friend class SimulatedBluetoothScanner;

    struct Transmitter {
        std::string address;
        Date poweredOn;
        double phase = 0.0;  // seconds after power-on of the first advertisement
        double powerAtOneMetre = 0.0;
        double reach = 0.0;
        double batteryAtPowerOn = 3000.0;  // mV
        double batteryDrainPerDay = 1.0;   // mV
        double temperature = 21.0;         // °C, the day's mean
        double temperaturePhase = 0.0;
    };

    explicit SimulatedBluetoothRadio(DeviceContext context);

    Date now() const { return context_.runLoop->now(); }
    Transmitter transmitterFor(const ScenarioBeacon& beacon) const;
    Date advertisementTime(const Transmitter& transmitter, double interval, std::uint64_t count) const;
    void scannersChanged();
    void updateListening();
    void listen();
    void hear(std::size_t index, Date from, Date to, std::vector<BleAdvertisement>& heard);

    const DeviceContext context_;
    std::vector<ScenarioBeacon> beacons_;
    std::vector<Transmitter> transmitters_;
    std::vector<std::weak_ptr<SimulatedBluetoothScanner>> scanners_;
    Listener systemListener_;
    bool systemListening_ = false;
    std::shared_ptr<RunLoopTimer> timer_;
    Date heardUntil_;
    SimulationRandom signalRandom_;
};

// A Bluetooth LE scanner of the simulated device's radio. Always available. While it scans,
// it gets what the radio hears (only advertisements with service data of one of the service
// UUIDs asked for, when some were), once a second as one task on the queue it was given,
// and nothing heard before the scan started. A task already queued when the scan stops or
// is replaced delivers nothing. Used from the device's run loop.
class SimulatedBluetoothScanner final : public BluetoothScannerType {
public:
    SimulatedBluetoothScanner(std::weak_ptr<SimulatedBluetoothRadio> radio, std::shared_ptr<RunLoop> runLoop);
    ~SimulatedBluetoothScanner() override;

    SimulatedBluetoothScanner(const SimulatedBluetoothScanner&) = delete;
    SimulatedBluetoothScanner& operator=(const SimulatedBluetoothScanner&) = delete;

    bool isScanningAvailable() const override { return true; }
    bool isScanning() const override { return scanning_; }
    void startScanning(std::vector<std::uint16_t> serviceUUIDs, std::shared_ptr<Executor> queue,
                       AdvertisementHandler handler) override;
    void stopScanning() override;

private:
    friend class SimulatedBluetoothRadio;

    bool wants(const BleAdvertisement& advertisement) const;
    // Hands the advertisements it wants of those heard to its queue.
    void deliver(const std::vector<BleAdvertisement>& heard);
    void endSession();

    const std::weak_ptr<SimulatedBluetoothRadio> radio_;
    const std::shared_ptr<RunLoop> runLoop_;
    bool scanning_ = false;
    std::vector<std::uint16_t> serviceUUIDs_;
    std::shared_ptr<Executor> queue_;
    AdvertisementHandler handler_;
    Date since_;
    // Cleared when the scan ends, so that tasks still queued deliver nothing.
    std::shared_ptr<std::atomic<bool>> session_;
};

}  // namespace rovalis::sim
