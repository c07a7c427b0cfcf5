#pragma once

// The collection service's SQLite store: one row per accepted batch, one per event, each
// batch written in one transaction. Batch ids are unique across devices; sequential ids are
// followed per device id. Each batch row keeps a SHA-256 digest of its content (sequential
// id and events), so a repeated id is told apart from an id reused for other content.
// A file from before the digest column gains it when opened; its older rows have no digest
// stored, and theirs is worked out from their stored events when their id comes again.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
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
    // the file's name when the file cannot be opened or set up.
    explicit CollectorStore(const std::filesystem::path& path);
    ~CollectorStore();
    CollectorStore(const CollectorStore&) = delete;
    CollectorStore& operator=(const CollectorStore&) = delete;

    struct Outcome {
        bool duplicate = false;  // the id was accepted before with the same content; nothing was written
        bool conflict = false;   // the id was accepted before with other content; nothing was written
        SequenceStep step = SequenceStep::first;
    };

    // Safe from any thread. Throws std::runtime_error when SQLite fails; nothing of the
    // batch is kept then.
    Outcome store(const BatchDocument& batch, const std::string& deviceId, const std::string& userAgent,
                  std::int64_t receivedAtMs);

    std::vector<StoredBatch> batches() const;  // in arrival order
    std::vector<StoredEvent> events() const;   // in arrival order, each batch's events in list order
    StoreTotals totals() const;

private:
    mutable std::mutex mutex_;
    std::unique_ptr<sqlite::Database> db_;
};

const char* stepName(SequenceStep step);

}  // namespace rovalis::collector
