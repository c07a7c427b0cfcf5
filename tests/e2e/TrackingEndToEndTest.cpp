// Whole days and short trips replayed through the real SDK on the simulated device, against
// the collection service on loopback: what the SDK records, when it sleeps and wakes, and
// that every recorded event arrives exactly once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
#include <nlohmann/json.hpp>

#include "platform/sim/Scenario.h"
#include "sim/ReportFigures.h"
#include "sim/SimulationRunner.h"
#include "support/TestSupport.h"

namespace rovalis::sim {
namespace {

using json = nlohmann::json;

constexpr double start = 1705363200.0;  // 2024-01-16 00:00 UTC
const LocationCoordinate2D home{51.4555, -0.1075};

// A trip made of stays and straight legs at constant speed.
class Trip {
public:
    Trip() { points_.push_back({Date{start}, home, std::nullopt}); }

    Trip& stay(double minutes) {
        time_ = time_.addingSeconds(minutes * 60.0);
        points_.push_back({time_, at_, std::nullopt});
        return *this;
    }
    Trip& go(double metres, double bearing, double metresPerSecond) {
        GeographicLib::Geodesic::WGS84().Direct(at_.latitude, at_.longitude, bearing, metres, at_.latitude,
                                                at_.longitude);
        time_ = time_.addingSeconds(metres / metresPerSecond);
        points_.push_back({time_, at_, std::nullopt});
        return *this;
    }
    SimulationInput input(const std::string& scenario = "") const {
        auto path = std::make_shared<const TruePath>(points_);
        return {"trip", path, parseScenario(scenario, path->start())};
    }

private:
    Date time_{start};
    LocationCoordinate2D at_ = home;
    std::vector<TracePoint> points_;
};

constexpr double walking = 1.4;
constexpr double driving = 15.0;

struct Replay {
    SimulationReport report;
    std::vector<SimulationRunner::DeliveredEvent> events;

    std::vector<json> eventsOf(const std::string& type) const {
        std::vector<json> found;
        for (const auto& event : events) {
            if (event.type == type) found.push_back(json::parse(event.payload));
        }
        std::stable_sort(found.begin(), found.end(),
                         [](const json& a, const json& b) { return a["tracked_at_ms"] < b["tracked_at_ms"]; });
        return found;
    }
    // "on FORCE", "off INSUFFICIENT_LOCATION", ...
    std::vector<std::string> toggles() const {
        std::vector<std::string> texts;
        for (const auto& event : eventsOf("ToggleTracking")) {
            texts.push_back(std::string(event["toggle_tracking_state"].get<bool>() ? "on " : "off ") +
                            event["toggle_tracking_reason"].get<std::string>());
        }
        return texts;
    }
    std::vector<std::string> wakeReasons() const {
        std::vector<std::string> reasons;
        for (const auto& transition : report.transitions) {
            if (!transition.asleep) reasons.push_back(transition.reason);
        }
        return reasons;
    }
    bool anyWakeStartsWith(const std::string& prefix) const {
        for (const auto& reason : wakeReasons()) {
            if (reason.starts_with(prefix)) return true;
        }
        return false;
    }
};

class TrackingEndToEnd : public ::testing::Test {
protected:
    Replay replay(SimulationInput input, SimulationOptions options = {}) {
        options.outDir = dir.path() / ("run" + std::to_string(++runs));
        options.keepDeliveredEvents = true;
        SimulationRunner runner(std::move(input), std::move(options));
        Replay run;
        run.report = runner.run();
        run.events = runner.deliveredEvents();
        EXPECT_TRUE(run.report.deliveredExactlyOnce())
            << "recorded " << run.report.delivery.recorded << ", accepted " << run.report.delivery.accepted
            << ", left " << run.report.delivery.leftInStore;
        return run;
    }

    test::ConsoleCapture console;
    test::TempDir dir;
    int runs = 0;
};

TEST_F(TrackingEndToEnd, EveryStayOfATripIsSleptInAndLeavingWakesTheSdkThroughTheRing) {
    const Replay run = replay(Trip().stay(25).go(1200, 80, walking).stay(30).go(900, 200, walking).stay(20).input());
    ASSERT_EQ(run.report.stays.size(), 3u);
    for (const auto& stay : run.report.stays) {
        ASSERT_TRUE(stay.sleptAt.has_value()) << "stay at " << stay.start.secondsSince1970;
        // Ten minutes of fixes within the stay radius make a stay, and the sleep follows at once.
        EXPECT_LT(stay.sleptAt->timeIntervalSince(stay.start), 15 * 60.0);
    }
    ASSERT_TRUE(run.report.stays[0].wokeAt && run.report.stays[1].wokeAt);
    // Walking off, the device enters one of the outer regions before it leaves the centre one.
    EXPECT_TRUE(run.anyWakeStartsWith("entered surrounding geofence RVLSleepRegion_")) << run.wakeReasons()[0];
    EXPECT_EQ(run.eventsOf("GeofenceCreate").size(), 7u * run.eventsOf("PreSleep").size());
    EXPECT_FALSE(run.eventsOf("GeofenceTrigger").empty());
    EXPECT_GT(run.report.delivery.eventsByType.at("Acceleration"), 0);
    EXPECT_EQ(run.report.delivery.leftInStore, 0);
    // Asleep most of the time: far less GPS than an app that never sleeps.
    const double gps = run.report.energy.locationSeconds.at("ten-metre") +
                       run.report.energy.locationSeconds.at("hundred-metre");
    EXPECT_LT(gps, 0.7 * run.report.energy.alwaysOnBaselineSeconds);
}

// An integration build keeps its short stays but talks to the service it is given, here the
// simulation's own, rather than to whatever listens on localhost:8080.
TEST_F(TrackingEndToEnd, AnIntegrationBuildSleepsAfterFifteenSecondsAndUploadsToItsOwnService) {
    SimulationOptions integration;
    integration.integrationBuild = true;
    const Replay run = replay(Trip().stay(3).go(800, 80, walking).stay(3).input(), integration);
    // Three minutes at each end: a production build, with its ten minutes, would not sleep.
    EXPECT_GE(run.eventsOf("PreSleep").size(), 2u);
    EXPECT_GT(run.report.delivery.accepted, 0);
    EXPECT_EQ(run.report.delivery.leftInStore, 0);
}

TEST_F(TrackingEndToEnd, LeavingWakesTheSdkOnTheCentreExitOrOnASignificantChangeWhenThatComesFirst) {
    // The centre region alone: walking away, it reports the exit long before 500 m are covered.
    SimulationOptions centreOnly;
    centreOnly.sleepRegions.outerRegionCount = 0;
    const Replay exit = replay(Trip().stay(25).go(1000, 0, walking).stay(15).input(), centreOnly);
    EXPECT_TRUE(exit.anyWakeStartsWith("exited geofence RVLSleepRegion_00"));
    const auto preWakeUps = exit.eventsOf("PreWakeUp");
    ASSERT_FALSE(preWakeUps.empty());
    EXPECT_EQ(preWakeUps[0]["reason"], "exited geofence");

    // A centre region too large to leave: the significant-change service wakes the SDK.
    SimulationOptions wide;
    wide.sleepRegions.outerRegionCount = 0;
    wide.sleepRegions.centerRadius = 20000.0;
    const Replay significant = replay(Trip().stay(25).go(8000, 90, driving).stay(15).input(), wide);
    EXPECT_TRUE(significant.anyWakeStartsWith("new significant location: lat/lon "));
    bool wokeForSignificant = false;
    for (const auto& event : significant.eventsOf("PreWakeUp")) {
        wokeForSignificant = wokeForSignificant || event["reason"] == "significant location";
    }
    EXPECT_TRUE(wokeForSignificant);
}

TEST_F(TrackingEndToEnd, PermissionLostMidTripStopsTrackingRefusesTheHostAndResumesByItselfWhenItReturns) {
    const Replay run = replay(Trip().stay(15).go(2000, 45, walking).stay(20).input(R"(
        from +20m to +30m permission when-in-use
        at +25m tracking start
    )"));
    // The host's start at +25m is refused: no "on FORCE" between the two.
    EXPECT_EQ(run.toggles(),
              (std::vector<std::string>{"on FORCE", "off INSUFFICIENT_LOCATION", "on INSUFFICIENT_LOCATION", "off FORCE"}));
    const auto toggles = run.eventsOf("ToggleTracking");
    EXPECT_NEAR(toggles[1]["tracked_at_ms"].get<double>() / 1000.0, start + 20 * 60, 1.0);
    EXPECT_NEAR(toggles[2]["tracked_at_ms"].get<double>() / 1000.0, start + 30 * 60, 1.0);
    // With when-in-use permission and the app in the background, no fix arrives at all.
    for (const auto& waypoint : run.eventsOf("Waypoint")) {
        const double at = waypoint["tracked_at_ms"].get<double>() / 1000.0;
        EXPECT_FALSE(at > start + 20 * 60 + 1 && at < start + 30 * 60) << at - start;
    }
}

TEST_F(TrackingEndToEnd, ANewBuildAcrossARelaunchRecordsTheAppUpdatePairAndAPlainRelaunchNothing) {
    const Replay run = replay(Trip().stay(10).go(600, 90, walking).stay(10).input(R"(
        at +5m relaunch
        at +12m relaunch build 2
    )"));
    EXPECT_EQ(run.toggles(), (std::vector<std::string>{"on FORCE", "off APP_UPDATE", "on APP_UPDATE", "off FORCE"}));
    const auto toggles = run.eventsOf("ToggleTracking");
    EXPECT_GE(toggles[2]["tracked_at_ms"].get<std::int64_t>() - toggles[1]["tracked_at_ms"].get<std::int64_t>(), 10);
    EXPECT_NEAR(toggles[1]["tracked_at_ms"].get<double>() / 1000.0, start + 12 * 60, 1.0);
}

TEST_F(TrackingEndToEnd, WhatIsRecordedOfflineIsDeliveredOnceTheNetworkReturns) {
    const Replay run = replay(Trip().stay(15).go(3000, 120, walking).stay(20).input(R"(
        from +10m to +50m network offline
    )"));
    for (const auto& upload : run.report.uploads) {
        const double at = upload.time.timeIntervalSince(Date{start});
        EXPECT_FALSE(upload.succeeded && at > 10 * 60 && at < 50 * 60) << at;
    }
    int offlineWaypoints = 0;
    for (const auto& waypoint : run.eventsOf("Waypoint")) {
        const double at = waypoint["tracked_at_ms"].get<double>() / 1000.0 - start;
        offlineWaypoints += at > 10 * 60 && at < 50 * 60;
    }
    EXPECT_GT(offlineWaypoints, 1000);  // walking, awake: about one fix a second
    bool deliveredAfter = false;
    for (const auto& upload : run.report.uploads) {
        deliveredAfter = deliveredAfter || (upload.succeeded && upload.time.timeIntervalSince(Date{start}) >= 50 * 60);
    }
    EXPECT_TRUE(deliveredAfter);
    const auto connectivity = run.eventsOf("Connectivity");
    ASSERT_GE(connectivity.size(), 3u);
    EXPECT_EQ(connectivity[1]["status"], "DISCONNECTED");
}

TEST_F(TrackingEndToEnd, AwakeAndOnlineTheFixesThemselvesStartAnUploadAQuarterOfAnHourAfterTheLastOne) {
    // Forty minutes of walking: no stay, no network change, the app never comes to the front.
    const Replay run = replay(Trip().go(3400, 0, walking).input());
    const double walkEnds = 3400 / walking;  // where tracking is stopped, which sends too
    std::vector<double> sent;
    for (const auto& upload : run.report.uploads) {
        const double at = upload.time.timeIntervalSince(Date{start});
        if (upload.succeeded && at < walkEnds - 60) sent.push_back(at);
    }
    ASSERT_FALSE(sent.empty());
    EXPECT_LT(sent.front(), 60) << "tracking starts with an upload";
    const auto later = std::find_if(sent.begin(), sent.end(), [](double at) { return at >= 60; });
    ASSERT_EQ(sent.end() - later, 2) << "after 15 and 30 minutes: " << ::testing::PrintToString(sent);
    for (auto at = later; at != sent.end(); ++at) {
        EXPECT_GT(*at - *(at - 1), 15 * 60);
        EXPECT_LT(*at - *(at - 1), 15 * 60 + 30) << "the first fix after the quarter-hour starts it";
    }
}

TEST_F(TrackingEndToEnd, WifiOnlyOverCellularSendsNothingUntilWifiReturns) {
    const Replay run = replay(Trip().stay(15).go(4000, 300, walking).stay(20).input(R"(
        at +2m wifi-only on
        from +10m to +70m network cellular
    )"));
    bool sentOnCellular = false, sentAfter = false;
    for (const auto& upload : run.report.uploads) {
        const double at = upload.time.timeIntervalSince(Date{start});
        sentOnCellular = sentOnCellular || (upload.succeeded && at > 10 * 60 && at < 70 * 60);
        sentAfter = sentAfter || (upload.succeeded && at >= 70 * 60);
    }
    EXPECT_FALSE(sentOnCellular);
    EXPECT_TRUE(sentAfter);
    const auto settings = run.eventsOf("SDKSettings");
    ASSERT_GE(settings.size(), 2u);
    EXPECT_EQ(settings[1]["wifi_only_data_transfer"], true);
}

TEST_F(TrackingEndToEnd, TheSameTripAndSeedGiveTheSameEventsAndAnotherSeedOthers) {
    const Trip trip = Trip().stay(12).go(1500, 10, walking).stay(12);
    auto canonical = [](std::vector<SimulationRunner::DeliveredEvent> events) {
        std::vector<std::string> texts;
        for (const auto& event : events) {
            // The launch's send and the first network report run on two threads in the same
            // virtual instant: which comes first is up to the host's scheduler, and a send
            // that comes first logs this line.
            if (event.payload.find("\"RVLSendOperation::not reachable\"") != std::string::npos) continue;
            texts.push_back(event.payload);
        }
        std::sort(texts.begin(), texts.end());
        return texts;
    };
    const auto first = canonical(replay(trip.input()).events);
    const auto again = canonical(replay(trip.input()).events);
    // Only what differs, which says more than two lists of some thousand events.
    std::vector<std::string> onlyFirst, onlyAgain;
    std::set_difference(first.begin(), first.end(), again.begin(), again.end(), std::back_inserter(onlyFirst));
    std::set_difference(again.begin(), again.end(), first.begin(), first.end(), std::back_inserter(onlyAgain));
    EXPECT_THAT(onlyFirst, ::testing::IsEmpty());
    EXPECT_THAT(onlyAgain, ::testing::IsEmpty());
    SimulationOptions other;
    other.seed = 2;
    EXPECT_NE(canonical(replay(trip.input(), other).events), first);
}

// "LAT,LON" of the point `metres` east of home.
std::string eastOfHome(double metres) {
    double latitude = 0.0, longitude = 0.0;
    GeographicLib::Geodesic::WGS84().Direct(home.latitude, home.longitude, 90.0, metres, latitude, longitude);
    char text[64];
    std::snprintf(text, sizeof text, "%.6f,%.6f", latitude, longitude);
    return text;
}

TEST_F(TrackingEndToEnd, BeaconsPassedOnATripAreRangedIntoScansThatReachTheServiceAndTheSleepIsLeftByItsRegion) {
    // Asleep at home, the device walks east past a weak iBeacon 110 m away (out of its reach at
    // home, inside the stay's centre region), on to a shop 400 m away with an iBeacon and an
    // Eddystone beacon at the counter, and stays there long enough to fall asleep.
    const std::string uuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
    const std::string shopEddystone = "0102030405060708090a0b0c0d0e0f10";
    SimulationOptions centreOnly;
    centreOnly.sleepRegions.outerRegionCount = 0;
    const Replay run = replay(Trip().stay(25).go(400, 90, walking).stay(20).input(
                                  "beacon ibeacon " + uuid + " 1 1 at " + eastOfHome(110) + " power -65\n" +
                                  "beacon ibeacon " + uuid + " 2 7 at " + eastOfHome(400) + "\n" +
                                  "beacon eddystone-uid 0102030405060708090a 0b0c0d0e0f10 at " + eastOfHome(402) +
                                  "\n"),
                              centreOnly);

    ASSERT_FALSE(run.wakeReasons().empty());
    EXPECT_EQ(run.wakeReasons()[0], "exited geofence RVLSleepRegion_00")
        << "a beacon heard inside the centre region is no evidence of having left it";
    // One scan per ranging window (one window per beacon region entered), then the scan at the
    // shop's sleep.
    const auto scans = run.eventsOf("BeaconScan");
    ASSERT_EQ(scans.size(), 3u);
    for (const auto& sighting : scans[0]["beacons"]) {
        EXPECT_EQ(sighting["protocol"], "IBeacon");
        EXPECT_EQ(sighting["minor"], 1);
    }
    bool shopIBeacon = false, shopEddystoneSeen = false;
    for (const auto& sighting : scans[1]["beacons"]) {
        if (sighting["protocol"] == "IBeacon") shopIBeacon = shopIBeacon || sighting["major"] == 2;
        if (sighting["protocol"] == "Eddystone") shopEddystoneSeen = shopEddystoneSeen || sighting["eid"] == shopEddystone;
    }
    EXPECT_TRUE(shopIBeacon && shopEddystoneSeen) << scans[1].dump();
    for (const auto& sighting : scans[2]["beacons"]) EXPECT_EQ(sighting["eid"], shopEddystone);
    ASSERT_EQ(run.report.beacons.placed.size(), 3u);
    for (const auto& beacon : run.report.beacons.placed) EXPECT_GT(beacon.sightings, 0) << beacon.label;
    EXPECT_GE(run.report.beacons.regionEvents, 2);
}

TEST_F(TrackingEndToEnd, AStillPhoneAtTheEdgeOfABeaconsRangeSleepsThroughHoursOfItsRegionComingAndGoing) {
    const std::filesystem::path data = ROVALIS_SOURCE_DATA_DIR;
    const Replay run =
        replay(readSimulationInput(data / "traces/still-3h.csv", data / "scenarios/still-ibeacon-55m.scenario"));
    ASSERT_GE(run.report.beacons.regionEvents, 20) << "the beacon is at the edge of its range";
    EXPECT_FALSE(run.eventsOf("BeaconScan").empty());
    const ReportFigures figures = deriveFigures(run.report);
    EXPECT_LE(figures.wakes, 1);
    EXPECT_LE(figures.locationSeconds, 0.10 * run.report.energy.alwaysOnBaselineSeconds);
}

TEST_F(TrackingEndToEnd, TheSampleWeekdayIsSleptThroughAtEveryStayAndDeliveredExactlyOnce) {
    const std::filesystem::path data = ROVALIS_SOURCE_DATA_DIR;
    const Replay run = replay(readSimulationInput(data / "traces/london-weekday.gpx",
                                               data / "scenarios/london-weekday.scenario"));
    ASSERT_EQ(run.report.stays.size(), 6u);
    for (const auto& stay : run.report.stays) EXPECT_TRUE(stay.sleptAt.has_value());
    // Lunch: permission is lost while the SDK sleeps, and tracking coming back wakes it.
    const auto& lunch = run.report.stays[1];
    const auto resumed = std::find_if(run.report.trackingToggles.begin(), run.report.trackingToggles.end(),
                                      [&](const TrackingToggle& toggle) {
                                          return toggle.on && lunch.sleptAt && toggle.time > *lunch.sleptAt;
                                      });
    ASSERT_NE(resumed, run.report.trackingToggles.end());
    ASSERT_TRUE(withinStay(lunch, resumed->time));
    EXPECT_EQ(lunch.wokeAt, resumed->time);
    EXPECT_EQ(run.report.delivery.leftInStore, 0);
    EXPECT_EQ(run.toggles().size(), 6u);  // start, lunch-time permission off and on, app update, end
    EXPECT_GE(run.eventsOf("BeaconScan").size(), 2u) << "the office lobby and the cafe";
}

}  // namespace
}  // namespace rovalis::sim
