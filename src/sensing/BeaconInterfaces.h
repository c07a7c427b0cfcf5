#pragma once

// How the beacon components reach each other: region monitoring hands beacon-region reports
// to ranging, the beacon tracker tells ranging of the SDK's transitions, and the Eddystone
// scanner hands its sightings to whoever scans.

#include <functional>
#include <string>

#include "rovalis/Date.h"
#include "rovalis/platform/Beacons.h"

namespace rovalis {

// Receives the crossings of the SDK's beacon regions.
class BeaconRegionEventReceiving {
public:
    virtual ~BeaconRegionEventReceiving() = default;
    virtual void didEnterBeaconRegion(const BeaconRegion& region) = 0;
    virtual void didExitBeaconRegion(const BeaconRegion& region) = 0;
};

// What ranging hears of the SDK's state from the beacon tracker.
class BeaconWindowControl {
public:
    virtual ~BeaconWindowControl() = default;
    // Tracking runs: region entries and transitions open windows.
    virtual void trackingStarted() = 0;
    // The SDK woke up or fell asleep: each is a moment to look for Eddystone beacons.
    virtual void didWakeUp() = 0;
    virtual void didFallAsleep() = 0;
    // Tracking is about to be switched off: the open window ends now, and none opens until
    // tracking runs again.
    virtual void trackingWillStop() = 0;
};

// One Eddystone beacon heard: its identifier as lower-case hex (namespace and instance of a
// UID frame, the ephemeral identifier of an EID frame), how strongly, and when.
struct EddystoneSighting {
    std::string eid;
    long rssi = 0;
    Date time;
    std::string address;  // the advertising device

    friend bool operator==(const EddystoneSighting&, const EddystoneSighting&) = default;
};

// Scans for Eddystone beacons while asked to. Used from the main run loop; sightings are
// reported there too.
class EddystoneScannerType {
public:
    using SightingHandler = std::function<void(const EddystoneSighting& sighting)>;

    virtual ~EddystoneScannerType() = default;
    virtual bool isAvailable() const = 0;
    // Replaces a running scan's handler.
    virtual void startScanning(SightingHandler handler) = 0;
    virtual void stopScanning() = 0;
};

}  // namespace rovalis
