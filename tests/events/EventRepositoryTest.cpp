#include "events/EventRepository.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <condition_variable>
#include <fstream>
#include <iterator>
#include <thread>

#include "events/SqliteDatabase.h"
#include "support/TestSupport.h"

namespace rovalis {
namespace {

namespace fs = std::filesystem;
using test::ConsoleCapture;
using test::TempDir;

class EventRepositoryTest : public ::testing::Test {
protected:
    fs::path storePath() const { return dir_ / "events.sqlite"; }

    EventRepository& open() {
        repository_ = std::make_unique<EventRepository>(storePath());
        return *repository_;
    }
    void close() { repository_.reset(); }

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
    open();
    for (const double t : {1700000005.0, 1700000003.0, 1700000001.0, 1700000004.0, 1700000002.0}) insertWaypointAt(t);

    const auto all = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    ASSERT_EQ(times(all),
              (std::vector<double>{1700000001.0, 1700000002.0, 1700000003.0, 1700000004.0, 1700000005.0}));
    EXPECT_EQ(all[0].type, "Waypoint");
    EXPECT_EQ(all[0].payload,
              EventEncoder().encode(Waypoint(Date{1700000001.0}, 52.5, 13.4, 1.5, 90, 5, 34, "gps")));

    EXPECT_EQ(times(repository_->fetchEventsPayloadTo(std::nullopt, 2)),
              (std::vector<double>{1700000001.0, 1700000002.0}));
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::nullopt, -1).size(), 5u);
    EXPECT_EQ(repository_->fetchEventsPayloadTo(all[2].uri, 0), std::vector<EventPayload>(all.begin(), all.begin() + 3));
    EXPECT_EQ(repository_->fetchEventsPayloadTo(all[2].uri, 2).size(), 2u);
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::string("x-rovalis-store://nowhere/EventEntity/p1"), 0), all);

    EXPECT_EQ(times(repository_->fetchLastEventsPayloadWithLimit(2)),
              (std::vector<double>{1700000005.0, 1700000004.0}));
    EXPECT_EQ(repository_->eventsCount(), 5);
}

TEST_F(EventRepositoryTest, FetchExcludesTheLowerBoundAndIncludesTheUpperBound) {
    open();
    insertWaypointAt(Date::distantPast().secondsSince1970);
    insertWaypointAt(Date::distantFuture().secondsSince1970);
    EXPECT_EQ(times(repository_->fetchEventsPayloadTo(std::nullopt, 0)),
              std::vector<double>{Date::distantFuture().secondsSince1970});
    EXPECT_EQ(repository_->eventsCount(), 2);
}

TEST_F(EventRepositoryTest, InsertsFromOneThreadAreFetchedInCallOrderAndCommittedTogether) {
    open();
    int commits = 0;
    repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database* db) {
        sqlite3_commit_hook(
            db->handle(),
            [](void* counter) {
                ++*static_cast<int*>(counter);
                return 0;
            },
            &commits);
    });

    // Hold the background executor while the burst is queued, so the burst is one save.
    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false, release = false;
    std::thread holder([&] {
        repository_->coreDataManager().performAndWaitWithConnection([&](sqlite::Database*) {
            std::unique_lock lock(mutex);
            holding = true;
            changed.notify_all();
            changed.wait(lock, [&] { return release; });
        });
    });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return holding; });
    }
    for (int i = 0; i < 2000; ++i) insertWaypointAt(1700000000.0, -90 + i * 0.05);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    changed.notify_all();
    holder.join();

    const auto fetched = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    ASSERT_EQ(fetched.size(), 2000u);
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ(fetched[i].payload, EventEncoder().encode(Waypoint(Date{1700000000.0}, -90 + i * 0.05, 13.4, 1.5,
                                                                     90, 5, 34, "gps")));
    }
    EXPECT_EQ(commits, 1);
    repository_->coreDataManager().performAndWaitWithConnection(
        [](sqlite::Database* db) { sqlite3_commit_hook(db->handle(), nullptr, nullptr); });
}

// ---- Deleting ----

TEST_F(EventRepositoryTest, DeleteUpToIncludesRowsAtThatTime) {
    open();
    for (const double t : {10.0, 20.0, 30.0}) insertWaypointAt(t);
    ConsoleCapture console;
    EXPECT_EQ(repository_->deleteEventsWithUpTo(Date{20.0}), 2);
    EXPECT_TRUE(console.contains("Successfully deleted EventEntity objects"));
    EXPECT_EQ(times(repository_->fetchEventsPayloadTo(std::nullopt, 0)), std::vector<double>{30.0});
}

TEST_F(EventRepositoryTest, DeleteByPayloadRemovesExactlyTheNamedRowsOfThisStore) {
    open();
    for (const double t : {1.0, 2.0, 3.0}) insertWaypointAt(t);
    auto rows = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    const std::string ownPrefix = rows[0].uri.substr(0, rows[0].uri.rfind('/') + 1);

    ConsoleCapture console;
    EXPECT_EQ(repository_->deleteEventsWithPayload({}), 0);
    EXPECT_TRUE(console.contains("No valid object IDs found"));

    // Rows of another store, another entity, or ids that are not ours are skipped.
    auto foreign = rows[0];
    const std::vector<std::string> foreignUris = {
        "x-rovalis-store://00000000-0000-4000-8000-000000000000/EventEntity/p1",
        ownPrefix.substr(0, ownPrefix.size() - std::string("EventEntity/").size()) + "Other/p1",
        ownPrefix + "p01", ownPrefix + "q1", ownPrefix + "p", "https://example.org/p1"};
    std::vector<EventPayload> foreignPayloads;
    for (const auto& uri : foreignUris) {
        foreign.uri = uri;
        foreignPayloads.push_back(foreign);
    }
    EXPECT_EQ(repository_->deleteEventsWithPayload(foreignPayloads), 0);
    EXPECT_EQ(repository_->eventsCount(), 3);

    foreignPayloads.push_back(rows[0]);
    foreignPayloads.push_back(rows[2]);
    EXPECT_EQ(repository_->deleteEventsWithPayload(foreignPayloads), 2);
    EXPECT_TRUE(console.contains("Successfully deleted EventEntity objects"));
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::nullopt, 0), std::vector<EventPayload>{rows[1]});
    // Deleting the same rows again finds nothing left to delete.
    EXPECT_EQ(repository_->deleteEventsWithPayload({rows[0], rows[2]}), 0);
}

TEST_F(EventRepositoryTest, DeleteByPayloadSpansManyStatementsInOneCall) {
    open();
    for (int i = 0; i < 1234; ++i) insertWaypointAt(1000.0 + i);
    const auto rows = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    ConsoleCapture console;
    EXPECT_EQ(repository_->deleteEventsWithPayload(std::vector<EventPayload>(rows.begin(), rows.begin() + 1201)),
              1201);
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::nullopt, 0),
              std::vector<EventPayload>(rows.begin() + 1201, rows.end()));
}

TEST_F(EventRepositoryTest, DeleteByPayloadStopsOnTextThatIsNotAUri) {
    open();
    const auto deleteUri = [&](const std::string& uri) {
        EventPayload payload{"Waypoint", Date{1}, "{}", uri};
        repository_->deleteEventsWithPayload({payload});
    };
    EXPECT_DEATH(deleteUri(""), "Invalid URI: ");
    EXPECT_DEATH(deleteUri("no scheme here"), "Invalid URI: no scheme here");
    EXPECT_DEATH(deleteUri("EventEntity/p1"), "Invalid URI: EventEntity/p1");
    EXPECT_DEATH(deleteUri("1x://a"), "Invalid URI: 1x://a");
    EXPECT_DEATH(deleteUri("x-rovalis-store://a/EventEntity/p1\n"), "Invalid URI: x-rovalis-store://a");
}

// ---- Identifiers and persistence ----

TEST_F(EventRepositoryTest, ToggleTrackingReturnsTheUriOfItsRow) {
    open();
    insertWaypointAt(5.0);
    const auto uri = repository_->insertToggleTrackingEventWithTrackedAtMs(Date{1.0}, true, 0);
    ASSERT_TRUE(uri.has_value());
    const auto rows = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].uri, *uri);
    EXPECT_EQ(rows[0].type, "ToggleTracking");
    EXPECT_EQ(rows[0].payload, EventEncoder().encode(ToggleTracking(Date{1.0}, true, ToggleTracking::Reason::force)));
}

TEST_F(EventRepositoryTest, RowsUrisAndIdSequenceSurviveARestart) {
    open();
    for (const double t : {1.0, 2.0, 3.0}) insertWaypointAt(t);
    const auto before = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    ConsoleCapture console;
    ASSERT_EQ(repository_->deleteEventsWithPayload({before[2]}), 1);  // the newest id
    close();

    open();
    EXPECT_EQ(repository_->fetchEventsPayloadTo(std::nullopt, 0),
              std::vector<EventPayload>(before.begin(), before.begin() + 2));
    const auto uri = repository_->insertToggleTrackingEventWithTrackedAtMs(Date{4.0}, false, 1);
    ASSERT_TRUE(uri.has_value());
    EXPECT_NE(*uri, before[2].uri);  // a deleted id is never handed out again
    EXPECT_EQ(uri->substr(0, uri->rfind('p')), before[2].uri.substr(0, before[2].uri.rfind('p')));
    EXPECT_GT(std::stoll(uri->substr(uri->rfind('p') + 1)), std::stoll(before[2].uri.substr(before[2].uri.rfind('p') + 1)));
}

// ---- Acceleration buffer ----

TEST_F(EventRepositoryTest, AccelerationsAreWrittenWhenTheBufferFillsOrIsFlushed) {
    open();
    for (int i = 0; i < 299; ++i) repository_->insertAccelerationEventWithTrackedAtMs(Date{1.0 + i}, Decimal{i, 2});
    EXPECT_EQ(repository_->eventsCount(), 0);
    repository_->insertAccelerationEventWithTrackedAtMs(Date{300.0}, Decimal{299, 2});
    EXPECT_EQ(repository_->eventsCount(), 300);

    for (int i = 0; i < 10; ++i) repository_->insertAccelerationEventWithTrackedAtMs(Date{1000.0 + i}, Decimal{i, 3});
    EXPECT_EQ(repository_->eventsCount(), 300);
    repository_->insertBuffers();
    const auto rows = repository_->fetchLastEventsPayloadWithLimit(10);
    ASSERT_EQ(rows.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(rows[9 - i].type, "Acceleration");
        EXPECT_EQ(rows[9 - i].payload, EventEncoder().encode(Acceleration(Date{1000.0 + i}, Decimal{i, 3})));
    }
    repository_->insertBuffers();
    EXPECT_EQ(repository_->eventsCount(), 310);
}

TEST_F(EventRepositoryTest, BufferedAccelerationsAreWrittenWhenTheStoreCloses) {
    open();
    for (int i = 0; i < 7; ++i) repository_->insertAccelerationEventWithTrackedAtMs(Date{1.0 + i}, Decimal{i, 1});
    close();
    EXPECT_EQ(open().eventsCount(), 7);
}

// ---- Faults ----

TEST_F(EventRepositoryTest, FileThatIsNotADatabaseIsKeptAsideAndANewStoreIsCreated) {
    const std::string garbage(4096, '\x5a');
    std::ofstream(storePath(), std::ios::binary) << garbage;

    ConsoleCapture console;
    open();
    const auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("Load persistent stores finished with error = ")) << lines[0];

    std::vector<fs::path> aside;
    for (const auto& entry : fs::directory_iterator(dir_.path())) {
        if (entry.path().filename().string().starts_with("events.sqlite.unreadable-")) aside.push_back(entry.path());
    }
    ASSERT_EQ(aside.size(), 1u);
    std::ifstream kept(aside[0], std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), garbage);

    insertWaypointAt(1.0);
    EXPECT_EQ(repository_->eventsCount(), 1);
}

TEST_F(EventRepositoryTest, StoreThatCannotBeOpenedRunsEmptyWithoutStopping) {
    ConsoleCapture console;
    repository_ = std::make_unique<EventRepository>(dir_ / "missing" / "events.sqlite");
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_TRUE(console.lines()[0].starts_with("Load persistent stores finished with error = "));

    insertWaypointAt(1.0);
    EXPECT_FALSE(repository_->insertToggleTrackingEventWithTrackedAtMs(Date{2.0}, true, 0).has_value());
    EXPECT_EQ(repository_->eventsCount(), 0);
    EXPECT_TRUE(repository_->fetchEventsPayloadTo(std::nullopt, 0).empty());
    EXPECT_EQ(repository_->deleteEventsWithUpTo(Date::distantFuture()), 0);
}

TEST_F(EventRepositoryTest, StoreFilesArePrivateToTheUser) {
    open();
    insertWaypointAt(1.0);
    EXPECT_EQ(repository_->eventsCount(), 1);  // the journal files exist while the store is open
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        ASSERT_EQ(::stat((storePath().string() + suffix).c_str(), &info), 0) << suffix;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << suffix;
    }
}

TEST_F(EventRepositoryTest, EventsWrittenWhileTheDiskIsFullAreKeptAndWrittenLater) {
    open();
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
    const auto rows = repository_->fetchEventsPayloadTo(std::nullopt, 0);
    ASSERT_EQ(rows.size(), 503u);
    EXPECT_EQ(rows[501].type, "ToggleTracking");
    for (int i = 0; i < 500; ++i) EXPECT_EQ(rows[i + 1].trackedAtMs.secondsSince1970, 2.0 + i);
}

TEST_F(EventRepositoryTest, InvalidRecordStopsOnTheCallersThreadBeforeAnythingIsQueued) {
    open();
    EXPECT_DEATH(insertWaypointAt(1.0, 90.5), "Invalid Waypoint\\.latitude: 90\\.5");
}

}  // namespace
}  // namespace rovalis
