#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/DebugEventsManager.h"
#include "core/TrackingInterfaces.h"
#include "events/EventRecords.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/LocationManager.h"
#include "sensing/BeaconInterfaces.h"
#include "sensing/BeaconRangerForwarder.h"
#include "sensing/BeaconRegionsContainer.h"

namespace rovalis {

// Ranges the beacons of a beacon region for a short window after the device enters it, and
// scans for Eddystone beacons in short windows at the SDK's wake-ups and sleeps.
//
// An entry into one of the container's regions opens a forced-ranging window: the region's
// beacons are ranged on the ranger's own location manager and, when there is an Eddystone
// scanner, Eddystone beacons are scanned for at the same time. An entry while the window is
// open extends it and ranges that region's beacons too; there is never a second window.
// Without iBeacon regions nothing would ever open a scan, so with an Eddystone scanner each
// wake-up and each sleep opens a window of Eddystone scanning alone (unless one is open).
//
// Every beacon heard is kept in arrival order, up to maxSightingsPerWindow; later ones are
// only counted. When the window closes, ranging and scanning stop and, if anything was heard,
// the sightings are recorded as one BeaconScan event, the window's course as Debug events
// under "Beacon Ranging", and a window that a region entry opened asks the SDK to wake up
// with a reason naming the strongest beacon. A window that heard nothing records nothing and
// wakes nothing: at the edge of its range a beacon's region is entered again and again.
// Exits are only logged.
//
// The SDK decides on the wake-up: a still phone that hears a beacon from where it sleeps
// stays asleep (see RVLGeneralLocationManager::initiateWakeUpWithReason).
//
// Lives on the main run loop; owned through a shared_ptr (create), because the forwarder,
// the scanner's handler and the timer hold it weakly.
class BeaconRanger final : public BeaconRegionEventReceiving,
                           public BeaconRangingDelegate,
                           public BeaconWindowControl,
                           public std::enable_shared_from_this<BeaconRanger> {
public:
    // Ten seconds give about ten ranging rounds at the platform's one round a second and many
    // Eddystone advertisements, while staying within the few seconds of background running
    // time a region event earns the app, and keep the radio on only briefly.
    static constexpr double forcedRangingDuration = 10.0;  // seconds
    // Sightings one window records. A crowd of beacons advertising ten times a second would
    // otherwise make one event of thousands; what a few hundred do not show, more do not either.
    static constexpr std::size_t maxSightingsPerWindow = 300;

    // Makes the forwarder the location manager's delegate and this ranger the forwarder's.
    // The Eddystone scanner is absent when Eddystone tracking is off.
    static std::shared_ptr<BeaconRanger> create(std::shared_ptr<LocationManagerType> locationManager,
                                                std::shared_ptr<BeaconRangerForwarder> forwarder,
                                                std::shared_ptr<BeaconRegionsContainer> regions,
                                                std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                                                std::shared_ptr<EddystoneScannerType> eddystoneScanner,
                                                std::shared_ptr<EventRecordInsertable> eventInserter,
                                                std::weak_ptr<RVLInitiateWakeUpType> wakeUpProvider,
                                                std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                                                std::shared_ptr<RunLoop> runLoop);
    // An open window ends without a record: ranging and scanning stop.
    ~BeaconRanger() override;

    BeaconRanger(const BeaconRanger&) = delete;
    BeaconRanger& operator=(const BeaconRanger&) = delete;

    // BeaconRegionEventReceiving
    void didEnterBeaconRegion(const BeaconRegion& region) override;
    void didExitBeaconRegion(const BeaconRegion& region) override;
    // BeaconRangingDelegate
    void didRangeBeacons(const std::vector<RangedBeacon>& beacons, const BeaconIdentityConstraint& constraint) override;
    // BeaconWindowControl
    void trackingStarted() override { trackingStopped_ = false; }
    void didWakeUp() override;
    void didFallAsleep() override;
    void trackingWillStop() override;

    bool isWindowOpen() const { return window_.has_value(); }
    // When the open window closes; none when no window is open.
    std::optional<Date> windowEnd() const;

private:
    // The strongest beacon heard so far, and the region whose ranging heard it.
    struct StrongestIBeacon {
        Uuid uuid;
        std::uint16_t major = 0;
        std::uint16_t minor = 0;
        long rssi = 0;
        std::string regionIdentifier;
    };
    struct StrongestEddystone {
        std::string eid;
        long rssi = 0;
    };
    struct RangedConstraint {
        BeaconIdentityConstraint constraint;
        std::string regionIdentifier;  // the region whose entry started ranging it
    };
    struct Window {
        Date end;
        // In entry order; none for a window a moment opened, until a region is entered.
        std::vector<std::string> regionIdentifiers;
        std::vector<RangedConstraint> ranged;
        bool scanning = false;
        // Recorded as Debug events when the window closes, and only if it heard anything.
        std::vector<std::string> course;
        std::vector<BeaconSighting> sightings;  // in arrival order, at most maxSightingsPerWindow
        std::size_t iBeaconCount = 0;           // every sighting, kept or not
        std::size_t eddystoneCount = 0;
        std::optional<StrongestIBeacon> strongestIBeacon;
        std::optional<StrongestEddystone> strongestEddystone;
    };

    BeaconRanger(std::shared_ptr<LocationManagerType> locationManager,
                 std::shared_ptr<BeaconRangerForwarder> forwarder, std::shared_ptr<BeaconRegionsContainer> regions,
                 std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                 std::shared_ptr<EddystoneScannerType> eddystoneScanner,
                 std::shared_ptr<EventRecordInsertable> eventInserter,
                 std::weak_ptr<RVLInitiateWakeUpType> wakeUpProvider,
                 std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver, std::shared_ptr<RunLoop> runLoop);

    enum class Closing { onTime, trackingStops };

    std::optional<BeaconRegion> ownRegion(const std::string& identifier) const;
    void scanAtMoment(const std::string& moment);
    void scheduleClose();
    void rangeBeaconsOf(const BeaconRegion& region);
    void startScanning();
    void keep(BeaconSighting sighting);
    void didSeeEddystone(const EddystoneSighting& sighting);
    void closeWindow(Closing closing);
    void askToWakeUp(const Window& window);
    void stopRangingAndScanning();
    std::string closingText(const Window& window, Closing closing) const;
    static std::string wakeUpReason(const Window& window);

    const std::shared_ptr<LocationManagerType> locationManager_;
    const std::shared_ptr<BeaconRangerForwarder> forwarder_;
    const std::shared_ptr<BeaconRegionsContainer> regions_;
    const std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager_;
    const std::shared_ptr<EddystoneScannerType> eddystoneScanner_;
    const std::shared_ptr<EventRecordInsertable> eventInserter_;
    const std::weak_ptr<RVLInitiateWakeUpType> wakeUpProvider_;
    const std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver_;
    const std::shared_ptr<RunLoop> runLoop_;
    std::shared_ptr<RunLoopTimer> closeTimer_;
    std::optional<Window> window_;
    bool trackingStopped_ = false;
    // Windows that heard nothing since the last one that recorded; told in its closing text.
    std::size_t silentWindows_ = 0;
};

}  // namespace rovalis
