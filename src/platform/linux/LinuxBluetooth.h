#pragma once

#include "rovalis/platform/Beacons.h"

namespace rovalis {

// The SDK has no Bluetooth LE scanner of its own on Linux yet (one over the system's Bluetooth
// service would be the place to add it), so beacon scanning reports itself unavailable and
// never delivers; iBeacon ranging is unavailable on the Linux location source for the same
// reason.
class LinuxBluetoothScanner final : public BluetoothScannerType {
public:
    bool isScanningAvailable() const override { return false; }
    bool isScanning() const override { return false; }
    void startScanning(std::vector<std::uint16_t>, std::shared_ptr<Executor>, AdvertisementHandler) override {}
    void stopScanning() override {}
};

}  // namespace rovalis
