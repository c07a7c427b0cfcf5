#pragma once

// The persistence manager of the event store: one SQLite connection (WAL journal) and the
// serial background executor that is the only place the connection is used.
//
// Rows are written in groups: producers queue rows from any thread, and one save task on
// the background executor writes everything queued so far, in transactions of a few
// thousand rows. With a commit delay, the save waits until the first row queued since the
// last one has waited that long (or a transaction's worth is queued), so that rows arriving
// together share a commit: each commit rewrites the last pages of the table and its index,
// whatever it holds. Reads and deletes run synchronously on the executor after saving what
// is queued, so they see every row queued before them.
//
// Nothing that happens to the file stops the host: a damaged file is replaced by a new
// store that carries over what can still be read, a file of another kind is moved aside,
// and rows that cannot be written (a full disk, a store that cannot be opened) wait in
// memory for a later save.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "events/EventStoreInterfaces.h"
#include "rovalis/Date.h"
#include "util/SerialExecutor.h"

namespace rovalis {

class RunLoop;
class RunLoopTimer;
class WorkTracker;

class StoreSalvage;

namespace sqlite {
class Database;
class Statement;
}  // namespace sqlite

// One row waiting to be written. The type is a record's static type name.
struct PendingRow {
    std::string_view type;
    double trackedAt = 0;  // seconds since 1970
    std::string payload;
};

// How long queued rows may wait for their commit, on the clock of the run loop whose timer
// ends the wait. Without a run loop (or with no delay) every queued row is saved at once.
struct CommitDelay {
    std::shared_ptr<RunLoop> timers;
    double seconds = 0;
};

class CoreDataManager {
public:
    static constexpr const char* containerName = "com.rovalis.sdk.CoreDataModel";
    static constexpr const char* entityName = "EventEntity";
    static constexpr const char* backgroundQueueLabel = "com.rovalis.sdk.CoreDataModel.background";
    static constexpr const char* uriScheme = "x-rovalis-store";

    // Opens the store at path, creating the file (mode 0600) and the schema if needed.
    explicit CoreDataManager(std::filesystem::path path, std::shared_ptr<WorkTracker> tracker = nullptr,
                             CommitDelay commitDelay = {});
    ~CoreDataManager();

    CoreDataManager(const CoreDataManager&) = delete;
    CoreDataManager& operator=(const CoreDataManager&) = delete;

    // At most this many rows wait in memory once a save has failed to write them (the
    // store could not be opened, the disk is full, an I/O error); beyond it the oldest are
    // dropped, so that a store that stays unwritable cannot exhaust the host's memory. While
    // saves succeed there is no limit: the executor writes whatever was queued.
    static constexpr std::size_t maxWaitingRows = 100000;
    // The most rows written in one transaction: on a nearly full disk whatever fits is
    // written, and a chunk that fails never holds back what came before it.
    static constexpr std::size_t maxRowsPerTransaction = 4096;
    // The page size of a new store. Most commits add a row or two (a fix a second), and each
    // writes the pages it changes whole: the last page of the table. Small pages keep that
    // close to what the rows need.
    static constexpr int pageSize = 1024;
    // Keys of a pending batch read at a time when it is streamed (1.6 MB of them): a batch of
    // every stored event is read a part at a time, so that memory does not grow with it; a
    // million events take a dozen passes over its members.
    static constexpr std::size_t pendingKeysAtATime = 100000;
    // The journal is copied into the store file whenever it holds this much.
    static constexpr std::int64_t journalBytesBetweenCheckpoints = 4 * 1024 * 1024;

    // False while the store could not be opened. Inserts then wait in memory, reads are
    // empty, and every save tries to open the store again.
    bool isLoaded() const { return loaded_.load(); }
    // The UUID generated when the store file was created. Read it only once loaded.
    const std::string& storeIdentifier() const { return storeIdentifier_; }
    const std::filesystem::path& path() const { return path_; }

    // Queue rows and return at once. They are saved once the commit delay has passed (at
    // once without one, or when a transaction's worth is queued).
    void enqueue(PendingRow row);
    void enqueue(std::vector<PendingRow>&& rows);
    // Returns at once; everything queued so far is saved without waiting for the delay.
    void saveSoon();

    // Writes the row now, with everything queued before it, and returns its id; none when
    // the row could not be written yet (it is kept and written by a later save).
    std::optional<std::int64_t> insertAndWait(PendingRow row);

    // Rows with lower < time <= upper ordered by (time, id); limit <= 0 means no limit.
    std::vector<EventPayload> fetch(Date lower, Date upper, bool ascending, std::int64_t limit);
    long count();
    // Both delete in one statement and transaction and return the number of rows removed.
    long deleteUpTo(Date date);
    // Rows with an id up to and including the given one.
    long deleteUpToId(std::int64_t id);
    long deleteObjects(const std::vector<std::int64_t>& ids);

    // The batch waiting for the service's acceptance (see RVLPendingBatchStorable). Its
    // stored events are named by row id; the closing event, if any, is kept in the record.
    enum class BatchRecording { recorded, anotherPending, eventsMissing, notWritten };
    BatchRecording recordPendingBatch(const std::string& batchId, std::int64_t sequentialId,
                                      const std::vector<std::int64_t>& eventIds,
                                      const std::optional<EventPayload>& closingEvent);
    std::optional<PendingBatch> pendingBatch();
    std::optional<long> deleteAcceptedBatch(const std::string& batchId);
    void abandonPendingBatch(const std::string& batchId);
    // The same without holding the batch's events (see RVLPendingBatchStorable).
    std::optional<PendingBatchOutline> pendingBatchOutline();
    bool forEachPendingBatchEvent(const std::string& batchId, const std::function<void(const EventPayload&)>& each);
    std::optional<PendingBatchOutline> recordPendingBatchOfAllEvents(
        const std::string& batchId, std::int64_t sequentialId,
        const std::function<EventPayload(const StoredEventsDigest&)>& closing);

    // The permanent identifier of a row as URI text, and back. A URI of another store or
    // entity, or one that does not name a row id, gives none.
    std::string uriRepresentation(std::int64_t id) const;
    std::optional<std::int64_t> objectIDForURIRepresentation(std::string_view uri) const;

    // Runs fn on the background executor with the connection (null when not loaded) and
    // waits. For tests and benchmarks that need to reach below the store.
    void performAndWaitWithConnection(const std::function<void(sqlite::Database*)>& fn);

private:
    struct Statements;
    struct CarriedState;

    // reportFailure: false for the quiet retries after the first failure was reported.
    void load(bool reportFailure);
    // On the executor: true when the store is open, trying to open it again if it is not.
    bool ensureLoaded();
    void openAndPrepare(const CarriedState* carried);
    void createSchema(const CarriedState* carried);
    void checkSchema(std::int64_t version);
    void closeConnection(bool checkpoint);
    std::optional<std::filesystem::path> moveAside(std::string& failure);
    void recoverFromDamage(const std::string& what);
    void startOver(const std::string& what, bool carryOver, const char* linePrefix);
    std::string carryRows(StoreSalvage& salvage);
    void reclaimJournalSpace();
    template <typename Result, typename Body>
    Result guarded(const char* failure, Result onFailure, Body&& body);

    struct CommitTimerTarget;
    // Need pendingMutex_: schedule the save the queued rows are due for, and say whether
    // the caller is to post it (with postSave, once the lock is released).
    bool scheduleSaveLocked();
    bool scheduleSaveNowLocked();
    void postSave();
    void commitDelayEnded(std::uint64_t arming);

    void saveContext();
    void takePending();
    bool saveWaiting();
    bool writeRows();
    void writeChunk(std::size_t start, std::size_t count);
    void insertRow(std::int64_t id, std::string_view type, double trackedAt, std::string_view payload);
    void keepHighestEventId();
    template <typename Value>
    long deleteWhere(sqlite::Statement Statements::*statement, Value value);
    std::int64_t reserveIds(std::int64_t highestId);
    void readStoredEvent(sqlite::Statement& row, EventPayload& event) const;
    struct EventKey;
    static std::vector<EventPayload> inTimeOrder(std::vector<EventPayload> events, const std::vector<EventKey>& keys,
                                                 bool ascending);
    EventPayload storedEvent(sqlite::Statement& row) const;
    template <typename Fn>
    auto performAndWait(Fn&& fn);

    const std::filesystem::path path_;
    // Set once, on the executor, after storeIdentifier_ and uriPrefix_ (which never change
    // afterwards), so another thread that sees true may read them.
    std::atomic<bool> loaded_{false};
    std::string storeIdentifier_;
    std::string uriPrefix_;

    // Owned by the background executor.
    std::unique_ptr<sqlite::Database> db_;
    std::unique_ptr<Statements> statements_;
    std::vector<PendingRow> writing_;  // taken from pending_; kept after a failed save
    // Why the last save could not write (empty when it could): the waiting rows are
    // capped only then, and the console line that drops rows says why.
    std::string unwritableReason_;
    std::size_t chunkRows_ = maxRowsPerTransaction;  // halved on a full disk
    // The highest row id handed out so far: new rows are numbered after it, in this store
    // and in a new store replacing a damaged one.
    std::int64_t highestKnownId_ = 0;
    std::int64_t idsReservedThrough_ = 0;  // as the store file says
    std::string keptScratch_;  // the payload ending each insert compares

    const CommitDelay commitDelay_;
    // Reached by the commit timer's callback, which may outlive this manager.
    const std::shared_ptr<CommitTimerTarget> commitTimerTarget_;

    std::mutex pendingMutex_;
    std::vector<PendingRow> pending_;
    bool saveScheduled_ = false;  // a save task is queued on the executor
    std::shared_ptr<RunLoopTimer> commitTimer_;  // armed while rows wait for the delay
    std::uint64_t commitTimerArmings_ = 0;

    // Last member: destroyed first, after its tasks have drained.
    SerialExecutor background_;
};

}  // namespace rovalis
