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
#include <limits>

#include "events/SqliteDatabase.h"
#include "events/StoreSalvage.h"
#include "events/StoredPayload.h"
#include "events/WriteCountingVfs.h"
#include "rovalis/Console.h"
#include "rovalis/RunLoop.h"
#include "rovalis/Uuid.h"
#include "util/Fatal.h"

namespace rovalis {

namespace {

// 1: the events and the store's identity. 2: adds the pending batch. 3: rows numbered by the
// store itself (their highest id kept in StoreMetadata), payloads kept without the ending
// their columns give back (see StoredPayload.h), and no time index.
constexpr int schemaVersion = 3;

// Rows named per delete statement. Unused places are bound to NULL, which matches no id,
// so one prepared statement serves every chunk.
constexpr int deleteChunkSize = 500;

// Row ids reserved at a time (see reserveIds): about an hour of moving.
constexpr std::int64_t idReservationStep = 10000;

constexpr const char* eventsSchemaSql =
    // Ids are handed out by the store, from the highest it knows; not by AUTOINCREMENT, whose
    // sequence row would add a page to every commit. There is no index on the time: rows
    // arrive a little out of time order (a group of acceleration samples after the fixes of
    // the same seconds), which split its pages at every commit and doubled what each insert
    // writes. The reads that need time order (uploads, a few a day) sort instead.
    "CREATE TABLE EventEntity ("
    " id INTEGER PRIMARY KEY,"
    " type TEXT NOT NULL,"
    " tracked_at_ms REAL NOT NULL,"  // seconds since 1970, like the record's date
    " payload BLOB NOT NULL);"
    "CREATE TABLE StoreMetadata ("
    " singleton INTEGER PRIMARY KEY CHECK (singleton = 1),"
    " store_uuid TEXT NOT NULL,"
    " highest_event_id INTEGER NOT NULL DEFAULT 0,"  // kept by every delete
    " ids_reserved_through INTEGER NOT NULL DEFAULT 0);";  // see reserveIds

// Version 2.
constexpr const char* pendingBatchSchemaSql =
    // The batch waiting for the service's acceptance: its identity, how many stored events it
    // holds, and the closing event that travels with it without being stored.
    "CREATE TABLE PendingBatch ("
    " singleton INTEGER PRIMARY KEY CHECK (singleton = 1),"
    " batch_id TEXT NOT NULL,"
    " sequential_id INTEGER NOT NULL,"
    " event_count INTEGER NOT NULL,"
    " closing_type TEXT,"
    " closing_tracked_at REAL,"
    " closing_payload BLOB);"
    "CREATE TABLE PendingBatchEvent (event_id INTEGER PRIMARY KEY);";

// Version 3, for a store made before it. Its events table keeps AUTOINCREMENT, which the
// explicit ids keep up to date; its time index goes.
constexpr const char* version3SchemaSql =
    "ALTER TABLE StoreMetadata ADD COLUMN highest_event_id INTEGER NOT NULL DEFAULT 0;"
    "ALTER TABLE StoreMetadata ADD COLUMN ids_reserved_through INTEGER NOT NULL DEFAULT 0;"
    "DROP INDEX IF EXISTS EventEntity_tracked_at;";

// The columns (name, declared type, the version that added it) each table must have, for a
// store of each version.
struct ColumnShape {
    std::string_view name;
    std::string_view type;
    int sinceVersion = 1;
};

struct TableShape {
    const char* table;
    int sinceVersion;
    std::vector<ColumnShape> columns;
    bool optional = false;  // a table that may be missing, but is this shape if there
};

const std::vector<TableShape>& tableShapes() {
    static const std::vector<TableShape> shapes = {
        {"EventEntity", 1, {{"id", "INTEGER"}, {"type", "TEXT"}, {"tracked_at_ms", "REAL"}, {"payload", "BLOB"}}},
        {"StoreMetadata",
         1,
         {{"singleton", "INTEGER"},
          {"store_uuid", "TEXT"},
          {"highest_event_id", "INTEGER", 3},
          {"ids_reserved_through", "INTEGER", 3}}},
        // Made by the AUTOINCREMENT of stores created before version 3.
        {"sqlite_sequence", 1, {{"name", ""}, {"seq", ""}}, /*optional=*/true},
        {"PendingBatch",
         2,
         {{"singleton", "INTEGER"},
          {"batch_id", "TEXT"},
          {"sequential_id", "INTEGER"},
          {"event_count", "INTEGER"},
          {"closing_type", "TEXT"},
          {"closing_tracked_at", "REAL"},
          {"closing_payload", "BLOB"}}},
        {"PendingBatchEvent", 2, {{"event_id", "INTEGER"}}},
    };
    return shapes;
}

std::string describe(const sqlite::Error& error) {
    return std::string(error.what()) + " (SQLite result code " + std::to_string(error.extendedCode()) + ")";
}

std::string deleteChunkSql() {
    std::string sql = "DELETE FROM EventEntity WHERE id IN (";
    for (int i = 0; i < deleteChunkSize; ++i) sql += i ? ",?" : "?";
    sql += ")";
    return sql;
}

// An open failure that is not SQLite's: the file could not be created or opened.
struct FileError {
    std::string reason;
};

// The file is a database, but not an event store this code knows: another layout, another
// program's database, or a newer version.
struct ForeignStore {
    std::string description;
};

// The pending batch's record: its identity, how many stored events it holds, its closing event.
struct PendingRecord {
    std::string batchId;
    std::int64_t sequentialId = 0;
    std::int64_t storedEvents = 0;
    std::optional<EventPayload> closing;
};

std::optional<PendingRecord> readPendingRecord(sqlite::Statement& read) {
    sqlite::StatementReset resetAfter(read);
    if (!read.step()) return std::nullopt;
    PendingRecord record{std::string(read.columnText(0)), read.columnInt64(1), read.columnInt64(2), std::nullopt};
    if (!read.columnText(3).empty()) {
        record.closing = EventPayload{std::string(read.columnText(3)), Date{read.columnDouble(4)},
                                      std::string(read.columnBlob(5)), ""};
    }
    return record;
}

std::int64_t unixMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

// What a new store takes over from the one it replaces, so that every URI handed out keeps
// naming its row and no row id is handed out twice.
struct CoreDataManager::CarriedState {
    std::optional<std::string> storeIdentifier;
    std::int64_t highestRowId = 0;
    std::optional<SalvagedBatch> pendingBatch;
};

struct CoreDataManager::Statements {
    explicit Statements(sqlite::Database& db)
        : insert(db, "INSERT INTO EventEntity (id, type, tracked_at_ms, payload) VALUES (?1, ?2, ?3, ?4)"),
          keepHighestEventId(db,
                             "UPDATE StoreMetadata SET highest_event_id = ?1"
                             " WHERE singleton = 1 AND highest_event_id < ?1"),
          reserveIds(db, "UPDATE StoreMetadata SET ids_reserved_through = ?1 WHERE singleton = 1"),
          // The rows come in id order; the caller puts them in time order. Only the keys
          // (time and id) are sorted, so that the sort stays small and in memory.
          fetchAscending(db,
                         "SELECT id, type, tracked_at_ms, payload FROM EventEntity WHERE id IN"
                         " (SELECT id FROM EventEntity WHERE tracked_at_ms > ?1 AND tracked_at_ms <= ?2"
                         " ORDER BY tracked_at_ms ASC, id ASC LIMIT ?3)"),
          fetchDescending(db,
                          "SELECT id, type, tracked_at_ms, payload FROM EventEntity WHERE id IN"
                          " (SELECT id FROM EventEntity WHERE tracked_at_ms > ?1 AND tracked_at_ms <= ?2"
                          " ORDER BY tracked_at_ms DESC, id DESC LIMIT ?3)"),
          count(db, "SELECT COUNT(*) FROM EventEntity"),
          deleteUpTo(db, "DELETE FROM EventEntity WHERE tracked_at_ms <= ?1"),
          deleteUpToId(db, "DELETE FROM EventEntity WHERE id <= ?1"),
          deleteChunk(db, deleteChunkSql()),
          readPendingBatch(db,
                           "SELECT batch_id, sequential_id, event_count, closing_type, closing_tracked_at,"
                           " closing_payload FROM PendingBatch WHERE singleton = 1"),
          fetchPendingEvents(db,
                             "SELECT e.id, e.type, e.tracked_at_ms, e.payload FROM PendingBatchEvent b"
                             " JOIN EventEntity e ON e.id = b.event_id"),
          // The next keys of the batch in time order, after the last one read: a batch of
          // every stored event is read a part at a time, so that memory does not grow with it.
          nextPendingEventKeys(db,
                               "SELECT e.tracked_at_ms, e.id FROM PendingBatchEvent b JOIN EventEntity e"
                               " ON e.id = b.event_id WHERE (e.tracked_at_ms, e.id) > (?1, ?2)"
                               " ORDER BY e.tracked_at_ms, e.id LIMIT ?3"),
          fetchEvent(db, "SELECT id, type, tracked_at_ms, payload FROM EventEntity WHERE id = ?1"),
          insertPendingBatch(db,
                             "INSERT INTO PendingBatch (singleton, batch_id, sequential_id, event_count,"
                             " closing_type, closing_tracked_at, closing_payload)"
                             " VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6)"),
          insertPendingEvent(db, "INSERT INTO PendingBatchEvent (event_id) VALUES (?1)"),
          countPendingEventsStored(db,
                                   "SELECT COUNT(*) FROM PendingBatchEvent b JOIN EventEntity e ON e.id = b.event_id"),
          pendingBatchId(db, "SELECT batch_id FROM PendingBatch WHERE singleton = 1"),
          deletePendingEvents(db, "DELETE FROM EventEntity WHERE id IN (SELECT event_id FROM PendingBatchEvent)"),
          describeEvents(db,
                         "SELECT type, tracked_at_ms,"
                         " CASE WHEN type = 'ToggleTracking' THEN payload END FROM EventEntity"),
          insertEveryPendingEvent(db, "INSERT INTO PendingBatchEvent (event_id) SELECT id FROM EventEntity"),
          anyEventOutsidePendingBatch(db,
                                      "SELECT EXISTS (SELECT 1 FROM EventEntity"
                                      " WHERE id NOT IN (SELECT event_id FROM PendingBatchEvent))"),
          deleteAllEvents(db, "DELETE FROM EventEntity"),
          forgetPendingEvents(db, "DELETE FROM PendingBatchEvent"),
          forgetPendingBatch(db, "DELETE FROM PendingBatch") {}

    sqlite::Statement insert, keepHighestEventId, reserveIds;
    sqlite::Statement fetchAscending, fetchDescending, count, deleteUpTo, deleteUpToId, deleteChunk;
    sqlite::Statement readPendingBatch, fetchPendingEvents, nextPendingEventKeys, fetchEvent, insertPendingBatch,
        insertPendingEvent, countPendingEventsStored, pendingBatchId, deletePendingEvents, describeEvents, insertEveryPendingEvent,
        anyEventOutsidePendingBatch, deleteAllEvents, forgetPendingEvents, forgetPendingBatch;
};

// The commit timer's way back to its manager: cleared before the manager goes, so a timer
// that fires afterwards does nothing.
struct CoreDataManager::CommitTimerTarget {
    std::mutex mutex;
    CoreDataManager* manager = nullptr;
};

CoreDataManager::CoreDataManager(std::filesystem::path path, std::shared_ptr<WorkTracker> tracker,
                                 CommitDelay commitDelay)
    : path_(std::move(path)),
      commitDelay_(std::move(commitDelay)),
      commitTimerTarget_(std::make_shared<CommitTimerTarget>()),
      background_(backgroundQueueLabel, std::move(tracker)) {
    commitTimerTarget_->manager = this;
    background_.sync([this] { load(/*reportFailure=*/true); });
}

CoreDataManager::~CoreDataManager() {
    {
        std::lock_guard lock(commitTimerTarget_->mutex);
        commitTimerTarget_->manager = nullptr;
    }
    {
        std::lock_guard lock(pendingMutex_);
        if (commitTimer_) commitTimer_->invalidate();
    }
    // Write what is still queued, then close the connection on its own executor.
    background_.sync([this] {
        saveContext();
        if (!writing_.empty()) {
            Console::log(std::to_string(writing_.size()) + " events could not be stored before the store closed");
        }
        closeConnection(/*checkpoint=*/true);
    });
}

template <typename Fn>
auto CoreDataManager::performAndWait(Fn&& fn) {
    return syncResult(background_, std::forward<Fn>(fn));
}

// Runs body against the open store. A damaged file is replaced by a new store that carries
// over what can still be read, and body runs once more on it; a full disk first gets the
// journal's space back and body runs once more. What still fails is reported and gives
// onFailure if it is the environment's fault or damage; anything else is a programming error.
template <typename Result, typename Body>
Result CoreDataManager::guarded(const char* failure, Result onFailure, Body&& body) {
    bool recovered = false, reclaimed = false;
    while (loaded_.load()) {
        try {
            return body();
        } catch (const sqlite::Error& error) {
            if (error.isDamage() && !recovered) {
                recovered = true;
                recoverFromDamage(describe(error));
                continue;
            }
            if (error.code() == SQLITE_FULL && !reclaimed) {
                reclaimed = true;
                reclaimJournalSpace();
                continue;
            }
            if (!error.isEnvironmental() && !error.isDamage()) fatalError(failure + describe(error));
            Console::log(failure + std::string(error.what()));
            return onFailure;
        }
    }
    return onFailure;
}

// ---- Opening ----

// What happens when the store cannot be opened as it is:
// - The file is damaged (a page that cannot be read, a file cut short, or no database at
//   all): it is renamed to "<file>.unreadable-<unix ms>" with its journal files, untouched,
//   and a new store takes its place with every row that can still be read (see
//   recoverFromDamage). The same happens whenever damage shows later.
// - The file is a database of another kind (another layout, another program's, a newer
//   version): it is moved aside the same way and a new, empty store is created.
// - Anything else (a directory that cannot be read, no permission, no space to create
//   the file) is a fault of the environment, not of the program: the store runs without
//   a file rather than stopping the host. Inserts wait in memory and each save tries to
//   open the store again, so a fault that passes loses nothing.
// Each time one console line tells what happened.
void CoreDataManager::load(bool reportFailure) {
    const char* linePrefix = "Load persistent stores finished with error = ";
    const std::string opening = " opening \"" + path_.string() + "\"";
    const auto cannotOpen = [&](const std::string& reason) {
        closeConnection(/*checkpoint=*/false);
        unwritableReason_ = "the store could not be opened: " + reason;
        if (reportFailure) {
            Console::log(linePrefix + reason + opening + "; events are not stored while the store cannot be opened");
        }
    };
    try {
        openAndPrepare(nullptr);
    } catch (const FileError& error) {
        cannotOpen(error.reason);
    } catch (const ForeignStore& foreign) {
        closeConnection(/*checkpoint=*/false);
        startOver(foreign.description + opening, /*carryOver=*/false, linePrefix);
    } catch (const sqlite::Error& error) {
        if (!error.isDamage()) return cannotOpen(describe(error));
        closeConnection(/*checkpoint=*/false);
        startOver(describe(error) + opening, /*carryOver=*/true, linePrefix);
    }
}

// Opens the store file, creating it and the schema if the file is new (with what carried
// says, when a new store replaces a damaged one). An existing store of this version is only
// read, so it opens on a full disk; one of version 1 gets the pending batch tables.
void CoreDataManager::openAndPrepare(const CarriedState* carried) {
    // Create the file private to the user before SQLite opens it; the journal files SQLite
    // makes beside it take the same mode.
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) throw FileError{std::strerror(errno)};
    ::fchmod(fd, 0600);
    ::close(fd);

    db_ = std::make_unique<sqlite::Database>(path_.string(), sqlite::Database::Mode::readWrite,
                                             sqlite::writeCountingVfsName());
    db_->exec("PRAGMA busy_timeout = 5000");
    // In WAL mode NORMAL keeps the file consistent on power loss and loses nothing when
    // the process dies; only the last commits before a power cut may be missing.
    db_->exec("PRAGMA synchronous = NORMAL");
    // The first read of the file: one that is not a database fails here.
    const std::int64_t version = db_->queryInt64("PRAGMA user_version");
    const bool isNew = version == 0 && db_->queryInt64("SELECT count(*) FROM sqlite_schema") == 0;
    if (isNew) {
        // Set before the first write; a store keeps the page size it was created with.
        db_->exec("PRAGMA page_size = " + std::to_string(pageSize));
        db_->exec("PRAGMA journal_mode = WAL");
        createSchema(carried);
    } else {
        checkSchema(version);
        if (db_->queryText("PRAGMA journal_mode") != "wal") db_->exec("PRAGMA journal_mode = WAL");
        if (version < schemaVersion) {
            sqlite::Transaction transaction(*db_);
            if (version < 2) db_->exec(pendingBatchSchemaSql);
            db_->exec(version3SchemaSql);
            db_->exec("PRAGMA user_version = " + std::to_string(schemaVersion));
            transaction.commit();
        }
    }
    // The journal file stays, at its size, when the store closes: on a full disk that space
    // is what lets rows be deleted, and so space be freed.
    db_->keepJournalFile();
    // Copying the journal into the file rewrites every page it holds once; a journal of a few
    // megabytes lets the pages that each commit rewrites (the last of the table and of its
    // index) go into the file once for many commits.
    db_->exec("PRAGMA wal_autocheckpoint = " +
              std::to_string(journalBytesBetweenCheckpoints / db_->queryInt64("PRAGMA page_size")));
    // Deleted rows are still cleared from the pages that stay in use, but pages freed whole
    // are not written over once more: their bytes stay until the pages are reused, as the
    // journal's older copies of them do anyway.
    db_->exec("PRAGMA secure_delete = FAST");
    // Sorts (of keys only, see Statements) stay in memory: a temporary file could not be
    // written on a full disk, when reading and deleting rows must still work.
    db_->exec("PRAGMA temp_store = MEMORY");

    std::string identifier = db_->queryText("SELECT store_uuid FROM StoreMetadata WHERE singleton = 1");
    if (identifier.empty()) {
        identifier = storeIdentifier_.empty() ? Uuid::random().uuidString() : storeIdentifier_;
        sqlite::Statement insert(*db_, "INSERT INTO StoreMetadata (singleton, store_uuid) VALUES (1, ?1)");
        insert.bindText(1, identifier);
        insert.run();
    }
    try {
        statements_ = std::make_unique<Statements>(*db_);
    } catch (const sqlite::Error& error) {
        if (error.code() != SQLITE_ERROR) throw;
        throw ForeignStore{"a database whose tables the store cannot use (" + std::string(error.what()) + ")"};
    }
    // New rows are numbered after every id handed out: the highest still stored, the highest
    // kept when rows were deleted, and an older store's AUTOINCREMENT sequence.
    highestKnownId_ = std::max({highestKnownId_, db_->queryInt64("SELECT max(id) FROM EventEntity"),
                                db_->queryInt64("SELECT highest_event_id FROM StoreMetadata WHERE singleton = 1")});
    idsReservedThrough_ = db_->queryInt64("SELECT ids_reserved_through FROM StoreMetadata WHERE singleton = 1");
    if (db_->queryInt64("SELECT count(*) FROM sqlite_schema WHERE name = 'sqlite_sequence'") > 0) {
        highestKnownId_ = std::max(highestKnownId_,
                                   db_->queryInt64("SELECT seq FROM sqlite_sequence WHERE name = 'EventEntity'"));
    }
    // The identity never changes once known: URIs handed out must keep naming their rows.
    if (storeIdentifier_.empty()) {
        storeIdentifier_ = identifier;
        uriPrefix_ = std::string(uriScheme) + "://" + storeIdentifier_ + "/" + entityName + "/p";
    }
    unwritableReason_.clear();
    loaded_.store(true);
}

void CoreDataManager::createSchema(const CarriedState* carried) {
    std::string identifier = storeIdentifier_;
    if (identifier.empty() && carried && carried->storeIdentifier) identifier = *carried->storeIdentifier;
    if (identifier.empty()) identifier = Uuid::random().uuidString();

    sqlite::Transaction transaction(*db_);
    db_->exec(eventsSchemaSql);
    db_->exec(pendingBatchSchemaSql);
    db_->exec("PRAGMA user_version = " + std::to_string(schemaVersion));
    // New rows are numbered after every id the replaced store handed out.
    highestKnownId_ = std::max(highestKnownId_, carried ? carried->highestRowId : 0);
    {
        sqlite::Statement insert(*db_,
                                 "INSERT INTO StoreMetadata"
                                 " (singleton, store_uuid, highest_event_id, ids_reserved_through)"
                                 " VALUES (1, ?1, ?2, ?2)");
        insert.bindText(1, identifier);
        insert.bind(2, highestKnownId_);
        insert.run();
    }
    if (carried && carried->pendingBatch) {
        const auto& batch = *carried->pendingBatch;
        sqlite::Statement insert(*db_,
                                 "INSERT INTO PendingBatch (singleton, batch_id, sequential_id, event_count,"
                                 " closing_type, closing_tracked_at, closing_payload)"
                                 " VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6)");
        insert.bindText(1, batch.batchId);
        insert.bind(2, batch.sequentialId);
        insert.bind(3, batch.eventCount);
        if (batch.closing) {
            insert.bindText(4, batch.closing->type);
            insert.bind(5, batch.closing->trackedAt);
            insert.bindBlob(6, batch.closing->payload);
        }
        insert.run();
        // Members whose rows are not carried over show as missing, so the batch reads as
        // incomplete and is not sent again as if it were whole.
        sqlite::Statement member(*db_, "INSERT INTO PendingBatchEvent (event_id) VALUES (?1)");
        for (const std::int64_t id : batch.eventIds) {
            sqlite::StatementReset resetAfter(member);
            member.bind(1, id);
            member.run();
        }
    }
    transaction.commit();
}

// Throws ForeignStore unless the file is a store of a version this code knows, with the
// tables that version has.
void CoreDataManager::checkSchema(std::int64_t version) {
    if (version < 1 || version > schemaVersion) {
        throw ForeignStore{version == 0 ? std::string("a database of another kind")
                                        : "a store of a version this code does not know (" +
                                              std::to_string(version) + ")"};
    }
    sqlite::Statement columns(*db_, "SELECT name, type FROM pragma_table_info(?1) ORDER BY cid");
    for (const auto& shape : tableShapes()) {
        if (shape.sinceVersion > version) continue;
        std::vector<ColumnShape> expected;
        for (const auto& column : shape.columns) {
            if (column.sinceVersion <= version) expected.push_back(column);
        }
        sqlite::StatementReset resetAfter(columns);
        columns.bindText(1, shape.table);
        bool matches = true;
        std::size_t index = 0;
        while (columns.step()) {
            matches = matches && index < expected.size() && columns.columnText(0) == expected[index].name &&
                      columns.columnText(1) == expected[index].type;
            ++index;
        }
        if (index == 0 && shape.optional) continue;
        if (!matches || index != expected.size()) {
            throw ForeignStore{"a database of another kind (its table " + std::string(shape.table) +
                               " is not the store's)"};
        }
    }
}

bool CoreDataManager::ensureLoaded() {
    if (loaded_.load()) return true;
    load(/*reportFailure=*/false);
    if (!loaded_.load()) return false;
    Console::log("Persistent store loaded at \"" + path_.string() + "\"; " + std::to_string(writing_.size()) +
                 " waiting events are written now");
    return true;
}

void CoreDataManager::closeConnection(bool checkpoint) {
    statements_.reset();
    if (db_) db_->setCheckpointOnClose(checkpoint);
    db_.reset();
    loaded_.store(false);
}

// ---- Damaged and foreign files ----

// Renames the store file, with its journal files under the names SQLite looks for beside
// it, to "<file>.unreadable-<unix ms>". On failure, none and the reason.
std::optional<std::filesystem::path> CoreDataManager::moveAside(std::string& failure) {
    std::filesystem::path aside = path_;
    aside += ".unreadable-" + std::to_string(unixMilliseconds());
    std::error_code ec;
    std::filesystem::rename(path_, aside, ec);
    if (ec) {
        failure = ec.message();
        return std::nullopt;
    }
    for (const char* suffix : {"-wal", "-shm"}) {
        std::filesystem::path journal = path_;
        journal += suffix;
        std::filesystem::path journalAside = aside;
        journalAside += suffix;
        std::error_code ignored;
        if (std::filesystem::exists(journal, ignored)) std::filesystem::rename(journal, journalAside, ignored);
    }
    return aside;
}

// Damage found while the store was in use: the connection is closed without touching the
// file further and the store starts over, carrying over what it can.
void CoreDataManager::recoverFromDamage(const std::string& what) {
    closeConnection(/*checkpoint=*/false);
    startOver(what + " in \"" + path_.string() + "\"", /*carryOver=*/true, "The event store is damaged: ");
}

// Moves the file aside and creates a new store in its place. With carryOver the new store
// keeps the old one's identity, its row numbering, its pending batch and every row that
// can still be read, each under its own id; the file moved aside is never written.
void CoreDataManager::startOver(const std::string& what, bool carryOver, const char* linePrefix) {
    std::string failure;
    const auto aside = moveAside(failure);
    if (!aside) {
        unwritableReason_ = "the store could not be opened: " + what;
        Console::log(linePrefix + what + "; it could not be moved aside (" + failure + "), so events are not stored");
        return;
    }
    std::optional<StoreSalvage> salvage;
    CarriedState carried;
    if (carryOver) {
        salvage.emplace(*aside);
        carried.storeIdentifier = salvage->storeIdentifier();
        carried.highestRowId = salvage->highestRowId();
        carried.pendingBatch = salvage->pendingBatch();
        if (carried.pendingBatch) {
            for (const std::int64_t id : carried.pendingBatch->eventIds) {
                carried.highestRowId = std::max(carried.highestRowId, id);
            }
        }
    }
    std::string line =
        linePrefix + what + "; the file was kept as \"" + aside->string() + "\" and a new store was created";
    try {
        openAndPrepare(&carried);
    } catch (const FileError& error) {
        failure = error.reason;
    } catch (const ForeignStore& error) {
        failure = error.description;
    } catch (const sqlite::Error& error) {
        failure = describe(error);
    }
    if (!loaded_.load()) {
        closeConnection(/*checkpoint=*/false);
        unwritableReason_ = "the store could not be created: " + failure;
        Console::log(line + ", but it cannot be used yet (" + failure + "), so events are not stored");
        return;
    }
    if (salvage) line += carryRows(*salvage);
    Console::log(line);
}

// Copies the plausible rows of the damaged store into the new one, oldest id first, in
// chunks, so that a full disk keeps what was copied. Says what was carried and skipped.
std::string CoreDataManager::carryRows(StoreSalvage& salvage) {
    std::size_t carried = 0;
    std::string stopped;
    try {
        for (auto rows = salvage.nextRows(maxRowsPerTransaction); !rows.empty();
             rows = salvage.nextRows(maxRowsPerTransaction)) {
            sqlite::Transaction transaction(*db_);
            for (const auto& row : rows) insertRow(row.id, row.type, row.trackedAt, row.payload);
            transaction.commit();
            carried += rows.size();
            highestKnownId_ = std::max(highestKnownId_, rows.back().id);
        }
    } catch (const sqlite::Error& error) {
        stopped = "; carrying over stopped (" + std::string(error.what()) + "): the rest is only in the kept file";
    }
    std::string summary = " with the " + std::to_string(carried) + " events that could be read; " +
                          std::to_string(salvage.skippedRows()) + " unreadable or invalid events were skipped";
    if (const auto regions = salvage.damagedRegions()) {
        summary += " (damaged parts of the file passed over: " + std::to_string(regions) + ")";
    }
    return summary + stopped;
}

// A full disk: the write-ahead journal is copied into the store file so that it can start
// again from its beginning, and a retried write may fit into the space it already has.
void CoreDataManager::reclaimJournalSpace() {
    try {
        db_->exec("PRAGMA wal_checkpoint(PASSIVE)");
    } catch (const sqlite::Error&) {
        // The retry that follows tells whether anything was gained.
    }
}

// ---- Writing ----

void CoreDataManager::enqueue(PendingRow row) {
    std::unique_lock lock(pendingMutex_);
    pending_.push_back(std::move(row));
    if (!scheduleSaveLocked()) return;
    lock.unlock();
    postSave();
}

void CoreDataManager::enqueue(std::vector<PendingRow>&& rows) {
    if (rows.empty()) return;
    std::unique_lock lock(pendingMutex_);
    if (pending_.empty()) {
        pending_.swap(rows);
    } else {
        pending_.insert(pending_.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
    }
    if (!scheduleSaveLocked()) return;
    lock.unlock();
    postSave();
}

void CoreDataManager::saveSoon() {
    std::unique_lock lock(pendingMutex_);
    if (!scheduleSaveNowLocked()) return;
    lock.unlock();
    postSave();
}

// The first row queued after a save starts the delay; rows queued meanwhile join it. A
// transaction's worth does not wait. True when the caller is to post the save.
bool CoreDataManager::scheduleSaveLocked() {
    if (saveScheduled_) return false;
    if (!commitDelay_.timers || commitDelay_.seconds <= 0 || pending_.size() >= maxRowsPerTransaction) {
        return scheduleSaveNowLocked();
    }
    if (commitTimer_) return false;
    const std::uint64_t armed = ++commitTimerArmings_;
    commitTimer_ = commitDelay_.timers->scheduleTimer(commitDelay_.seconds, false,
                                                      [target = commitTimerTarget_, armed] {
        std::lock_guard lock(target->mutex);
        if (target->manager) target->manager->commitDelayEnded(armed);
    });
    return false;
}

bool CoreDataManager::scheduleSaveNowLocked() {
    if (commitTimer_) {
        commitTimer_->invalidate();
        commitTimer_.reset();
    }
    return !std::exchange(saveScheduled_, true);
}

// Posted without holding the lock the save takes first, so that the executor does not wake
// only to wait for it.
void CoreDataManager::postSave() { background_.async([this] { saveContext(); }); }

// A timer that was cancelled while its callback was already on its way is not the one armed.
void CoreDataManager::commitDelayEnded(std::uint64_t arming) {
    std::unique_lock lock(pendingMutex_);
    if (!commitTimer_ || arming != commitTimerArmings_ || !scheduleSaveNowLocked()) return;
    lock.unlock();
    postSave();
}

// On the executor: moves the queued rows behind any kept from a failed save.
void CoreDataManager::takePending() {
    std::lock_guard lock(pendingMutex_);
    saveScheduled_ = false;
    // Everything queued is taken now: the delay it was waiting for is over.
    if (commitTimer_) {
        commitTimer_->invalidate();
        commitTimer_.reset();
    }
    if (writing_.empty()) {
        writing_.swap(pending_);
    } else {
        writing_.insert(writing_.end(), std::make_move_iterator(pending_.begin()),
                        std::make_move_iterator(pending_.end()));
        pending_.clear();
    }
}

void CoreDataManager::saveContext() {
    takePending();
    saveWaiting();
}

// Writes every waiting row. True when none is left waiting. Rows that cannot be written
// stay waiting, in order, for the next save; only then does the cap on them apply.
bool CoreDataManager::saveWaiting() {
    bool saved = false;
    if (ensureLoaded()) {
        saved = writing_.empty() || guarded("Failed to save context: ", false, [this] { return writeRows(); });
    }
    if (!saved && writing_.size() > maxWaitingRows) {
        const std::size_t dropped = writing_.size() - maxWaitingRows;
        writing_.erase(writing_.begin(), writing_.begin() + static_cast<std::ptrdiff_t>(dropped));
        Console::log("Dropped the oldest " + std::to_string(dropped) + " of the events waiting to be stored: " +
                     unwritableReason_ + ", and at most " + std::to_string(maxWaitingRows) + " wait in memory");
    }
    return saved;
}

// Writes writing_ oldest first, in transactions of at most chunkRows_ rows, and drops what
// was committed from it. A full disk halves the chunk, down to one row, so whatever fits
// is written; the chunk grows again as writes succeed. A full disk or an I/O error leaves
// the rest waiting; damage is thrown on to guarded, which replaces the store.
bool CoreDataManager::writeRows() {
    std::size_t written = 0;
    const auto forgetWritten = [&] {
        writing_.erase(writing_.begin(), writing_.begin() + static_cast<std::ptrdiff_t>(written));
    };
    bool reclaimed = false;
    try {
        while (written < writing_.size()) {
            const std::size_t count = std::min(chunkRows_, writing_.size() - written);
            try {
                writeChunk(written, count);
                written += count;
                chunkRows_ = std::min(chunkRows_ * 2, maxRowsPerTransaction);
            } catch (const sqlite::Error& error) {
                if (error.code() != SQLITE_FULL) throw;
                if (!reclaimed) {
                    reclaimed = true;
                    reclaimJournalSpace();
                } else if (count > 1) {
                    chunkRows_ = count / 2;
                } else {
                    throw;
                }
            }
        }
    } catch (const sqlite::Error& error) {
        forgetWritten();
        if (!error.isEnvironmental()) throw;
        // Reported once, when the store stops being writable, not at every save after.
        const std::string reason = error.code() == SQLITE_FULL ? "the disk is full"
                                                               : "the store could not be written: " +
                                                                     std::string(error.what());
        if (reason != unwritableReason_) Console::log("Failed to save context: " + std::string(error.what()));
        unwritableReason_ = reason;
        return false;
    }
    forgetWritten();
    unwritableReason_.clear();
    return true;
}

// One transaction: the chunk is written whole or not at all.
void CoreDataManager::writeChunk(std::size_t start, std::size_t count) {
    sqlite::Transaction transaction(*db_);
    std::int64_t id = highestKnownId_;
    for (std::size_t i = start; i < start + count; ++i) {
        const auto& row = writing_[i];
        insertRow(++id, row.type, row.trackedAt, row.payload);
    }
    const std::int64_t reserved = reserveIds(id);
    transaction.commit();
    highestKnownId_ = id;
    idsReservedThrough_ = reserved;
}

// A store cut short loses the rows at its end, and with them the highest ids it handed out;
// the store that replaces it numbers its rows after the ids reserved here, so that an id
// named before the damage never names another row. Ids are reserved in steps, in the
// transaction of the insert that passes the last reservation: one more page for thousands
// of rows. Returns what is reserved once the transaction commits.
std::int64_t CoreDataManager::reserveIds(std::int64_t highestId) {
    if (highestId <= idsReservedThrough_) return idsReservedThrough_;
    const std::int64_t reserved = highestId + idReservationStep;
    auto& reserve = statements_->reserveIds;
    sqlite::StatementReset resetAfter(reserve);
    reserve.bind(1, reserved);
    reserve.run();
    return reserved;
}

void CoreDataManager::insertRow(std::int64_t id, std::string_view type, double trackedAt, std::string_view payload) {
    auto& insert = statements_->insert;
    sqlite::StatementReset resetAfter(insert);
    insert.bind(1, id);
    insert.bindText(2, type);
    insert.bind(3, trackedAt);
    insert.bindBlob(4, stored_payload::kept(type, trackedAt, payload, keptScratch_));
    insert.run();
}

// In every transaction that deletes rows: the highest id handed out stays known when the
// rows that had it are gone, so that no id is handed out twice.
void CoreDataManager::keepHighestEventId() {
    auto& keep = statements_->keepHighestEventId;
    sqlite::StatementReset resetAfter(keep);
    keep.bind(1, highestKnownId_);
    keep.run();
}

std::optional<std::int64_t> CoreDataManager::insertAndWait(PendingRow row) {
    return performAndWait([&]() -> std::optional<std::int64_t> {
        takePending();
        writing_.push_back(std::move(row));
        // The row is the last written, so its id is the connection's last.
        if (!saveWaiting()) return std::nullopt;
        return db_->lastInsertRowid();
    });
}

// ---- Reading and deleting ----

// Events in time order, and in id order within the same time: the order of a batch.
struct CoreDataManager::EventKey {
    double trackedAt;
    std::int64_t id;
    auto operator<=>(const EventKey&) const = default;
};

// events[i] is the event of keys[i].
std::vector<EventPayload> CoreDataManager::inTimeOrder(std::vector<EventPayload> events,
                                                       const std::vector<EventKey>& keys, bool ascending) {
    std::vector<std::size_t> order(events.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return ascending ? keys[a] < keys[b] : keys[b] < keys[a];
    });
    std::vector<EventPayload> sorted;
    sorted.reserve(events.size());
    for (const std::size_t i : order) sorted.push_back(std::move(events[i]));
    return sorted;
}

// The event of a row read as (id, type, tracked_at_ms, payload), into event.
void CoreDataManager::readStoredEvent(sqlite::Statement& row, EventPayload& event) const {
    event.type.assign(row.columnText(1));
    event.trackedAtMs = Date{row.columnDouble(2)};
    stored_payload::restore(event.type, event.trackedAtMs.secondsSince1970, row.columnBlob(3), event.payload);
    event.uri = uriRepresentation(row.columnInt64(0));
}

EventPayload CoreDataManager::storedEvent(sqlite::Statement& row) const {
    EventPayload event;
    readStoredEvent(row, event);
    return event;
}

std::vector<EventPayload> CoreDataManager::fetch(Date lower, Date upper, bool ascending, std::int64_t limit) {
    return performAndWait([&] {
        saveContext();
        return guarded("Failed to fetch BaseEvents: ", std::vector<EventPayload>{}, [&] {
            std::vector<EventPayload> result;
            auto& fetch = ascending ? statements_->fetchAscending : statements_->fetchDescending;
            sqlite::StatementReset resetAfter(fetch);
            fetch.bind(1, lower.secondsSince1970);
            fetch.bind(2, upper.secondsSince1970);
            fetch.bind(3, limit > 0 ? limit : std::int64_t{-1});
            if (limit > 0) result.reserve(static_cast<std::size_t>(std::min<std::int64_t>(limit, 20000)));
            std::vector<EventKey> keys;
            while (fetch.step()) {
                keys.push_back({fetch.columnDouble(2), fetch.columnInt64(0)});
                result.push_back(storedEvent(fetch));
            }
            return inTimeOrder(std::move(result), keys, ascending);
        });
    });
}

long CoreDataManager::count() {
    return performAndWait([&] {
        saveContext();
        return guarded("Failed to fetch BaseEvents: ", 0L, [&] {
            auto& count = statements_->count;
            sqlite::StatementReset resetAfter(count);
            return count.step() ? static_cast<long>(count.columnInt64(0)) : 0L;
        });
    });
}

// One delete statement with its one parameter, and the highest id kept in the same
// transaction.
template <typename Value>
long CoreDataManager::deleteWhere(sqlite::Statement Statements::*statement, Value value) {
    return performAndWait([&] {
        saveContext();
        const long deleted = guarded("Failed to execute batch delete events request: ", -1L, [&] {
            auto& remove = (*statements_).*statement;
            sqlite::StatementReset resetAfter(remove);
            sqlite::Transaction transaction(*db_);
            remove.bind(1, value);
            remove.run();
            const long removed = db_->changes();
            keepHighestEventId();
            transaction.commit();
            return removed;
        });
        if (deleted < 0) return 0L;
        Console::log("Successfully deleted EventEntity objects");
        return deleted;
    });
}

long CoreDataManager::deleteUpTo(Date date) { return deleteWhere(&Statements::deleteUpTo, date.secondsSince1970); }

long CoreDataManager::deleteUpToId(std::int64_t id) { return deleteWhere(&Statements::deleteUpToId, id); }

long CoreDataManager::deleteObjects(const std::vector<std::int64_t>& ids) {
    return performAndWait([&] {
        saveContext();
        const long deleted = guarded("Failed to execute batch delete events request: ", -1L, [&] {
            auto& remove = statements_->deleteChunk;
            long removed = 0;
            sqlite::Transaction transaction(*db_);
            for (std::size_t start = 0; start < ids.size(); start += deleteChunkSize) {
                sqlite::StatementReset resetAfter(remove);
                const std::size_t end = std::min(ids.size(), start + deleteChunkSize);
                for (std::size_t i = start; i < end; ++i) remove.bind(static_cast<int>(i - start + 1), ids[i]);
                // Places past the end stay unbound, which is NULL.
                remove.run();
                removed += db_->changes();
            }
            keepHighestEventId();
            transaction.commit();
            return removed;
        });
        if (deleted < 0) return 0L;
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
        // The same id twice in the list breaks the member table's key: a caller's mistake,
        // which stops the process like any other programming error.
        return guarded("Failed to record the pending batch: ", BatchRecording::notWritten, [&] {
            auto& statements = *statements_;
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
        });
    });
}

std::optional<PendingBatch> CoreDataManager::pendingBatch() {
    return performAndWait([&] {
        saveContext();
        return guarded("Failed to fetch the pending batch: ", std::optional<PendingBatch>{},
                       [&]() -> std::optional<PendingBatch> {
            auto record = readPendingRecord(statements_->readPendingBatch);
            if (!record) return std::nullopt;
            PendingBatch batch{record->batchId, record->sequentialId, {}};
            auto& fetch = statements_->fetchPendingEvents;
            sqlite::StatementReset resetAfter(fetch);
            batch.events.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(record->storedEvents, 0, 20000)) + 1);
            std::vector<EventKey> keys;
            while (fetch.step()) {
                keys.push_back({fetch.columnDouble(2), fetch.columnInt64(0)});
                batch.events.push_back(storedEvent(fetch));
            }
            batch.events = inTimeOrder(std::move(batch.events), keys, true);
            batch.complete = static_cast<std::int64_t>(batch.events.size()) == record->storedEvents;
            if (record->closing) batch.events.push_back(std::move(*record->closing));
            return batch;
        });
    });
}

std::optional<PendingBatchOutline> CoreDataManager::pendingBatchOutline() {
    return performAndWait([&] {
        saveContext();
        return guarded("Failed to fetch the pending batch: ", std::optional<PendingBatchOutline>{},
                       [&]() -> std::optional<PendingBatchOutline> {
            const auto record = readPendingRecord(statements_->readPendingBatch);
            if (!record) return std::nullopt;
            auto& count = statements_->countPendingEventsStored;
            sqlite::StatementReset resetAfter(count);
            const std::int64_t stored = count.step() ? count.columnInt64(0) : 0;
            return PendingBatchOutline{record->batchId, record->sequentialId, record->storedEvents,
                                       record->closing.has_value(), stored == record->storedEvents};
        });
    });
}

bool CoreDataManager::forEachPendingBatchEvent(const std::string& batchId,
                                               const std::function<void(const EventPayload&)>& each) {
    return performAndWait([&] {
        saveContext();
        // Once events have been handed on, a read that meets damage does not start over on
        // the new store: the receiver would see them twice.
        bool started = false;
        return guarded("Failed to fetch the pending batch: ", false, [&] {
            if (std::exchange(started, true)) return false;
            auto record = readPendingRecord(statements_->readPendingBatch);
            if (!record || record->batchId != batchId) return false;
            auto& fetch = statements_->fetchEvent;
            EventPayload event;
            std::int64_t handed = 0;
            std::vector<EventKey> keys;
            keys.reserve(pendingKeysAtATime);
            EventKey after{-std::numeric_limits<double>::infinity(), 0};
            do {
                keys.clear();
                auto& next = statements_->nextPendingEventKeys;
                {
                    sqlite::StatementReset resetAfter(next);
                    next.bind(1, after.trackedAt);
                    next.bind(2, after.id);
                    next.bind(3, static_cast<std::int64_t>(pendingKeysAtATime));
                    while (next.step()) keys.push_back({next.columnDouble(0), next.columnInt64(1)});
                }
                for (const auto& key : keys) {
                    sqlite::StatementReset resetAfter(fetch);
                    fetch.bind(1, key.id);
                    if (!fetch.step()) continue;
                    readStoredEvent(fetch, event);
                    each(event);
                    ++handed;
                }
                if (!keys.empty()) after = keys.back();
            } while (keys.size() == pendingKeysAtATime);
            // One that lost events is never sent as if it were whole.
            if (handed != record->storedEvents) return false;
            if (record->closing) each(*record->closing);
            return true;
        });
    });
}

// In one transaction, so that the closing event describes exactly the events recorded. The
// events are read twice (once to describe them, once to name them) and held neither time.
std::optional<PendingBatchOutline> CoreDataManager::recordPendingBatchOfAllEvents(
    const std::string& batchId, std::int64_t sequentialId,
    const std::function<EventPayload(const StoredEventsDigest&)>& closing) {
    return performAndWait([&] {
        saveContext();
        return guarded("Failed to record the pending batch: ", std::optional<PendingBatchOutline>{},
                       [&]() -> std::optional<PendingBatchOutline> {
            auto& statements = *statements_;
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset resetAfter(statements.pendingBatchId);
                if (statements.pendingBatchId.step()) return std::nullopt;
            }
            StoredEventsDigest digest;
            long stored = 0;
            {
                auto& describe = statements.describeEvents;
                sqlite::StatementReset resetAfter(describe);
                while (describe.step()) {
                    const std::string_view type = describe.columnText(0);
                    ++digest.countByType[std::string(type)];
                    if (stored++ == 0 || describe.columnDouble(1) > digest.newestTrackedAt.secondsSince1970) {
                        digest.newestTrackedAt = Date{describe.columnDouble(1)};
                    }
                    if (type == ToggleTracking::typeName) {
                        digest.toggleTrackingPayloads.push_back(
                            stored_payload::restored(type, describe.columnDouble(1), describe.columnBlob(2)));
                    }
                }
            }
            if (stored == 0) return std::nullopt;
            const EventPayload closingEvent = closing(digest);
            {
                auto& insert = statements.insertPendingBatch;
                sqlite::StatementReset resetAfter(insert);
                insert.bindText(1, batchId);
                insert.bind(2, sequentialId);
                insert.bind(3, static_cast<std::int64_t>(stored));
                insert.bindText(4, closingEvent.type);
                insert.bind(5, closingEvent.trackedAtMs.secondsSince1970);
                insert.bindBlob(6, closingEvent.payload);
                insert.run();
            }
            {
                sqlite::StatementReset resetAfter(statements.insertEveryPendingEvent);
                statements.insertEveryPendingEvent.run();
            }
            transaction.commit();
            return PendingBatchOutline{batchId, sequentialId, stored, true, true};
        });
    });
}

std::optional<long> CoreDataManager::deleteAcceptedBatch(const std::string& batchId) {
    return performAndWait([&] {
        saveContext();
        const auto deleted = guarded("Failed to delete the accepted batch: ", std::optional<long>{},
                                     [&]() -> std::optional<long> {
            auto& statements = *statements_;
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset resetAfter(statements.pendingBatchId);
                if (!statements.pendingBatchId.step() || statements.pendingBatchId.columnText(0) != batchId) {
                    return std::nullopt;
                }
            }
            // A batch that holds every stored event (a send that empties the store) clears the
            // table, which frees its pages without writing them again; row by row, every page
            // the batch's rows were on would be written once more.
            bool holdsEveryEvent = false;
            {
                sqlite::StatementReset resetAfter(statements.anyEventOutsidePendingBatch);
                holdsEveryEvent = statements.anyEventOutsidePendingBatch.step() &&
                                  statements.anyEventOutsidePendingBatch.columnInt64(0) == 0;
            }
            auto& remove = holdsEveryEvent ? statements.deleteAllEvents : statements.deletePendingEvents;
            long removed = 0;
            {
                sqlite::StatementReset resetAfter(remove);
                remove.run();
                removed = db_->changes();
            }
            for (auto* statement : {&statements.forgetPendingEvents, &statements.forgetPendingBatch}) {
                sqlite::StatementReset resetAfter(*statement);
                statement->run();
            }
            keepHighestEventId();
            transaction.commit();
            return removed;
        });
        if (deleted) Console::log("Successfully deleted EventEntity objects");
        return deleted;
    });
}

void CoreDataManager::abandonPendingBatch(const std::string& batchId) {
    performAndWait([&] {
        saveContext();
        guarded("Failed to forget the pending batch: ", false, [&] {
            auto& statements = *statements_;
            sqlite::Transaction transaction(*db_);
            {
                sqlite::StatementReset resetAfter(statements.pendingBatchId);
                if (!statements.pendingBatchId.step() || statements.pendingBatchId.columnText(0) != batchId) {
                    return false;
                }
            }
            for (auto* statement : {&statements.forgetPendingEvents, &statements.forgetPendingBatch}) {
                sqlite::StatementReset resetAfter(*statement);
                statement->run();
            }
            transaction.commit();
            return true;
        });
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
