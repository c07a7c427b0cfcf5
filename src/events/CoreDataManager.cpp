#include "events/CoreDataManager.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "events/SqliteDatabase.h"
#include "rovalis/Console.h"
#include "util/Fatal.h"
#include "rovalis/Uuid.h"

namespace rovalis {

namespace {

// 1: the events and the store's identity. 2: adds the pending batch.
constexpr int schemaVersion = 2;

// Rows named per delete statement. Unused places are bound to NULL, which matches no id,
// so one prepared statement serves every chunk.
constexpr int deleteChunkSize = 500;

constexpr const char* schemaSql =
    "CREATE TABLE IF NOT EXISTS EventEntity ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " type TEXT NOT NULL,"
    " tracked_at_ms REAL NOT NULL,"  // seconds since 1970, like the record's date
    " payload BLOB NOT NULL);"
    "CREATE INDEX IF NOT EXISTS EventEntity_tracked_at ON EventEntity (tracked_at_ms, id);"
    "CREATE TABLE IF NOT EXISTS StoreMetadata ("
    " singleton INTEGER PRIMARY KEY CHECK (singleton = 1),"
    " store_uuid TEXT NOT NULL);"
    // The batch waiting for the service's acceptance: its identity, how many stored events it
    // holds, and the closing event that travels with it without being stored.
    "CREATE TABLE IF NOT EXISTS PendingBatch ("
    " singleton INTEGER PRIMARY KEY CHECK (singleton = 1),"
    " batch_id TEXT NOT NULL,"
    " sequential_id INTEGER NOT NULL,"
    " event_count INTEGER NOT NULL,"
    " closing_type TEXT,"
    " closing_tracked_at REAL,"
    " closing_payload BLOB);"
    "CREATE TABLE IF NOT EXISTS PendingBatchEvent (event_id INTEGER PRIMARY KEY);";

std::string describe(const sqlite::Error& error) {
    return std::string(error.what()) + " (SQLite result code " + std::to_string(error.extendedCode()) + ")";
}

std::string deleteChunkSql() {
    std::string sql = "DELETE FROM EventEntity WHERE id IN (";
    for (int i = 0; i < deleteChunkSize; ++i) sql += i ? ",?" : "?";
    sql += ")";
    return sql;
}

// A failed read or delete. A full disk or an I/O error is the environment's fault: it is
// reported and the caller gets an empty result (nothing is lost; the rows stay stored and
// a later attempt finds them). Anything else is a programming error.
void failed(const char* prefix, const sqlite::Error& error) {
    if (!error.isEnvironmental()) fatalError(prefix + describe(error));
    Console::log(prefix + std::string(error.what()));
}

// An open failure that is not SQLite's: the file could not be created or opened.
struct FileError {
    std::string description;
};

}  // namespace

struct CoreDataManager::Statements {
    explicit Statements(sqlite::Database& db)
        : insert(db, "INSERT INTO EventEntity (type, tracked_at_ms, payload) VALUES (?1, ?2, ?3)"),
          fetchAscending(db,
                         "SELECT id, type, tracked_at_ms, payload FROM EventEntity"
                         " WHERE tracked_at_ms > ?1 AND tracked_at_ms <= ?2"
                         " ORDER BY tracked_at_ms ASC, id ASC LIMIT ?3"),
          fetchDescending(db,
                          "SELECT id, type, tracked_at_ms, payload FROM EventEntity"
                          " WHERE tracked_at_ms > ?1 AND tracked_at_ms <= ?2"
                          " ORDER BY tracked_at_ms DESC, id DESC LIMIT ?3"),
          count(db, "SELECT COUNT(*) FROM EventEntity"),
          deleteUpTo(db, "DELETE FROM EventEntity WHERE tracked_at_ms <= ?1"),
          deleteUpToId(db, "DELETE FROM EventEntity WHERE id <= ?1"),
          deleteChunk(db, deleteChunkSql()),
          readPendingBatch(db,
                           "SELECT batch_id, sequential_id, event_count, closing_type, closing_tracked_at,"
                           " closing_payload FROM PendingBatch WHERE singleton = 1"),
          fetchPendingEvents(db,
                             "SELECT e.id, e.type, e.tracked_at_ms, e.payload FROM PendingBatchEvent b"
                             " JOIN EventEntity e ON e.id = b.event_id ORDER BY e.tracked_at_ms ASC, e.id ASC"),
          insertPendingBatch(db,
                             "INSERT INTO PendingBatch (singleton, batch_id, sequential_id, event_count,"
                             " closing_type, closing_tracked_at, closing_payload)"
                             " VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6)"),
          insertPendingEvent(db, "INSERT INTO PendingBatchEvent (event_id) VALUES (?1)"),
          countPendingEventsStored(db,
                                   "SELECT COUNT(*) FROM PendingBatchEvent b JOIN EventEntity e ON e.id = b.event_id"),
          pendingBatchId(db, "SELECT batch_id FROM PendingBatch WHERE singleton = 1"),
          deletePendingEvents(db, "DELETE FROM EventEntity WHERE id IN (SELECT event_id FROM PendingBatchEvent)"),
          forgetPendingEvents(db, "DELETE FROM PendingBatchEvent"),
          forgetPendingBatch(db, "DELETE FROM PendingBatch") {}

    sqlite::Statement insert, fetchAscending, fetchDescending, count, deleteUpTo, deleteUpToId, deleteChunk;
    sqlite::Statement readPendingBatch, fetchPendingEvents, insertPendingBatch, insertPendingEvent,
        countPendingEventsStored, pendingBatchId, deletePendingEvents, forgetPendingEvents, forgetPendingBatch;
};

CoreDataManager::CoreDataManager(std::filesystem::path path, std::shared_ptr<WorkTracker> tracker)
    : path_(std::move(path)), background_(backgroundQueueLabel, std::move(tracker)) {
    background_.sync([this] { load(/*reportFailure=*/true); });
}

CoreDataManager::~CoreDataManager() {
    // Write what is still queued, then close the connection on its own executor.
    background_.sync([this] {
        saveContext();
        if (!writing_.empty()) {
            Console::log(std::to_string(writing_.size()) + " events could not be stored before the store closed");
        }
        statements_.reset();
        db_.reset();
    });
}

template <typename Fn>
auto CoreDataManager::performAndWait(Fn&& fn) {
    return syncResult(background_, std::forward<Fn>(fn));
}

// ---- Opening ----

// What happens when the store cannot be opened:
// - The file is there but is not a database (or is damaged beyond reading): it is renamed
//   to "<file>.unreadable-<unix ms>", untouched, and a fresh store is created in its
//   place. Nothing stored is destroyed, and events recorded from now on are kept.
// - Anything else (a directory that cannot be read, no permission, no space to create
//   the file) is a fault of the environment, not of the program: the store runs without
//   a file rather than stopping the host. Inserts wait in memory and each save tries to
//   open the store again, so a fault that passes loses nothing.
// Either way one console line tells what happened.
void CoreDataManager::load(bool reportFailure) {
    const auto report = [reportFailure](const std::string& description) {
        if (reportFailure) Console::log("Load persistent stores finished with error = " + description);
    };
    try {
        openAndPrepare();
        return;
    } catch (const FileError& error) {
        report(error.description);
        return;
    } catch (const sqlite::Error& error) {
        statements_.reset();
        db_.reset();
        if (error.code() != SQLITE_NOTADB && error.code() != SQLITE_CORRUPT) {
            report(describe(error) + " opening \"" + path_.string() +
                   "\"; events are not stored while the store cannot be opened");
            return;
        }
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
        std::filesystem::path aside = path_;
        aside += ".unreadable-" + std::to_string(ms);
        std::error_code ec;
        std::filesystem::rename(path_, aside, ec);
        if (ec) {
            report(describe(error) + " opening \"" + path_.string() + "\"; it could not be moved aside (" +
                   ec.message() + "), so events are not stored");
            return;
        }
        // The journal files belong to the unreadable file: they move with it, under the
        // names SQLite would look for beside it.
        for (const char* suffix : {"-wal", "-shm"}) {
            std::filesystem::path journal = path_;
            journal += suffix;
            std::filesystem::path journalAside = aside;
            journalAside += suffix;
            std::error_code ignored;
            if (std::filesystem::exists(journal, ignored)) std::filesystem::rename(journal, journalAside, ignored);
        }
        report(describe(error) + " opening \"" + path_.string() + "\"; the file was kept as \"" +
               aside.string() + "\" and a new store was created");
    }
    try {
        openAndPrepare();
    } catch (const FileError& error) {
        report(error.description);
    } catch (const sqlite::Error& error) {
        statements_.reset();
        db_.reset();
        report(describe(error) + " creating a new store at \"" + path_.string() + "\"");
    }
}

void CoreDataManager::openAndPrepare() {
    // Create the file private to the user before SQLite opens it; the journal files SQLite
    // makes beside it take the same mode.
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw FileError{std::string(std::strerror(errno)) + " opening \"" + path_.string() +
                        "\"; events are not stored while the store cannot be opened"};
    }
    ::fchmod(fd, 0600);
    ::close(fd);

    db_ = std::make_unique<sqlite::Database>(path_.string(), true);
    db_->exec("PRAGMA busy_timeout = 5000");
    db_->exec("PRAGMA journal_mode = WAL");
    // In WAL mode NORMAL keeps the file consistent on power loss and loses nothing when
    // the process dies; only the last commits before a power cut may be missing.
    db_->exec("PRAGMA synchronous = NORMAL");
    {
        sqlite::Transaction transaction(*db_);
        db_->exec(schemaSql);
        db_->exec("PRAGMA user_version = " + std::to_string(schemaVersion));
        const std::string uuid = Uuid::random().uuidString();
        sqlite::Statement ensure(*db_, "INSERT OR IGNORE INTO StoreMetadata (singleton, store_uuid) VALUES (1, ?1)");
        ensure.bindText(1, uuid);
        ensure.run();
        sqlite::Statement read(*db_, "SELECT store_uuid FROM StoreMetadata WHERE singleton = 1");
        if (read.step()) storeIdentifier_ = std::string(read.columnText(0));
        transaction.commit();
    }
    statements_ = std::make_unique<Statements>(*db_);
    uriPrefix_ = std::string(uriScheme) + "://" + storeIdentifier_ + "/" + entityName + "/p";
    loaded_.store(true);
}

bool CoreDataManager::ensureLoaded() {
    if (loaded_.load()) return true;
    load(/*reportFailure=*/false);
    if (!loaded_.load()) return false;
    Console::log("Persistent store loaded at \"" + path_.string() + "\"; " + std::to_string(writing_.size()) +
                 " waiting events are written now");
    return true;
}

// ---- Writing ----

void CoreDataManager::enqueue(PendingRow row) {
    bool schedule = false;
    {
        std::lock_guard lock(pendingMutex_);
        pending_.push_back(std::move(row));
        schedule = !std::exchange(saveScheduled_, true);
    }
    if (schedule) background_.async([this] { saveContext(); });
}

void CoreDataManager::enqueue(std::vector<PendingRow>&& rows) {
    if (rows.empty()) return;
    bool schedule = false;
    {
        std::lock_guard lock(pendingMutex_);
        if (pending_.empty()) {
            pending_.swap(rows);
        } else {
            pending_.insert(pending_.end(), std::make_move_iterator(rows.begin()),
                            std::make_move_iterator(rows.end()));
        }
        schedule = !std::exchange(saveScheduled_, true);
    }
    if (schedule) background_.async([this] { saveContext(); });
}

// On the executor: moves the queued rows behind any kept from a failed save.
void CoreDataManager::takePending() {
    {
        std::lock_guard lock(pendingMutex_);
        saveScheduled_ = false;
        if (writing_.empty()) {
            writing_.swap(pending_);
        } else {
            writing_.insert(writing_.end(), std::make_move_iterator(pending_.begin()),
                            std::make_move_iterator(pending_.end()));
            pending_.clear();
        }
    }
    if (writing_.size() > maxWaitingRows) {
        const std::size_t dropped = writing_.size() - maxWaitingRows;
        writing_.erase(writing_.begin(), writing_.begin() + static_cast<std::ptrdiff_t>(dropped));
        Console::log("Dropped the oldest " + std::to_string(dropped) + " of the events waiting to be stored: " +
                     "the store has not been writable for " + std::to_string(maxWaitingRows) + " events");
    }
}

void CoreDataManager::saveContext() {
    takePending();
    if (!ensureLoaded() || writing_.empty()) return;
    if (writeRows()) writing_.clear();
}

// Writes writing_ in one transaction. A full disk or an I/O error leaves the rows in
// writing_ for the next save; any other failure is a programming error.
bool CoreDataManager::writeRows() {
    try {
        sqlite::Transaction transaction(*db_);
        auto& insert = statements_->insert;
        for (const auto& row : writing_) {
            sqlite::StatementReset resetAfter(insert);
            insert.bindText(1, row.type);
            insert.bind(2, row.trackedAt);
            insert.bindBlob(3, row.payload);
            insert.run();
        }
        transaction.commit();
        return true;
    } catch (const sqlite::Error& error) {
        if (!error.isEnvironmental()) fatalError("Failed to save context: " + describe(error));
        Console::log("Failed to save context: " + std::string(error.what()));
        return false;
    }
}

std::optional<std::int64_t> CoreDataManager::insertAndWait(PendingRow row) {
    return performAndWait([&]() -> std::optional<std::int64_t> {
        takePending();
        writing_.push_back(std::move(row));
        if (!ensureLoaded() || !writeRows()) return std::nullopt;
        writing_.clear();
        return db_->lastInsertRowid();
    });
}

// ---- Reading and deleting ----

std::vector<EventPayload> CoreDataManager::fetch(Date lower, Date upper, bool ascending, std::int64_t limit) {
    return performAndWait([&] {
        std::vector<EventPayload> result;
        saveContext();
        if (!loaded_) return result;
        auto& fetch = ascending ? statements_->fetchAscending : statements_->fetchDescending;
        try {
            sqlite::StatementReset resetAfter(fetch);
            fetch.bind(1, lower.secondsSince1970);
            fetch.bind(2, upper.secondsSince1970);
            fetch.bind(3, limit > 0 ? limit : std::int64_t{-1});
            if (limit > 0) result.reserve(static_cast<std::size_t>(std::min<std::int64_t>(limit, 20000)));
            while (fetch.step()) {
                result.push_back(EventPayload{std::string(fetch.columnText(1)), Date{fetch.columnDouble(2)},
                                              std::string(fetch.columnBlob(3)),
                                              uriRepresentation(fetch.columnInt64(0))});
            }
        } catch (const sqlite::Error& error) {
            failed("Failed to fetch BaseEvents: ", error);
            result.clear();
        }
        return result;
    });
}

long CoreDataManager::count() {
    return performAndWait([&]() -> long {
        saveContext();
        if (!loaded_) return 0;
        auto& count = statements_->count;
        try {
            sqlite::StatementReset resetAfter(count);
            return count.step() ? static_cast<long>(count.columnInt64(0)) : 0;
        } catch (const sqlite::Error& error) {
            failed("Failed to fetch BaseEvents: ", error);
            return 0;
        }
    });
}

long CoreDataManager::deleteUpTo(Date date) {
    return performAndWait([&]() -> long {
        saveContext();
        if (!loaded_) return 0;
        auto& remove = statements_->deleteUpTo;
        long deleted = 0;
        try {
            sqlite::StatementReset resetAfter(remove);
            remove.bind(1, date.secondsSince1970);
            remove.run();
            deleted = db_->changes();
        } catch (const sqlite::Error& error) {
            failed("Failed to execute batch delete events request: ", error);
            return 0;
        }
        Console::log("Successfully deleted EventEntity objects");
        return deleted;
    });
}

long CoreDataManager::deleteUpToId(std::int64_t id) {
    return performAndWait([&]() -> long {
        saveContext();
        if (!loaded_) return 0;
        auto& remove = statements_->deleteUpToId;
        try {
            sqlite::StatementReset resetAfter(remove);
            remove.bind(1, id);
            remove.run();
        } catch (const sqlite::Error& error) {
            failed("Failed to execute batch delete events request: ", error);
            return 0;
        }
        Console::log("Successfully deleted EventEntity objects");
        return db_->changes();
    });
}

long CoreDataManager::deleteObjects(const std::vector<std::int64_t>& ids) {
    return performAndWait([&]() -> long {
        saveContext();
        if (!loaded_) return 0;
        auto& remove = statements_->deleteChunk;
        long deleted = 0;
        try {
            sqlite::Transaction transaction(*db_);
            for (std::size_t start = 0; start < ids.size(); start += deleteChunkSize) {
                sqlite::StatementReset resetAfter(remove);
                const std::size_t end = std::min(ids.size(), start + deleteChunkSize);
                for (std::size_t i = start; i < end; ++i) remove.bind(static_cast<int>(i - start + 1), ids[i]);
                // Places past the end stay unbound, which is NULL.
                remove.run();
                deleted += db_->changes();
            }
            transaction.commit();
        } catch (const sqlite::Error& error) {
            failed("Failed to execute batch delete events request: ", error);
            return 0;
        }
        Console::log("Successfully deleted EventEntity objects");
        return deleted;
    });
}

// ---- The pending batch ----

CoreDataManager::BatchRecording CoreDataManager::recordPendingBatch(const std::string& batchId,
                                                                  std::int64_t sequentialId,
                                                                  const std::vector<std::int64_t>& eventIds,
                                                                  const std::optional<EventPayload>& closingEvent) {
    return performAndWait([&] {
        saveContext();
        if (!loaded_) return BatchRecording::notWritten;
        auto& statements = *statements_;
        try {
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset resetAfter(statements.pendingBatchId);
                if (statements.pendingBatchId.step()) return BatchRecording::anotherPending;
            }
            {
                auto& insert = statements.insertPendingBatch;
                sqlite::StatementReset resetAfter(insert);
                insert.bindText(1, batchId);
                insert.bind(2, sequentialId);
                insert.bind(3, static_cast<std::int64_t>(eventIds.size()));
                if (closingEvent) {
                    insert.bindText(4, closingEvent->type);
                    insert.bind(5, closingEvent->trackedAtMs.secondsSince1970);
                    insert.bindBlob(6, closingEvent->payload);
                }
                insert.run();
            }
            auto& member = statements.insertPendingEvent;
            for (const std::int64_t id : eventIds) {
                sqlite::StatementReset resetAfter(member);
                member.bind(1, id);
                member.run();
            }
            // Every event must still be stored, or the batch could not be sent again as it is.
            std::int64_t stored = 0;
            {
                auto& count = statements.countPendingEventsStored;
                sqlite::StatementReset resetAfter(count);
                if (count.step()) stored = count.columnInt64(0);
            }
            if (stored != static_cast<std::int64_t>(eventIds.size())) return BatchRecording::eventsMissing;
            transaction.commit();
            return BatchRecording::recorded;
        } catch (const sqlite::Error& error) {
            // The same id twice in the list breaks the member table's key: a caller's mistake.
            if (error.code() == SQLITE_CONSTRAINT) fatalError("Failed to record the pending batch: " + describe(error));
            failed("Failed to record the pending batch: ", error);
            return BatchRecording::notWritten;
        }
    });
}

std::optional<PendingBatch> CoreDataManager::pendingBatch() {
    return performAndWait([&]() -> std::optional<PendingBatch> {
        saveContext();
        if (!loaded_) return std::nullopt;
        auto& statements = *statements_;
        PendingBatch batch;
        try {
            std::int64_t expected = 0;
            std::optional<EventPayload> closing;
            {
                auto& read = statements.readPendingBatch;
                sqlite::StatementReset resetAfter(read);
                if (!read.step()) return std::nullopt;
                batch.batchId = std::string(read.columnText(0));
                batch.sequentialId = read.columnInt64(1);
                expected = read.columnInt64(2);
                if (!read.columnText(3).empty()) {
                    closing = EventPayload{std::string(read.columnText(3)), Date{read.columnDouble(4)},
                                           std::string(read.columnBlob(5)), ""};
                }
            }
            auto& fetch = statements.fetchPendingEvents;
            sqlite::StatementReset resetAfter(fetch);
            batch.events.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(expected, 0, 20000)) + 1);
            while (fetch.step()) {
                batch.events.push_back(EventPayload{std::string(fetch.columnText(1)), Date{fetch.columnDouble(2)},
                                                    std::string(fetch.columnBlob(3)),
                                                    uriRepresentation(fetch.columnInt64(0))});
            }
            batch.complete = static_cast<std::int64_t>(batch.events.size()) == expected;
            if (closing) batch.events.push_back(std::move(*closing));
        } catch (const sqlite::Error& error) {
            failed("Failed to fetch the pending batch: ", error);
            return std::nullopt;
        }
        return batch;
    });
}

std::optional<long> CoreDataManager::deleteAcceptedBatch(const std::string& batchId) {
    return performAndWait([&]() -> std::optional<long> {
        saveContext();
        if (!loaded_) return std::nullopt;
        auto& statements = *statements_;
        long deleted = 0;
        try {
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset resetAfter(statements.pendingBatchId);
                if (!statements.pendingBatchId.step() || statements.pendingBatchId.columnText(0) != batchId) {
                    return std::nullopt;
                }
            }
            {
                sqlite::StatementReset resetAfter(statements.deletePendingEvents);
                statements.deletePendingEvents.run();
                deleted = db_->changes();
            }
            for (auto* statement : {&statements.forgetPendingEvents, &statements.forgetPendingBatch}) {
                sqlite::StatementReset resetAfter(*statement);
                statement->run();
            }
            transaction.commit();
        } catch (const sqlite::Error& error) {
            failed("Failed to delete the accepted batch: ", error);
            return std::nullopt;
        }
        Console::log("Successfully deleted EventEntity objects");
        return deleted;
    });
}

void CoreDataManager::abandonPendingBatch(const std::string& batchId) {
    performAndWait([&] {
        saveContext();
        if (!loaded_) return;
        auto& statements = *statements_;
        try {
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset resetAfter(statements.pendingBatchId);
                if (!statements.pendingBatchId.step() || statements.pendingBatchId.columnText(0) != batchId) return;
            }
            for (auto* statement : {&statements.forgetPendingEvents, &statements.forgetPendingBatch}) {
                sqlite::StatementReset resetAfter(*statement);
                statement->run();
            }
            transaction.commit();
        } catch (const sqlite::Error& error) {
            failed("Failed to forget the pending batch: ", error);
        }
    });
}

// ---- Identifiers ----

std::string CoreDataManager::uriRepresentation(std::int64_t id) const {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, id).ptr;
    std::string uri;
    uri.reserve(uriPrefix_.size() + static_cast<std::size_t>(end - digits));
    uri.append(uriPrefix_).append(digits, end);
    return uri;
}

std::optional<std::int64_t> CoreDataManager::objectIDForURIRepresentation(std::string_view uri) const {
    if (!loaded_ || !uri.starts_with(uriPrefix_)) return std::nullopt;
    const std::string_view digits = uri.substr(uriPrefix_.size());
    // Exactly the form uriRepresentation writes: decimal digits, no sign, no leading zero.
    if (digits.empty() || digits.front() == '0') return std::nullopt;
    std::int64_t id = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
    if (ec != std::errc() || end != digits.data() + digits.size() || id <= 0) return std::nullopt;
    return id;
}

void CoreDataManager::performAndWaitWithConnection(const std::function<void(sqlite::Database*)>& fn) {
    performAndWait([&] { fn(db_.get()); });
}

}  // namespace rovalis
