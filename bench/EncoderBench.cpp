// The event JSON writer against a bare hand-written writer of the same records in the
// same run: same keys, same fields, std::to_chars for the numbers, no escaping and no
// checks. Both write each event into one reused std::string.
//
//   BM_EncodeWaypoint / BM_EncodeWaypointBare
//   BM_EncodeAcceleration / BM_EncodeAccelerationBare
//
// The "s/event" counter (time per event) is the figure to compare. And the SDK's gzip of a
// batch document of 20000 events in a real day's mix (DayMix.h) against zlib called directly
// with the same settings:
//
//   BM_GzipBatch / BM_GzipBatchRaw

#include <benchmark/benchmark.h>

#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "DayMix.h"
#include "RawStore.h"
#include "events/EventBatchGenerator.h"
#include "events/EventEncoder.h"
#include "upload/Gzip.h"

namespace {

using namespace rovalis;

constexpr int eventCount = 1024;

std::vector<EventRecord> waypoints() {
    std::vector<EventRecord> records;
    for (int i = 0; i < eventCount; ++i) {
        records.emplace_back(Waypoint(Date{1700000000.0 + i * 1.013}, 52.520008 + i * 1.7e-5, 13.404954 - i * 2.3e-5,
                                      1.2 + i * 0.01, (i * 7) % 360 + 0.5, 4.5 + (i % 13), 34.2 + i * 0.1, "regular"));
    }
    return records;
}

std::vector<EventRecord> accelerations() {
    std::vector<EventRecord> records;
    for (int i = 0; i < eventCount; ++i) {
        records.emplace_back(Acceleration(Date{1700000000.0 + i * 0.02}, Decimal{980 + (i * 37) % 500, 4}));
    }
    return records;
}

void setCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * eventCount);
    // Seconds per event, shown with an SI prefix ("310n" is 310 ns).
    state.counters["s/event"] = benchmark::Counter(
        eventCount, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// ---- The bare reference writer ----

template <std::size_t N>
inline void lit(std::string& out, const char (&text)[N]) {
    out.append(text, N - 1);
}

inline void number(std::string& out, double value) {
    char buffer[32];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

inline void integer(std::string& out, long long value) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

inline void time(std::string& out, Date date) {
    integer(out, static_cast<long long>(std::round(date.secondsSince1970 * 1000.0)));
}

void bareWaypoint(std::string& out, const Waypoint& r) {
    lit(out, "{\"accuracy\":");
    number(out, r.accuracy);
    lit(out, ",\"altitude\":");
    number(out, r.altitude);
    lit(out, ",\"bearing\":");
    number(out, r.bearing);
    lit(out, ",\"latitude\":");
    number(out, r.latitude);
    lit(out, ",\"longitude\":");
    number(out, r.longitude);
    lit(out, ",\"provider\":\"");
    out.append(r.provider);
    lit(out, "\",\"speed\":");
    number(out, r.speed);
    lit(out, ",\"tracked_at_ms\":");
    time(out, r.trackedAtMs);
    lit(out, ",\"type\":\"Waypoint\"}");
}

// Plain digits with the decimal point put in; the values here have no trailing zeros to drop.
void bareAcceleration(std::string& out, const Acceleration& r) {
    lit(out, "{\"magnitude\":");
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, r.magnitude.units).ptr;
    const std::size_t count = static_cast<std::size_t>(end - digits);
    const std::size_t scale = r.magnitude.scale;
    if (count > scale) {
        out.append(digits, count - scale);
        out.push_back('.');
        out.append(digits + count - scale, scale);
    } else {
        lit(out, "0.");
        out.append(scale - count, '0');
        out.append(digits, count);
    }
    lit(out, ",\"tracked_at_ms\":");
    time(out, r.trackedAtMs);
    lit(out, ",\"type\":\"Acceleration\"}");
}

// ---- Benchmarks ----

void encodeWith(benchmark::State& state, const std::vector<EventRecord>& records) {
    const EventEncoder encoder;
    std::string out;
    out.reserve(512);
    for (auto _ : state) {
        for (const auto& record : records) {
            out.clear();
            encoder.encode(record, out);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    }
    setCounters(state);
}

template <typename Record, void (*write)(std::string&, const Record&)>
void encodeBare(benchmark::State& state, const std::vector<EventRecord>& records) {
    std::vector<Record> plain;
    for (const auto& record : records) plain.push_back(std::get<Record>(record));
    std::string out;
    out.reserve(512);
    for (auto _ : state) {
        for (const auto& record : plain) {
            out.clear();
            write(out, record);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    }
    setCounters(state);
}

void BM_EncodeWaypoint(benchmark::State& state) { encodeWith(state, waypoints()); }
void BM_EncodeWaypointBare(benchmark::State& state) { encodeBare<Waypoint, bareWaypoint>(state, waypoints()); }
void BM_EncodeAcceleration(benchmark::State& state) { encodeWith(state, accelerations()); }
void BM_EncodeAccelerationBare(benchmark::State& state) {
    encodeBare<Acceleration, bareAcceleration>(state, accelerations());
}

BENCHMARK(BM_EncodeWaypoint);
BENCHMARK(BM_EncodeWaypointBare);
BENCHMARK(BM_EncodeAcceleration);
BENCHMARK(BM_EncodeAccelerationBare);

// ---- Gzip ----

const std::string& batchDocument() {
    static const std::string document = [] {
        const EventEncoder encoder;
        std::vector<EventPayload> payloads;
        for (const auto& event : bench::dayMixEvents(20000, Date{1705363200.0})) {
            payloads.push_back(EventPayload{std::string(typeOf(event)), trackedAtOf(event), encoder.encode(event), ""});
        }
        EventBatchGenerator generator;
        return generator.generateEventBatchFrom(payloads, "9B4E3C2A-5D6F-4A1B-8C7D-0E9F8A7B6C5D", 42);
    }();
    return document;
}

void BM_GzipBatch(benchmark::State& state) {
    const std::string& document = batchDocument();
    std::size_t compressed = 0;
    for (auto _ : state) {
        const auto gzipped = dataByGZipCompressingWithError(document, nullptr);
        if (!gzipped) state.SkipWithError("gzip failed");
        compressed = gzipped ? gzipped->size() : 0;
    }
    state.counters["gzip_bytes"] = static_cast<double>(compressed);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(document.size()));
}
BENCHMARK(BM_GzipBatch)->Unit(benchmark::kMillisecond);

// Default level, gzip wrapper, memory level 8, default strategy, in one call.
void BM_GzipBatchRaw(benchmark::State& state) {
    const std::string& document = batchDocument();
    std::size_t compressed = 0;
    for (auto _ : state) {
        const std::string out = bench::rawGzip(document);
        compressed = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["gzip_bytes"] = static_cast<double>(compressed);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(document.size()));
}
BENCHMARK(BM_GzipBatchRaw)->Unit(benchmark::kMillisecond);

}  // namespace
