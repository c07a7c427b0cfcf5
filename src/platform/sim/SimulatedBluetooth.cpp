#include "platform/sim/SimulatedBluetooth.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "platform/sim/TruePath.h"
#include "sensing/BeaconFrames.h"

namespace rovalis::sim {

namespace {

constexpr double day = 86400.0;
constexpr double earthRadius = 6371008.8;
// Screening distances are approximate: a beacon is kept unless surely beyond its reach.
constexpr double screeningSlack = 1.02;
constexpr double uptimeDaysLow = 1.0;
constexpr double uptimeDaysHigh = 300.0;
constexpr double batteryLow = 3000.0;
constexpr double batteryHigh = 3150.0;
constexpr double batteryFloor = 2000.0;
constexpr double drainLow = 1.0;
constexpr double drainHigh = 2.0;
constexpr double temperatureLow = 17.0;
constexpr double temperatureHigh = 25.0;
constexpr double temperatureSwing = 1.5;
// Of every ten Eddystone advertisements, these carry telemetry and the URL.
constexpr std::uint64_t eddystoneCycle = 10;
constexpr std::uint64_t telemetrySlot = 4;
constexpr std::uint64_t urlSlot = 9;

// A flat-earth distance, good to a fraction of a percent over the few hundred metres that
// matter; enough to tell whether a beacon could be heard at all.
double roughDistance(LocationCoordinate2D a, LocationCoordinate2D b) {
    constexpr double radians = std::numbers::pi / 180.0;
    const double x = (b.longitude - a.longitude) * radians * std::cos(0.5 * (a.latitude + b.latitude) * radians);
    const double y = (b.latitude - a.latitude) * radians;
    return earthRadius * std::sqrt(x * x + y * y);
}

// FNV-1a over the beacon's kind and identifiers: the seed of everything about the beacon
// that the scenario does not say.
std::uint64_t identityHash(const ScenarioBeacon& beacon) {
    std::uint64_t hash = 0xCBF29CE484222325ull;
    const auto add = [&hash](std::uint8_t byte) {
        hash ^= byte;
        hash *= 0x100000001B3ull;
    };
    add(static_cast<std::uint8_t>(beacon.kind));
    switch (beacon.kind) {
        case ScenarioBeacon::Kind::iBeacon:
            for (const auto byte : beacon.uuid.bytes) add(byte);
            add(static_cast<std::uint8_t>(beacon.major >> 8));
            add(static_cast<std::uint8_t>(beacon.major));
            add(static_cast<std::uint8_t>(beacon.minor >> 8));
            add(static_cast<std::uint8_t>(beacon.minor));
            break;
        case ScenarioBeacon::Kind::eddystoneUid:
            for (const auto byte : beacon.namespaceId) add(byte);
            for (const auto byte : beacon.instanceId) add(byte);
            break;
        case ScenarioBeacon::Kind::eddystoneEid:
            for (const auto byte : beacon.ephemeralId) add(byte);
            break;
    }
    return hash;
}

}  // namespace

// ---- BeaconSignalModel ----

double BeaconSignalModel::powerAtOneMetre(const ScenarioBeacon& beacon) {
    return beacon.isEddystone() ? beacon.power - eddystoneLossToOneMetre : beacon.power;
}

double BeaconSignalModel::meanRssi(double powerAtOneMetre, double distance) {
    return powerAtOneMetre - 10.0 * pathLossExponent * std::log10(std::max(distance, shortestDistance));
}

double BeaconSignalModel::distanceFor(double powerAtOneMetre, double rssi) {
    return std::pow(10.0, (powerAtOneMetre - rssi) / (10.0 * pathLossExponent));
}

double BeaconSignalModel::reach(double powerAtOneMetre) {
    return distanceFor(powerAtOneMetre, sensitivity - 5.0 * noiseSigma);
}

// ---- SimulatedBluetoothRadio ----

std::shared_ptr<SimulatedBluetoothRadio> SimulatedBluetoothRadio::create(DeviceContext context) {
    return std::shared_ptr<SimulatedBluetoothRadio>(new SimulatedBluetoothRadio(std::move(context)));
}

SimulatedBluetoothRadio::SimulatedBluetoothRadio(DeviceContext context)
    : context_(std::move(context)), signalRandom_(context_.seed, RandomStream::beaconSignals) {}

SimulatedBluetoothRadio::~SimulatedBluetoothRadio() {
    if (timer_) timer_->invalidate();
}

void SimulatedBluetoothRadio::placeBeacons(std::vector<ScenarioBeacon> beacons) {
    beacons_ = std::move(beacons);
    transmitters_.clear();
    transmitters_.reserve(beacons_.size());
    for (const auto& beacon : beacons_) transmitters_.push_back(transmitterFor(beacon));
}

SimulatedBluetoothRadio::Transmitter SimulatedBluetoothRadio::transmitterFor(const ScenarioBeacon& beacon) const {
    SimulationRandom hardware(identityHash(beacon), RandomStream::beaconHardware);
    Transmitter transmitter;
    char address[18];
    int bytes[6];
    for (int& byte : bytes) byte = static_cast<int>(hardware.uniform() * 256.0);
    bytes[0] |= 0xC0;  // a static random address
    std::snprintf(address, sizeof address, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    transmitter.address = address;
    transmitter.poweredOn = context_.path->start().addingSeconds(-day * hardware.uniform(uptimeDaysLow, uptimeDaysHigh));
    transmitter.phase = hardware.uniform() * beacon.interval;
    transmitter.powerAtOneMetre = BeaconSignalModel::powerAtOneMetre(beacon);
    transmitter.reach = BeaconSignalModel::reach(transmitter.powerAtOneMetre);
    transmitter.batteryAtPowerOn = hardware.uniform(batteryLow, batteryHigh);
    transmitter.batteryDrainPerDay = hardware.uniform(drainLow, drainHigh);
    transmitter.temperature = hardware.uniform(temperatureLow, temperatureHigh);
    transmitter.temperaturePhase = hardware.uniform(0.0, 2.0 * std::numbers::pi);
    return transmitter;
}

Date SimulatedBluetoothRadio::advertisementTime(const Transmitter& transmitter, double interval,
                                                std::uint64_t count) const {
    return Date{transmitter.poweredOn.secondsSince1970 + transmitter.phase + static_cast<double>(count) * interval};
}

BleAdvertisement SimulatedBluetoothRadio::advertisement(std::size_t index, std::uint64_t count) const {
    const ScenarioBeacon& beacon = beacons_.at(index);
    const Transmitter& transmitter = transmitters_.at(index);
    BleAdvertisement advertisement;
    advertisement.address = transmitter.address;
    advertisement.timestamp = advertisementTime(transmitter, beacon.interval, count);
    const auto power = static_cast<std::int8_t>(beacon.power);

    if (beacon.kind == ScenarioBeacon::Kind::iBeacon) {
        advertisement.manufacturerData[kIBeaconCompanyIdentifier] =
            encodeIBeacon({beacon.uuid, beacon.major, beacon.minor, power});
        return advertisement;
    }
    const std::uint64_t slot = count % eddystoneCycle;
    EddystoneFrame frame;
    if (slot == telemetrySlot) {
        const double uptime = advertisement.timestamp.timeIntervalSince(transmitter.poweredOn);
        const double timeOfDay = std::fmod(advertisement.timestamp.secondsSince1970, day);
        EddystoneTlm telemetry;
        telemetry.batteryMillivolts = static_cast<std::uint16_t>(std::lround(
            std::max(batteryFloor, transmitter.batteryAtPowerOn - transmitter.batteryDrainPerDay * uptime / day)));
        telemetry.temperatureCelsius =
            transmitter.temperature +
            temperatureSwing * std::sin(2.0 * std::numbers::pi * timeOfDay / day + transmitter.temperaturePhase);
        telemetry.advertisementCount = static_cast<std::uint32_t>(count + 1);
        telemetry.secondsSincePowerOn = uptime;
        frame = telemetry;
    } else if (slot == urlSlot && beacon.url) {
        frame = EddystoneUrl{power, *beacon.url};
    } else if (beacon.kind == ScenarioBeacon::Kind::eddystoneUid) {
        frame = EddystoneUid{power, beacon.namespaceId, beacon.instanceId};
    } else {
        frame = EddystoneEid{power, beacon.ephemeralId};
    }
    advertisement.serviceData[kEddystoneServiceUUID] = encodeEddystoneFrame(frame);
    return advertisement;
}

std::shared_ptr<SimulatedBluetoothScanner> SimulatedBluetoothRadio::makeScanner() {
    auto scanner = std::make_shared<SimulatedBluetoothScanner>(weak_from_this(), context_.runLoop);
    scanners_.push_back(scanner);
    return scanner;
}

bool SimulatedBluetoothRadio::isScanning() {
    std::erase_if(scanners_, [](const auto& weak) { return weak.expired(); });
    return std::any_of(scanners_.begin(), scanners_.end(), [](const auto& weak) {
        const auto scanner = weak.lock();
        return scanner && scanner->scanning_;
    });
}

void SimulatedBluetoothRadio::setSystemListening(bool listening) {
    if (systemListening_ == listening) return;
    systemListening_ = listening;
    updateListening();
}

void SimulatedBluetoothRadio::scannersChanged() {
    context_.energy->setBluetoothScanning(isScanning());
    updateListening();
}

void SimulatedBluetoothRadio::updateListening() {
    const bool listening = systemListening_ || isScanning();
    if (listening == (timer_ != nullptr)) return;
    if (!listening) {
        timer_->invalidate();
        timer_.reset();
        return;
    }
    heardUntil_ = now();
    timer_ = context_.runLoop->scheduleTimer(listeningInterval, true, [self = weak_from_this()] {
        if (const auto radio = self.lock()) radio->listen();
    });
}

void SimulatedBluetoothRadio::listen() {
    const Date from = heardUntil_;
    const Date to = now();
    heardUntil_ = to;
    const auto here = context_.path->at(to);
    // How far the device may have been from where it is now during the second.
    const double travelled = here.speed * to.timeIntervalSince(from);

    std::vector<BleAdvertisement> heard;
    for (std::size_t index = 0; index < beacons_.size(); ++index) {
        const double distance = roughDistance(here.coordinate, beacons_[index].position);
        if (distance > (transmitters_[index].reach + travelled) * screeningSlack) continue;
        hear(index, from, to, heard);
    }
    std::stable_sort(heard.begin(), heard.end(),
                     [](const BleAdvertisement& a, const BleAdvertisement& b) { return a.timestamp < b.timestamp; });

    std::erase_if(scanners_, [](const auto& weak) { return weak.expired(); });
    const auto scanners = scanners_;
    for (const auto& weak : scanners) {
        if (const auto scanner = weak.lock(); scanner && scanner->scanning_) scanner->deliver(heard);
    }
    if (systemListening_ && systemListener_) systemListener_(heard);
}

void SimulatedBluetoothRadio::hear(std::size_t index, Date from, Date to, std::vector<BleAdvertisement>& heard) {
    const ScenarioBeacon& beacon = beacons_[index];
    const Transmitter& transmitter = transmitters_[index];
    // The first advertisement after `from`.
    const double elapsed = (from.timeIntervalSince(transmitter.poweredOn) - transmitter.phase) / beacon.interval;
    std::uint64_t count = elapsed < 0.0 ? 0 : static_cast<std::uint64_t>(std::floor(elapsed)) + 1;
    while (count > 0 && advertisementTime(transmitter, beacon.interval, count - 1) > from) --count;
    while (advertisementTime(transmitter, beacon.interval, count) <= from) ++count;

    for (;; ++count) {
        const Date time = advertisementTime(transmitter, beacon.interval, count);
        if (time > to) break;
        const double distance = distanceBetween(context_.path->at(time).coordinate, beacon.position);
        const double rssi = BeaconSignalModel::meanRssi(transmitter.powerAtOneMetre, distance) +
                            BeaconSignalModel::noiseSigma * signalRandom_.normal();
        const long whole = std::lround(rssi);
        if (whole < BeaconSignalModel::sensitivity) continue;
        BleAdvertisement advertisement = this->advertisement(index, count);
        advertisement.rssi = whole;
        heard.push_back(std::move(advertisement));
    }
}

// ---- SimulatedBluetoothScanner ----

SimulatedBluetoothScanner::SimulatedBluetoothScanner(std::weak_ptr<SimulatedBluetoothRadio> radio,
                                                     std::shared_ptr<RunLoop> runLoop)
    : radio_(std::move(radio)), runLoop_(std::move(runLoop)) {}

SimulatedBluetoothScanner::~SimulatedBluetoothScanner() {
    endSession();
    if (!scanning_ || radio_.expired()) return;
    // Later, on the loop: the radio may be in the middle of its own work.
    runLoop_->async([radio = radio_] {
        if (const auto live = radio.lock()) live->scannersChanged();
    });
}

void SimulatedBluetoothScanner::startScanning(std::vector<std::uint16_t> serviceUUIDs, std::shared_ptr<Executor> queue,
                                              AdvertisementHandler handler) {
    endSession();
    serviceUUIDs_ = std::move(serviceUUIDs);
    queue_ = std::move(queue);
    handler_ = std::move(handler);
    since_ = runLoop_->now();
    session_ = std::make_shared<std::atomic<bool>>(true);
    const bool wasScanning = scanning_;
    scanning_ = true;
    if (wasScanning) return;
    if (const auto radio = radio_.lock()) radio->scannersChanged();
}

void SimulatedBluetoothScanner::stopScanning() {
    if (!scanning_) return;
    endSession();
    scanning_ = false;
    queue_.reset();
    handler_ = nullptr;
    if (const auto radio = radio_.lock()) radio->scannersChanged();
}

void SimulatedBluetoothScanner::endSession() {
    if (session_) session_->store(false);
    session_.reset();
}

bool SimulatedBluetoothScanner::wants(const BleAdvertisement& advertisement) const {
    if (advertisement.timestamp < since_) return false;
    if (serviceUUIDs_.empty()) return true;
    return std::any_of(serviceUUIDs_.begin(), serviceUUIDs_.end(),
                       [&](std::uint16_t uuid) { return advertisement.serviceData.contains(uuid); });
}

void SimulatedBluetoothScanner::deliver(const std::vector<BleAdvertisement>& heard) {
    std::vector<BleAdvertisement> batch;
    for (const auto& advertisement : heard) {
        if (wants(advertisement)) batch.push_back(advertisement);
    }
    if (batch.empty() || !queue_) return;
    queue_->async([handler = handler_, session = session_, batch = std::move(batch)] {
        for (const auto& advertisement : batch) {
            // The scan may end while the batch is being handed over.
            if (!session->load()) return;
            handler(advertisement);
        }
    });
}

}  // namespace rovalis::sim
