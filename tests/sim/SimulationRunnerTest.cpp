// The runner's read-back of what the service holds: folded into the report as it is read,
// from its own service or, a page at a time, from one elsewhere.

#include <gtest/gtest.h>
#include <httplib.h>

#include <map>
#include <tuple>

#include "collector/CollectorServer.h"
#include "sim/SimulationRunner.h"
#include "support/TestSupport.h"
#include "upload/Gzip.h"

namespace rovalis::sim {
namespace {

constexpr double start = 1705363200.0;  // 2024-01-16 00:00 UTC

// Twelve minutes at home, twenty minutes' walk north (awake: more than a page of events at
// 20 accelerations a second), twelve minutes there.
SimulationInput walkNorth() {
    const LocationCoordinate2D home{51.4555, -0.1075};
    const LocationCoordinate2D there{home.latitude + 0.0153, home.longitude};
    const std::vector<TracePoint> points = {{Date{start}, home, std::nullopt},
                                            {Date{start + 720}, home, std::nullopt},
                                            {Date{start + 720 + 1200}, there, std::nullopt},
                                            {Date{start + 720 + 1200 + 720}, there, std::nullopt}};
    return {"walk", std::make_shared<const TruePath>(points), Scenario{}};
}

TEST(SimulationRunner, AServiceElsewhereIsReadAPageAtATimeAndGivesTheSameReportAsItsOwn) {
    test::ConsoleCapture console;
    test::TempDir dir;
    SimulationOptions own;
    own.outDir = dir.path() / "own";
    own.keepDeliveredEvents = true;
    SimulationRunner ownRunner(walkNorth(), own);
    const SimulationReport ownReport = ownRunner.run();
    const auto& delivered = ownRunner.deliveredEvents();
    ASSERT_GT(delivered.size(), 20000u) << "fits one page";

    // The fold's count of identical events against the whole list.
    std::map<std::tuple<std::string, std::int64_t, std::string>, int> seen;
    std::int64_t identical = 0;
    for (const auto& event : delivered) identical += ++seen[{event.type, event.trackedAtMs, event.payload}] > 1;
    EXPECT_EQ(ownReport.delivery.identicalEvents, identical);

    // The service elsewhere also holds another device's batch, which is not this run's.
    collector::CollectorOptions serviceOptions;
    serviceOptions.port = 0;
    collector::CollectorServer service(serviceOptions);
    service.start();
    httplib::Client client("127.0.0.1", service.port());
    const std::string agent = R"({"app_name":"A","operating_system":"ios","os_version":"1","sdk_version":"1",)"
                              R"("handset":"x","sdk_build_number":"1","device_id":"someone-else","app_id":"a",)"
                              R"("app_version":"1","app_build_number":"1"})";
    const auto other = client.Post(
        "/api/event_batches",
        {{"X-Content-Encoding", "gzip"}, {"Accept", "application/json"}, {"Accept-Language", "en"},
         {"Authorization", "Bearer a.b.c"}, {"User-Agent", agent}},
        *dataByGZipCompressingWithError(R"({"id":"x","sequential_id":1,"events":[{"magnitude":9.81,)"
                                        R"("tracked_at_ms":1705363200000,"type":"Acceleration"}]})",
                                        nullptr),
        "application/octet-stream");
    ASSERT_TRUE(other && other->status == 200);

    SimulationOptions elsewhere;
    elsewhere.outDir = dir.path() / "elsewhere";
    elsewhere.serviceURL = service.baseURL();
    SimulationRunner elsewhereRunner(walkNorth(), elsewhere);
    const SimulationReport report = elsewhereRunner.run();
    EXPECT_TRUE(elsewhereRunner.deliveredEvents().empty()) << "kept without being asked";
    EXPECT_TRUE(report.deliveredExactlyOnce()) << report.delivery.recorded << " " << report.delivery.accepted;
    EXPECT_EQ(report.delivery.accepted, ownReport.delivery.accepted);
    EXPECT_EQ(report.delivery.eventsByType, ownReport.delivery.eventsByType);
    EXPECT_EQ(report.delivery.identicalEvents, ownReport.delivery.identicalEvents);
    EXPECT_EQ(report.fixes.size(), ownReport.fixes.size());
    ASSERT_EQ(report.transitions.size(), ownReport.transitions.size());
    for (std::size_t i = 0; i < report.transitions.size(); ++i) {
        EXPECT_EQ(std::tie(report.transitions[i].time, report.transitions[i].asleep, report.transitions[i].reason),
                  std::tie(ownReport.transitions[i].time, ownReport.transitions[i].asleep,
                           ownReport.transitions[i].reason));
    }
    service.stop();
}

}  // namespace
}  // namespace rovalis::sim
