#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "sim/ReportFigures.h"
#include "sim/ReportRenderers.h"

namespace rovalis::sim {

namespace {

using nlohmann::json;

// A time as two keys: `key` with the ISO 8601 text and `key`_epoch_ms; both null when there
// is no time.
void putTime(json& object, const std::string& key, const std::optional<Date>& time) {
    object[key] = time ? json(isoTime(*time)) : json(nullptr);
    object[key + "_epoch_ms"] = time ? json(epochMilliseconds(*time)) : json(nullptr);
}

json orNull(const std::optional<double>& value) { return value ? json(*value) : json(nullptr); }

json position(const LocationCoordinate2D& at) { return {{"latitude", at.latitude}, {"longitude", at.longitude}}; }

// "ten-metre" -> "ten_metre", so that figures named after bands are snake_case keys too.
std::string snakeCase(std::string text) {
    for (char& c : text) {
        if (c == '-' || c == ' ') c = '_';
    }
    return text;
}

json transitionJson(const Transition& transition) {
    json object = {{"state", transition.asleep ? "asleep" : "awake"},
                   {"asleep", transition.asleep},
                   {"reason", transition.reason},
                   {"position", transition.position ? position(*transition.position) : json(nullptr)},
                   {"accuracy", transition.position ? json(transition.accuracy) : json(nullptr)}};
    putTime(object, "time", transition.time);
    return object;
}

}  // namespace

std::string renderSummaryJson(const SimulationReport& report) {
    const ReportFigures figures = deriveFigures(report);
    json root;

    root["trace"] = report.traceName;
    root["seed"] = report.seed;
    putTime(root, "start", report.start);
    putTime(root, "end", report.end);
    root["simulated_seconds"] = figures.simulatedSeconds;
    root["wall_seconds"] = report.wallSeconds;
    root["speed_up"] = orNull(figures.speedUp);

    root["events_total"] = figures.eventsTotal;
    root["events_by_type"] = json::object();
    for (const auto& [type, count] : report.delivery.eventsByType) root["events_by_type"][type] = count;

    json stays = json::array();
    for (const auto& stay : report.stays) {
        json object = {{"centre", position(stay.centre)},
                       {"duration_seconds", stay.end.timeIntervalSince(stay.start)},
                       {"found", stay.sleptAt.has_value()}};
        putTime(object, "start", stay.start);
        putTime(object, "end", stay.end);
        putTime(object, "slept_at", stay.sleptAt);
        putTime(object, "woke_at", stay.wokeAt);
        stays.push_back(std::move(object));
    }
    root["stays"] = std::move(stays);
    root["stays_found"] = figures.staysFound;
    root["stays_missed"] = static_cast<std::int64_t>(report.stays.size()) - figures.staysFound;

    json transitions = json::array();
    for (const auto& transition : report.transitions) transitions.push_back(transitionJson(transition));
    root["transitions"] = std::move(transitions);
    json tracking = json::array();
    for (const auto& toggle : report.trackingToggles) {
        json object = {{"on", toggle.on}, {"reason", toggle.reason}};
        putTime(object, "time", toggle.time);
        tracking.push_back(std::move(object));
    }
    root["tracking"] = std::move(tracking);
    json outside = json::array();
    for (const auto& sleep : figures.sleepsOutsideStays) outside.push_back(transitionJson(sleep));
    root["sleeps_outside_stays"] = std::move(outside);
    root["sleeps"] = figures.sleeps;
    root["wakes"] = figures.wakes;

    const auto& energy = report.energy;
    json bands = json::object();
    for (const auto& [band, seconds] : figures.bandSeconds) bands[snakeCase(band)] = seconds;
    root["energy"] = {{"location_seconds", std::move(bands)},
                      {"location_seconds_total", figures.locationSeconds},
                      {"always_on_baseline_seconds", energy.alwaysOnBaselineSeconds},
                      {"saving_percent", orNull(figures.savingPercent)},
                      {"burst_seconds", energy.burstSeconds},
                      {"wake_ups", energy.wakeUps},
                      {"accelerometer_seconds", energy.accelerometerSeconds}};

    json placed = json::array();
    for (const auto& beacon : report.beacons.placed) {
        placed.push_back({{"label", beacon.label},
                          {"identity", beacon.identity},
                          {"latitude", beacon.position.latitude},
                          {"longitude", beacon.position.longitude},
                          {"sightings", beacon.sightings}});
    }
    json scans = json::array();
    for (const auto& scan : report.beacons.scans) {
        json object = {{"ibeacons", scan.iBeacons}, {"eddystones", scan.eddystones}};
        putTime(object, "time", scan.time);
        scans.push_back(std::move(object));
    }
    root["beacons"] = {{"placed", std::move(placed)},
                       {"scans", std::move(scans)},
                       {"region_events", report.beacons.regionEvents},
                       {"ranging_seconds", report.beacons.rangingSeconds},
                       {"scanning_seconds", report.beacons.scanningSeconds}};

    const auto& delivery = report.delivery;
    json failures = json::array();
    for (const auto& upload : report.uploads) {
        if (upload.succeeded) continue;
        json object = {{"error", upload.error}};
        putTime(object, "time", upload.time);
        putTime(object, "tracked_from", upload.trackedFrom);
        putTime(object, "tracked_to", upload.trackedTo);
        failures.push_back(std::move(object));
    }
    root["uploads"] = {{"batches", delivery.batches},
                       {"requests", delivery.batchRequests},
                       {"succeeded", figures.uploadsSucceeded},
                       {"failed", figures.uploadsFailed},
                       {"failures", std::move(failures)},
                       {"duplicate_batches_refused", delivery.duplicateBatchesRefused},
                       {"wire_bytes", delivery.wireBytes},
                       {"document_bytes", delivery.documentBytes},
                       {"store_write_bytes", delivery.storeWriteBytes},
                       {"compression_ratio", orNull(figures.compressionRatio)}};

    // Without read-back the check was not made: its verdict is null, not a pass or a fail.
    const json verdict = delivery.readBack ? json(figures.deliveredExactlyOnce) : json(nullptr);
    root["delivery"] = {{"read_back", delivery.readBack},
                        {"recorded", delivery.recorded},
                        {"accepted", delivery.accepted},
                        {"batch_diagnostics", delivery.batchDiagnostics},
                        {"left_on_device", delivery.leftInStore},
                        {"identical", delivery.identicalEvents},
                        {"lost", figures.unaccounted > 0 ? figures.unaccounted : 0},
                        {"more_than_recorded", figures.unaccounted < 0 ? -figures.unaccounted : 0},
                        {"delivered_exactly_once", verdict}};
    root["delivered_exactly_once"] = verdict;

    root["counts"] = {{"fixes", report.fixes.size()},
                      {"geofences", report.geofences.size()},
                      {"geofence_crossings", report.crossings.size()},
                      {"significant_fixes", report.significantFixes.size()},
                      {"uploads", report.uploads.size()},
                      {"scenario_marks", report.scenario.size()}};
    json scenario = json::array();
    for (const auto& mark : report.scenario) {
        json object = {{"text", mark.text}};
        putTime(object, "time", mark.time);
        scenario.push_back(std::move(object));
    }
    root["scenario"] = std::move(scenario);

    // Text from outside may hold bytes that are not UTF-8; they are replaced rather than
    // stopping the report.
    return root.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace rovalis::sim
