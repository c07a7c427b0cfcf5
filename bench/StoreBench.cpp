// The event store against bare SQLite doing the same work in the same run.
//
//   BM_StoreInsert/N          typed Waypoint inserts by N producers until committed
//   BM_RawInsert              the same payloads, 300 rows per transaction, bare SQLite
//   BM_StoreAcceleration      acceleration samples through the buffer (300 a group)
//   BM_StoreFetchDocumentGzip fetch the oldest 20000 + batch document + gzip
//   BM_RawFetchConcatDeflate  the same rows by bare SQLite, concatenated, zlib deflate
//   BM_StoreDeleteByPayload   deleteEventsWithPayload of 20000 fetched rows
//   BM_RawDeleteByIds         one DELETE ... WHERE id IN (...) of 20000 ids
//   BM_StoreBytesPerEvent     file size per stored Waypoint after a truncating checkpoint

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <zlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "events/EventBatchGenerator.h"
#include "events/EventEncoder.h"
#include "events/EventRepository.h"
#include "events/SqliteDatabase.h"
#include "rovalis/Console.h"
#include "upload/Gzip.h"

namespace {

using namespace rovalis;
namespace fs = std::filesystem;

constexpr int insertsPerIteration = 6000;
constexpr int deleteBatch = 20000;

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

Waypoint waypoint(int i) {
    return Waypoint(Date{1700000000.0 + i * 0.5}, 52.52 + i * 1e-6, 13.405 - i * 1e-6, 8.25, 271.5, 12.0, 35.7,
                    "fused");
}

void insertWaypoint(EventRepository& store, int i) {
    store.insertWaypointEventWithTrackedAtMs(Date{1700000000.0 + i * 0.5}, 52.52 + i * 1e-6, 13.405 - i * 1e-6, 8.25,
                                             271.5, 12.0, 35.7, "fused");
}

// ---- Bare SQLite reference: same schema, same settings as the store ----

struct RawStore {
    explicit RawStore(const fs::path& path) {
        if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) throw std::runtime_error("open failed");
        exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
             "CREATE TABLE EventEntity (id INTEGER PRIMARY KEY AUTOINCREMENT, type TEXT NOT NULL,"
             " tracked_at_ms REAL NOT NULL, payload BLOB NOT NULL);"
             "CREATE INDEX EventEntity_tracked_at ON EventEntity (tracked_at_ms, id);");
        sqlite3_prepare_v2(db, "INSERT INTO EventEntity (type, tracked_at_ms, payload) VALUES (?1, ?2, ?3)", -1,
                           &insert, nullptr);
    }
    ~RawStore() {
        sqlite3_finalize(insert);
        sqlite3_close(db);
    }
    void exec(const char* sql) {
        if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db));
    }
    // Writes the rows 300 per transaction.
    void insertAll(const std::vector<std::string>& payloads, int firstIndex) {
        for (std::size_t start = 0; start < payloads.size(); start += 300) {
            exec("BEGIN IMMEDIATE");
            for (std::size_t i = start; i < std::min(payloads.size(), start + 300); ++i) {
                sqlite3_bind_text(insert, 1, "Waypoint", -1, SQLITE_STATIC);
                sqlite3_bind_double(insert, 2, 1700000000.0 + (firstIndex + static_cast<int>(i)) * 0.5);
                sqlite3_bind_blob(insert, 3, payloads[i].data(), static_cast<int>(payloads[i].size()), SQLITE_STATIC);
                sqlite3_step(insert);
                sqlite3_reset(insert);
            }
            exec("COMMIT");
        }
    }

    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
};

std::vector<std::string> encodedWaypoints(int count) {
    const EventEncoder encoder;
    std::vector<std::string> payloads;
    for (int i = 0; i < count; ++i) payloads.push_back(encoder.encode(waypoint(i)));
    return payloads;
}

// ---- (a) inserts ----

void BM_StoreInsert(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                for (int i = p; i < insertsPerIteration; i += producers) insertWaypoint(store, i);
            });
        }
        for (auto& thread : threads) thread.join();
        benchmark::DoNotOptimize(store.eventsCount());  // waits until everything is committed
    }
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_StoreInsert)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

void BM_RawInsert(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    const auto payloads = encodedWaypoints(insertsPerIteration);
    for (auto _ : state) raw.insertAll(payloads, 0);
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_RawInsert)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

// ---- (b) accelerations ----

void BM_StoreAcceleration(benchmark::State& state) {
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    std::int64_t n = 0;
    for (auto _ : state) {
        for (int i = 0; i < insertsPerIteration; ++i, ++n) {
            store.insertAccelerationEventWithTrackedAtMs(Date{1700000000.0 + n * 0.02}, Decimal{981 + n % 50, 2});
        }
        benchmark::DoNotOptimize(store.eventsCount());  // waits for the full groups to be committed
    }
    state.SetItemsProcessed(state.iterations() * insertsPerIteration);
}
BENCHMARK(BM_StoreAcceleration)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

// ---- (c) fetch + document + gzip ----

constexpr int fetchBatch = 20000;

void BM_StoreFetchDocumentGzip(benchmark::State& state) {
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    for (int i = 0; i < fetchBatch; ++i) insertWaypoint(store, i);
    EventBatchGenerator generator;
    std::size_t compressed = 0;
    for (auto _ : state) {
        const auto events = store.fetchEventsPayloadTo(std::nullopt, fetchBatch);
        const auto document = generator.generateEventBatchFrom(events, "9B4E3C2A-5D6F-4A1B-8C7D-0E9F8A7B6C5D", 42);
        const auto gzipped = dataByGZipCompressingWithError(document, nullptr);
        if (events.size() != fetchBatch || !gzipped) state.SkipWithError("fetch or gzip failed");
        compressed = gzipped ? gzipped->size() : 0;
    }
    state.counters["gzip_bytes"] = static_cast<double>(compressed);
    state.SetItemsProcessed(state.iterations() * fetchBatch);
}
BENCHMARK(BM_StoreFetchDocumentGzip)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

void BM_RawFetchConcatDeflate(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    raw.insertAll(encodedWaypoints(fetchBatch), 0);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(raw.db, "SELECT payload FROM EventEntity ORDER BY tracked_at_ms, id LIMIT ?1", -1, &select,
                       nullptr);
    std::size_t compressed = 0;
    for (auto _ : state) {
        std::string document = "[";
        sqlite3_bind_int(select, 1, fetchBatch);
        int rows = 0;
        while (sqlite3_step(select) == SQLITE_ROW) {
            if (rows++) document += ',';
            document.append(static_cast<const char*>(sqlite3_column_blob(select, 0)),
                            static_cast<std::size_t>(sqlite3_column_bytes(select, 0)));
        }
        sqlite3_reset(select);
        document += ']';

        z_stream stream{};
        deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
        std::string out(deflateBound(&stream, document.size()), '\0');
        stream.next_in = reinterpret_cast<Bytef*>(document.data());
        stream.avail_in = static_cast<uInt>(document.size());
        stream.next_out = reinterpret_cast<Bytef*>(out.data());
        stream.avail_out = static_cast<uInt>(out.size());
        const int status = deflate(&stream, Z_FINISH);
        out.resize(stream.total_out);
        deflateEnd(&stream);
        if (rows != fetchBatch || status != Z_STREAM_END) state.SkipWithError("fetch or deflate failed");
        compressed = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    sqlite3_finalize(select);
    state.counters["gzip_bytes"] = static_cast<double>(compressed);
    state.SetItemsProcessed(state.iterations() * fetchBatch);
}
BENCHMARK(BM_RawFetchConcatDeflate)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

// ---- (d) deletes ----

void BM_StoreDeleteByPayload(benchmark::State& state) {
    QuietConsole quiet;
    ScratchDir dir;
    EventRepository store(dir / "events.sqlite");
    int next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < deleteBatch; ++i) insertWaypoint(store, next++);
        const auto payloads = store.fetchEventsPayloadTo(std::nullopt, deleteBatch);
        state.ResumeTiming();
        if (store.deleteEventsWithPayload(payloads) != deleteBatch) state.SkipWithError("rows left behind");
    }
    state.SetItemsProcessed(state.iterations() * deleteBatch);
}
BENCHMARK(BM_StoreDeleteByPayload)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);

void BM_RawDeleteByIds(benchmark::State& state) {
    ScratchDir dir;
    RawStore raw(dir / "raw.sqlite");
    const auto payloads = encodedWaypoints(deleteBatch);
    int next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        raw.insertAll(payloads, next);
        next += deleteBatch;
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
        if (sqlite3_changes(raw.db) != deleteBatch) state.SkipWithError("rows left behind");
    }
    state.SetItemsProcessed(state.iterations() * deleteBatch);
}
BENCHMARK(BM_RawDeleteByIds)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);

// ---- (e) size on disk ----

void BM_StoreBytesPerEvent(benchmark::State& state) {
    constexpr int events = 20000;
    double bytesPerEvent = 0;
    for (auto _ : state) {
        ScratchDir dir;
        const auto path = dir / "events.sqlite";
        EventRepository store(path);
        for (int i = 0; i < events; ++i) insertWaypoint(store, i);
        benchmark::DoNotOptimize(store.eventsCount());
        store.coreDataManager().performAndWaitWithConnection(
            [](sqlite::Database* db) { db->exec("PRAGMA wal_checkpoint(TRUNCATE)"); });
        std::error_code ec;
        auto bytes = fs::file_size(path);
        const auto wal = fs::file_size(fs::path(path.string() + "-wal"), ec);
        if (!ec) bytes += wal;
        bytesPerEvent = static_cast<double>(bytes) / events;
    }
    state.counters["bytes_per_event"] = bytesPerEvent;
    state.counters["payload_bytes"] = static_cast<double>(EventEncoder().encode(waypoint(0)).size());
}
BENCHMARK(BM_StoreBytesPerEvent)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
