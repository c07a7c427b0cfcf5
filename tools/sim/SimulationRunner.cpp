#include "sim/SimulationRunner.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

#include "collector/CollectorServer.h"
#include "core/RVLGeneralLocationManager.h"
#include "core/TrackerRepository.h"
#include "events/SqliteDatabase.h"
#include "events/WriteCountingVfs.h"
#include "platform/linux/FileKeychain.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "platform/sim/SimulatedDevice.h"
#include "platform/sim/TraceAnalysis.h"
#include "platform/sim/TraceReader.h"
#include "rovalis/Console.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/Rovalis.h"
#include "sensing/BeaconFrames.h"
#include "sensing/BeaconRegionsContainer.h"
#include "upload/CredentialsManager.h"
#include "util/DataRoot.h"

namespace rovalis::sim {

using json = nlohmann::json;

namespace {

// The progress callback hears of the run at least this often, in simulated seconds.
constexpr double progressStep = 300.0;
// After the trace ends and tracking is stopped, time goes on in these steps until the device
// has nothing left to send, for at most the limit.
constexpr double settleStep = 30.0;
constexpr double settleLimit = 2 * 3600.0;
// A sleep counts for a stay of the trace when it begins during the stay this close to it.
constexpr double stayMatchMetres = 300.0;
// The position of a sleep or wake-up is the PreSleep / PreWakeUp event this shortly before it.
constexpr double transitionPositionWindow = 120.0;
// The map draws at most this many points of the true path.
constexpr std::size_t maximumPathPoints = 6000;

std::string bandName(LocationMode mode) {
    switch (mode) {
        case LocationMode::off: return "off";
        case LocationMode::best:
        case LocationMode::tenMetres: return "ten-metre";
        case LocationMode::hundredMetres: return "hundred-metre";
        case LocationMode::kilometre:
        case LocationMode::approximate: return "kilometre";
    }
    return "off";
}

Date dateOfMs(std::int64_t ms) { return Date{static_cast<double>(ms) / 1000.0}; }

LocationCoordinate2D coordinateOf(const json& event) {
    return {event.at("latitude").get<double>(), event.at("longitude").get<double>()};
}

// A plain GET of a path the service may not have: none when it answers 404; throws
// std::runtime_error naming the URL for any other answer but 200.
std::optional<std::string> httpGetIfServed(const std::string& url) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) throw std::runtime_error("libcurl could not start");
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +[](char* data, size_t size, size_t count, void* out) {
        static_cast<std::string*>(out)->append(data, size * count);
        return size * count;
    });
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    if (result == CURLE_OK && status == 404) return std::nullopt;
    if (result != CURLE_OK || status != 200) {
        throw std::runtime_error("could not read " + url + ": " +
                                 (result != CURLE_OK ? curl_easy_strerror(result) : "status " + std::to_string(status)));
    }
    return body;
}

// The host of the simulated app: it keeps what the SDK tells it about uploads.
class SimulatedHost final : public RovalisDelegate, public RovalisDataUploadDelegate {
public:
    explicit SimulatedHost(std::shared_ptr<SettableDateSource> clock) : clock_(std::move(clock)) {}

    void trackingStatusChanged(bool) override {}
    void locationAuthorizationStatusDidChange(std::int32_t, bool) override {}
    void dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) override {
        uploads.push_back({clock_->now(), from, to, !error.has_value(), error ? error->localizedDescription : ""});
    }

    std::vector<UploadOutcome> uploads;

private:
    const std::shared_ptr<SettableDateSource> clock_;
};

// How a BeaconScan names the beacon: "UUID MAJOR.MINOR" for an iBeacon, the identifier in
// lower-case hex for Eddystone.
std::string beaconIdentity(const ScenarioBeacon& beacon) {
    switch (beacon.kind) {
    case ScenarioBeacon::Kind::iBeacon:
        return beacon.uuid.uuidString() + " " + std::to_string(beacon.major) + "." + std::to_string(beacon.minor);
    case ScenarioBeacon::Kind::eddystoneUid:
        return EddystoneUid{0, beacon.namespaceId, beacon.instanceId}.identifierHex();
    case ScenarioBeacon::Kind::eddystoneEid:
        return EddystoneEid{0, beacon.ephemeralId}.identifierHex();
    }
    return {};
}

std::string beaconLabel(const ScenarioBeacon& beacon) {
    return (beacon.isEddystone() ? "Eddystone " : "iBeacon ") + beaconIdentity(beacon);
}

}  // namespace

HostInfo hostTrackingBeacons(HostInfo host, const std::vector<ScenarioBeacon>& beacons) {
    if (beacons.empty()) return host;
    json regions = json::array();
    bool eddystone = false;
    for (const ScenarioBeacon& beacon : beacons) {
        if (beacon.isEddystone()) {
            eddystone = true;
            continue;
        }
        regions.push_back({{"uuid", beacon.uuid.uuidString()},
                           {"major", beacon.major},
                           {"minor", beacon.minor},
                           {"identifier", "beacon-line-" + std::to_string(beacon.line)}});
    }
    host.info.try_emplace(TrackerRepository::beaconTrackingSwitch, true);
    host.info.try_emplace(TrackerRepository::eddystoneTrackingSwitch, eddystone);
    host.info.try_emplace(BeaconRegionsContainer::infoKey, regions.dump());
    return host;
}

HostInfo SimulationOptions::defaultHost() {
    HostInfo host;
    host.displayName = "Rovalis Simulator";
    host.version = "1.0";
    host.build = "1";
    host.identifier = "com.rovalis.simulator";
    return host;
}

std::string sampleUserToken() {
    return "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
           "eyJzdWIiOiIwZjhmYWQ1Yi1kOWNiLTQ2OWYtYTE2NS03MDg2NzcyODk1MGUiLCJuYW1lIjoiU2ltdWxhdGVkIn0."
           "c2ltdWxhdGVk";
}

SimulationInput readSimulationInput(const std::filesystem::path& trace,
                                    const std::optional<std::filesystem::path>& scenario) {
    SimulationInput input;
    input.traceName = trace.filename().string();
    input.path = std::make_shared<const TruePath>(readTrace(trace));
    if (scenario) input.scenario = readScenario(*scenario, input.path->start());
    return input;
}

// One run: the device, the service, and the SDK instance of the app's current process.
struct SimulationRunner::Run {
    Run(const SimulationInput& input, const SimulationOptions& options)
        : input(input), options(options), device(input.path, deviceOptions(options)) {
        std::filesystem::remove_all(options.outDir / "device");
        dataRoot.emplace(options.outDir / "device");
        if (options.serviceURL) {
            serviceURL = *options.serviceURL;
        } else {
            std::filesystem::create_directories(options.outDir);
            std::filesystem::remove(options.outDir / "collector.sqlite");
            collector::CollectorOptions collectorOptions;
            collectorOptions.port = 0;
            collectorOptions.databasePath = options.outDir / "collector.sqlite";
            collectorOptions.faults = options.faults;
            collector = std::make_unique<collector::CollectorServer>(collectorOptions);
            collector->start();
            serviceURL = collector->baseURL();
        }
        keyValueStore = std::make_shared<SqliteKeyValueStore>(dataRoot->root() / "Preferences.sqlite");
        keychain = std::make_shared<FileKeychain>(dataRoot->privateDirectory("Keychain"));
        host = std::make_shared<SimulatedHost>(device.clock());
        hostInfo = hostTrackingBeacons(options.host, input.scenario.beacons);
        device.placeBeacons(input.scenario.beacons);
    }

    static SimulatedDeviceOptions deviceOptions(const SimulationOptions& options) {
        SimulatedDeviceOptions device;
        device.seed = options.seed;
        return device;
    }

    // The app's process starts: a new SDK instance on a new process of the device.
    void launch() {
        processPlatform = device.makeProcessPlatform(keyValueStore, keychain);
        RovalisConfiguration configuration;
        configuration.host = hostInfo;
        configuration.dataRoot = dataRoot->root();
        configuration.platform = processPlatform;
        // The simulated app talks to the simulation's service in every build, an integration
        // build too: that build's own default is whatever listens on localhost:8080.
        configuration.serviceBaseURL = serviceURL;
        configuration.isIntegration = options.integrationBuild;
        configuration.sleepRegions = options.sleepRegions;
        configuration.transferLimits = options.transferLimits;
        sdk = RovalisCore::makeInstance(configuration);
        sdk->initializeUsing(host, std::nullopt);
        // What the launch started finishes before the host's next call, as it would on a
        // phone, where the app's next call comes long after in machine time.
        device.runUntil(device.now());
    }

    // The app's process ends and starts again; what the old one queued finishes first.
    void relaunch(const RelaunchChange& change) {
        device.runUntil(device.now());
        sdk.reset();
        if (change.build) hostInfo.build = *change.build;
        if (change.version) hostInfo.version = *change.version;
        launch();
    }

    void apply(const ScenarioChange& change) {
        std::visit(
            [this](const auto& c) {
                using Change = std::decay_t<decltype(c)>;
                if constexpr (std::is_same_v<Change, NetworkChange>) {
                    device.network().setConnection(c.connection);
                } else if constexpr (std::is_same_v<Change, PermissionChange>) {
                    device.setAuthorization(c.status);
                } else if constexpr (std::is_same_v<Change, AccuracyChange>) {
                    device.setAccuracyAuthorization(c.accuracy);
                } else if constexpr (std::is_same_v<Change, LocationServicesChange>) {
                    device.setLocationServicesEnabled(c.enabled);
                } else if constexpr (std::is_same_v<Change, MotionPermissionChange>) {
                    device.setMotionAuthorization(c.status);
                } else if constexpr (std::is_same_v<Change, ChargingChange>) {
                    device.setCharging(c.charging);
                } else if constexpr (std::is_same_v<Change, BatteryChange>) {
                    device.setBatteryLevel(static_cast<float>(c.level));
                } else if constexpr (std::is_same_v<Change, LowPowerChange>) {
                    device.setLowPowerMode(c.enabled);
                } else if constexpr (std::is_same_v<Change, AppStateChange>) {
                    device.setAppInForeground(c.foreground);
                    auto& centre = *processPlatform.notificationCenter;
                    if (c.foreground) {
                        centre.post(UIApplicationWillEnterForegroundNotification);
                        centre.post(UIApplicationDidBecomeActiveNotification);
                    } else {
                        centre.post(UIApplicationDidEnterBackgroundNotification);
                    }
                } else if constexpr (std::is_same_v<Change, WifiOnlyChange>) {
                    sdk->setWifiOnlyDataTransfer(c.enabled);
                } else if constexpr (std::is_same_v<Change, TrackingChange>) {
                    if (c.started) {
                        sdk->start();
                    } else {
                        sdk->stop();
                    }
                } else if constexpr (std::is_same_v<Change, RelaunchChange>) {
                    relaunch(c);
                }
            },
            change);
    }

    long storedEventCount() const {
        auto& manager = dynamic_cast<RVLGeneralLocationManager&>(*sdk);
        return manager.eventRepository()->eventsCount();
    }

    const SimulationInput& input;
    const SimulationOptions& options;
    SimulatedDevice device;
    std::optional<DataRoot> dataRoot;
    std::unique_ptr<collector::CollectorServer> collector;
    std::string serviceURL;
    std::shared_ptr<KeyValueStore> keyValueStore;
    std::shared_ptr<KeychainStore> keychain;
    std::shared_ptr<SimulatedHost> host;
    HostInfo hostInfo;
    Platform processPlatform;
    std::shared_ptr<Rovalis> sdk;
    std::vector<ScenarioMark> marks;
};

SimulationRunner::SimulationRunner(SimulationInput input, SimulationOptions options)
    : input_(std::move(input)), options_(std::move(options)) {}

SimulationRunner::~SimulationRunner() = default;

namespace {

// Rows the SDK ever stored (row ids are never reused) and rows it still holds.
std::pair<std::int64_t, std::int64_t> storeFigures(const std::filesystem::path& storeFile) {
    sqlite::Database db(storeFile.string(), false);
    std::int64_t recorded = 0;
    std::int64_t left = 0;
    {
        // The highest id still stored or kept when rows were deleted.
        sqlite::Statement highest(db,
                                  "SELECT max(coalesce((SELECT max(id) FROM EventEntity), 0),"
                                  " (SELECT highest_event_id FROM StoreMetadata WHERE singleton = 1))");
        if (highest.step()) recorded = highest.columnInt64(0);
    }
    {
        sqlite::Statement count(db, "SELECT COUNT(*) FROM EventEntity");
        if (count.step()) left = count.columnInt64(0);
    }
    return {recorded, left};
}

// Counts a scan's sightings, and each against the placed beacon it names.
void addBeaconScan(BeaconFigures& beacons, Date time, const json& body) {
    BeaconScanOutcome scan{time};
    for (const json& sighting : body.at("beacons")) {
        std::string identity;
        if (sighting.at("protocol") == "IBeacon") {
            ++scan.iBeacons;
            identity = sighting.at("uuid").get<std::string>() + " " + std::to_string(sighting.at("major").get<int>()) +
                       "." + std::to_string(sighting.at("minor").get<int>());
        } else {
            ++scan.eddystones;
            identity = sighting.at("eid").get<std::string>();
        }
        for (PlacedBeacon& placed : beacons.placed) {
            if (placed.identity == identity) ++placed.sightings;
        }
    }
    beacons.scans.push_back(scan);
}

// The Debug event that closes a background batch: the count of each type, then whether a
// switch-off by the host is among them.
bool isBatchDiagnostic(std::string_view type, std::string_view payload) {
    if (type != "Debug") return false;
    const json body = json::parse(payload, nullptr, false);
    if (!body.is_object() || !body.contains("comment") || !body["comment"].is_string()) return false;
    const auto comment = body["comment"].get<std::string>();
    return comment.ends_with(" + TT->OFF present") || comment.ends_with(" + TT->OFF NOT present");
}

// The kinds of event the report draws on besides counting them.
bool isDrawnOn(std::string_view type) {
    return type == "SignificantLocation" || type == "PreSleep" || type == "PreWakeUp" || type == "GeofenceCreate" ||
           type == "GeofenceTrigger" || type == "ToggleStandby" || type == "ToggleTracking" || type == "BeaconScan";
}

// Folds the delivered events into the report as they are read back, keeping what the report
// needs rather than the events (a month of them is millions): the counts, a 64-bit hash of
// each event to count identical ones, the fixes, and the few events the sleeps, geofences,
// tracking switches and beacon scans are made from. Those are taken in time order at the
// end, ties in arrival order, as the events came to the service.
class DeliveredEventsFold {
public:
    DeliveredEventsFold(SimulationReport& report, std::size_t expectedEvents) : report_(report) {
        hashes_.reserve(expectedEvents);
    }

    void add(std::string_view type, std::int64_t trackedAtMs, std::string_view payload) {
        ++report_.delivery.accepted;
        ++report_.delivery.eventsByType[std::string(type)];
        const std::hash<std::string_view> hash;
        hashes_.push_back(hash(payload) ^ (hash(type) * 31 + static_cast<std::uint64_t>(trackedAtMs)) * 0x9E3779B97F4A7C15ULL);
        if (isBatchDiagnostic(type, payload)) ++report_.delivery.batchDiagnostics;
        if (type == "Waypoint") {
            const json body = json::parse(payload);
            report_.fixes.push_back({dateOfMs(trackedAtMs), coordinateOf(body), body.at("accuracy").get<double>(),
                                     body.at("provider").get<std::string>()});
        } else if (isDrawnOn(type)) {
            kept_.push_back({trackedAtMs, std::string(type), std::string(payload)});
        }
    }

    void finish() {
        std::sort(hashes_.begin(), hashes_.end());
        for (std::size_t i = 1; i < hashes_.size(); ++i) {
            if (hashes_[i] == hashes_[i - 1]) ++report_.delivery.identicalEvents;
        }
        hashes_ = {};
        const auto byTime = [](const auto& a, const auto& b) { return a.time < b.time; };
        std::stable_sort(report_.fixes.begin(), report_.fixes.end(), byTime);
        std::stable_sort(kept_.begin(), kept_.end(),
                         [](const Kept& a, const Kept& b) { return a.trackedAtMs < b.trackedAtMs; });
        drawOn(kept_);
        kept_ = {};
    }

private:
    struct Kept {
        std::int64_t trackedAtMs;
        std::string type;
        std::string payload;
    };

    void drawOn(const std::vector<Kept>& events) {
        SimulationReport& report = report_;
        struct Marker {
            Date time;
            LocationCoordinate2D position;
            double accuracy;
        };
        std::vector<Marker> preSleeps, preWakeUps;
        for (const auto& event : events) {
            const Date time = dateOfMs(event.trackedAtMs);
            const json body = json::parse(event.payload);
            if (event.type == "BeaconScan") {
                addBeaconScan(report.beacons, time, body);
            } else if (event.type == "SignificantLocation") {
                report.significantFixes.push_back({time, coordinateOf(body), body.at("accuracy").get<double>()});
            } else if (event.type == "PreSleep") {
                preSleeps.push_back({time, coordinateOf(body), body.at("accuracy").get<double>()});
            } else if (event.type == "PreWakeUp") {
                preWakeUps.push_back({time, coordinateOf(body), body.at("accuracy").get<double>()});
            } else if (event.type == "GeofenceCreate") {
                const auto identifier = body.at("identifier").get<std::string>();
                report.geofences.push_back({time, identifier, coordinateOf(body), body.at("radius").get<double>(),
                                            identifier.ends_with("_00")});
            } else if (event.type == "GeofenceTrigger") {
                report.crossings.push_back(
                    {time, body.at("identifier").get<std::string>(), body.at("reason").get<std::string>() == "EXIT"});
            } else if (event.type == "ToggleTracking") {
                report.trackingToggles.push_back({time, body.at("toggle_tracking_state").get<bool>(),
                                                  body.at("toggle_tracking_reason").get<std::string>()});
            } else {
                Transition transition;
                transition.time = time;
                transition.asleep = body.at("toggle_standby_state").get<bool>();
                transition.reason = body.at("toggle_standby_reason").get<std::string>();
                const auto& markers = transition.asleep ? preSleeps : preWakeUps;
                if (!markers.empty() && time.timeIntervalSince(markers.back().time) <= transitionPositionWindow) {
                    transition.position = markers.back().position;
                    transition.accuracy = markers.back().accuracy;
                }
                report.transitions.push_back(transition);
            }
        }
    }

    SimulationReport& report_;
    std::vector<std::uint64_t> hashes_;
    std::vector<Kept> kept_;
};

// The events of the device an external service holds, a page at a time. False when the
// service has no read-back (GET /api/events answers 404): a service need only take batches.
template <typename Visit>
bool readServiceEvents(const std::string& base, const std::string& deviceId, Visit visit) {
    constexpr std::int64_t pageSize = 20000;
    for (std::int64_t offset = 0;;) {
        const auto text = httpGetIfServed(base + "api/events?device_id=" + deviceId + "&offset=" +
                                          std::to_string(offset) + "&limit=" + std::to_string(pageSize));
        if (!text) {
            if (offset == 0) return false;
            throw std::runtime_error("the service stopped answering GET /api/events after " +
                                     std::to_string(offset) + " events");
        }
        const json page = json::parse(*text);
        for (const auto& event : page) {
            visit(event.at("type").get<std::string>(), event.at("tracked_at_ms").get<std::int64_t>(),
                  event.at("payload").get<std::string>());
        }
        // A service that does not page answers everything at once.
        if (static_cast<std::int64_t>(page.size()) != pageSize) return true;
        offset += pageSize;
    }
}

void matchStays(SimulationReport& report, const std::vector<TrueStay>& trueStays) {
    for (const auto& stay : trueStays) {
        StayOutcome outcome{stay.start, stay.end, stay.centre, std::nullopt, std::nullopt};
        for (std::size_t i = 0; i < report.transitions.size(); ++i) {
            const Transition& sleep = report.transitions[i];
            if (!sleep.asleep || sleep.time < stay.start || sleep.time > stay.end) continue;
            if (sleep.position && distanceBetween(*sleep.position, stay.centre) > stayMatchMetres) continue;
            outcome.sleptAt = sleep.time;
            for (std::size_t j = i + 1; j < report.transitions.size(); ++j) {
                if (!report.transitions[j].asleep) {
                    outcome.wokeAt = report.transitions[j].time;
                    break;
                }
            }
            // Tracking switched on wakes the SDK with a forced wake-up, which records no
            // ToggleStandby: its ToggleTracking is the wake-up when it comes first.
            for (const TrackingToggle& toggle : report.trackingToggles) {
                if (!toggle.on || toggle.time < sleep.time) continue;
                if (!outcome.wokeAt || toggle.time < *outcome.wokeAt) outcome.wokeAt = toggle.time;
                break;
            }
            break;
        }
        report.stays.push_back(outcome);
    }
}

}  // namespace

SimulationReport SimulationRunner::run() {
    const auto wallStart = std::chrono::steady_clock::now();
    const std::uint64_t storeWritesBefore = sqlite::bytesWrittenThroughCountingVfs();
    Run run(input_, options_);
    const TruePath& path = *input_.path;
    SimulationReport report;
    report.traceName = input_.traceName;
    report.seed = options_.seed;
    report.start = path.start();
    report.end = path.end();

    run.launch();
    run.sdk->setUserToken(sampleUserToken());
    run.sdk->start();

    // The trace, with the scenario's steps at their moments.
    const auto& steps = input_.scenario.steps;
    std::size_t next = 0;
    const double span = std::max(path.end().timeIntervalSince(path.start()), 1.0);
    for (Date reached = path.start();;) {
        const Date target = std::min(path.end(), reached.addingSeconds(progressStep));
        while (next < steps.size() && steps[next].time <= target) {
            run.device.runUntil(steps[next].time);
            run.apply(steps[next].change);
            report.scenario.push_back({run.device.now(), describe(steps[next].change)});
            ++next;
        }
        run.device.runUntil(target);
        if (options_.progress) options_.progress(target, target.timeIntervalSince(path.start()) / span);
        if (target >= path.end()) break;
        reached = target;
    }
    for (; next < steps.size(); ++next) {
        Console::log("scenario line " + std::to_string(steps[next].line) + " lies after the end of the trace");
    }

    // The host stops tracking; the pre-shutdown send and any background retries settle.
    run.sdk->stop();
    const Date settleEnd = run.device.now().addingSeconds(settleLimit);
    while (run.device.now() < settleEnd) {
        run.device.runUntil(run.device.now().addingSeconds(settleStep));
        if (run.storedEventCount() == 0) break;
    }
    report.end = std::max(report.end, run.device.now());
    run.sdk.reset();
    report.delivery.storeWriteBytes =
        static_cast<std::int64_t>(sqlite::bytesWrittenThroughCountingVfs() - storeWritesBefore);

    // What the service holds, folded into the report as it is read.
    const std::string deviceId = CredentialsManager(run.keychain, run.hostInfo).deviceId();
    for (const ScenarioBeacon& beacon : input_.scenario.beacons) {
        report.beacons.placed.push_back({beaconLabel(beacon), beaconIdentity(beacon), beacon.position});
    }
    delivered_.clear();
    const auto deliver = [this](DeliveredEventsFold& fold, std::string_view type, std::int64_t trackedAtMs,
                                std::string_view payload) {
        fold.add(type, trackedAtMs, payload);
        if (options_.keepDeliveredEvents) {
            delivered_.push_back({std::string(type), trackedAtMs, std::string(payload)});
        }
    };
    collector::Stats stats;
    if (run.collector) {
        stats = run.collector->stats();
        DeliveredEventsFold fold(report, static_cast<std::size_t>(stats.events));
        run.collector->forEachEvent(std::nullopt, [&](const collector::StoredEventView& event) {
            deliver(fold, event.type, event.trackedAtMs, event.payload);
        });
        fold.finish();
        run.collector->stop();
    } else {
        const std::string base = run.serviceURL.ends_with('/') ? run.serviceURL : run.serviceURL + "/";
        DeliveredEventsFold fold(report, 0);
        report.delivery.readBack = readServiceEvents(
            base, deviceId, [&](const std::string& type, std::int64_t trackedAtMs, const std::string& payload) {
                deliver(fold, type, trackedAtMs, payload);
            });
        fold.finish();
        const auto statsText = httpGetIfServed(base + "api/stats");
        const json figures = statsText ? json::parse(*statsText) : json::object();
        // Without the service's own figures, the batches are the uploads it acknowledged.
        if (!statsText) {
            for (const UploadOutcome& upload : run.host->uploads) {
                ++stats.batchRequests;
                if (upload.succeeded) ++stats.batches;
            }
        }
        stats.batches = figures.value("batches", stats.batches);
        stats.batchRequests = figures.value("batch_requests", stats.batchRequests);
        stats.duplicatesRefused = figures.value("duplicates_refused", std::int64_t{0});
        stats.conflicts = figures.value("conflicts", std::int64_t{0});
        stats.sequentialIdStepBacks = figures.value("sequential_id_step_backs", std::int64_t{0});
        stats.bodyBytes = figures.value("body_bytes", std::int64_t{0});
        stats.documentBytes = figures.value("document_bytes", std::int64_t{0});
    }
    const auto [recorded, left] = storeFigures(run.dataRoot->privateDirectory("Store") / "RovalisSDK.sqlite");
    report.delivery.recorded = recorded;
    report.delivery.leftInStore = left;
    // The SDK deletes a batch's events only once the service has answered it with success.
    if (!report.delivery.readBack) report.delivery.accepted = recorded - left;
    report.delivery.batches = stats.batches;
    report.delivery.batchRequests = stats.batchRequests;
    report.delivery.duplicateBatchesRefused = stats.duplicatesRefused;
    report.delivery.conflicts = stats.conflicts;
    report.delivery.sequentialIdStepBacks = stats.sequentialIdStepBacks;
    for (const auto& [kind, count] : stats.faultsInjected) report.delivery.faultsInjected += count;
    report.delivery.wireBytes = stats.bodyBytes;
    report.delivery.documentBytes = stats.documentBytes;

    // What the device did.
    matchStays(report, findStays(path));
    const EnergyLedger energy = run.device.energy();
    report.energy.locationSeconds = {{"ten-metre", energy.tenMetreSeconds},
                                     {"hundred-metre", energy.hundredMetreSeconds},
                                     {"kilometre", energy.kilometreSeconds}};
    report.energy.burstSeconds = energy.burstSeconds;
    report.energy.wakeUps = static_cast<std::int64_t>(energy.wakeUps());
    report.energy.accelerometerSeconds = energy.accelerometerSeconds;
    report.beacons.regionEvents = static_cast<std::int64_t>(energy.beaconRegionEvents);
    report.beacons.scanningSeconds = energy.bluetoothScanSeconds;
    report.beacons.rangingSeconds = energy.rangingSeconds;
    report.energy.alwaysOnBaselineSeconds = EnergyLedger::baselineGpsSeconds(path.start(), path.end());
    const auto& modes = run.device.log().modeChanges;
    for (std::size_t i = 0; i < modes.size(); ++i) {
        const Date to = i + 1 < modes.size() ? modes[i + 1].time : report.end;
        if (to > modes[i].time) report.accuracy.push_back({modes[i].time, to, bandName(modes[i].mode)});
    }
    const auto& points = path.points();
    const std::size_t stride = std::max<std::size_t>(1, (points.size() + maximumPathPoints - 1) / maximumPathPoints);
    for (std::size_t i = 0; i < points.size(); i += stride) report.truePath.push_back(points[i].coordinate);
    if (!points.empty() && (points.size() - 1) % stride != 0) report.truePath.push_back(points.back().coordinate);
    report.uploads = run.host->uploads;
    report.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    return report;
}

}  // namespace rovalis::sim
