#pragma once

// The collection service's SQLite store: one row per accepted batch, holding its body as it
// was received (the gzip of the batch document) and how many events of each type it has,
// each batch written in one transaction. The events are read back by inflating and reading
// the stored bodies, one batch at a time. Batch ids are unique across devices; sequential
// ids are followed per device id. Each batch row keeps a SHA-256 digest of its content
// (sequential id and events), so a repeated id is told apart from an id reused for other
// content. The totals are kept as batches are stored, after being counted from the file
// when it is opened.
//
// Files written by earlier collectors, which kept one row per event (the earliest without
// digests), are converted when opened.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "collector/BatchValidator.h"

namespace rovalis::sqlite {
class Database;
}

namespace rovalis::collector {

// Where a batch stands in its device's run of sequential ids.
enum class SequenceStep {
    first,     // the device's first batch
    next,      // one more than the device's previous batch
    gap,       // more than one more
    stepBack,  // equal to or less than the previous one
};

struct StoredBatch {
    std::string id;
    std::int64_t sequentialId = 0;
    std::string deviceId;
    std::int64_t eventCount = 0;
    SequenceStep step = SequenceStep::first;
    std::string userAgent;  // the header's text as it was sent
};

struct StoredEvent {
    std::string batchId;
    std::string type;
    std::int64_t trackedAtMs = 0;
    std::string payload;  // the event's JSON object exactly as it was sent
};

// A stored event as it is read back; the texts are valid during the visit only.
struct StoredEventView {
    std::string_view batchId;
    std::string_view type;
    std::int64_t trackedAtMs = 0;
    std::string_view payload;
};

// What the store itself can count; the run's request figures are kept by the server.
struct StoreTotals {
    std::int64_t batches = 0;
    std::int64_t events = 0;
    std::int64_t devices = 0;
    std::int64_t sequentialIdGaps = 0;
    std::int64_t sequentialIdStepBacks = 0;
    std::map<std::string, std::int64_t> eventsByType;
};

class CollectorStore {
public:
    // An empty path or ":memory:" keeps everything in memory. Throws std::runtime_error with
    // the file's name when the file cannot be opened, set up or converted.
    explicit CollectorStore(const std::filesystem::path& path);
    ~CollectorStore();
    CollectorStore(const CollectorStore&) = delete;
    CollectorStore& operator=(const CollectorStore&) = delete;

    struct Outcome {
        bool duplicate = false;  // the id was accepted before with the same content; nothing was written
        bool conflict = false;   // the id was accepted before with other content; nothing was written
        SequenceStep step = SequenceStep::first;
    };

    // Keeps `body`, the request body the batch was read from (inflated into the document
    // `batch` points into). Safe from any thread. Throws std::runtime_error when SQLite fails;
    // nothing of the batch is kept then.
    Outcome store(const BatchDocument& batch, std::string_view body, const std::string& deviceId,
                  const std::string& userAgent, std::int64_t receivedAtMs);

    std::vector<StoredBatch> batches() const;  // in arrival order
    std::vector<StoredEvent> events() const;   // in arrival order, each batch's events in list order

    // Visits the events in arrival order (only those of the device's batches, when one is
    // given), passing over the first `offset` and stopping after `limit`. Batches are read
    // one at a time and without holding up uploads, so memory does not grow with the store;
    // batches stored meanwhile are not visited. Throws std::runtime_error when a stored batch
    // cannot be read.
    void forEachEvent(const std::optional<std::string>& deviceId,
                      const std::function<void(const StoredEventView&)>& visit, std::int64_t offset = 0,
                      std::int64_t limit = std::numeric_limits<std::int64_t>::max()) const;

    StoreTotals totals() const;

private:
    struct Statements;

    mutable std::mutex mutex_;  // the connection
    std::unique_ptr<sqlite::Database> db_;
    std::unique_ptr<Statements> statements_;
    mutable std::mutex totalsMutex_;
    StoreTotals totals_;
};

const char* stepName(SequenceStep step);

}  // namespace rovalis::collector
