#pragma once

// The local collection service: accepts the SDK's event batches over plain HTTP on a
// loopback address, checks every request strictly, stores accepted batches in SQLite and
// can inject faults. It runs on threads of its own, so a test can start one in-process.
//
// Endpoints
//   POST /api/event_batches  the upload. Refusals are 4xx with a plain-text reason; an
//                            accepted batch is 200 with {"message": "..."}. A batch id
//                            received before is 200 again when the content (sequential id
//                            and events, byte for byte, in order) is the same, and is not
//                            stored again; with other content it is 409 and nothing is
//                            stored, so a client that reuses an id for other events is seen.
//   GET  /api/stats          the figures of Stats as JSON (see statsJson).
//   GET  /api/events         every stored event in arrival order (see eventsJson); with
//                            ?device_id=ID only those of that device's batches, and with
//                            &offset=N&limit=M (each optional) the M after the first N of
//                            them, so a long history can be read a page at a time.
//   GET  /control/faults     the fault settings as JSON.
//   POST /control/faults     replaces the fault settings with a JSON object of these keys,
//                            each optional (absent means off / the default):
//                              {"fail_every": N, "fail_status": S, "fail_body": "text",
//                               "delay_ms": N, "drop_every": N, "garbage_every": N,
//                               "close_after_store_every": N, "reset_after_store_every": N,
//                               "late_answer_every": N, "late_answer_ms": N,
//                               "trickle_every": N, "trickle_interval_ms": N}
//                            and answers the new settings. Changing them restarts the
//                            request count that "every N" refers to.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collector/CollectorStore.h"

namespace rovalis::collector {

// Faults apply to batch uploads only. "Every N" counts batch requests since the faults were
// last set: request N, 2N, ... is hit. At most one fault besides the delay acts on a request.
// A drop or a failure acts before anything is stored (a drop wins over a failure). The others
// act only on a request that would be answered 200 (a batch stored now, or a repeat of one
// stored before): its batch is stored as usual and then the answer is lost or spoilt. Among
// them the first that hits wins, in this order: close after store, reset after store, late
// answer, trickle, garbage.
struct FaultOptions {
    int failEvery = 0;                       // answer failStatus with failBody; nothing is stored
    int failStatus = 503;
    std::string failBody = "injected failure";
    int delayMs = 0;                         // every batch request waits this long before it is handled
    int dropEvery = 0;                       // close the connection after the first part of the body, no answer
    int garbageEvery = 0;                    // a valid batch is stored and answered 200 with a body that is not JSON
    int closeAfterStoreEvery = 0;            // store, then close the connection (FIN) without an answer
    int resetAfterStoreEvery = 0;            // store, then reset the connection (RST) without an answer
    int lateAnswerEvery = 0;                 // store, then hold the answer for lateAnswerMs
    int lateAnswerMs = 70000;                // past the SDK's 60 s idle time-out
    int trickleEvery = 0;                    // store, then write the answer one byte per trickleIntervalMs,
    int trickleIntervalMs = 5000;            //   status line and headers included

    friend bool operator==(const FaultOptions&, const FaultOptions&) = default;
};

struct CollectorOptions {
    std::string host = "127.0.0.1";
    int port = 8080;                         // 0 picks a free port
    std::filesystem::path databasePath;      // SQLite file; empty or ":memory:" keeps it in memory
    FaultOptions faults;
    std::size_t maxBodyBytes = 64u << 20;        // compressed, as received
    std::size_t maxInflatedBytes = 512u << 20;   // the batch document
};

struct Stats {
    std::int64_t batches = 0;                // stored batches (all runs on the same file)
    std::int64_t events = 0;
    std::map<std::string, std::int64_t> eventsByType;
    std::int64_t devices = 0;
    std::int64_t sequentialIdGaps = 0;
    std::int64_t sequentialIdStepBacks = 0;
    // The figures below count this run only.
    std::int64_t batchRequests = 0;          // every request that reached the upload endpoint
    std::int64_t duplicatesRefused = 0;      // a repeat with the same content: answered 200, not stored again
    std::int64_t conflicts = 0;              // a batch id received before with other content: 409
    std::int64_t bodyBytes = 0;              // request bodies received whole, as sent (compressed)
    std::int64_t documentBytes = 0;          // the batch documents of accepted requests, inflated
    std::map<int, std::int64_t> requestsRejected;      // by status, refusals (conflicts among them, as 409)
    // "fail", "drop", "garbage", "delay", "close_after_store", "reset_after_store",
    // "late_answer", "trickle"
    std::map<std::string, std::int64_t> faultsInjected;
};

// {"batches", "events", "events_by_type", "devices", "sequential_id_gaps",
//  "sequential_id_step_backs", "batch_requests", "duplicates_refused", "conflicts", "body_bytes",
//  "document_bytes",
//  "requests_rejected" (status text to count), "faults_injected"}
std::string statsJson(const Stats& stats);

// [{"batch_id", "type", "tracked_at_ms", "payload" (the event's JSON text as sent)}, ...]
std::string eventsJson(const std::vector<StoredEvent>& events);

class CollectorServer {
public:
    // Opens the database (throws std::runtime_error when it cannot); serves nothing yet.
    explicit CollectorServer(CollectorOptions options);
    ~CollectorServer();  // stops
    CollectorServer(const CollectorServer&) = delete;
    CollectorServer& operator=(const CollectorServer&) = delete;

    // Binds and serves on threads of its own. Throws std::runtime_error naming the address
    // when it cannot bind. Once it returns, connections are accepted.
    void start();
    // Stops accepting, lets requests in progress finish (their batches are stored) and
    // closes idle connections. A delay, late answer or trickle in progress is cut short: its
    // answer goes out whole at once. Safe to call more than once.
    void stop();

    int port() const;             // the bound port, once started
    std::string baseURL() const;  // "http://<host>:<port>/"

    Stats stats() const;
    void setFaults(FaultOptions faults);
    FaultOptions faults() const;

    std::vector<StoredBatch> batches() const;  // in arrival order
    std::vector<StoredEvent> events() const;   // in arrival order
    // Visits the stored events in arrival order (of the device's batches only, when given),
    // one stored batch in memory at a time; see CollectorStore::forEachEvent.
    void forEachEvent(const std::optional<std::string>& deviceId,
                      const std::function<void(const StoredEventView&)>& visit) const;

    // Wait, up to the timeout, until this many batches are stored / this many batch requests
    // have been handled (answered, refused, failed or dropped). True when reached.
    bool waitForBatches(std::size_t count, std::chrono::milliseconds timeout) const;
    bool waitForBatchRequests(std::size_t count, std::chrono::milliseconds timeout) const;
    // Wait, up to the timeout, until the figures satisfy the condition (checked whenever a
    // batch request moves on). True when they do.
    bool waitForStats(const std::function<bool(const Stats&)>& condition, std::chrono::milliseconds timeout) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace rovalis::collector
