// The operation base, the serial operation queue, and the controller's groups.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "rovalis/Exceptions.h"
#include "upload/Operation.h"
#include "upload/RVLOperationsController.h"
#include "upload/TransferOperations.h"
#include "util/SerialExecutor.h"
#include "util/SettableDateSource.h"
#include "util/ThreadRunLoop.h"

namespace rovalis {
namespace {

using namespace std::chrono_literals;

// An operation whose work the test controls: it records that it executed and finishes
// at once, with failure, or only when told.
class ProbeOperation : public RVLOperationBase {
public:
    enum class Ending { finish, fail, later };

    explicit ProbeOperation(std::string label, bool dependent = false, Ending ending = Ending::finish)
        : dependent_(dependent), ending_(ending) {
        setName(std::move(label));
    }

    void execute() override {
        ++executions;
        executed.set_value();
        if (ending_ == Ending::finish) finish();
        if (ending_ == Ending::fail) finishWithFailure();
    }
    bool isDependentOnPrevious() const override { return dependent_; }

    int executions = 0;
    std::promise<void> executed;

private:
    const bool dependent_;
    const Ending ending_;
};

class BareOperation : public RVLOperationBase {};

TEST(RVLOperationBase, StateFlagsNotifyOnlyOnRealChangesAndStartRunsOnce) {
    ProbeOperation operation("probe", false, ProbeOperation::Ending::later);
    std::vector<std::string> keys;
    operation.addStateObserver([&keys](Operation&, std::string_view key) { keys.emplace_back(key); });
    EXPECT_TRUE(operation.isReady());
    EXPECT_FALSE(operation.failure());

    operation.finish();  // never started: nothing
    EXPECT_FALSE(operation.isFinished());
    EXPECT_TRUE(keys.empty());

    operation.start();
    operation.start();  // already executing: ignored
    EXPECT_EQ(operation.executions, 1);
    EXPECT_EQ(keys, (std::vector<std::string>{"isReady", "isExecuting"}));

    operation.setExecuting(true);  // same value: no notification
    EXPECT_EQ(keys.size(), 2u);

    operation.finish();
    EXPECT_EQ(keys, (std::vector<std::string>{"isReady", "isExecuting", "isExecuting", "isFinished"}));
    EXPECT_TRUE(operation.isFinished());
    EXPECT_FALSE(operation.isExecuting());
    operation.finish();  // finished already: nothing more
    EXPECT_EQ(keys.size(), 4u);
}

TEST(RVLOperationBase, FailureTravelsAlongDependenciesButCancellationDoesNot) {
    auto failed = std::make_shared<ProbeOperation>("failed", false, ProbeOperation::Ending::fail);
    auto middle = std::make_shared<ProbeOperation>("middle", true);
    auto last = std::make_shared<ProbeOperation>("last", true);
    middle->addDependency(failed);
    last->addDependency(middle);
    failed->start();
    middle->start();
    last->start();
    EXPECT_EQ(middle->executions, 0);
    EXPECT_EQ(last->executions, 0);
    EXPECT_TRUE(middle->failure());
    EXPECT_TRUE(last->failure());
    EXPECT_TRUE(last->isFinished());

    // A cancelled dependency is not a failed one; and a cancel before start is no skip.
    auto cancelled = std::make_shared<ProbeOperation>("cancelled");
    auto dependent = std::make_shared<ProbeOperation>("dependent", true);
    dependent->addDependency(cancelled);
    cancelled->cancel();
    dependent->cancel();
    cancelled->start();
    dependent->start();
    EXPECT_EQ(cancelled->executions, 1);
    EXPECT_EQ(dependent->executions, 1);
    EXPECT_FALSE(dependent->failure());
}

TEST(RVLOperationBase, CancelWhileExecutingFinishesAtOnceWithoutFailure) {
    ProbeOperation operation("slow", false, ProbeOperation::Ending::later);
    int finishedNotices = 0;
    operation.addStateObserver([&](Operation&, std::string_view key) { finishedNotices += key == "isFinished"; });
    operation.start();
    operation.cancel();
    EXPECT_TRUE(operation.isFinished());
    EXPECT_FALSE(operation.failure());
    operation.finishWithFailure();  // the work ending later is ignored, but the flag is a plain store
    EXPECT_EQ(finishedNotices, 1);
}

TEST(RVLOperationBase, ProgrammingErrorsRaiseWithTheirReasons) {
    BareOperation bare;
    bare.setName("bare");
    try {
        bare.execute();
        FAIL();
    } catch (const InternalInconsistencyException& e) {
        EXPECT_EQ(e.reason(), "execute needs to be overriden");
    }
    try {
        (void)bare.isDependentOnPrevious();
        FAIL();
    } catch (const InternalInconsistencyException& e) {
        EXPECT_EQ(e.reason(), "isDependentOnPrevious needs to be overriden by operation bare");
    }
    ProbeOperation operation("probe");
    auto foreign = std::make_shared<BlockOperation>([] {});
    foreign->setName("foreign");
    operation.addDependency(foreign);
    try {
        operation.start();
        FAIL();
    } catch (const InternalInconsistencyException& e) {
        EXPECT_EQ(e.reason(), "dependent operation foreign needs to be a subclass of RVLOperationBase");
    }
    EXPECT_EQ(operation.executions, 0);
}

TEST(OperationQueue, RunsOneAtATimeInOrderAndWaitsForAsynchronousFinish) {
    auto executor = std::make_shared<SerialExecutor>("test.queue");
    OperationQueue queue("eventsOperationQueue", executor);
    auto first = std::make_shared<ProbeOperation>("first", false, ProbeOperation::Ending::later);
    auto second = std::make_shared<ProbeOperation>("second");
    auto secondExecuted = second->executed.get_future();
    queue.addOperation(first);
    queue.addOperation(second);
    first->executed.get_future().wait();
    EXPECT_EQ(secondExecuted.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(queue.operationCount(), 2u);
    first->finish();  // from the test thread, as a network callback would
    EXPECT_EQ(secondExecuted.wait_for(10s), std::future_status::ready);
    executor->sync([] {});
    EXPECT_EQ(queue.operationCount(), 0u);
}

// ---- Controller

class RecordingDebugEvents final : public RVLDebugEventsInsertable {
public:
    void insertApplicationNotificationDebugEvent(const std::string& text) override { add(text); }
    void insertLocationAuthorizationDebugEvent(const std::string& text) override { add(text); }
    void insertBeaconRangingDebugEvent(const std::string& text) override { add(text); }
    void insertLogDebugEvent(const std::string& text) override { add(text); }
    std::vector<std::string> texts() const {
        std::lock_guard lock(mutex_);
        return texts_;
    }

private:
    void add(const std::string& text) {
        std::lock_guard lock(mutex_);
        texts_.push_back(text);
    }
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

class FixedReachability final : public RVLReachabilityType {
public:
    explicit FixedReachability(bool canSend) : canSend_(canSend) {}
    bool canSendDataNow() const override { return canSend_; }
    void setChangeListener(std::function<void(bool)>) override {}

private:
    bool canSend_;
};

// No token: every send fails without a request, and the host is told.
class TokenlessAPIClient final : public RVLAPIClientType {
public:
    bool canSendEvents() override { return false; }
    void sendEvents(std::string, Date, Date, const BatchIdentity&, SuccessBlock, FailureBlock) override {
        ADD_FAILURE() << "no token";
    }
    void sendEventsFile(const std::filesystem::path&, Date, Date, const BatchIdentity&, SuccessBlock,
                        FailureBlock) override {
        ADD_FAILURE() << "no token";
    }
    void sendEventsFileInBackground(const std::filesystem::path&, Date, Date, const BatchIdentity&) override {}
    void cancelPendingBackgroundTasks() override { ++cancels; }
    void updateTransmitDataDelegateWithTrackedFrom(Date, Date, const std::optional<Error>& error) override {
        std::lock_guard lock(mutex);
        reported.push_back(error);
    }
    std::mutex mutex;
    std::vector<std::optional<Error>> reported;
    std::atomic<int> cancels{0};
};

class ManualBackgroundTasks final : public BackgroundTaskScheduler {
public:
    BackgroundTaskIdentifier beginBackgroundTask(std::function<void()> expirationHandler) override {
        std::lock_guard lock(mutex);
        expiry = std::move(expirationHandler);
        return ++begun;
    }
    void endBackgroundTask(BackgroundTaskIdentifier identifier) override {
        std::lock_guard lock(mutex);
        ended.push_back(identifier);
    }
    void expire() {
        std::function<void()> handler;
        {
            std::lock_guard lock(mutex);
            handler = expiry;
        }
        handler();
    }
    std::vector<BackgroundTaskIdentifier> endedTasks() {
        std::lock_guard lock(mutex);
        return ended;
    }
    std::mutex mutex;
    BackgroundTaskIdentifier begun = 0;
    std::vector<BackgroundTaskIdentifier> ended;
    std::function<void()> expiry;
};

// A pause manager whose bursts end when the test says so.
class HeldPauseManager final : public PauseManagerType {
public:
    void sleepWithReason(const std::string& reason, const std::optional<Location>&,
                         std::function<void(const std::optional<Location>&)> completion) override {
        std::lock_guard lock(mutex);
        reasons.push_back("sleep:" + reason);
        sleepCompletion = std::move(completion);
        changed.notify_all();
    }
    void wakeupWithReason(const std::string& reason, const std::optional<Location>&,
                          std::function<void(bool)> completion) override {
        std::lock_guard lock(mutex);
        reasons.push_back("wake:" + reason);
        wakeCompletion = std::move(completion);
        changed.notify_all();
    }
    bool waitForReasons(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return reasons.size() >= count; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> reasons;
    std::function<void(const std::optional<Location>&)> sleepCompletion;
    std::function<void(bool)> wakeCompletion;
};

class RecordingTransitions final : public RVLSleepable, public RVLWakeupable {
public:
    void sleepWithCenterLocation(const std::optional<Location>&, const std::string& reason) override {
        add("slept:" + reason);
    }
    void wakeUpWithReason(const std::string& reason, bool forced) override {
        add("woke:" + reason + (forced ? ":forced" : ""));
    }
    void add(std::string text) {
        std::lock_guard lock(mutex);
        calls.push_back(std::move(text));
    }
    std::vector<std::string> recorded() {
        std::lock_guard lock(mutex);
        return calls;
    }
    std::mutex mutex;
    std::vector<std::string> calls;
};

class ControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        eventsQueue = std::make_shared<SerialExecutor>("RVLOperationsController.eventsQueue");
        OperationsEnvironment environment;
        environment.eventsQueue = eventsQueue;
        environment.mainQueue = mainLoop;
        environment.backgroundTasks = backgroundTasks;
        environment.dateSource = clock;
        environment.pauseManagerFactory = [this](std::weak_ptr<RVLEventInsertable>,
                                                 std::weak_ptr<RVLPauseRecordModifier>) { return pauseManager; };
        controller = std::make_shared<RVLOperationsController>(
            transitions, transitions, nullptr, nullptr, nullptr, nullptr, api, nullptr,
            std::make_shared<FixedReachability>(true), nullptr, debugEvents, environment);
    }

    // Waits until every operation queued so far has finished: the queue runs them in order.
    bool drained() {
        auto done = std::make_shared<std::promise<void>>();
        controller->addOperationsToQueue({controller->persistDataOperation()}, [done](bool) { done->set_value(); });
        return done->get_future().wait_for(10s) == std::future_status::ready;
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::shared_ptr<ThreadRunLoop> mainLoop = std::make_shared<ThreadRunLoop>(clock);
    std::shared_ptr<SerialExecutor> eventsQueue;
    std::shared_ptr<ManualBackgroundTasks> backgroundTasks = std::make_shared<ManualBackgroundTasks>();
    std::shared_ptr<HeldPauseManager> pauseManager = std::make_shared<HeldPauseManager>();
    std::shared_ptr<RecordingTransitions> transitions = std::make_shared<RecordingTransitions>();
    std::shared_ptr<TokenlessAPIClient> api = std::make_shared<TokenlessAPIClient>();
    std::shared_ptr<RecordingDebugEvents> debugEvents = std::make_shared<RecordingDebugEvents>();
    std::shared_ptr<RVLOperationsController> controller;
};

TEST_F(ControllerTest, SpeedUpIsSubmittedOnceAndCancelsAQueuedSlowDownWhichStillRuns) {
    controller->performSlowDownOperationsWithReason("no movement in 10 minutes", std::nullopt);
    ASSERT_TRUE(pauseManager->waitForReasons(1));  // the slow-down's burst holds the queue
    controller->performSlowDownOperationsWithReason("again", std::nullopt);  // dropped: one queued
    controller->performSpeedUpOperationsWithReason("exited geofence", std::nullopt);
    controller->performSpeedUpOperationsWithReason("significant location", std::nullopt);  // dropped

    // The executing slow-down was finished by the cancel; the speed-up's burst starts next.
    ASSERT_TRUE(pauseManager->waitForReasons(2));
    {
        std::lock_guard lock(pauseManager->mutex);
        EXPECT_EQ(pauseManager->reasons,
                  (std::vector<std::string>{"sleep:no movement in 10 minutes", "wake:exited geofence"}));
        pauseManager->wakeCompletion(true);
        pauseManager->sleepCompletion(std::nullopt);  // the cancelled burst answering late
    }
    ASSERT_TRUE(drained());
    mainLoop->sync([] {});
    EXPECT_EQ(transitions->recorded(),
              (std::vector<std::string>{"woke:exited geofence", "slept:no movement in 10 minutes"}));
}

TEST_F(ControllerTest, SlowDownRunsAfterAFailedSendAndGroupsReportFailure) {
    std::promise<bool> sendResult;
    controller->performSendEventsOperationsWithToggleTrackingOffEventURI(
        std::nullopt, [&](bool succeeded) { sendResult.set_value(succeeded); });
    EXPECT_FALSE(sendResult.get_future().get());
    EXPECT_EQ(debugEvents->texts(), (std::vector<std::string>{"RVLSendOperation::user token is null"}));
    {
        std::lock_guard lock(api->mutex);
        ASSERT_EQ(api->reported.size(), 1u);
        EXPECT_EQ(*api->reported[0], userTokenIsNilError());
    }

    controller->performSlowDownOperationsWithReason("stay", std::nullopt);
    ASSERT_TRUE(pauseManager->waitForReasons(1));  // not held back by the failed send
    {
        std::lock_guard lock(pauseManager->mutex);
        pauseManager->sleepCompletion(std::nullopt);
    }
    ASSERT_TRUE(drained());
    EXPECT_EQ(transitions->recorded(), (std::vector<std::string>{"slept:stay"}));
}

// A beacon heard is no proof of movement: a phone that never moves hears one at the edge of
// its range now and then.
TEST_F(ControllerTest, BeaconWakeUpIsDecidedByTheBurstLikeAnyOther) {
    controller->performSpeedUpOperationsWithReason("Beacon E2C5 1.7 ranged in region lobby", std::nullopt);
    ASSERT_TRUE(pauseManager->waitForReasons(1));
    {
        std::lock_guard lock(pauseManager->mutex);
        pauseManager->wakeCompletion(false);  // not moved: stays asleep
    }
    ASSERT_TRUE(drained());
    controller->performSpeedUpOperationsWithReason("beacon aa01 seen during ranging of region lobby", std::nullopt);
    ASSERT_TRUE(pauseManager->waitForReasons(2));
    {
        std::lock_guard lock(pauseManager->mutex);
        EXPECT_EQ(pauseManager->reasons, (std::vector<std::string>{"wake:Beacon E2C5 1.7 ranged in region lobby",
                                                                   "wake:beacon aa01 seen during ranging of region lobby"}));
        pauseManager->wakeCompletion(true);
    }
    ASSERT_TRUE(drained());
    mainLoop->sync([] {});
    EXPECT_EQ(transitions->recorded(), (std::vector<std::string>{"woke:beacon aa01 seen during ranging of region lobby"}));
}

TEST_F(ControllerTest, FailedPreShutdownFallsBackToBackgroundTimeThatEndsOnce) {
    std::promise<bool> result;
    controller->performPreShutDownOperationsWithTtOffEventURI(std::nullopt,
                                                              [&](bool succeeded) { result.set_value(succeeded); });
    EXPECT_FALSE(result.get_future().get());  // no token: the background send fails too
    ASSERT_TRUE(drained());
    EXPECT_EQ(debugEvents->texts(), (std::vector<std::string>{"RVLSendOperation::user token is null",
                                                              "launching BG transmission"}));
    EXPECT_EQ(backgroundTasks->endedTasks(), (std::vector<BackgroundTaskIdentifier>{1}));
    backgroundTasks->expire();  // too late: the task has ended already
    EXPECT_EQ(backgroundTasks->endedTasks().size(), 1u);

    // Expiry first: the queue is cancelled and the task ended once; the group's late end
    // does not end it again.
    auto blocker = std::make_shared<ProbeOperation>("blocker", false, ProbeOperation::Ending::later);
    std::promise<bool> second;
    controller->addOperationsToQueue({blocker}, true, [&](bool succeeded) { second.set_value(succeeded); });
    blocker->executed.get_future().wait();
    backgroundTasks->expire();
    EXPECT_TRUE(blocker->isFinished());
    EXPECT_TRUE(second.get_future().get());  // cancelled is not failed
    EXPECT_EQ(backgroundTasks->endedTasks(), (std::vector<BackgroundTaskIdentifier>{1, 2}));
}

TEST(RVLSendInBackgroundOperation, DiagnosticCountsTypesAndSeesAForcedSwitchOff) {
    const std::vector<EventPayload> payloads = {
        {"Waypoint", Date{1700000000.0}, R"({"type":"Waypoint"})", "u1"},
        {"ToggleTracking", Date{1700000001.0},
         R"({"toggle_tracking_reason":"FORCE","toggle_tracking_state":false,"tracked_at_ms":1700000001000,"type":"ToggleTracking"})",
         "u2"},
        {"Waypoint", Date{1700000002.5}, R"({"type":"Waypoint"})", "u3"},
    };
    const auto withDiagnostic = RVLSendInBackgroundOperation::diagnoseEventBatch(payloads);
    ASSERT_EQ(withDiagnostic.size(), 4u);
    EXPECT_EQ(std::vector<EventPayload>(withDiagnostic.begin(), withDiagnostic.begin() + 3), payloads);
    const auto& diagnostic = withDiagnostic.back();
    EXPECT_EQ(diagnostic.type, "Debug");
    EXPECT_EQ(diagnostic.uri, "");
    EXPECT_EQ(diagnostic.payload,
              R"({"comment":"{Debug:1,ToggleTracking:1,Waypoint:2} + TT->OFF present","topic":"Log",)"
              R"("tracked_at_ms":1700000002600,"type":"Debug"})");

    // A switch-off for another reason, or a switch-on, is not the host's switch-off.
    auto others = payloads;
    others[1].payload =
        R"({"toggle_tracking_reason":"APP_UPDATE","toggle_tracking_state":false,"tracked_at_ms":1,"type":"ToggleTracking"})";
    EXPECT_NE(RVLSendInBackgroundOperation::diagnoseEventBatch(others).back().payload.find("TT->OFF NOT present"),
              std::string::npos);
}

}  // namespace
}  // namespace rovalis
