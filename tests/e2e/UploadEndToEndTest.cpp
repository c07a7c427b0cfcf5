// The real upload path against the real collection service on loopback: the operations, the
// API client, libcurl sessions and the event store, end to end.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <spawn.h>
#include <sys/wait.h>

#include "collector/CollectorServer.h"
#include "support/TestSupport.h"
#include "support/UploadStack.h"
#include "events/EventBatchGenerator.h"
#include "upload/Gzip.h"
#include "upload/TransferOperations.h"
#include "upload/UrlSession.h"

extern char** environ;

namespace rovalis::test {
namespace {

using namespace std::chrono_literals;
using collector::CollectorOptions;
using collector::CollectorServer;
using collector::FaultOptions;

std::unique_ptr<CollectorServer> startCollector(int port = 0, std::filesystem::path database = {}) {
    CollectorOptions options;
    options.port = port;
    options.databasePath = std::move(database);
    auto server = std::make_unique<CollectorServer>(options);
    server->start();
    return server;
}

class UploadEndToEnd : public ::testing::Test {
protected:
    std::unique_ptr<UploadStack> makeStack(std::optional<double> foregroundTimeout = std::nullopt) {
        UploadStackOptions options;
        options.dataRoot = root.path();
        options.baseURL = collector->baseURL();
        options.foregroundTimeout = foregroundTimeout;
        auto stack = std::make_unique<UploadStack>(options);
        observer = stack->observer;
        return stack;
    }

    TempDir root;
    std::unique_ptr<CollectorServer> collector = startCollector();
    std::shared_ptr<UploadObserver> observer;
};

TEST_F(UploadEndToEnd, BacklogGoesOutInOrderedBatchesOfAtMost20000EachExactlyOnce) {
    auto stack = makeStack();
    stack->credentials->setAccessToken(sampleAccessToken());
    const std::int64_t firstSequentialId = stack->credentials->sequentialId();
    stack->storeWaypoints(45000);

    ASSERT_TRUE(stack->sendEvents());

    const auto batches = collector->batches();
    ASSERT_EQ(batches.size(), 3u);
    std::set<std::string> batchIds;
    for (std::size_t i = 0; i < batches.size(); ++i) {
        EXPECT_EQ(batches[i].sequentialId, firstSequentialId + static_cast<std::int64_t>(i));
        EXPECT_EQ(batches[i].deviceId, stack->credentials->deviceId());
        batchIds.insert(batches[i].id);
    }
    EXPECT_EQ(batches[0].eventCount, 20000);
    EXPECT_EQ(batches[1].eventCount, 20000);
    EXPECT_EQ(batches[2].eventCount, 5000 + UploadStack::ownEvents);
    EXPECT_EQ(batchIds.size(), 3u);
    EXPECT_FALSE(batchIds.contains(stack->credentials->batchId()));  // renewed after the last one
    EXPECT_EQ(stack->credentials->sequentialId(), firstSequentialId + 3);

    EXPECT_EQ(stack->events->eventsCount(), 0);
    const auto stats = collector->stats();
    EXPECT_EQ(stats.events, 45000 + UploadStack::ownEvents);
    EXPECT_EQ(stats.eventsByType.at("Waypoint"), 45000);
    EXPECT_EQ(stats.duplicatesRefused, 0);
    EXPECT_EQ(stats.sequentialIdGaps, 0);
    // Every waypoint arrived once, in order, before the stack's own newer event.
    const auto stored = collector->events();
    ASSERT_EQ(stored.size(), 45000u + UploadStack::ownEvents);
    for (std::size_t i = 0; i < 45000; i += 4999) {
        EXPECT_NE(stored[i].payload.find("\"tracked_at_ms\":" + std::to_string(1700000000000 + i * 1000)),
                  std::string::npos);
    }

    const auto told = observer->waitForUploads(3);
    ASSERT_EQ(told.size(), 3u);
    EXPECT_FALSE(told[2].error);
    EXPECT_EQ(told[0].to, Date{1700019999.0});
    EXPECT_EQ(stack->userDefaults->lastSuccessfulEventUploadDate(), told[2].to);
}

TEST_F(UploadEndToEnd, RejectedBatchKeepsItsEventsAndIsResentUnderTheSameIdentity) {
    auto stack = makeStack();
    stack->credentials->setAccessToken(sampleAccessToken());
    stack->storeWaypoints(45000);
    FaultOptions rejectSecond;
    rejectSecond.failEvery = 2;
    rejectSecond.failStatus = 500;
    rejectSecond.failBody = "try later";
    collector->setFaults(rejectSecond);

    EXPECT_FALSE(stack->sendEvents());
    EXPECT_EQ(stack->events->eventsCount(), 25000 + UploadStack::ownEvents);
    EXPECT_EQ(stack->userDefaults->lastSuccessfulEventUploadDate(), Date{1700019999.0});
    const auto told = observer->waitForUploads(2);
    ASSERT_EQ(told.size(), 2u);
    ASSERT_TRUE(told[1].error);
    EXPECT_EQ(told[1].error->domain, "com.rovalis.error.server");
    EXPECT_EQ(told[1].error->code, 500);
    EXPECT_EQ(told[1].error->localizedDescription, "try later");

    const std::string rejectedBatchId = stack->credentials->batchId();
    const std::int64_t rejectedSequentialId = stack->credentials->sequentialId();
    collector->setFaults({});
    ASSERT_TRUE(stack->sendEvents());
    const auto batches = collector->batches();
    ASSERT_EQ(batches.size(), 3u);
    EXPECT_EQ(batches[1].id, rejectedBatchId);
    EXPECT_EQ(batches[1].sequentialId, rejectedSequentialId);
    EXPECT_EQ(collector->stats().eventsByType.at("Waypoint"), 45000);
    EXPECT_EQ(collector->stats().duplicatesRefused, 0);
    EXPECT_EQ(stack->events->eventsCount(), 0);
}

// Every payload the service stored, counted: exactly once means one each.
std::map<std::string, int> storedPayloads(const CollectorServer& collector) {
    std::map<std::string, int> counts;
    for (const auto& event : collector.events()) ++counts[event.payload];
    return counts;
}

TEST_F(UploadEndToEnd, AnswersLostAfterTheServiceStoredTheBatchLoseNothingAndStoreNothingTwice) {
    auto stack = makeStack();
    stack->credentials->setAccessToken(sampleAccessToken());
    stack->storeWaypoints(45000);
    const auto recorded = stack->events->fetchEventsPayloadTo(std::nullopt, 0);
    FaultOptions loseAnswers;
    loseAnswers.closeAfterStoreEvery = 2;  // the second batch is kept, its answer never comes
    collector->setFaults(loseAnswers);

    EXPECT_FALSE(stack->sendEvents());
    // More events arrive before the next attempt: they must not join the batch sent before.
    stack->storeWaypoints(10, Date{1800000000.0});
    loseAnswers.closeAfterStoreEvery = 0;
    loseAnswers.resetAfterStoreEvery = 2;  // counting afresh: the repeat is answered, the next one is reset
    collector->setFaults(loseAnswers);
    EXPECT_FALSE(stack->sendEvents());
    collector->setFaults({});
    EXPECT_TRUE(stack->sendEvents());

    const auto stats = collector->stats();
    EXPECT_EQ(stats.conflicts, 0);
    EXPECT_EQ(stats.duplicatesRefused, 2);
    EXPECT_EQ(stats.sequentialIdGaps + stats.sequentialIdStepBacks, 0);
    EXPECT_EQ(stats.eventsByType.at("Waypoint"), 45010);
    const auto stored = storedPayloads(*collector);
    for (const auto& event : recorded) EXPECT_EQ(stored.count(event.payload) ? stored.at(event.payload) : 0, 1);
    for (const auto& [payload, count] : stored) EXPECT_EQ(count, 1) << payload;
    for (const auto& left : stack->events->fetchEventsPayloadTo(std::nullopt, 0)) EXPECT_EQ(left.type, "Debug");
}

TEST_F(UploadEndToEnd, ABatchIdTheServiceHoldsWithOtherContentIsGivenUpAndItsEventsGoUnderANewOne) {
    auto stack = makeStack();
    stack->credentials->setAccessToken(sampleAccessToken());
    stack->storeWaypoints(5);
    // The service already holds other content under the id the next batch would take.
    {
        TempDir otherRoot;
        UploadStackOptions options;
        options.dataRoot = otherRoot.path();
        options.baseURL = collector->baseURL();
        auto other = std::make_unique<UploadStack>(options);
        other->credentials->setAccessToken(sampleAccessToken());
        other->storeWaypoints(3, Date{1600000000.0});
        const BatchIdentity taken{stack->credentials->batchId(), stack->credentials->sequentialId()};
        other->credentials->setBatchId(taken.batchId);
        other->credentials->setSequentialId(taken.sequentialId);
        ASSERT_TRUE(other->sendEvents());
    }
    test::ConsoleCapture console;
    EXPECT_FALSE(stack->sendEvents());
    EXPECT_EQ(collector->stats().conflicts, 1);
    const auto lines = console.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with("The service holds other content under batch");
    }));
    EXPECT_TRUE(stack->sendEvents());
    EXPECT_EQ(collector->stats().eventsByType.at("Waypoint"), 8);
}

TEST_F(UploadEndToEnd, WithoutATokenNothingIsSentAndTheHostIsTold) {
    auto stack = makeStack();
    stack->storeWaypoints(10);
    EXPECT_FALSE(stack->sendEvents());
    const auto told = observer->waitForUploads(1);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].error, userTokenIsNilError());
    EXPECT_EQ(collector->stats().batchRequests, 0);
    // The stack's own event and the debug record of the refusal.
    EXPECT_EQ(stack->events->eventsCount(), 10 + UploadStack::ownEvents + 1);
}

TEST_F(UploadEndToEnd, HungServerTimesOutAndTheQueueMovesOn) {
    auto stack = makeStack(1.0);
    stack->credentials->setAccessToken(sampleAccessToken());
    stack->storeWaypoints(10);
    FaultOptions hang;
    hang.delayMs = 4000;
    collector->setFaults(hang);
    EXPECT_FALSE(stack->sendEvents());
    const auto told = observer->waitForUploads(1);
    ASSERT_EQ(told.size(), 1u);
    ASSERT_TRUE(told[0].error);
    EXPECT_EQ(told[0].error->domain, NSURLErrorDomain);
    EXPECT_EQ(told[0].error->code, URLError::timedOut);

    // The service stored the batch but its answer came too late. The next group sends that
    // batch again as it was, then the debug record of the time-out in a batch of its own.
    collector->setFaults({});
    EXPECT_TRUE(stack->sendEvents());
    ASSERT_TRUE(collector->waitForBatchRequests(3, 10s));
    EXPECT_EQ(collector->stats().batches, 2);
    EXPECT_EQ(collector->stats().duplicatesRefused, 1);
    EXPECT_EQ(collector->stats().eventsByType.at("Waypoint"), 10);
    EXPECT_EQ(collector->stats().eventsByType.at("Debug"), 1);
}

// A send waits on its upload's callback; invalidating the session (and letting it go, as the
// client does) must end that upload, so that the send and the queue behind it move on.
TEST_F(UploadEndToEnd, InvalidatingTheForegroundSessionReleasesABlockedSend) {
    auto stack = makeStack();
    stack->credentials->setAccessToken(sampleAccessToken());
    stack->storeWaypoints(10);
    FaultOptions hold;
    hold.delayMs = 60000;
    collector->setFaults(hold);
    auto sending = std::async(std::launch::async, [&stack] { return stack->sendEvents(); });
    ASSERT_TRUE(collector->waitForStats(
        [](const auto& stats) { return stats.faultsInjected.contains("delay"); }, 30s));

    const auto invalidated = std::make_shared<std::promise<void>>();
    stack->apiClient->invalidateAndCancelForegroundSession([invalidated] { invalidated->set_value(); });
    if (sending.wait_for(20s) != std::future_status::ready) {
        // The future's destructor would wait for the send for ever.
        std::fputs("The invalidation did not release the blocked send.\n", stderr);
        std::abort();
    }
    EXPECT_FALSE(sending.get());
    EXPECT_EQ(invalidated->get_future().wait_for(20s), std::future_status::ready);
    const auto told = observer->waitForUploads(1);
    ASSERT_EQ(told.size(), 1u);
    ASSERT_TRUE(told[0].error);
    EXPECT_EQ(told[0].error->domain, NSURLErrorDomain);
    EXPECT_EQ(told[0].error->code, URLError::cancelled);

    // The next send gets a new session and goes through.
    collector->setFaults({});
    EXPECT_TRUE(stack->sendEvents());
    EXPECT_EQ(collector->stats().eventsByType.at("Waypoint"), 10);
}

TEST_F(UploadEndToEnd, PreShutdownWithTheServiceDownFallsBackToABackgroundUploadFromAFile) {
    const int port = collector->port();
    auto stack = makeStack();
    stack->credentials->setAccessToken(sampleAccessToken());
    stack->storeWaypoints(300);
    collector.reset();  // the service is down: connections are refused

    // The foreground send fails, the background send hands over a file: the group succeeds.
    EXPECT_TRUE(stack->preShutDown());
    const auto folder = stack->commons->backgroundTasksFolder();
    ASSERT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
    EXPECT_GE(stack->events->eventsCount(), 300 + UploadStack::ownEvents);

    collector = startCollector(port);  // back: the pending upload is retried and delivered
    ASSERT_TRUE(collector->waitForBatches(1, 20s));
    const auto told = observer->waitForUploads(2);
    ASSERT_EQ(told.size(), 2u);
    EXPECT_FALSE(told[1].error);
    const auto stats = collector->stats();
    EXPECT_EQ(stats.batches, 1);
    EXPECT_EQ(stats.eventsByType.at("Waypoint"), 300);
    const auto stored = collector->events();
    EXPECT_NE(stored.back().payload.find("TT->OFF NOT present"), std::string::npos);
    // Exactly the delivered rows are deleted: only a debug record written while the batch
    // was being made may be left, for the next upload.
    for (const auto& left : stack->events->fetchEventsPayloadTo(std::nullopt, 0)) EXPECT_EQ(left.type, "Debug");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);  // the file stays
}

// ---- Batches too large to hold in memory

TEST_F(UploadEndToEnd, ABatchOfEveryStoredEventIsRecordedAndWrittenWithoutLoadingItAsTheInMemoryPathMakesIt) {
    auto stack = makeStack();
    stack->storeWaypoints(500);
    stack->events->insertToggleTrackingEventWithTrackedAtMs(Date{1700000100.5}, false, 0);  // the host's switch-off
    stack->events->insertDebugEventWithTrackedAtMs(Date{1699999999.0}, 0, "older than every waypoint");
    const auto stored = stack->events->fetchEventsPayloadTo(std::nullopt, 0);

    const auto outline = stack->events->recordPendingBatchOfAllEvents(
        "B-ALL", 41, &RVLSendInBackgroundOperation::diagnosticEvent);
    ASSERT_TRUE(outline);
    EXPECT_EQ(*outline, (PendingBatchOutline{"B-ALL", 41, static_cast<std::int64_t>(stored.size()), true, true}));
    const auto pending = stack->events->pendingBatch();
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->events, RVLSendInBackgroundOperation::diagnoseEventBatch(stored))
        << "the same events and closing event as a batch made in memory";
    EXPECT_NE(pending->events.back().payload.find("TT->OFF present"), std::string::npos);

    const auto file = root.path() / "batch.gz";
    const auto contents = writePendingBatchFile(*stack->events, {"B-ALL", 41}, file, stored[250].uri);
    ASSERT_TRUE(contents);
    EXPECT_EQ(contents->from, stored.front().trackedAtMs);
    EXPECT_EQ(contents->to, pending->events.back().trackedAtMs);
    EXPECT_TRUE(contents->holdsLastEvent);
    EXPECT_EQ(dataByGZipDecompressingDataWithError(readFile(file), nullptr),
              EventBatchGenerator().generateEventBatchFrom(pending->events, "B-ALL", 41))
        << "byte for byte the document every other attempt sends";

    EXPECT_FALSE(writePendingBatchFile(*stack->events, {"B-OTHER", 41}, file, std::nullopt));
    EXPECT_FALSE(std::filesystem::exists(file)) << "no file for a batch that is not pending";
    EXPECT_FALSE(stack->events->recordPendingBatchOfAllEvents("B-2", 42, &RVLSendInBackgroundOperation::diagnosticEvent))
        << "one batch at a time";
}

TEST_F(UploadEndToEnd, ABackgroundBatchLargerThanAForegroundOneIsResentByTheNextLaunchFromAFileAsRecorded) {
    const int waypoints = static_cast<int>(RVLSendOperation::batchLimit) + 500;
    std::vector<EventPayload> recorded;
    {
        // A process records its background batch and dies before the upload ends.
        auto stack = makeStack();
        stack->credentials->setAccessToken(sampleAccessToken());
        stack->storeWaypoints(waypoints);
        const auto identity = BatchIdentity{stack->credentials->batchId(), stack->credentials->sequentialId()};
        ASSERT_TRUE(stack->events->recordPendingBatchOfAllEvents(identity.batchId, identity.sequentialId,
                                                                 &RVLSendInBackgroundOperation::diagnosticEvent));
        recorded = stack->events->pendingBatch()->events;
    }
    auto stack = makeStack();
    stack->storeWaypoints(10, Date{1800000000.0});
    ASSERT_TRUE(stack->sendEvents());

    const auto batches = collector->batches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[0].eventCount, static_cast<std::int64_t>(recorded.size()));
    EXPECT_EQ(batches[1].eventCount, 10 + UploadStack::ownEvents) << "what came after it, in a batch of its own";
    const auto arrived = collector->events();
    ASSERT_GE(arrived.size(), recorded.size());
    for (std::size_t i = 0; i < recorded.size(); ++i) ASSERT_EQ(arrived[i].payload, recorded[i].payload) << i;
    EXPECT_EQ(stack->events->eventsCount(), 0);
    EXPECT_FALSE(std::filesystem::exists(stack->commons->largeBatchFile()));
}

// ---- A process killed while its background upload is in flight

constexpr const char* childRootVariable = "ROVALIS_E2E_CHILD_ROOT";
constexpr const char* childURLVariable = "ROVALIS_E2E_CHILD_URL";

// Runs only in the child process that the next test starts: hands the stored events to a
// background upload and waits to be killed.
TEST(UploadEndToEndChild, DISABLED_StartBackgroundUploadAndWait) {
    const char* rootPath = std::getenv(childRootVariable);
    const char* url = std::getenv(childURLVariable);
    if (rootPath == nullptr || url == nullptr) GTEST_SKIP() << "runs only as the child of a relaunch test";
    UploadStackOptions options;
    options.dataRoot = rootPath;
    options.baseURL = url;
    UploadStack stack(options);
    stack.operationsController->performBGTransmissionOperationWithCompletion([](bool) {});
    for (;;) pause();
}

TEST_F(UploadEndToEnd, UploadInFlightWhenTheProcessDiesIsFinishedByTheNextLaunch) {
    {
        auto stack = makeStack();
        stack->credentials->setAccessToken(sampleAccessToken());
        stack->storeWaypoints(500);
    }
    FaultOptions holdRequests;
    holdRequests.delayMs = 3000;
    collector->setFaults(holdRequests);

    const std::string rootVariable = std::string(childRootVariable) + "=" + root.path().string();
    const std::string urlVariable = std::string(childURLVariable) + "=" + collector->baseURL();
    std::vector<std::string> environment = {rootVariable, urlVariable};
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string program = std::filesystem::read_symlink("/proc/self/exe");
    std::string filter = "--gtest_filter=UploadEndToEndChild.DISABLED_StartBackgroundUploadAndWait";
    std::string alsoDisabled = "--gtest_also_run_disabled_tests";
    char* argv[] = {program.data(), filter.data(), alsoDisabled.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, program.c_str(), nullptr, nullptr, argv, envp.data()), 0);

    // Killed while the service holds its request.
    const bool requestArrived = collector->waitForStats(
        [](const auto& stats) { return stats.faultsInjected.contains("delay"); }, 30s);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(requestArrived);
    collector->setFaults({});

    // The next launch finds the journaled upload and sends it again, while its own first
    // foreground send runs: both carry the batch the killed process recorded, as it was.
    auto stack = makeStack();
    stack->storeWaypoints(50, Date{1800000000.0});
    EXPECT_TRUE(stack->sendEvents());
    ASSERT_TRUE(collector->waitForBatchRequests(3, 10s));

    const auto stats = collector->stats();
    EXPECT_EQ(stats.batches, 2);
    EXPECT_EQ(stats.duplicatesRefused, 1);
    EXPECT_EQ(stats.eventsByType.at("Waypoint"), 550);
    std::set<std::string> payloads;
    for (const auto& event : collector->events()) {
        EXPECT_TRUE(payloads.insert(event.payload).second) << "stored twice: " << event.payload;
    }
    for (const auto& left : stack->events->fetchEventsPayloadTo(std::nullopt, 0)) EXPECT_EQ(left.type, "Debug");
}

}  // namespace
}  // namespace rovalis::test
