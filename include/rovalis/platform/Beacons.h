#pragma once

// Beacons as the platform sees them: iBeacon regions that location managers monitor and range,
// and the Bluetooth LE advertisements a scanner hears.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/Executor.h"
#include "rovalis/Export.h"
#include "rovalis/Uuid.h"

namespace rovalis {

// The beacons a region or a ranging request stands for: one proximity UUID, and optionally one
// major number and, within it, one minor number.
struct BeaconIdentityConstraint {
    Uuid uuid;
    std::optional<std::uint16_t> major;
    std::optional<std::uint16_t> minor;

    bool matches(const Uuid& beaconUuid, std::uint16_t beaconMajor, std::uint16_t beaconMinor) const {
        return beaconUuid == uuid && (!major || *major == beaconMajor) && (!minor || *minor == beaconMinor);
    }
    friend bool operator==(const BeaconIdentityConstraint&, const BeaconIdentityConstraint&) = default;
};

// An iBeacon region watched by region monitoring.
struct BeaconRegion {
    std::string identifier;
    BeaconIdentityConstraint constraint;
    bool notifyOnEntry = true;
    bool notifyOnExit = true;

    friend bool operator==(const BeaconRegion&, const BeaconRegion&) = default;
};

// One beacon heard during ranging.
struct RangedBeacon {
    Uuid uuid;
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    long rssi = 0;            // dBm; 0 when the beacon was not heard in this round
    double accuracy = -1.0;   // metres of the distance estimate; negative when unknown
    Date timestamp;

    friend bool operator==(const RangedBeacon&, const RangedBeacon&) = default;
};

// One Bluetooth LE advertisement as a scanner hears it: who sent it (the device address), how
// strongly, and the two parts of its payload beacons use. The bytes come from any device
// nearby and are not checked by the scanner.
struct BleAdvertisement {
    std::string address;
    long rssi = 0;  // dBm
    // Manufacturer-specific data by the 16-bit company identifier, without the identifier.
    std::map<std::uint16_t, std::vector<std::uint8_t>> manufacturerData;
    // Service data by the 16-bit service UUID, without the UUID.
    std::map<std::uint16_t, std::vector<std::uint8_t>> serviceData;
    Date timestamp;
};

// The device's Bluetooth LE scanner, one to one with the platform's central manager. Used from
// the main run loop; advertisements arrive on the queue given to startScanning.
class ROVALIS_EXPORT BluetoothScannerType {
public:
    using AdvertisementHandler = std::function<void(const BleAdvertisement& advertisement)>;

    virtual ~BluetoothScannerType() = default;

    virtual bool isScanningAvailable() const = 0;
    virtual bool isScanning() const = 0;
    // Replaces a running scan. With service UUIDs, only advertisements carrying service data of
    // one of them are reported; without, every advertisement.
    virtual void startScanning(std::vector<std::uint16_t> serviceUUIDs, std::shared_ptr<Executor> queue,
                               AdvertisementHandler handler) = 0;
    virtual void stopScanning() = 0;
};

}  // namespace rovalis
