// The event store against bare SQLite doing the same work in the same run. Rows are appended
// as the SDK appends them, each later than the last (an insert into the time index then
// lands at its end, not in the middle of the tree), and, but for the Waypoint inserts, the
// events are a real day's mix (DayMix.h).
//
//   BM_StoreInsert/N            6000 typed Waypoint inserts by N producers until committed
//   BM_RawInsert                the same payloads, 300 rows per transaction, bare SQLite
//   BM_StoreAcceleration        6000 accelerations through the buffer (300 a group)
//   BM_RawInsertAcceleration    the same payloads, 300 rows per transaction, bare SQLite
//   BM_StoreFetchDocumentGzip   fetch the oldest 20000 + batch document + gzip
//   BM_RawFetchConcatDeflate    the same rows by bare SQLite, concatenated, zlib deflate
//   BM_StoreDeleteByPayload     deleteEventsWithPayload of 20000 fetched rows
//   BM_RawDeleteByIds           one DELETE ... WHERE id IN (...) of 20000 ids
//   BM_StoreBytesPerEvent       file size per stored event after a truncating checkpoint
//   BM_RawBytesPerEvent         the same for bare SQLite with the store's table
//
// Each store benchmark measures the process's CPU time (the store works on threads of its
// own), so "CPU" is all of it.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "DayMix.h"
#include "RawStore.h"
#include "events/EventBatchGenerator.h"
#include "events/EventEncoder.h"
#include "events/EventRepository.h"
#include "events/SqliteDatabase.h"
#include "rovalis/Console.h"
#include "upload/Gzip.h"

namespace {

using namespace rovalis;
using namespace rovalis::bench;
namespace fs = std::filesystem;

constexpr int insertsPerIteration = 6000;
constexpr int batchSize = 20000;
constexpr double firstSecond = 1700000000.0;

class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = (fs::temp_directory_path() / "rovalis-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    fs::path operator/(const char* name) const { return path_ / name; }

private:
    fs::path path_;
};

// The store's console lines (one per delete) would swamp the report.
struct QuietConsole {
    QuietConsole() { previous = Console::setSink([](std::string_view) {}); }
    ~QuietConsole() { Console::setSink(std::move(previous)); }
    Console::Sink previous;
};

// Waypoint number i, half a second after number i - 1.
Waypoint waypoint(std::int64_t i) {
    const auto step = static_cast<double>(i);
    return Waypoint(Date{firstSecond + step * 0.5}, 52.52 + step * 1e-6, 13.405 - step * 1e-6, 8.25, 271.5, 12.0, 35.7,
                    "fused");
}

std::vector<EventRecord> waypoints(std::int64_t first, int count) {
    std::vector<EventRecord> events;
    for (std::int64_t i = first; i < first + count; ++i) events.emplace_back(waypoint(i));
    return events;
}

// The same rows shifted `seconds` later, so that a repeated insert still appends.
void shift(std::vector<RawRow>& rows, double seconds) {
    for (auto& row : rows) row.trackedAt += seconds;
}

// ---- (a) inserts ----

// The rows are deleted between iterations, as uploads do on a device: the count that waits
// for the commit reads every page of the table, which has no index to count instead.
void emptyUntimed(benchmark::State& state, EventRepository& store) {
    state.PauseTiming();
    store.deleteEventsWithUpTo(Date::distantFuture());
    state.ResumeTiming();
}

void BM_StoreInsert(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    std::int64_t first = 0;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                for (std::int64_t i = first + p; i < first + insertsPerIteration; i += producers) {
                    const Waypoint w = waypoint(i);
                    store.insertWaypointEventWithTrackedAtMs(w.trackedAtMs, w.latitude, w.longitude, w.speed,
                                                             w.bearing, w.accuracy, w.altitude, w.provider);
                }
            });
        }
        for (auto& thread : threads) thread.join();
        benchmark::DoNotOptimize(store.eventsCount());  // waits until everything is committed
        first += insertsPerIteration;
        emptyUntimed(state, store);
    }
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_StoreInsert)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(1.0);

void BM_RawInsert(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    auto rows = rawRows(waypoints(0, insertsPerIteration));
    for (auto _ : state) {
        raw.insertAll(rows);
        state.PauseTiming();
        shift(rows, insertsPerIteration * 0.5);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_RawInsert)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(1.0);

// ---- (b) accelerations ----

constexpr double accelerationStep = 0.05;  // 20 Hz

void BM_StoreAcceleration(benchmark::State& state) {
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    std::int64_t n = 0;
    for (auto _ : state) {
        for (int i = 0; i < insertsPerIteration; ++i, ++n) {
            store.insertAccelerationEventWithTrackedAtMs(Date{firstSecond + static_cast<double>(n) * accelerationStep},
                                                         Decimal{981 + n % 50, 2});
        }
        benchmark::DoNotOptimize(store.eventsCount());  // waits for the full groups to be committed
        emptyUntimed(state, store);
    }
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_StoreAcceleration)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(1.0);

void BM_RawInsertAcceleration(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    std::vector<EventRecord> accelerations;
    for (std::int64_t n = 0; n < insertsPerIteration; ++n) {
        accelerations.emplace_back(
            Acceleration(Date{firstSecond + static_cast<double>(n) * accelerationStep}, Decimal{981 + n % 50, 2}));
    }
    auto rows = rawRows(accelerations);
    for (auto _ : state) {
        raw.insertAll(rows);
        state.PauseTiming();
        shift(rows, insertsPerIteration * accelerationStep);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_RawInsertAcceleration)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(1.0);

// ---- (c) fetch + document + gzip ----

void BM_StoreFetchDocumentGzip(benchmark::State& state) {
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    storeEvents(store, dayMixEvents(batchSize, Date{firstSecond}));
    EventBatchGenerator generator;
    std::size_t compressed = 0;
    for (auto _ : state) {
        const auto events = store.fetchEventsPayloadTo(std::nullopt, batchSize);
        const auto document = generator.generateEventBatchFrom(events, "9B4E3C2A-5D6F-4A1B-8C7D-0E9F8A7B6C5D", 42);
        const auto gzipped = dataByGZipCompressingWithError(document, nullptr);
        if (events.size() != batchSize || !gzipped) state.SkipWithError("fetch or gzip failed");
        compressed = gzipped ? gzipped->size() : 0;
    }
    state.counters["gzip_bytes"] = static_cast<double>(compressed);
    state.SetItemsProcessed(state.iterations() * batchSize);
}
BENCHMARK(BM_StoreFetchDocumentGzip)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(1.0);

void BM_RawFetchConcatDeflate(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    raw.insertAll(rawRows(dayMixEvents(batchSize, Date{firstSecond})));
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(raw.db, "SELECT payload FROM EventEntity ORDER BY tracked_at_ms, id LIMIT ?1", -1, &select,
                       nullptr);
    std::size_t compressed = 0;
    for (auto _ : state) {
        std::string document = "[";
        sqlite3_bind_int(select, 1, batchSize);
        int rows = 0;
        while (sqlite3_step(select) == SQLITE_ROW) {
            if (rows++) document += ',';
            document.append(static_cast<const char*>(sqlite3_column_blob(select, 0)),
                            static_cast<std::size_t>(sqlite3_column_bytes(select, 0)));
        }
        sqlite3_reset(select);
        document += ']';

        const std::string out = rawGzip(document);
        if (rows != batchSize) state.SkipWithError("fetch failed");
        compressed = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    sqlite3_finalize(select);
    state.counters["gzip_bytes"] = static_cast<double>(compressed);
    state.SetItemsProcessed(state.iterations() * batchSize);
}
BENCHMARK(BM_RawFetchConcatDeflate)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(1.0);

// ---- (d) deletes ----

// A day's worth of events, and a batch of them `iteration` batches into the day.
const std::vector<EventRecord>& dayOfEvents() {
    static const auto events = dayMixEvents(10 * batchSize, Date{firstSecond});
    return events;
}

std::vector<EventRecord> batchOfTheDay(int iteration) {
    const auto& day = dayOfEvents();
    const auto first = static_cast<std::ptrdiff_t>((iteration % 10) * batchSize);
    std::vector<EventRecord> batch(day.begin() + first, day.begin() + first + batchSize);
    // Later days for later rounds, so that rows are always appended.
    const double later = static_cast<double>(iteration / 10) * 86400.0;
    for (auto& event : batch) {
        std::visit([later](auto& record) { record.trackedAtMs = record.trackedAtMs.addingSeconds(later); }, event);
    }
    return batch;
}

void BM_StoreDeleteByPayload(benchmark::State& state) {
    QuietConsole quiet;
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        storeEvents(store, batchOfTheDay(round++));
        const auto payloads = store.fetchEventsPayloadTo(std::nullopt, batchSize);
        state.ResumeTiming();
        if (store.deleteEventsWithPayload(payloads) != batchSize) state.SkipWithError("rows left behind");
    }
    state.SetItemsProcessed(state.iterations() * batchSize);
}
BENCHMARK(BM_StoreDeleteByPayload)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->Iterations(10);

void BM_RawDeleteByIds(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        raw.insertAll(rawRows(batchOfTheDay(round++)));
        std::vector<sqlite3_int64> ids;
        sqlite3_stmt* select = nullptr;
        sqlite3_prepare_v2(raw.db, "SELECT id FROM EventEntity ORDER BY tracked_at_ms, id", -1, &select, nullptr);
        while (sqlite3_step(select) == SQLITE_ROW) ids.push_back(sqlite3_column_int64(select, 0));
        sqlite3_finalize(select);
        state.ResumeTiming();

        std::string sql = "DELETE FROM EventEntity WHERE id IN (";
        for (std::size_t i = 0; i < ids.size(); ++i) sql += i ? ",?" : "?";
        sql += ")";
        sqlite3_stmt* remove = nullptr;
        sqlite3_prepare_v2(raw.db, sql.c_str(), -1, &remove, nullptr);
        for (std::size_t i = 0; i < ids.size(); ++i) sqlite3_bind_int64(remove, static_cast<int>(i + 1), ids[i]);
        sqlite3_step(remove);
        sqlite3_finalize(remove);
        if (sqlite3_changes(raw.db) != batchSize) state.SkipWithError("rows left behind");
    }
    state.SetItemsProcessed(state.iterations() * batchSize);
}
BENCHMARK(BM_RawDeleteByIds)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->Iterations(10);

// ---- (e) size on disk ----

std::uintmax_t fileAndJournalBytes(const fs::path& path) {
    std::error_code ec;
    auto bytes = fs::file_size(path);
    const auto wal = fs::file_size(fs::path(path.string() + "-wal"), ec);
    return ec ? bytes : bytes + wal;
}

double meanPayloadBytes(const std::vector<EventRecord>& events) {
    const EventEncoder encoder;
    std::size_t bytes = 0;
    for (const auto& event : events) bytes += encoder.encode(event).size();
    return static_cast<double>(bytes) / static_cast<double>(events.size());
}

void BM_StoreBytesPerEvent(benchmark::State& state) {
    const auto& events = dayOfEvents();
    double bytesPerEvent = 0;
    for (auto _ : state) {
        ScratchDir dir;
        const auto path = dir / "events.sqlite";
        EventRepository store(path);
        storeEvents(store, events);
        store.coreDataManager().performAndWaitWithConnection(
            [](sqlite::Database* db) { db->exec("PRAGMA wal_checkpoint(TRUNCATE)"); });
        bytesPerEvent = static_cast<double>(fileAndJournalBytes(path)) / static_cast<double>(events.size());
    }
    state.counters["bytes_per_event"] = bytesPerEvent;
    state.counters["payload_bytes"] = meanPayloadBytes(events);
}
BENCHMARK(BM_StoreBytesPerEvent)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_RawBytesPerEvent(benchmark::State& state) {
    const auto rows = rawRows(dayOfEvents());
    double bytesPerEvent = 0;
    for (auto _ : state) {
        ScratchDir dir;
        const auto path = dir / "raw.sqlite";
        {
            RawStore raw(path);
            raw.insertAll(rows);
            raw.exec("PRAGMA wal_checkpoint(TRUNCATE)");
        }
        bytesPerEvent = static_cast<double>(fileAndJournalBytes(path)) / static_cast<double>(rows.size());
    }
    state.counters["bytes_per_event"] = bytesPerEvent;
}
BENCHMARK(BM_RawBytesPerEvent)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
