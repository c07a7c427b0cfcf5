// Damaged and full storage on the real upload path: the event store, the API client over
// libcurl and the collection service on loopback. Whatever can still be read reaches the
// service, once.

#include <gtest/gtest.h>

#include <map>

#include "collector/CollectorServer.h"
#include "events/SqliteDatabase.h"
#include "support/FullDiskVfs.h"
#include "support/TestSupport.h"
#include "support/UploadStack.h"

namespace rovalis::test {
namespace {

using collector::CollectorOptions;
using collector::CollectorServer;
using collector::FaultOptions;

class StorageEndToEnd : public ::testing::Test {
protected:
    StorageEndToEnd() {
        CollectorOptions options;
        options.port = 0;
        collector = std::make_unique<CollectorServer>(options);
        collector->start();
    }

    std::unique_ptr<UploadStack> makeStack() {
        UploadStackOptions options;
        options.dataRoot = root.path();
        options.baseURL = collector->baseURL();
        auto stack = std::make_unique<UploadStack>(options);
        stack->credentials->setAccessToken(sampleAccessToken());
        return stack;
    }

    std::filesystem::path storeFile() const { return root.path() / "Store" / "RovalisSDK.sqlite"; }

    // Each payload the service holds, and how often.
    std::map<std::string, int> delivered() const {
        std::map<std::string, int> counts;
        for (const auto& event : collector->events()) ++counts[event.payload];
        return counts;
    }

    void expectEachOnce(const std::vector<EventPayload>& events) const {
        const auto counts = delivered();
        for (const auto& event : events) {
            const auto found = counts.find(event.payload);
            EXPECT_EQ(found == counts.end() ? 0 : found->second, 1) << event.payload;
        }
        for (const auto& [payload, count] : counts) EXPECT_EQ(count, 1) << payload;
        EXPECT_EQ(collector->stats().conflicts, 0);
    }

    TempDir root;
    std::unique_ptr<CollectorServer> collector;
};

TEST_F(StorageEndToEnd, ADamagedPageUnderAPendingBatchLosesOnlyItsRowsAndTheRestArrivesOnce) {
    std::vector<EventPayload> recorded;
    {
        auto stack = makeStack();
        stack->storeWaypoints(3000);
        recorded = stack->events->fetchEventsPayloadTo(std::nullopt, 0);
        FaultOptions refuse;
        refuse.failEvery = 1;
        collector->setFaults(refuse);
        EXPECT_FALSE(stack->sendEvents());  // the batch is recorded, then refused
        ASSERT_TRUE(stack->events->pendingBatch());
        stack->events->coreDataManager().performAndWaitWithConnection(
            [](sqlite::Database* db) { db->exec("PRAGMA wal_checkpoint(TRUNCATE)"); });
    }
    const std::size_t lostRows = damageMiddleLeafPage(storeFile(), "EventEntity");
    collector->setFaults({});

    ConsoleCapture console;
    auto stack = makeStack();
    EXPECT_TRUE(stack->sendEvents());
    const auto counts = delivered();
    std::vector<EventPayload> readable;
    for (const auto& event : recorded) {
        if (counts.contains(event.payload)) readable.push_back(event);
    }
    EXPECT_EQ(readable.size(), recorded.size() - lostRows) << "only the damaged page's rows are gone";
    expectEachOnce(readable);
    for (const auto& left : stack->events->fetchEventsPayloadTo(std::nullopt, 0)) EXPECT_EQ(left.type, "Debug");
}

TEST_F(StorageEndToEnd, AFullDiskStillSendsToMakeRoomAndOnceFreedEverythingArrivesOnce) {
    FullDiskVfs disk;
    std::vector<EventPayload> recorded;
    {
        auto stack = makeStack();
        stack->storeWaypoints(3000);
        recorded = stack->events->fetchEventsPayloadTo(std::nullopt, 0);
    }
    disk.setFull(true);
    {
        // The store opens on the full disk, and sending is what makes room for what waits.
        auto stack = makeStack();
        stack->storeWaypoints(200, Date{1800000000.0});
        stack->sendEvents();
        EXPECT_GT(collector->stats().events, 0) << "a batch went out although the disk was full";
        disk.setFull(false);
        EXPECT_TRUE(stack->sendEvents());
        for (const auto& event : stack->events->fetchEventsPayloadTo(std::nullopt, 0)) recorded.push_back(event);
        EXPECT_TRUE(stack->sendEvents());
    }
    std::vector<EventPayload> waypoints;
    for (const auto& event : recorded) {
        if (event.type == "Waypoint") waypoints.push_back(event);
    }
    EXPECT_EQ(collector->stats().eventsByType.at("Waypoint"), 3200);
    expectEachOnce(waypoints);
}

}  // namespace
}  // namespace rovalis::test
