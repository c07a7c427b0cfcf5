#include "events/EventRepository.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <future>
#include <thread>

#include "events/SqliteDatabase.h"
#include "support/TestSupport.h"

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

TEST_F(EventRepositoryTest, InsertsFromOneThreadAreFetchedInCallOrderAndCommittedTogether) {
    int commits = 0;
    repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database* db) {
        sqlite3_commit_hook(db->handle(), [](void* n) { ++*static_cast<int*>(n); return 0; }, &commits);
    });

    // Hold the background executor while the burst is queued, so the burst is one save.
    std::promise<void> holding, release;
    std::thread holder([&] {
        repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database*) {
            holding.set_value();
            release.get_future().wait();
        });
    });
    holding.get_future().wait();
    for (int i = 0; i < 2000; ++i) insertWaypointAt(1700000000.0, -90 + i * 0.05);
    release.set_value();
    holder.join();

    const auto fetched = rows();
    ASSERT_EQ(fetched.size(), 2000u);
    for (int i = 0; i < 2000; ++i) {
        const Waypoint expected(Date{1700000000.0}, -90 + i * 0.05, 13.4, 1.5, 90, 5, 34, "gps");
        EXPECT_EQ(fetched[i].payload, EventEncoder().encode(expected));
    }
    EXPECT_EQ(commits, 1);
    repository_->coreDataManager().performAndWaitWithConnection(
        [](sqlite::Database* db) { sqlite3_commit_hook(db->handle(), nullptr, nullptr); });
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

TEST_F(EventRepositoryTest, FileThatIsNotADatabaseIsKeptAsideAndANewStoreIsCreated) {
    const std::string garbage(4096, '\x5a');
    test::writeFile(dir_ / "damaged.sqlite", garbage);

    ConsoleCapture console;
    open("damaged.sqlite");
    const auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("Load persistent stores finished with error = ")) << lines[0];

    std::vector<fs::path> aside;
    for (const auto& entry : fs::directory_iterator(dir_.path())) {
        if (entry.path().filename().string().starts_with("damaged.sqlite.unreadable-")) aside.push_back(entry.path());
    }
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(test::readFile(aside[0]), garbage);

    insertWaypointAt(1.0);
    EXPECT_EQ(repository_->eventsCount(), 1);
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

    // Once the directory exists, the next save opens the store and writes what waited.
    fs::create_directories(dir_ / "missing");
    const auto all = rows();
    EXPECT_EQ(times(all), (std::vector<double>{1, 2}));
    EXPECT_TRUE(console.contains("Persistent store loaded at \"" + (dir_ / "missing/events.sqlite").string() +
                                 "\"; 2 waiting events are written now"));
    EXPECT_TRUE(repository_->insertToggleTrackingEventWithTrackedAtMs(Date{3.0}, true, 0).has_value());
}

TEST_F(EventRepositoryTest, StoreFilesArePrivateToTheUser) {
    insertWaypointAt(1.0);
    EXPECT_EQ(repository_->eventsCount(), 1);  // the journal files exist while the store is open
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        EXPECT_EQ(test::fileMode(dir_ / ("events.sqlite" + suffix)), 0600u) << suffix;
    }
}

TEST_F(EventRepositoryTest, EventsWrittenWhileTheDiskIsFullAreKeptAndWrittenLater) {
    insertWaypointAt(1.0);
    ASSERT_EQ(repository_->eventsCount(), 1);
    const auto setMaxPageCount = [&](int pages) {
        repository_->coreDataManager().performAndWaitWithConnection(
            [&](sqlite::Database* db) { db->exec("PRAGMA max_page_count = " + std::to_string(pages)); });
    };
    setMaxPageCount(1);  // no more pages than the file has now

    ConsoleCapture console;
    for (int i = 0; i < 500; ++i) insertWaypointAt(2.0 + i);
    // A few may still fit into the pages the file has; the rest wait in memory.
    EXPECT_LT(repository_->eventsCount(), 501);
    EXPECT_TRUE(console.contains("Failed to save context: database or disk is full"));
    EXPECT_FALSE(repository_->insertToggleTrackingEventWithTrackedAtMs(Date{600.0}, true, 0).has_value());

    setMaxPageCount(1 << 20);
    insertWaypointAt(700.0);
    const auto all = rows();
    ASSERT_EQ(all.size(), 503u);
    EXPECT_EQ(all[501].type, "ToggleTracking");
    for (int i = 0; i < 500; ++i) EXPECT_EQ(all[i + 1].trackedAtMs.secondsSince1970, 2.0 + i);
}

TEST_F(EventRepositoryTest, InvalidRecordStopsOnTheCallersThreadBeforeAnythingIsQueued) {
    EXPECT_DEATH(insertWaypointAt(1.0, 90.5), "Invalid Waypoint\\.latitude: 90\\.5");
}

}  // namespace
}  // namespace rovalis
