#include "collector/CollectorStore.h"

#include <stdexcept>

#include "events/SqliteDatabase.h"

namespace rovalis::collector {

namespace {

constexpr const char* schema = R"(
CREATE TABLE IF NOT EXISTS batches (
    row INTEGER PRIMARY KEY AUTOINCREMENT,
    batch_id TEXT NOT NULL UNIQUE,
    sequential_id INTEGER NOT NULL,
    device_id TEXT NOT NULL,
    event_count INTEGER NOT NULL,
    step TEXT NOT NULL,
    received_at_ms INTEGER NOT NULL,
    user_agent TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS batches_by_device ON batches(device_id, row);
CREATE TABLE IF NOT EXISTS events (
    row INTEGER PRIMARY KEY AUTOINCREMENT,
    batch_row INTEGER NOT NULL REFERENCES batches(row),
    position INTEGER NOT NULL,
    type TEXT NOT NULL,
    tracked_at_ms INTEGER NOT NULL,
    payload TEXT NOT NULL
);
)";

SequenceStep stepFromName(std::string_view name) {
    if (name == "next") return SequenceStep::next;
    if (name == "gap") return SequenceStep::gap;
    if (name == "step_back") return SequenceStep::stepBack;
    return SequenceStep::first;
}

}  // namespace

const char* stepName(SequenceStep step) {
    switch (step) {
        case SequenceStep::first: return "first";
        case SequenceStep::next: return "next";
        case SequenceStep::gap: return "gap";
        case SequenceStep::stepBack: return "step_back";
    }
    return "first";
}

CollectorStore::CollectorStore(const std::filesystem::path& path) {
    const std::string name = path.empty() ? std::string(":memory:") : path.string();
    try {
        db_ = std::make_unique<sqlite::Database>(name, true);
        if (name != ":memory:") db_->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
        db_->exec("PRAGMA foreign_keys=ON;");
        db_->exec(schema);
    } catch (const sqlite::Error& error) {
        throw std::runtime_error("cannot open the collector database " + name + ": " + error.what());
    }
}

CollectorStore::~CollectorStore() = default;

CollectorStore::Outcome CollectorStore::store(const BatchDocument& batch, const std::string& deviceId,
                                              const std::string& userAgent, std::int64_t receivedAtMs) {
    std::lock_guard lock(mutex_);
    try {
        sqlite::Transaction transaction(*db_);
        Outcome outcome;
        {
            sqlite::Statement seen(*db_, "SELECT 1 FROM batches WHERE batch_id = ?");
            seen.bindText(1, batch.id);
            if (seen.step()) {
                outcome.duplicate = true;
                return outcome;
            }
        }
        {
            sqlite::Statement last(*db_,
                                   "SELECT sequential_id FROM batches WHERE device_id = ? ORDER BY row DESC LIMIT 1");
            last.bindText(1, deviceId);
            if (last.step()) {
                const std::int64_t previous = last.columnInt64(0);
                if (batch.sequentialId <= previous) {
                    outcome.step = SequenceStep::stepBack;
                } else if (batch.sequentialId - previous == 1) {
                    outcome.step = SequenceStep::next;
                } else {
                    outcome.step = SequenceStep::gap;
                }
            }
        }
        sqlite::Statement insertBatch(*db_,
                                      "INSERT INTO batches (batch_id, sequential_id, device_id, event_count, step, "
                                      "received_at_ms, user_agent) VALUES (?, ?, ?, ?, ?, ?, ?)");
        insertBatch.bindText(1, batch.id);
        insertBatch.bind(2, batch.sequentialId);
        insertBatch.bindText(3, deviceId);
        insertBatch.bind(4, static_cast<std::int64_t>(batch.events.size()));
        insertBatch.bindText(5, stepName(outcome.step));
        insertBatch.bind(6, receivedAtMs);
        insertBatch.bindText(7, userAgent);
        insertBatch.run();
        const std::int64_t batchRow = db_->lastInsertRowid();

        sqlite::Statement insertEvent(
            *db_, "INSERT INTO events (batch_row, position, type, tracked_at_ms, payload) VALUES (?, ?, ?, ?, ?)");
        std::int64_t position = 0;
        for (const auto& event : batch.events) {
            insertEvent.reset();
            insertEvent.bind(1, batchRow);
            insertEvent.bind(2, position++);
            insertEvent.bindText(3, event.type);
            insertEvent.bind(4, event.trackedAtMs);
            insertEvent.bindText(5, event.payload);
            insertEvent.run();
        }
        transaction.commit();
        return outcome;
    } catch (const sqlite::Error& error) {
        throw std::runtime_error(std::string("could not store the batch: ") + error.what());
    }
}

std::vector<StoredBatch> CollectorStore::batches() const {
    std::lock_guard lock(mutex_);
    std::vector<StoredBatch> result;
    sqlite::Statement query(*db_,
                            "SELECT batch_id, sequential_id, device_id, event_count, step, user_agent FROM batches "
                            "ORDER BY row");
    while (query.step()) {
        result.push_back(StoredBatch{std::string(query.columnText(0)), query.columnInt64(1),
                                     std::string(query.columnText(2)), query.columnInt64(3),
                                     stepFromName(query.columnText(4)), std::string(query.columnText(5))});
    }
    return result;
}

std::vector<StoredEvent> CollectorStore::events() const {
    std::lock_guard lock(mutex_);
    std::vector<StoredEvent> result;
    sqlite::Statement query(*db_,
                            "SELECT b.batch_id, e.type, e.tracked_at_ms, e.payload FROM events e "
                            "JOIN batches b ON b.row = e.batch_row ORDER BY e.row");
    while (query.step()) {
        result.push_back(StoredEvent{std::string(query.columnText(0)), std::string(query.columnText(1)),
                                     query.columnInt64(2), std::string(query.columnText(3))});
    }
    return result;
}

StoreTotals CollectorStore::totals() const {
    std::lock_guard lock(mutex_);
    StoreTotals totals;
    {
        sqlite::Statement query(*db_,
                                "SELECT COUNT(*), COUNT(DISTINCT device_id), "
                                "COALESCE(SUM(step = 'gap'), 0), COALESCE(SUM(step = 'step_back'), 0) FROM batches");
        if (query.step()) {
            totals.batches = query.columnInt64(0);
            totals.devices = query.columnInt64(1);
            totals.sequentialIdGaps = query.columnInt64(2);
            totals.sequentialIdStepBacks = query.columnInt64(3);
        }
    }
    sqlite::Statement byType(*db_, "SELECT type, COUNT(*) FROM events GROUP BY type ORDER BY type");
    while (byType.step()) {
        const std::int64_t count = byType.columnInt64(1);
        totals.eventsByType[std::string(byType.columnText(0))] = count;
        totals.events += count;
    }
    return totals;
}

}  // namespace rovalis::collector
