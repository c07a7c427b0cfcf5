#include "collector/CollectorStore.h"

#include <openssl/evp.h>

#include <array>
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
    user_agent TEXT NOT NULL,
    content_digest TEXT
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

// SHA-256 over what makes a batch's content: its sequential id and its events' bytes in
// order, each event preceded by its length so that no two event lists hash alike by moving
// bytes from one event to its neighbour. Written as lower-case hex.
class ContentDigest {
public:
    explicit ContentDigest(std::int64_t sequentialId) : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
            throw std::runtime_error("SHA-256 is not available");
        }
        add("sequential_id:" + std::to_string(sequentialId) + "\n");
    }

    void addEvent(std::string_view payload) {
        add(std::to_string(payload.size()) + ":");
        add(payload);
    }

    std::string hex() {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned int length = 0;
        EVP_DigestFinal_ex(context_.get(), digest.data(), &length);
        static constexpr char digits[] = "0123456789abcdef";
        std::string text;
        for (unsigned int i = 0; i < length; ++i) {
            text += digits[digest[i] >> 4];
            text += digits[digest[i] & 0xF];
        }
        return text;
    }

private:
    void add(std::string_view bytes) { EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()); }

    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

std::string digestOf(const BatchDocument& batch) {
    ContentDigest digest(batch.sequentialId);
    for (const auto& event : batch.events) digest.addEvent(event.payload);
    return digest.hex();
}

// A batch stored by a collector from before the digest column has none; its stored events
// are its exact bytes, so the digest is worked out from them.
std::string storedDigestOf(sqlite::Database& db, std::int64_t batchRow, std::int64_t sequentialId) {
    ContentDigest digest(sequentialId);
    sqlite::Statement events(db, "SELECT payload FROM events WHERE batch_row = ? ORDER BY position");
    events.bind(1, batchRow);
    while (events.step()) digest.addEvent(events.columnText(0));
    return digest.hex();
}

bool hasColumn(sqlite::Database& db, std::string_view table, std::string_view column) {
    sqlite::Statement columns(db, "SELECT 1 FROM pragma_table_info(?) WHERE name = ?");
    columns.bindText(1, table);
    columns.bindText(2, column);
    return columns.step();
}

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
        // Files written before batches kept a digest of their content gain the column; their
        // rows are left without one (see storedDigestOf).
        if (!hasColumn(*db_, "batches", "content_digest")) {
            db_->exec("ALTER TABLE batches ADD COLUMN content_digest TEXT;");
        }
    } catch (const sqlite::Error& error) {
        throw std::runtime_error("cannot open the collector database " + name + ": " + error.what());
    }
}

CollectorStore::~CollectorStore() = default;

CollectorStore::Outcome CollectorStore::store(const BatchDocument& batch, const std::string& deviceId,
                                              const std::string& userAgent, std::int64_t receivedAtMs) {
    const std::string digest = digestOf(batch);  // outside the lock: a large batch takes milliseconds
    std::lock_guard lock(mutex_);
    try {
        sqlite::Transaction transaction(*db_);
        Outcome outcome;
        {
            sqlite::Statement seen(*db_,
                                   "SELECT row, sequential_id, content_digest IS NULL, content_digest FROM batches "
                                   "WHERE batch_id = ?");
            seen.bindText(1, batch.id);
            if (seen.step()) {
                const std::string storedDigest =
                    seen.columnInt64(2) != 0 ? storedDigestOf(*db_, seen.columnInt64(0), seen.columnInt64(1))
                                             : std::string(seen.columnText(3));
                if (storedDigest == digest) {
                    outcome.duplicate = true;
                } else {
                    outcome.conflict = true;
                }
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
                                      "received_at_ms, user_agent, content_digest) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
        insertBatch.bindText(1, batch.id);
        insertBatch.bind(2, batch.sequentialId);
        insertBatch.bindText(3, deviceId);
        insertBatch.bind(4, static_cast<std::int64_t>(batch.events.size()));
        insertBatch.bindText(5, stepName(outcome.step));
        insertBatch.bind(6, receivedAtMs);
        insertBatch.bindText(7, userAgent);
        insertBatch.bindText(8, digest);
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
