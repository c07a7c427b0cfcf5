#include "collector/CollectorStore.h"

#include <openssl/evp.h>

#include <array>
#include <charconv>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "events/SqliteDatabase.h"
#include "upload/Gzip.h"

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
CREATE TABLE IF NOT EXISTS batch_bodies (
    batch_row INTEGER PRIMARY KEY REFERENCES batches(row),
    body BLOB NOT NULL
);
CREATE TABLE IF NOT EXISTS batch_event_types (
    batch_row INTEGER NOT NULL REFERENCES batches(row),
    type TEXT NOT NULL,
    count INTEGER NOT NULL,
    PRIMARY KEY (batch_row, type)
) WITHOUT ROWID;
)";

// SHA-256 over what makes a batch's content: its sequential id and its events' bytes in
// order, each event preceded by its length so that no two event lists hash alike by moving
// bytes from one event to its neighbour. Written as lower-case hex. The bytes are gathered
// in a buffer first: twenty thousand small updates cost more than the hashing.
class ContentDigest {
public:
    explicit ContentDigest(std::int64_t sequentialId) : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
            throw std::runtime_error("SHA-256 is not available");
        }
        buffer_.reserve(bufferSize);
        buffer_ = "sequential_id:" + std::to_string(sequentialId) + "\n";
    }

    void addEvent(std::string_view payload) {
        char length[24];
        const auto end = std::to_chars(length, length + sizeof length, payload.size()).ptr;
        add(std::string_view(length, static_cast<std::size_t>(end - length)));
        add(":");
        add(payload);
    }

    std::string hex() {
        flush();
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
    static constexpr std::size_t bufferSize = 64 * 1024;

    void add(std::string_view bytes) {
        if (buffer_.size() + bytes.size() > bufferSize) flush();
        if (bytes.size() > bufferSize) {
            EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
        } else {
            buffer_.append(bytes);
        }
    }
    void flush() {
        EVP_DigestUpdate(context_.get(), buffer_.data(), buffer_.size());
        buffer_.clear();
    }

    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
    std::string buffer_;
};

std::string digestOf(const BatchDocument& batch) {
    ContentDigest digest(batch.sequentialId);
    for (const auto& event : batch.events) digest.addEvent(event.payload);
    return digest.hex();
}

// How many events of each type, in order of first appearance. The types are the validator's
// names of kinds, so equal types are nearly always the same pointer.
std::vector<std::pair<std::string_view, std::int64_t>> typeCounts(const BatchDocument& batch) {
    std::vector<std::pair<std::string_view, std::int64_t>> counts;
    std::size_t last = 0;
    for (const auto& event : batch.events) {
        if (last < counts.size() && counts[last].first.data() == event.type.data()) {
            ++counts[last].second;
            continue;
        }
        last = 0;
        while (last < counts.size() && counts[last].first != event.type) ++last;
        if (last == counts.size()) counts.emplace_back(event.type, 0);
        ++counts[last].second;
    }
    return counts;
}

// Inflates a stored body and reads its document; `document` keeps the text the events
// point into.
void readStoredBatch(std::string_view body, std::string_view batchId, std::string& document, BatchDocument& batch) {
    auto rejection = gunzipBounded(body, std::numeric_limits<std::size_t>::max(), document);
    if (!rejection) rejection = parseBatchDocument(document, batch);
    if (rejection) {
        throw std::runtime_error("the stored batch " + std::string(batchId) + " cannot be read: " + rejection->message);
    }
}

bool hasColumn(sqlite::Database& db, std::string_view table, std::string_view column) {
    sqlite::Statement columns(db, "SELECT 1 FROM pragma_table_info(?) WHERE name = ?");
    columns.bindText(1, table);
    columns.bindText(2, column);
    return columns.step();
}

bool hasTable(sqlite::Database& db, std::string_view table) {
    sqlite::Statement tables(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?");
    tables.bindText(1, table);
    return tables.step();
}

void insertTypeCounts(sqlite::Statement& insert, std::int64_t batchRow,
                      const std::vector<std::pair<std::string_view, std::int64_t>>& counts) {
    for (const auto& [type, count] : counts) {
        insert.reset();
        sqlite::StatementReset done(insert);
        insert.bind(1, batchRow);
        insert.bindText(2, type);
        insert.bind(3, count);
        insert.run();
    }
}

// Earlier collectors kept a row per event in a table "events"; each of their batches gets a
// body (the gzip of its document, written the way the SDK writes one), its type counts and,
// when it has none, its digest, and the table goes. One transaction: a failure leaves the
// file as it was.
void convertEventRows(sqlite::Database& db) {
    sqlite::Transaction transaction(db);
    sqlite::Statement batches(db,
                              "SELECT row, batch_id, sequential_id, content_digest IS NULL FROM batches WHERE row NOT IN "
                              "(SELECT batch_row FROM batch_bodies) ORDER BY row");
    sqlite::Statement events(db, "SELECT type, payload FROM events WHERE batch_row = ? ORDER BY position");
    sqlite::Statement insertBody(db, "INSERT INTO batch_bodies (batch_row, body) VALUES (?, ?)");
    sqlite::Statement insertCount(db, "INSERT INTO batch_event_types (batch_row, type, count) VALUES (?, ?, ?)");
    sqlite::Statement setDigest(db, "UPDATE batches SET content_digest = ? WHERE row = ?");
    while (batches.step()) {
        const std::int64_t row = batches.columnInt64(0);
        const std::int64_t sequentialId = batches.columnInt64(2);
        std::string document = "{\"id\":" + nlohmann::json(std::string(batches.columnText(1))).dump() +
                               ",\"sequential_id\":" + std::to_string(sequentialId) + ",\"events\":[";
        ContentDigest digest(sequentialId);
        std::map<std::string, std::int64_t> counts;
        events.reset();
        events.bind(1, row);
        bool first = true;
        while (events.step()) {
            if (!first) document += ',';
            first = false;
            document += events.columnText(1);
            digest.addEvent(events.columnText(1));
            ++counts[std::string(events.columnText(0))];
        }
        events.reset();
        document += "]}";
        Error error;
        const auto body = dataByGZipCompressingWithError(document, &error);
        if (!body) throw std::runtime_error("cannot compress a batch: " + error.localizedDescription);
        insertBody.reset();
        insertBody.bind(1, row);
        insertBody.bindBlob(2, *body);
        insertBody.run();
        for (const auto& [type, count] : counts) {
            insertCount.reset();
            insertCount.bind(1, row);
            insertCount.bindText(2, type);
            insertCount.bind(3, count);
            insertCount.run();
        }
        if (batches.columnInt64(3) != 0) {
            const std::string hex = digest.hex();
            setDigest.reset();
            setDigest.bindText(1, hex);
            setDigest.bind(2, row);
            setDigest.run();
        }
    }
    batches.reset();
    db.exec("DROP TABLE events;");
    transaction.commit();
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

// Prepared once: a batch's few statements would otherwise be compiled again for each batch.
struct CollectorStore::Statements {
    explicit Statements(sqlite::Database& db)
        : seen(db, "SELECT row, content_digest FROM batches WHERE batch_id = ?"),
          previous(db, "SELECT sequential_id FROM batches WHERE device_id = ? ORDER BY row DESC LIMIT 1"),
          insertBatch(db,
                      "INSERT INTO batches (batch_id, sequential_id, device_id, event_count, step, received_at_ms, "
                      "user_agent, content_digest) VALUES (?, ?, ?, ?, ?, ?, ?, ?)"),
          insertBody(db, "INSERT INTO batch_bodies (batch_row, body) VALUES (?, ?)"),
          insertTypeCount(db, "INSERT INTO batch_event_types (batch_row, type, count) VALUES (?, ?, ?)"),
          body(db, "SELECT body FROM batch_bodies WHERE batch_row = ?") {}

    sqlite::Statement seen, previous, insertBatch, insertBody, insertTypeCount, body;
};

CollectorStore::CollectorStore(const std::filesystem::path& path) {
    const std::string name = path.empty() ? std::string(":memory:") : path.string();
    try {
        db_ = std::make_unique<sqlite::Database>(name, true);
        if (name != ":memory:") db_->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
        db_->exec("PRAGMA foreign_keys=ON;");
        db_->exec(schema);
        // Files of the earliest collectors have no digest column; their rows get theirs below.
        if (!hasColumn(*db_, "batches", "content_digest")) {
            db_->exec("ALTER TABLE batches ADD COLUMN content_digest TEXT;");
        }
        if (hasTable(*db_, "events")) convertEventRows(*db_);

        sqlite::Statement counts(*db_,
                                 "SELECT COUNT(*), COUNT(DISTINCT device_id), COALESCE(SUM(step = 'gap'), 0), "
                                 "COALESCE(SUM(step = 'step_back'), 0), COALESCE(SUM(event_count), 0) FROM batches");
        if (counts.step()) {
            totals_.batches = counts.columnInt64(0);
            totals_.devices = counts.columnInt64(1);
            totals_.sequentialIdGaps = counts.columnInt64(2);
            totals_.sequentialIdStepBacks = counts.columnInt64(3);
            totals_.events = counts.columnInt64(4);
        }
        sqlite::Statement byType(*db_, "SELECT type, SUM(count) FROM batch_event_types GROUP BY type");
        while (byType.step()) totals_.eventsByType[std::string(byType.columnText(0))] = byType.columnInt64(1);
        statements_ = std::make_unique<Statements>(*db_);
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot open the collector database " + name + ": " + error.what());
    }
}

CollectorStore::~CollectorStore() = default;

CollectorStore::Outcome CollectorStore::store(const BatchDocument& batch, std::string_view body,
                                              const std::string& deviceId, const std::string& userAgent,
                                              std::int64_t receivedAtMs) {
    // Outside the lock: a large batch takes milliseconds.
    const std::string digest = digestOf(batch);
    const auto counts = typeCounts(batch);
    Outcome outcome;
    {
        std::lock_guard lock(mutex_);
        Statements& s = *statements_;
        try {
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset done(s.seen);
                s.seen.bindText(1, batch.id);
                if (s.seen.step()) {
                    const bool same = s.seen.columnText(1) == digest;
                    (same ? outcome.duplicate : outcome.conflict) = true;
                    return outcome;
                }
            }
            {
                sqlite::StatementReset done(s.previous);
                s.previous.bindText(1, deviceId);
                if (s.previous.step()) {
                    const std::int64_t previous = s.previous.columnInt64(0);
                    if (batch.sequentialId <= previous) {
                        outcome.step = SequenceStep::stepBack;
                    } else if (batch.sequentialId - previous == 1) {
                        outcome.step = SequenceStep::next;
                    } else {
                        outcome.step = SequenceStep::gap;
                    }
                }
            }
            std::int64_t batchRow = 0;
            {
                sqlite::StatementReset done(s.insertBatch);
                s.insertBatch.bindText(1, batch.id);
                s.insertBatch.bind(2, batch.sequentialId);
                s.insertBatch.bindText(3, deviceId);
                s.insertBatch.bind(4, static_cast<std::int64_t>(batch.events.size()));
                s.insertBatch.bindText(5, stepName(outcome.step));
                s.insertBatch.bind(6, receivedAtMs);
                s.insertBatch.bindText(7, userAgent);
                s.insertBatch.bindText(8, digest);
                s.insertBatch.run();
                batchRow = db_->lastInsertRowid();
            }
            {
                sqlite::StatementReset done(s.insertBody);
                s.insertBody.bind(1, batchRow);
                s.insertBody.bindBlob(2, body);
                s.insertBody.run();
            }
            insertTypeCounts(s.insertTypeCount, batchRow, counts);
            transaction.commit();
        } catch (const sqlite::Error& error) {
            throw std::runtime_error(std::string("could not store the batch: ") + error.what());
        }
    }
    std::lock_guard lock(totalsMutex_);
    ++totals_.batches;
    totals_.events += static_cast<std::int64_t>(batch.events.size());
    for (const auto& [type, count] : counts) totals_.eventsByType[std::string(type)] += count;
    if (outcome.step == SequenceStep::first) ++totals_.devices;
    if (outcome.step == SequenceStep::gap) ++totals_.sequentialIdGaps;
    if (outcome.step == SequenceStep::stepBack) ++totals_.sequentialIdStepBacks;
    return outcome;
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

void CollectorStore::forEachEvent(const std::optional<std::string>& deviceId,
                                  const std::function<void(const StoredEventView&)>& visit, std::int64_t offset,
                                  std::int64_t limit) const {
    struct Listed {
        std::int64_t row;
        std::string batchId;
        std::int64_t eventCount;
    };
    std::vector<Listed> listed;
    {
        std::lock_guard lock(mutex_);
        sqlite::Statement query(*db_, deviceId ? "SELECT row, batch_id, event_count FROM batches WHERE device_id = ? "
                                                 "ORDER BY row"
                                               : "SELECT row, batch_id, event_count FROM batches ORDER BY row");
        if (deviceId) query.bindText(1, *deviceId);
        while (query.step()) {
            listed.push_back({query.columnInt64(0), std::string(query.columnText(1)), query.columnInt64(2)});
        }
    }
    std::string body, document;
    BatchDocument batch;
    for (const Listed& entry : listed) {
        if (limit <= 0) break;
        if (offset >= entry.eventCount) {
            offset -= entry.eventCount;
            continue;
        }
        {
            std::lock_guard lock(mutex_);
            sqlite::StatementReset done(statements_->body);
            statements_->body.bind(1, entry.row);
            if (!statements_->body.step()) {
                throw std::runtime_error("the stored batch " + entry.batchId + " has no body");
            }
            body.assign(statements_->body.columnBlob(0));
        }
        readStoredBatch(body, entry.batchId, document, batch);
        for (auto i = static_cast<std::size_t>(offset); i < batch.events.size() && limit > 0; ++i, --limit) {
            const BatchEvent& event = batch.events[i];
            visit(StoredEventView{entry.batchId, event.type, event.trackedAtMs, event.payload});
        }
        offset = 0;
    }
}

std::vector<StoredEvent> CollectorStore::events() const {
    std::vector<StoredEvent> result;
    forEachEvent(std::nullopt, [&result](const StoredEventView& event) {
        result.push_back(StoredEvent{std::string(event.batchId), std::string(event.type), event.trackedAtMs,
                                     std::string(event.payload)});
    });
    return result;
}

StoreTotals CollectorStore::totals() const {
    std::lock_guard lock(totalsMutex_);
    return totals_;
}

}  // namespace rovalis::collector
