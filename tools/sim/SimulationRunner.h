#pragma once

// Replays a trace through the real SDK on the simulated device, against a collection
// service, and reports what happened.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "collector/CollectorServer.h"
#include "platform/sim/Scenario.h"
#include "platform/sim/TruePath.h"
#include "rovalis/HostInfo.h"
#include "rovalis/Rovalis.h"
#include "rovalis/SleepRegions.h"
#include "sim/SimulationReport.h"

namespace rovalis::sim {

struct SimulationInput {
    std::string traceName;
    std::shared_ptr<const TruePath> path;
    Scenario scenario;
};

// Reads the trace and, when given, the scenario. Throws TraceError or ScenarioError.
SimulationInput readSimulationInput(const std::filesystem::path& trace,
                                    const std::optional<std::filesystem::path>& scenario);

struct SimulationOptions {
    // Without one, a collection service is started in-process on a free loopback port.
    std::optional<std::string> serviceURL;
    // The device's files, the service's database and nothing else; emptied at the start.
    std::filesystem::path outDir = "out/sim";
    std::uint64_t seed = 1;
    // The app the SDK runs in.
    HostInfo host = defaultHost();
    // Called as simulated time passes (at least every simulated five minutes).
    std::function<void(Date now, double fraction)> progress;
    // An integration build: stays after 15 seconds instead of 10 minutes.
    bool integrationBuild = false;
    // The regions the SDK lays around a stay.
    SleepRegionConfiguration sleepRegions;
    // When the SDK gives a slow upload up.
    TransferLimits transferLimits;
    // The faults of the in-process collection service (with a service URL, none apply).
    collector::FaultOptions faults;
    // Keep every delivered event for deliveredEvents(). Off, the report keeps only what it
    // shows, so a month's replay takes no more memory than a day's.
    bool keepDeliveredEvents = false;

    static HostInfo defaultHost();
};

class SimulationRunner {
public:
    SimulationRunner(SimulationInput input, SimulationOptions options);
    ~SimulationRunner();

    SimulationRunner(const SimulationRunner&) = delete;
    SimulationRunner& operator=(const SimulationRunner&) = delete;

    // Builds the SDK on the device, sets a token, starts tracking, replays the trace and the
    // scenario, stops tracking at the end and waits until the uploads have settled.
    SimulationReport run();

    // The events the collection service holds at the end of the run, in arrival order, as
    // {type, tracked_at_ms, payload} (filled by run() when keepDeliveredEvents is set).
    struct DeliveredEvent {
        std::string type;
        std::int64_t trackedAtMs = 0;
        std::string payload;
    };
    const std::vector<DeliveredEvent>& deliveredEvents() const { return delivered_; }

private:
    struct Run;

    SimulationInput input_;
    SimulationOptions options_;
    std::vector<DeliveredEvent> delivered_;
};

// The app of a scenario with beacons tracks them, unless its Info says otherwise: beacon
// tracking on, a region for each iBeacon ("beacon-line-N" after its scenario line), and
// Eddystone scanning when an Eddystone beacon is placed.
HostInfo hostTrackingBeacons(HostInfo host, const std::vector<ScenarioBeacon>& beacons);

// A token of three dot-separated parts whose payload names a user, as a host would set.
std::string sampleUserToken();

}  // namespace rovalis::sim
