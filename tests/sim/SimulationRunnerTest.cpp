// The runner's read-back of what the service holds: folded into the report as it is read,
// from its own service or, a page at a time, from one elsewhere.

#include <gtest/gtest.h>
#include <httplib.h>

#include <map>
#include <mutex>
#include <thread>
#include <tuple>

#include <nlohmann/json.hpp>

#include "collector/CollectorServer.h"
#include "sim/ReportFigures.h"
#include "sim/ReportRenderers.h"
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
    // Debug events aside: a send at launch that runs before the first network report is
    // handled (two threads in one virtual instant) logs one more.
    const auto withoutDebug = [](const SimulationReport& run) {
        auto byType = run.delivery.eventsByType;
        const std::int64_t debug = byType["Debug"];
        byType.erase("Debug");
        return std::pair{run.delivery.accepted - debug, byType};
    };
    EXPECT_EQ(withoutDebug(report), withoutDebug(ownReport));
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

// A service that only takes batches: every POST /api/event_batches is answered 200, and
// nothing can be read back.
class BatchesOnlyService {
public:
    BatchesOnlyService() {
        server_.set_tcp_nodelay(true);
        server_.Post("/api/event_batches", [this](const httplib::Request& request, httplib::Response& response) {
            const auto document = dataByGZipDecompressingDataWithError(request.body, nullptr);
            const auto batch = nlohmann::json::parse(document.value_or("{}"), nullptr, false);
            {
                std::lock_guard lock(mutex_);
                ++batches_;
                if (batch.is_object() && batch.contains("events")) events_ += batch["events"].size();
            }
            response.set_content("{}", "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~BatchesOnlyService() {
        server_.stop();
        thread_.join();
    }

    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    std::int64_t batches() const {
        std::lock_guard lock(mutex_);
        return batches_;
    }
    std::int64_t events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::int64_t batches_ = 0;
    std::int64_t events_ = 0;
};

TEST(SimulationRunner, AServiceWithoutReadBackIsCountedFromItsAnswersAndTheCheckIsReportedUnavailable) {
    test::ConsoleCapture console;
    test::TempDir dir;
    BatchesOnlyService service;
    SimulationOptions options;
    options.outDir = dir.path();
    options.serviceURL = service.baseURL();
    SimulationRunner runner(walkNorth(), options);
    const SimulationReport report = runner.run();

    EXPECT_FALSE(report.delivery.readBack);
    EXPECT_FALSE(report.deliveredExactlyOnce()) << "claimed without being checked";
    ASSERT_GT(report.delivery.recorded, 20000);
    EXPECT_EQ(report.delivery.leftInStore, 0);
    // Every event the SDK let go of is one the service received; nothing else reached it.
    EXPECT_EQ(report.delivery.accepted, report.delivery.recorded);
    EXPECT_EQ(report.delivery.accepted, service.events() - report.delivery.batchDiagnostics);
    EXPECT_EQ(report.delivery.batches, service.batches());
    EXPECT_TRUE(report.delivery.eventsByType.empty());

    const std::string summary = renderSummary(report, false);
    EXPECT_NE(summary.find("acknowledged by the service " + groupedNumber(report.delivery.accepted)),
              std::string::npos)
        << summary;
    EXPECT_NE(summary.find("read-back check not available"), std::string::npos);
    EXPECT_EQ(summary.find("FAILED"), std::string::npos);
    const auto figures = nlohmann::json::parse(renderSummaryJson(report));
    EXPECT_EQ(figures["delivery"]["read_back"], false);
    EXPECT_TRUE(figures["delivered_exactly_once"].is_null());
    EXPECT_EQ(figures["uploads"]["batches"], service.batches());
}

}  // namespace
}  // namespace rovalis::sim
