#pragma once

// What one simulated run found, gathered by the runner from the device, the trace and the
// collection service, and drawn by the renderers: the terminal summary, the JSON figures and
// the map.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/platform/Location.h"

namespace rovalis::sim {

// A stay of the trace itself, and what the SDK made of it.
struct StayOutcome {
    Date start;
    Date end;
    LocationCoordinate2D centre;
    // The first sleep that began during the stay near its centre, and the wake-up after it.
    std::optional<Date> sleptAt;
    std::optional<Date> wokeAt;
};

// A change of the SDK's sleep state, as its events recorded it.
struct Transition {
    Date time;
    bool asleep = false;
    std::string reason;
    // The position of the PreSleep / PreWakeUp event that came with it, when there was one.
    std::optional<LocationCoordinate2D> position;
    double accuracy = 0.0;
};

// A switch of tracking on or off, as its ToggleTracking event recorded it.
struct TrackingToggle {
    Date time;
    bool on = false;
    std::string reason;  // "FORCE", "INSUFFICIENT_LOCATION", "APP_UPDATE", ...
};

struct RecordedFix {
    Date time;
    LocationCoordinate2D coordinate;
    double accuracy = 0.0;
    std::string provider;  // "regular", "PauseManager"
};

struct GeofenceRegion {
    Date created;
    std::string identifier;
    LocationCoordinate2D centre;
    double radius = 0.0;
    bool centreRegion = false;  // the one laid on the stay itself (it reports exits only)
};

struct GeofenceCrossing {
    Date time;
    std::string identifier;
    bool exit = false;
};

struct SignificantFix {
    Date time;
    LocationCoordinate2D coordinate;
    double accuracy = 0.0;
};

// The location service's accuracy over time. Band: "ten-metre", "hundred-metre",
// "kilometre" or "off".
struct AccuracySpan {
    Date from;
    Date to;
    std::string band;
};

struct UploadOutcome {
    Date time;  // virtual time at which the host heard of it
    Date trackedFrom;
    Date trackedTo;
    bool succeeded = false;
    std::string error;  // empty on success
};

struct ScenarioMark {
    Date time;
    std::string text;  // "network offline", "relaunch as build 41"
};

struct EnergyFigures {
    // Seconds of location updates by band ("ten-metre", "hundred-metre", "kilometre").
    std::map<std::string, double> locationSeconds;
    double burstSeconds = 0.0;
    std::int64_t wakeUps = 0;  // region events and significant-change fixes delivered
    double accelerometerSeconds = 0.0;
    // An app that kept ten-metre updates on all day.
    double alwaysOnBaselineSeconds = 0.0;
};

struct DeliveryFigures {
    // Whether the service's events were read back (GET /api/events). A service without
    // read-back is known only by its answers: `accepted` is then what the SDK deleted after
    // the service acknowledged it, the events by type, fixes and transitions are unknown, and
    // nothing checks that each event arrived once.
    bool readBack = true;
    std::int64_t recorded = 0;         // rows the SDK ever stored
    std::int64_t accepted = 0;         // events the service holds (acknowledged, without read-back)
    std::int64_t leftInStore = 0;      // rows still on the device at the end
    // Of the accepted, the diagnostic events that close a background batch: made for the batch,
    // never stored on the device, so never recorded.
    std::int64_t batchDiagnostics = 0;
    // Distinct events with the same content: an activity reported again when its updates
    // restart, a cached fix handed to two bursts. Counted for the record, not a fault: an
    // event sent twice would show as more accepted than recorded.
    std::int64_t identicalEvents = 0;
    std::int64_t batches = 0;
    std::int64_t batchRequests = 0;
    std::int64_t duplicateBatchesRefused = 0;
    std::int64_t conflicts = 0;               // batch ids the service held with other content
    std::int64_t sequentialIdStepBacks = 0;   // batches numbered at or below an earlier one
    std::int64_t faultsInjected = 0;          // by the in-process collection service
    std::int64_t wireBytes = 0;        // compressed request bodies
    std::int64_t documentBytes = 0;    // the batch documents before compression
    std::map<std::string, std::int64_t> eventsByType;  // as accepted by the service
    std::int64_t storeWriteBytes = 0;  // written by the event store to its database and journal
};

// A beacon the scenario placed, and how often the SDK's beacon scans name it.
struct PlacedBeacon {
    std::string label;     // "iBeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 1.1", "Eddystone 0011..."
    std::string identity;  // how a scan names it: "UUID MAJOR.MINOR", or the Eddystone identifier
    LocationCoordinate2D position;
    std::int64_t sightings = 0;
};

// A BeaconScan event the service accepted.
struct BeaconScanOutcome {
    Date time;
    std::int64_t iBeacons = 0;
    std::int64_t eddystones = 0;
};

struct BeaconFigures {
    std::vector<PlacedBeacon> placed;  // in scenario order
    std::vector<BeaconScanOutcome> scans;
    std::int64_t regionEvents = 0;  // beacon-region entries and exits the device reported
    double scanningSeconds = 0.0;   // Bluetooth LE scanning
    double rangingSeconds = 0.0;
};

struct SimulationReport {
    std::string traceName;
    std::uint64_t seed = 0;
    Date start;
    Date end;
    double wallSeconds = 0.0;  // how long the replay took

    std::vector<LocationCoordinate2D> truePath;  // thinned for drawing
    std::vector<RecordedFix> fixes;
    std::vector<StayOutcome> stays;
    std::vector<TrackingToggle> trackingToggles;
    std::vector<Transition> transitions;
    std::vector<GeofenceRegion> geofences;
    std::vector<GeofenceCrossing> crossings;
    std::vector<SignificantFix> significantFixes;
    std::vector<AccuracySpan> accuracy;
    std::vector<UploadOutcome> uploads;
    std::vector<ScenarioMark> scenario;
    EnergyFigures energy;
    DeliveryFigures delivery;
    BeaconFigures beacons;

    // Nothing lost and nothing twice: every recorded event is either held by the service
    // exactly once or still on the device. Unknown, so false, without read-back.
    bool deliveredExactlyOnce() const {
        return delivery.readBack &&
               delivery.recorded == delivery.accepted - delivery.batchDiagnostics + delivery.leftInStore;
    }
};

}  // namespace rovalis::sim
