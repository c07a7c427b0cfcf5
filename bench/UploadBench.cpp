// Delivering a backlog end to end: the SDK's upload path (store, operations, API client,
// libcurl) against the local collection service, which runs as its own process on loopback
// so that its work and memory are not counted as the SDK's. The backlog is half a day of a
// real day's mix (DayMix.h).
//
//   BM_DeliverBacklogForeground  100000 stored events sent by one send group (5 batches;
//                                ROVALIS_BENCH_BACKLOG sets another number)
//   BM_DeliverBacklogBackground  the same backlog through the background path, which
//                                fetches everything at once and uploads it from one file
//   BM_RawDeliverBacklog         the baseline: the same backlog in bare SQLite (the store's
//                                table), sent 20000 at a time (fetch, document, zlib, libcurl
//                                POST, delete by ids) over one connection
//   BM_RawPostBacklog            the transport alone: the same 100000 events as 5 gzip batches
//                                built beforehand, posted by plain libcurl
//
// Time is wall time; "CPU" is this process's CPU time (every thread of the SDK), not the
// service's, which is reported apart (collector_cpu_ms, per delivery). Counters: events per
// second (items_per_second), bytes per event on the wire (the gzip bodies the service
// received), and the peak resident memory the delivery added (peak_rss_MiB: the kernel's
// high-water mark, reset before each delivery, less the resident size at that moment).

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <string>

#include "CollectorProcess.h"
#include "DayMix.h"
#include "RawStore.h"
#include "events/EventBatchGenerator.h"
#include "events/EventEncoder.h"
#include "rovalis/Console.h"
#include "support/TestSupport.h"
#include "support/UploadStack.h"
#include "upload/Gzip.h"

namespace {

using namespace rovalis;
using namespace rovalis::bench;
using namespace rovalis::test;

// 100000 events, or ROVALIS_BENCH_BACKLOG of them: the background send's memory is meant not
// to grow with the backlog, which a larger one shows.
const std::size_t backlog = [] {
    const char* size = std::getenv("ROVALIS_BENCH_BACKLOG");
    return size ? std::stoul(size) : std::size_t{100000};
}();
constexpr std::size_t batchSize = 20000;

const std::vector<EventRecord>& backlogEvents() {
    static const auto events = dayMixEvents(backlog, Date{1705363200.0});
    return events;
}

// Resets the process's peak resident size to its current size.
void resetPeakResidentSize() { std::ofstream("/proc/self/clear_refs") << "5"; }

// VmRSS or VmHWM of this process, in KiB.
long residentKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    }
    return 0;
}

// Runs deliver() once per iteration against a fresh collector, with prepare() outside the
// timing; deliver returns false when the delivery failed.
template <typename Prepare, typename Deliver>
void measureDelivery(benchmark::State& state, Prepare prepare, Deliver deliver) {
    const auto previousSink = Console::setSink([](std::string_view) {});
    double peakMiB = 0, collectorCpu = 0;
    std::int64_t bodyBytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        CollectorProcess collector;
        auto prepared = prepare(collector);
        const long baseline = residentKiB("VmRSS");
        resetPeakResidentSize();
        const double collectorBefore = collector.cpuSeconds();
        state.ResumeTiming();

        if (!deliver(*prepared)) state.SkipWithError("delivery failed");

        state.PauseTiming();
        collectorCpu += collector.cpuSeconds() - collectorBefore;
        peakMiB = std::max(peakMiB, static_cast<double>(residentKiB("VmHWM") - baseline) / 1024.0);
        bodyBytes += collector.statistic("body_bytes");
        // The SDK adds an event or two of its own (the network seen, a background batch's note).
        if (collector.statistic("events") < static_cast<std::int64_t>(backlog)) {
            state.SkipWithError("the service does not hold the backlog");
        }
        prepared.reset();
        state.ResumeTiming();
    }
    const auto delivered = static_cast<double>(state.iterations() * backlog);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(backlog));
    state.counters["wire_bytes_per_event"] = static_cast<double>(bodyBytes) / delivered;
    state.counters["peak_rss_MiB"] = peakMiB;
    state.counters["collector_cpu_ms"] = collectorCpu * 1000.0 / static_cast<double>(state.iterations());
    Console::setSink(previousSink);
}

template <typename Deliver>
void deliverThroughTheSdk(benchmark::State& state, Deliver deliver) {
    measureDelivery(
        state,
        [](CollectorProcess& collector) {
            struct Prepared {
                TempDir root;
                std::unique_ptr<UploadStack> stack;
            };
            auto prepared = std::make_unique<Prepared>();
            UploadStackOptions options;
            options.dataRoot = prepared->root.path();
            options.baseURL = collector.baseURL();
            prepared->stack = std::make_unique<UploadStack>(options);
            prepared->stack->credentials->setAccessToken(sampleAccessToken());
            storeEvents(*prepared->stack->events, backlogEvents());
            return prepared;
        },
        [&deliver](auto& prepared) {
            return deliver(*prepared.stack) && prepared.stack->events->eventsCount() == 0;
        });
}

void BM_DeliverBacklogForeground(benchmark::State& state) {
    deliverThroughTheSdk(state, [](UploadStack& stack) { return stack.sendEvents(); });
}
BENCHMARK(BM_DeliverBacklogForeground)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime()->MeasureProcessCPUTime();

void BM_DeliverBacklogBackground(benchmark::State& state) {
    deliverThroughTheSdk(state, [](UploadStack& stack) {
        std::promise<bool> handedOver;
        stack.operationsController->performBGTransmissionOperationWithCompletion(
            [&](bool succeeded) { handedOver.set_value(succeeded); });
        // Delivered once the host is told, which is after the events have been deleted.
        const auto told = stack.observer->waitForUploads(1);
        return handedOver.get_future().get() && told.size() == 1 && !told[0].error;
    });
}
BENCHMARK(BM_DeliverBacklogBackground)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime()->MeasureProcessCPUTime();

// The backlog as the SDK would send it: gzip batches of 20000 in its document format.
const std::vector<std::string>& backlogBodies() {
    static const std::vector<std::string> bodies = [] {
        const EventEncoder encoder;
        EventBatchGenerator generator;
        std::vector<std::string> built;
        std::vector<EventPayload> batch;
        for (const auto& event : backlogEvents()) {
            batch.push_back(EventPayload{std::string(typeOf(event)), trackedAtOf(event), encoder.encode(event), ""});
            if (batch.size() == batchSize) {
                const std::string id = "7A3C0000-0000-4000-8000-00000000000" + std::to_string(built.size());
                const auto document = generator.generateEventBatchFrom(batch, id, static_cast<std::int64_t>(built.size()));
                built.push_back(dataByGZipCompressingWithError(document, nullptr).value_or(""));
                batch.clear();
            }
        }
        return built;
    }();
    return bodies;
}

void BM_RawDeliverBacklog(benchmark::State& state) {
    const auto rows = rawRows(backlogEvents());
    struct Prepared {
        TempDir dir;
        RawStore store{dir.path() / "raw.sqlite"};
        RawUploader uploader;
        explicit Prepared(const std::string& baseURL) : uploader(baseURL, "raw-device") {}
    };
    measureDelivery(
        state,
        [&rows](CollectorProcess& collector) {
            auto prepared = std::make_unique<Prepared>(collector.baseURL());
            prepared->store.insertAll(rows);
            return prepared;
        },
        [](Prepared& prepared) {
            sqlite3* db = prepared.store.db;
            sqlite3_stmt* select = nullptr;
            sqlite3_prepare_v2(db, "SELECT id, payload FROM EventEntity ORDER BY tracked_at_ms, id LIMIT 20000", -1,
                               &select, nullptr);
            bool delivered = true;
            for (int batch = 0; delivered; ++batch) {
                std::vector<sqlite3_int64> ids;
                std::string document = "{\"id\":\"7A3C0000-0000-4000-8000-00000000000" + std::to_string(batch) +
                                       "\",\"sequential_id\":" + std::to_string(batch) + ",\"events\":[";
                while (sqlite3_step(select) == SQLITE_ROW) {
                    if (!ids.empty()) document += ',';
                    ids.push_back(sqlite3_column_int64(select, 0));
                    document.append(static_cast<const char*>(sqlite3_column_blob(select, 1)),
                                    static_cast<std::size_t>(sqlite3_column_bytes(select, 1)));
                }
                sqlite3_reset(select);
                if (ids.empty()) break;
                document += "]}";
                delivered = prepared.uploader.post(rawGzip(document)) == 200;

                std::string sql = "DELETE FROM EventEntity WHERE id IN (";
                for (std::size_t i = 0; i < ids.size(); ++i) sql += i ? ",?" : "?";
                sql += ")";
                sqlite3_stmt* remove = nullptr;
                sqlite3_prepare_v2(db, sql.c_str(), -1, &remove, nullptr);
                for (std::size_t i = 0; i < ids.size(); ++i) sqlite3_bind_int64(remove, static_cast<int>(i + 1), ids[i]);
                delivered = delivered && sqlite3_step(remove) == SQLITE_DONE;
                sqlite3_finalize(remove);
            }
            sqlite3_finalize(select);
            return delivered;
        });
}
BENCHMARK(BM_RawDeliverBacklog)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime()->MeasureProcessCPUTime();

void BM_RawPostBacklog(benchmark::State& state) {
    const auto& bodies = backlogBodies();
    measureDelivery(
        state,
        [](CollectorProcess& collector) { return std::make_unique<RawUploader>(collector.baseURL(), "raw-device"); },
        [&bodies](RawUploader& uploader) {
            for (const auto& body : bodies) {
                if (uploader.post(body) != 200) return false;
            }
            return true;
        });
}
BENCHMARK(BM_RawPostBacklog)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace
