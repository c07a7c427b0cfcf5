#include "events/EventRepository.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <future>
#include <thread>

#include "events/SqliteDatabase.h"
#include "support/FullDiskVfs.h"
#include "support/TestSupport.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

namespace fs = std::filesystem;
using test::ConsoleCapture;
using test::TempDir;

// A row's URI as what names the store and entity, and the row id after its final "p".
std::pair<std::string, long long> splitUri(const std::string& uri) {
    const auto p = uri.rfind('p');
    return {uri.substr(0, p), std::stoll(uri.substr(p + 1))};
}

// Each test starts with a new store open.
class EventRepositoryTest : public ::testing::Test {
protected:
    void SetUp() override { open(); }

    EventRepository& open(const std::string& name = "events.sqlite") {
        repository_ = std::make_unique<EventRepository>(dir_ / name);
        return *repository_;
    }
    void close() { repository_.reset(); }
    std::vector<EventPayload> rows() { return repository_->fetchEventsPayloadTo(std::nullopt, 0); }

    void insertWaypointAt(double seconds, double latitude = 52.5) {
        repository_->insertWaypointEventWithTrackedAtMs(Date{seconds}, latitude, 13.4, 1.5, 90, 5, 34, "gps");
    }

    // Runs produce while the store's executor is held, so that all it queues waits at once.
    void whileTheStoreIsBusy(const std::function<void()>& produce) {
        std::promise<void> holding, release;
        std::thread holder([&] {
            repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database*) {
                holding.set_value();
                release.get_future().wait();
            });
        });
        holding.get_future().wait();
        produce();
        release.set_value();
        holder.join();
    }

    static std::vector<double> times(const std::vector<EventPayload>& payloads) {
        std::vector<double> result;
        for (const auto& payload : payloads) result.push_back(payload.trackedAtMs.secondsSince1970);
        return result;
    }

    TempDir dir_;
    std::unique_ptr<EventRepository> repository_;
};

// ---- Fetching ----

TEST_F(EventRepositoryTest, FetchReturnsOldestFirstWithLimitAndStopsAtTheGivenUri) {
    const double past = Date::distantPast().secondsSince1970, future = Date::distantFuture().secondsSince1970;
    for (const double t : {5.0, 3.0, past, 1.0, 4.0, future, 2.0}) insertWaypointAt(t);

    // Fetches run from after distantPast up to and including distantFuture.
    const auto all = rows();
    ASSERT_EQ(times(all), (std::vector<double>{1, 2, 3, 4, 5, future}));
    EXPECT_EQ(all[0].type, "Waypoint");
    EXPECT_EQ(times(repository_->fetchEventsPayloadTo(std::nullopt, 2)), (std::vector<double>{1, 2}));
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::nullopt, -1).size(), 6u);
    EXPECT_EQ(repository_->fetchEventsPayloadTo(all[2].uri, 0), (std::vector<EventPayload>{all[0], all[1], all[2]}));
    EXPECT_EQ(repository_->fetchEventsPayloadTo(all[2].uri, 2).size(), 2u);
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::string("x-rovalis-store://nowhere/EventEntity/p1"), 0), all);
    EXPECT_EQ(times(repository_->fetchLastEventsPayloadWithLimit(2)), (std::vector<double>{future, 5}));
    EXPECT_EQ(repository_->eventsCount(), 7);
}

TEST_F(EventRepositoryTest, InsertsFromOneThreadAreFetchedInCallOrderAndCommittedInFewTransactions) {
    int commits = 0;
    repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database* db) {
        sqlite3_commit_hook(db->handle(), [](void* n) { ++*static_cast<int*>(n); return 0; }, &commits);
    });

    // The burst is queued while the store is busy, so it is one save: one full transaction
    // and the rest.
    const int burst = static_cast<int>(CoreDataManager::maxRowsPerTransaction) + 1000;
    whileTheStoreIsBusy([&] {
        for (int i = 0; i < burst; ++i) insertWaypointAt(1700000000.0, -90 + i * 0.03);
    });

    const auto fetched = rows();
    ASSERT_EQ(fetched.size(), static_cast<std::size_t>(burst));
    for (int i = 0; i < burst; ++i) {
        const Waypoint expected(Date{1700000000.0}, -90 + i * 0.03, 13.4, 1.5, 90, 5, 34, "gps");
        ASSERT_EQ(fetched[i].payload, EventEncoder().encode(expected));
    }
    EXPECT_EQ(commits, 2);
    repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database* db) {
        sqlite3_commit_hook(db->handle(), nullptr, nullptr);
        // The file keeps each event without the time and type its columns hold.
        const std::string payload = fetched[0].payload;
        const auto ending = payload.find("\"tracked_at_ms\"");
        EXPECT_EQ(db->queryText("SELECT payload FROM EventEntity LIMIT 1"), payload.substr(0, ending));
    });
}

// What another connection sees in the file: the committed rows only.
long committedRows(const fs::path& file) {
    sqlite::Database db(file.string(), sqlite::Database::Mode::readOnly);
    return static_cast<long>(db.queryInt64("SELECT COUNT(*) FROM EventEntity"));
}

TEST_F(EventRepositoryTest, QueuedRowsWaitAtMostTheCommitDelayAndAreCommittedAtOnceWhenTheBuffersAreWritten) {
    close();
    const auto tracker = std::make_shared<WorkTracker>();
    const auto loop = std::make_shared<VirtualRunLoop>(std::make_shared<SettableDateSource>(Date{1700000000.0}), tracker);
    repository_ = std::make_unique<EventRepository>(dir_ / "events.sqlite", tracker, CommitDelay{loop, 1.0});
    const fs::path file = dir_ / "events.sqlite";

    // Rows that arrive within the delay of the first share its commit.
    insertWaypointAt(1.0);
    loop->fastForwardBy(0.5);
    insertWaypointAt(2.0);
    loop->fastForwardBy(0.375);
    EXPECT_EQ(committedRows(file), 0);
    loop->fastForwardBy(0.125);
    EXPECT_EQ(committedRows(file), 2) << "committed one second after the first";
    insertWaypointAt(3.0);
    loop->fastForwardBy(0.875);
    EXPECT_EQ(committedRows(file), 2);
    loop->fastForwardBy(0.125);
    EXPECT_EQ(committedRows(file), 3) << "the next row starts a delay of its own";

    // Writing the buffers (a sleep, a stop, the background, the end of the app) commits at
    // once, and so does a transaction's worth; the clock stands still.
    insertWaypointAt(4.0);
    repository_->insertAccelerationEvents({Acceleration(Date{4.5}, Decimal{981, 2}), Acceleration(Date{4.6}, Decimal{982, 2})});
    repository_->insertBuffers();
    loop->runUntilIdle();
    EXPECT_EQ(committedRows(file), 6);
    for (std::size_t i = 0; i < CoreDataManager::maxRowsPerTransaction; ++i) insertWaypointAt(5.0);
    loop->runUntilIdle();
    EXPECT_EQ(committedRows(file), 6 + static_cast<long>(CoreDataManager::maxRowsPerTransaction));

    // A read sees what is queued, and closing the store commits the rest.
    insertWaypointAt(6.0);
    EXPECT_EQ(repository_->eventsCount(), 7 + static_cast<long>(CoreDataManager::maxRowsPerTransaction));
    insertWaypointAt(7.0);
    close();
    EXPECT_EQ(committedRows(file), 8 + static_cast<long>(CoreDataManager::maxRowsPerTransaction));
    EXPECT_FALSE(loop->nextPendingDelay()) << "no commit timer is left behind";
}

// ---- Deleting ----

TEST_F(EventRepositoryTest, DeleteUpToIncludesRowsAtThatTime) {
    for (const double t : {10.0, 20.0, 30.0}) insertWaypointAt(t);
    ConsoleCapture console;
    EXPECT_EQ(repository_->deleteEventsWithUpTo(Date{20.0}), 2);
    EXPECT_TRUE(console.contains("Successfully deleted EventEntity objects"));
    EXPECT_EQ(times(rows()), std::vector<double>{30.0});
}

// What a batch held is told apart from what was stored after it by the order of storing,
// not by time: a later row may carry an earlier time.
TEST_F(EventRepositoryTest, DeleteStoredUpToFollowsTheOrderOfStoringNotTime) {
    for (const double t : {30.0, 10.0, 20.0}) insertWaypointAt(t);
    const auto batch = rows();  // by time: 10, 20, 30
    EXPECT_EQ(repository_->lastStoredURIAmong(batch), batch[1].uri);  // 20 was stored last
    insertWaypointAt(5.0);  // after the batch, with the earliest time

    const std::string foreign = "x-rovalis-store://00000000-0000-4000-8000-000000000000/EventEntity/p9";
    EXPECT_EQ(repository_->deleteEventsStoredUpTo(foreign), 0);
    EXPECT_EQ(repository_->deleteEventsStoredUpTo(*repository_->lastStoredURIAmong(batch)), 3);
    EXPECT_EQ(times(rows()), std::vector<double>{5.0});
    EXPECT_EQ(repository_->lastStoredURIAmong({}), std::nullopt);
}

TEST_F(EventRepositoryTest, DeleteByPayloadRemovesExactlyTheNamedRowsOfThisStore) {
    for (const double t : {1.0, 2.0, 3.0}) insertWaypointAt(t);
    const auto all = rows();
    const std::string ownPrefix = all[0].uri.substr(0, all[0].uri.rfind('/') + 1);

    ConsoleCapture console;
    EXPECT_EQ(repository_->deleteEventsWithPayload({}), 0);
    EXPECT_TRUE(console.contains("No valid object IDs found"));

    // Rows of another store, another entity, or ids that are not ours are skipped.
    std::vector<EventPayload> foreignPayloads;
    for (const std::string& uri : {std::string("x-rovalis-store://00000000-0000-4000-8000-000000000000/EventEntity/p1"),
                                   ownPrefix.substr(0, ownPrefix.rfind("EventEntity/")) + "Other/p1", ownPrefix + "p01",
                                   ownPrefix + "q1", ownPrefix + "p", std::string("https://example.org/p1")}) {
        foreignPayloads.push_back(all[0]);
        foreignPayloads.back().uri = uri;
    }
    EXPECT_EQ(repository_->deleteEventsWithPayload(foreignPayloads), 0);
    EXPECT_EQ(repository_->eventsCount(), 3);

    foreignPayloads.push_back(all[0]);
    foreignPayloads.push_back(all[2]);
    EXPECT_EQ(repository_->deleteEventsWithPayload(foreignPayloads), 2);
    EXPECT_TRUE(console.contains("Successfully deleted EventEntity objects"));
    EXPECT_EQ(rows(), std::vector<EventPayload>{all[1]});
    // Deleting the same rows again finds nothing left to delete.
    EXPECT_EQ(repository_->deleteEventsWithPayload({all[0], all[2]}), 0);
}

TEST_F(EventRepositoryTest, DeleteByPayloadSpansManyStatementsInOneCall) {
    for (int i = 0; i < 1234; ++i) insertWaypointAt(1000.0 + i);
    const auto all = rows();
    ConsoleCapture console;
    EXPECT_EQ(repository_->deleteEventsWithPayload({all.begin(), all.begin() + 1201}), 1201);
    EXPECT_EQ(rows(), std::vector<EventPayload>(all.begin() + 1201, all.end()));
}

TEST_F(EventRepositoryTest, DeleteByPayloadStopsOnTextThatIsNotAUri) {
    const auto deleteUri = [&](const std::string& uri) {
        EventPayload payload{"Waypoint", Date{1}, "{}", uri};
        repository_->deleteEventsWithPayload({payload});
    };
    EXPECT_DEATH(deleteUri(""), "Invalid URI: ");
    EXPECT_DEATH(deleteUri("EventEntity/p1"), "Invalid URI: EventEntity/p1");
    EXPECT_DEATH(deleteUri("1x://a"), "Invalid URI: 1x://a");
    EXPECT_DEATH(deleteUri("x_y://a"), "Invalid URI: x_y://a");
    EXPECT_DEATH(deleteUri("x-rovalis-store://a/EventEntity/p1\n"), "Invalid URI: x-rovalis-store://a");
}

// ---- Identifiers and persistence ----

TEST_F(EventRepositoryTest, RowsUrisAndIdSequenceSurviveARestartAndToggleTrackingReturnsTheUriOfItsRow) {
    for (const double t : {1.0, 2.0, 3.0}) insertWaypointAt(t);
    const auto before = rows();
    ConsoleCapture console;
    ASSERT_EQ(repository_->deleteEventsWithPayload({before[2]}), 1);  // the newest id
    close();

    open();
    EXPECT_EQ(rows(), (std::vector<EventPayload>{before[0], before[1]}));
    const auto uri = repository_->insertToggleTrackingEventWithTrackedAtMs(Date{1.5}, false, 1);
    ASSERT_TRUE(uri.has_value());
    const auto after = rows();
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(after[1].uri, *uri);
    EXPECT_EQ(after[1].type, "ToggleTracking");
    const ToggleTracking toggle(Date{1.5}, false, ToggleTracking::Reason::locationService);
    EXPECT_EQ(after[1].payload, EventEncoder().encode(toggle));
    // Same store, and a deleted id is never handed out again.
    EXPECT_EQ(splitUri(*uri).first, splitUri(before[2].uri).first);
    EXPECT_GT(splitUri(*uri).second, splitUri(before[2].uri).second);
}

// ---- The pending batch ----

TEST_F(EventRepositoryTest, PendingBatchKeepsItsEventsAndClosingEventAcrossARestartUntilAccepted) {
    for (const double t : {3.0, 1.0, 2.0, 4.0}) insertWaypointAt(t);
    auto held = rows();
    held.pop_back();  // the three oldest
    const EventPayload closing{"Debug", Date{3.1}, R"({"comment":"closing","topic":"Log","tracked_at_ms":3100,"type":"Debug"})", ""};
    PendingBatch batch{"B-1", 7, held};
    batch.events.push_back(closing);
    ASSERT_TRUE(repository_->recordPendingBatch(batch));

    ConsoleCapture console;
    EXPECT_FALSE(repository_->recordPendingBatch(PendingBatch{"B-2", 8, {rows().back()}})) << "one at a time";
    close();
    open();
    EXPECT_EQ(repository_->pendingBatch(), batch) << "the same events in the same order, and the closing one";

    EXPECT_EQ(repository_->deleteAcceptedBatch("B-0"), std::nullopt) << "another batch's acceptance";
    EXPECT_EQ(rows().size(), 4u);
    EXPECT_EQ(repository_->deleteAcceptedBatch("B-1"), 3);
    EXPECT_EQ(times(rows()), std::vector<double>{4});
    EXPECT_EQ(repository_->pendingBatch(), std::nullopt);
    EXPECT_EQ(repository_->deleteAcceptedBatch("B-1"), std::nullopt) << "accepted twice, deleted once";
    EXPECT_EQ(rows().size(), 1u);

    // A batch of every stored event empties the store at once; ids still never come back.
    const auto last = rows();
    ASSERT_TRUE(repository_->recordPendingBatch(PendingBatch{"B-2", 8, last}));
    EXPECT_EQ(repository_->deleteAcceptedBatch("B-2"), 1);
    EXPECT_EQ(repository_->eventsCount(), 0);
    insertWaypointAt(5.0);
    EXPECT_GT(splitUri(rows().at(0).uri).second, splitUri(last.at(0).uri).second);
}

TEST_F(EventRepositoryTest, ABatchOfEveryEventIsStreamedInTimeOrderAPartAtATime) {
    // More events than one part's keys, 64 at each time and in no order of time, so
    // that events of the same time straddle the parts' boundary.
    const int events = static_cast<int>(CoreDataManager::pendingKeysAtATime) + 300;
    whileTheStoreIsBusy([&] {
        for (int i = 0; i < events; ++i) insertWaypointAt(1700000000.0 + (i * 7919 % events) / 64);
    });
    const auto closing = [](const StoredEventsDigest&) {
        return EventPayload{"Debug", Date{1800000000.0}, R"({"comment":"closing","type":"Debug"})", ""};
    };
    ASSERT_TRUE(repository_->recordPendingBatchOfAllEvents("B-ALL", 1, closing));
    const auto whole = repository_->pendingBatch();
    ASSERT_TRUE(whole && whole->complete);
    std::vector<EventPayload> streamed;
    EXPECT_TRUE(repository_->forEachPendingBatchEvent("B-ALL", [&](const EventPayload& e) { streamed.push_back(e); }));
    EXPECT_TRUE(streamed == whole->events) << "every event once, in time and id order, then the closing event";
    EXPECT_TRUE(std::is_sorted(whole->events.begin(), whole->events.end() - 1, [](const auto& a, const auto& b) {
        return a.trackedAtMs.secondsSince1970 < b.trackedAtMs.secondsSince1970;
    }));
}

TEST_F(EventRepositoryTest, PendingBatchIsRefusedForMissingEventsAndReportedIncompleteWhenTheyGo) {
    for (const double t : {1.0, 2.0, 3.0}) insertWaypointAt(t);
    const auto all = rows();
    ConsoleCapture console;
    ASSERT_EQ(repository_->deleteEventsWithPayload({all[1]}), 1);
    EXPECT_FALSE(repository_->recordPendingBatch(PendingBatch{"B-1", 1, all})) << "an event is no longer stored";
    EXPECT_EQ(repository_->pendingBatch(), std::nullopt) << "nothing of it was kept";

    ASSERT_TRUE(repository_->recordPendingBatch(PendingBatch{"B-1", 1, {all[0], all[2]}}));
    repository_->deleteEventsWithUpTo(Date{1.0});  // a clear of the oldest
    const auto pending = repository_->pendingBatch();
    ASSERT_TRUE(pending);
    EXPECT_FALSE(pending->complete);
    EXPECT_EQ(pending->events, std::vector<EventPayload>{all[2]});

    repository_->abandonPendingBatch("B-other");
    EXPECT_TRUE(repository_->pendingBatch());
    repository_->abandonPendingBatch("B-1");
    EXPECT_EQ(repository_->pendingBatch(), std::nullopt);
    EXPECT_EQ(rows(), std::vector<EventPayload>{all[2]}) << "abandoning keeps the events";
}

// ---- Acceleration buffer ----

TEST_F(EventRepositoryTest, AccelerationsAreWrittenWhenTheBufferFillsOrIsFlushed) {
    for (int i = 0; i < 299; ++i) repository_->insertAccelerationEventWithTrackedAtMs(Date{1.0 + i}, Decimal{i, 2});
    EXPECT_EQ(repository_->eventsCount(), 0);
    repository_->insertAccelerationEventWithTrackedAtMs(Date{300.0}, Decimal{299, 2});
    EXPECT_EQ(repository_->eventsCount(), 300);

    for (int i = 0; i < 10; ++i) repository_->insertAccelerationEventWithTrackedAtMs(Date{1000.0 + i}, Decimal{i, 3});
    EXPECT_EQ(repository_->eventsCount(), 300);
    repository_->insertBuffers();
    const auto last = repository_->fetchLastEventsPayloadWithLimit(10);
    ASSERT_EQ(last.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(last[9 - i].type, "Acceleration");
        EXPECT_EQ(last[9 - i].payload, EventEncoder().encode(Acceleration(Date{1000.0 + i}, Decimal{i, 3})));
    }
    repository_->insertBuffers();  // a flush leaves nothing behind to write twice
    EXPECT_EQ(repository_->eventsCount(), 310);
}

TEST_F(EventRepositoryTest, BufferedAccelerationsAreWrittenWhenTheStoreCloses) {
    for (int i = 0; i < 7; ++i) repository_->insertAccelerationEventWithTrackedAtMs(Date{1.0 + i}, Decimal{i, 1});
    close();
    EXPECT_EQ(open().eventsCount(), 7);
}

// ---- Faults ----

// The files a store was moved aside as: "<name>.unreadable-<unix ms>", without its journals.
std::vector<fs::path> keptAside(const TempDir& dir, const std::string& name) {
    std::vector<fs::path> aside;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        const std::string file = entry.path().filename().string();
        if (file.starts_with(name + ".unreadable-") && !file.ends_with("-wal") && !file.ends_with("-shm")) {
            aside.push_back(entry.path());
        }
    }
    return aside;
}

TEST_F(EventRepositoryTest, FilesThatAreNotThisStoreAreKeptAsideAndANewStoreIsCreated) {
    const auto makeDatabase = [&](const std::string& name, const std::string& sql) {
        sqlite::Database(dir_ / name, true).exec(sql);
    };
    test::writeFile(dir_ / "garbage.sqlite", std::string(4096, '\x5a'));
    test::writeFile(dir_ / "zeros.sqlite", std::string(8192, '\0'));
    makeDatabase("other-layout.sqlite",
                 "CREATE TABLE EventEntity (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT);"
                 "CREATE TABLE StoreMetadata (singleton INTEGER PRIMARY KEY, store_uuid TEXT);"
                 "PRAGMA user_version = 2");
    makeDatabase("other-app.sqlite", "CREATE TABLE notes (id INTEGER PRIMARY KEY, text TEXT)");
    // This store's own layout, written by a newer version.
    close();
    open("newer.sqlite");
    insertWaypointAt(1.0);
    ASSERT_EQ(repository_->eventsCount(), 1);
    repository_->coreDataManager().performAndWaitWithConnection(
        [](sqlite::Database* db) { db->exec("PRAGMA user_version = 4"); });
    close();

    for (const std::string name : {"garbage.sqlite", "zeros.sqlite", "other-layout.sqlite", "other-app.sqlite",
                                   "newer.sqlite"}) {
        SCOPED_TRACE(name);
        const std::string before = test::readFile(dir_ / name);
        ConsoleCapture console;
        open(name);
        const auto lines = console.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with("Load persistent stores finished with error = ")) << lines[0];
        const auto aside = keptAside(dir_, name);
        ASSERT_EQ(aside.size(), 1u);
        EXPECT_NE(lines[0].find("kept as \"" + aside[0].string() + "\""), std::string::npos) << lines[0];
        EXPECT_EQ(test::readFile(aside[0]), before) << "kept untouched";

        EXPECT_EQ(repository_->eventsCount(), 0);
        insertWaypointAt(2.0);
        EXPECT_EQ(times(rows()), std::vector<double>{2.0});
        close();
        EXPECT_EQ(open(name).eventsCount(), 1) << "the new store is the store from now on";
        close();
    }
}

TEST_F(EventRepositoryTest, StoreOfTheFirstVersionIsKeptAndMigrated) {
    close();
    {
        sqlite::Database db(dir_ / "v1.sqlite", true);
        db.exec("PRAGMA journal_mode = WAL;"
                "CREATE TABLE EventEntity (id INTEGER PRIMARY KEY AUTOINCREMENT, type TEXT NOT NULL,"
                " tracked_at_ms REAL NOT NULL, payload BLOB NOT NULL);"
                "CREATE INDEX EventEntity_tracked_at ON EventEntity (tracked_at_ms, id);"
                "CREATE TABLE StoreMetadata (singleton INTEGER PRIMARY KEY CHECK (singleton = 1),"
                " store_uuid TEXT NOT NULL);"
                "INSERT INTO StoreMetadata VALUES (1, '6F1C8E0A-2B7D-4C55-9A3E-0D4B7C2E9F11');"
                "INSERT INTO EventEntity VALUES (41, 'Debug', 5, '{\"type\":\"Debug\"}');"
                "UPDATE sqlite_sequence SET seq = 50;"  // ids 42 to 50 were handed out and deleted
                "PRAGMA user_version = 1");
    }
    ConsoleCapture console;
    open("v1.sqlite");
    EXPECT_TRUE(console.lines().empty());
    const auto stored = rows();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].uri, "x-rovalis-store://6F1C8E0A-2B7D-4C55-9A3E-0D4B7C2E9F11/EventEntity/p41");
    EXPECT_EQ(stored[0].payload, R"({"type":"Debug"})");
    EXPECT_TRUE(repository_->recordPendingBatch(PendingBatch{"B-1", 1, stored}));
    EXPECT_TRUE(keptAside(dir_, "v1.sqlite").empty());

    // Rows are numbered after the old sequence, across a restart, and the time index is gone.
    const auto uri = repository_->insertToggleTrackingEventWithTrackedAtMs(Date{6}, true, 0);
    ASSERT_TRUE(uri);
    EXPECT_EQ(splitUri(*uri).second, 51);
    close();
    open("v1.sqlite");
    insertWaypointAt(7.0);
    EXPECT_EQ(splitUri(rows().back().uri).second, 52);
    repository_->coreDataManager().performAndWaitWithConnection([](sqlite::Database* db) {
        EXPECT_EQ(db->queryInt64("PRAGMA user_version"), 3);
        EXPECT_EQ(db->queryInt64("SELECT count(*) FROM sqlite_schema"
                                 " WHERE type = 'index' AND name NOT LIKE 'sqlite_%'"),
                  0);
    });
}

// A store of a few thousand rows, its journal copied into the file, then closed.
class DamagedStoreTest : public EventRepositoryTest {
protected:
    static constexpr int rowCount = 3000;
    static constexpr std::size_t pageSize = CoreDataManager::pageSize;

    // The pending batch holds the oldest batchRows rows and a closing event.
    void fillAndClose(std::size_t batchRows = rowCount) {
        for (int i = 0; i < rowCount; ++i) insertWaypointAt(1000.0 + i);
        original_ = rows();
        ASSERT_EQ(original_.size(), static_cast<std::size_t>(rowCount));
        const EventPayload closing{"Debug", Date{5000}, R"({"comment":"closing","type":"Debug"})", ""};
        batch_ = PendingBatch{"B-1", 3, {original_.begin(), original_.begin() + static_cast<long>(batchRows)}};
        batch_.events.push_back(closing);
        ASSERT_TRUE(repository_->recordPendingBatch(batch_));
        repository_->coreDataManager().performAndWaitWithConnection(
            [](sqlite::Database* db) { db->exec("PRAGMA wal_checkpoint(TRUNCATE)"); });
        close();
    }

    // Rows that were stored and are no longer fetched.
    std::vector<EventPayload> lost(const std::vector<EventPayload>& fetched) {
        std::vector<EventPayload> result;
        std::set_difference(original_.begin(), original_.end(), fetched.begin(), fetched.end(),
                            std::back_inserter(result), [](const EventPayload& a, const EventPayload& b) {
                                return a.trackedAtMs.secondsSince1970 < b.trackedAtMs.secondsSince1970;
                            });
        return result;
    }

    // Carried rows keep their ids, URIs and payloads.
    void expectCarriedUnchanged(const std::vector<EventPayload>& fetched) {
        for (const auto& row : fetched) {
            const auto index = static_cast<std::size_t>(row.trackedAtMs.secondsSince1970 - 1000.0);
            ASSERT_LT(index, original_.size());
            ASSERT_EQ(row, original_[index]);
        }
    }

    const fs::path path_ = dir_ / "events.sqlite";
    std::vector<EventPayload> original_;
    PendingBatch batch_;
};

TEST_F(DamagedStoreTest, DamagedPageIsPassedOverAndEveryOtherValidRowIsCarriedIntoANewStore) {
    fillAndClose();
    {
        // Two rows that are not events: ill-formed UTF-8, and a type that names no kind of event.
        sqlite::Database db(path_, false);
        db.exec("UPDATE EventEntity SET payload = CAST(X'7B2274797065223A2257FF227D' AS BLOB) WHERE id = 1;"
                "UPDATE EventEntity SET type = 'Waypoinx' WHERE id = 2");
    }
    const std::size_t cellsOnPage = test::damageMiddleLeafPage(path_, "EventEntity");
    const std::string file = test::readFile(path_);

    ConsoleCapture console;
    open();
    EXPECT_TRUE(console.lines().empty()) << "the damage is not on a page that opening reads";
    // The fetch that meets the damage is answered from the new store.
    const auto fetched = rows();
    const auto missing = lost(fetched);
    ASSERT_EQ(missing.size(), 2 + cellsOnPage) << "the two invalid rows and those of the damaged page are gone";
    EXPECT_EQ(fetched.size() + missing.size(), original_.size());
    EXPECT_EQ(missing[0], original_[0]);
    EXPECT_EQ(missing[1], original_[1]);
    EXPECT_EQ(splitUri(missing.back().uri).second - splitUri(missing[2].uri).second,
              static_cast<long long>(cellsOnPage) - 1)
        << "one page holds consecutive rows";
    expectCarriedUnchanged(fetched);

    const auto aside = keptAside(dir_, "events.sqlite");
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(test::readFile(aside[0]), file) << "kept untouched";
    const auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("The event store is damaged: database disk image is malformed")) << lines[0];
    EXPECT_NE(lines[0].find("kept as \"" + aside[0].string() + "\""), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("with the " + std::to_string(fetched.size()) +
                            " events that could be read; 2 unreadable or invalid events were skipped"),
              std::string::npos)
        << lines[0];

    // The pending batch came along, without the lost rows, so it reads as incomplete.
    const auto pending = repository_->pendingBatch();
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->batchId, "B-1");
    EXPECT_EQ(pending->sequentialId, 3);
    EXPECT_FALSE(pending->complete);
    auto expectedEvents = fetched;
    expectedEvents.push_back(batch_.events.back());
    EXPECT_EQ(pending->events, expectedEvents);

    // New rows are numbered after every row the damaged store held.
    const auto uri = repository_->insertToggleTrackingEventWithTrackedAtMs(Date{9000}, true, 0);
    ASSERT_TRUE(uri);
    EXPECT_EQ(splitUri(*uri).first, splitUri(original_[0].uri).first);
    EXPECT_GT(splitUri(*uri).second, splitUri(original_.back().uri).second);
    close();
    EXPECT_EQ(open().eventsCount(), static_cast<long>(fetched.size()) + 1);
}

TEST_F(DamagedStoreTest, APendingBatchWhoseClosingEventCannotBeReadIsNotSentAgainAsIfWhole) {
    fillAndClose(100);
    {
        sqlite::Database db(path_, false);
        db.exec("UPDATE PendingBatch SET closing_payload = CAST(X'7BFF' AS BLOB)");
    }
    test::damageMiddleLeafPage(path_, "EventEntity");
    ConsoleCapture console;
    open();
    ASSERT_LT(rows().size(), original_.size()) << "the damage was met";
    const auto pending = repository_->pendingBatch();
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->events, std::vector<EventPayload>(original_.begin(), original_.begin() + 100))
        << "every stored member, without the closing event";
    EXPECT_FALSE(pending->complete);
}

TEST_F(DamagedStoreTest, StoreCutShortKeepsWhatItsRemainingPagesHold) {
    fillAndClose();
    std::string file = test::readFile(path_);
    file.resize(file.size() * 3 / 5 / pageSize * pageSize);
    test::writeFile(path_, file);

    ConsoleCapture console;
    open();
    const auto fetched = rows();
    EXPECT_GT(fetched.size(), 0u);
    EXPECT_LT(fetched.size(), original_.size());
    expectCarriedUnchanged(fetched);
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_TRUE(console.lines()[0].starts_with("Load persistent stores finished with error = ")) << console.lines()[0];
    ASSERT_EQ(keptAside(dir_, "events.sqlite").size(), 1u);
    const auto uri = repository_->insertToggleTrackingEventWithTrackedAtMs(Date{9000}, true, 0);
    ASSERT_TRUE(uri);
    EXPECT_GT(splitUri(*uri).second, splitUri(original_.back().uri).second);
}

// The disk fills while the store is in use, and again before it is opened.
class FullDiskTest : public EventRepositoryTest {
protected:
    void SetUp() override { open(); }  // on the file system that can fill
    void TearDown() override { close(); }

    test::FullDiskVfs disk_;
};

TEST_F(FullDiskTest, WhatFitsIsWrittenInOrderTheRestWaitsAndIsWrittenOnceThereIsSpace) {
    // Space inside the files that rows can take once the disk is full.
    for (int i = 0; i < 3000; ++i) insertWaypointAt(1.0);
    repository_->deleteEventsWithUpTo(Date::distantFuture());
    repository_->coreDataManager().performAndWaitWithConnection(
        [](sqlite::Database* db) { db->exec("PRAGMA wal_checkpoint(PASSIVE)"); });

    disk_.setFull(true);
    ConsoleCapture console;
    constexpr int inserted = 30000;
    for (int i = 0; i < inserted; ++i) insertWaypointAt(100.0 + i);
    const auto partly = rows();
    EXPECT_GT(partly.size(), 0u) << "what fits is written";
    EXPECT_LT(partly.size(), static_cast<std::size_t>(inserted));
    for (std::size_t i = 0; i < partly.size(); ++i) ASSERT_EQ(partly[i].trackedAtMs.secondsSince1970, 100.0 + i);
    EXPECT_FALSE(repository_->insertToggleTrackingEventWithTrackedAtMs(Date{1e6}, true, 0).has_value());
    const auto lines = console.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Failed to save context: database or disk is full"), 1)
        << "said once, not at every save";

    disk_.setFull(false);
    const auto all = rows();
    ASSERT_EQ(all.size(), static_cast<std::size_t>(inserted) + 1);
    for (int i = 0; i < inserted; ++i) ASSERT_EQ(all[i].trackedAtMs.secondsSince1970, 100.0 + i);
    EXPECT_EQ(all.back().type, "ToggleTracking");

    // Opening a store on a full disk only reads it; reading works, and deleting frees space.
    close();
    disk_.setFull(true);
    const int writesBefore = disk_.writesWhileFull();
    open();
    EXPECT_EQ(rows(), all);
    EXPECT_EQ(disk_.writesWhileFull(), writesBefore) << "opening and reading write nothing";
    EXPECT_EQ(repository_->deleteEventsWithUpTo(Date{100.0 + 999}), 1000);
    for (int i = 0; i < 500; ++i) insertWaypointAt(2e6 + i);
    EXPECT_EQ(repository_->eventsCount(), inserted + 1 - 1000 + 500) << "new rows take the space freed";
}

TEST_F(EventRepositoryTest, FastProducerOnAHealthyStoreLosesNothing) {
    // Every row waits at once, three times the cap that applies to a store that cannot be written.
    constexpr int produced = 300001;
    whileTheStoreIsBusy([&] {
        for (int i = 0; i < produced; ++i) insertWaypointAt(1000.0 + i);
    });

    ConsoleCapture console;
    EXPECT_EQ(repository_->eventsCount(), produced);
    EXPECT_TRUE(console.lines().empty());
    const auto newest = repository_->fetchLastEventsPayloadWithLimit(1);
    ASSERT_EQ(newest.size(), 1u);
    EXPECT_EQ(newest[0].trackedAtMs.secondsSince1970, 1000.0 + produced - 1);
}

TEST_F(EventRepositoryTest, StoreThatCannotBeOpenedKeepsEventsAndOpensOnceItCan) {
    ConsoleCapture console;
    open("missing/events.sqlite");
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_TRUE(console.lines()[0].starts_with("Load persistent stores finished with error = "));

    insertWaypointAt(1.0);
    EXPECT_FALSE(repository_->insertToggleTrackingEventWithTrackedAtMs(Date{2.0}, true, 0).has_value());
    EXPECT_EQ(repository_->eventsCount(), 0);
    EXPECT_EQ(repository_->deleteEventsWithUpTo(Date::distantFuture()), 0);
    EXPECT_EQ(console.lines().size(), 1u);  // the retries are quiet

    // Past the cap, the oldest waiting rows go.
    const std::size_t cap = CoreDataManager::maxWaitingRows;
    whileTheStoreIsBusy([&] {
        for (std::size_t i = 0; i < cap; ++i) insertWaypointAt(10.0 + static_cast<double>(i));
    });
    EXPECT_EQ(repository_->eventsCount(), 0);
    EXPECT_TRUE(console.contains("Dropped the oldest 2 of the events waiting to be stored: the store could not be "
                                 "opened: No such file or directory, and at most 100000 wait in memory"));

    // Once the directory exists, the next save opens the store and writes what waited.
    fs::create_directories(dir_ / "missing");
    const auto all = rows();
    ASSERT_EQ(all.size(), cap);
    EXPECT_EQ(all.front().trackedAtMs.secondsSince1970, 10.0);
    EXPECT_EQ(all.back().trackedAtMs.secondsSince1970, 10.0 + static_cast<double>(cap - 1));
    EXPECT_TRUE(console.contains("Persistent store loaded at \"" + (dir_ / "missing/events.sqlite").string() +
                                 "\"; " + std::to_string(cap) + " waiting events are written now"));
    EXPECT_TRUE(repository_->insertToggleTrackingEventWithTrackedAtMs(Date{3.0}, true, 0).has_value());
}

TEST_F(EventRepositoryTest, StoreFilesArePrivateToTheUser) {
    insertWaypointAt(1.0);
    EXPECT_EQ(repository_->eventsCount(), 1);  // the journal files exist while the store is open
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        EXPECT_EQ(test::fileMode(dir_ / ("events.sqlite" + suffix)), 0600u) << suffix;
    }
}

TEST_F(EventRepositoryTest, InvalidRecordStopsOnTheCallersThreadBeforeAnythingIsQueued) {
    EXPECT_DEATH(insertWaypointAt(1.0, 90.5), "Invalid Waypoint\\.latitude: 90\\.5");
}

}  // namespace
}  // namespace rovalis
