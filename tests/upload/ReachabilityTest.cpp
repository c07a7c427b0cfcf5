#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "core/UserDefaultsManager.h"
#include "platform/sim/SimulatedNetwork.h"
#include "upload/NetworkReachabilityManager.h"
#include "upload/RVLSendDataQueue.h"
#include "upload/ReachabilityTracker.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/SerialExecutor.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

using Status = NetworkReachabilityManager::NetworkReachabilityStatus;
using Connection = NetworkReachabilityManager::ConnectionType;
namespace F = ReachabilityFlags;

// A network whose targets report exactly what the test tells them, repeats included.
class ScriptedNetwork final : public NetworkMonitor {
public:
    struct Target final : NetworkReachabilityTarget {
        explicit Target(ScriptedNetwork& network) : network(network) {}
        std::optional<std::uint32_t> flags() const override {
            std::lock_guard lock(network.mutex);
            return network.flags;
        }
        bool setCallback(std::function<void(std::uint32_t)> cb, Executor* q) override {
            std::lock_guard lock(network.mutex);
            callback = cb && q ? std::move(cb) : nullptr;
            queue = callback ? q : nullptr;
            return true;
        }
        ScriptedNetwork& network;
        std::function<void(std::uint32_t)> callback;
        Executor* queue = nullptr;
    };

    std::unique_ptr<NetworkReachabilityTarget> reachabilityForHost(const std::string&) override { return make(); }
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForZeroAddress() override { return make(); }

    void report(std::uint32_t newFlags) {
        std::lock_guard lock(mutex);
        flags = newFlags;
        if (target && target->callback) target->queue->async([cb = target->callback, newFlags] { cb(newFlags); });
    }
    bool isRegistered() {
        std::lock_guard lock(mutex);
        return target && target->callback;
    }

    bool canMakeTargets = true;
    std::mutex mutex;
    std::optional<std::uint32_t> flags = F::reachable;
    Target* target = nullptr;

private:
    std::unique_ptr<NetworkReachabilityTarget> make() {
        if (!canMakeTargets) return nullptr;
        auto made = std::make_unique<Target>(*this);
        target = made.get();
        return made;
    }
};

TEST(NetworkReachabilityManager, StatusFollowsThePlatformFlagRule) {
    constexpr Status off = Status::notReachable();
    constexpr Status wired = Status::reachable(Connection::ethernetOrWiFi);
    constexpr Status cellular = Status::reachable(Connection::cellular);
    // Reachable, but a connection must first be made.
    constexpr std::uint32_t onRequest = F::reachable | F::connectionRequired;
    const struct {
        std::uint32_t flags;
        Status expected;
    } rows[] = {
        {0, off},
        {F::isWWAN, off},
        {F::reachable, wired},
        {F::reachable | F::isWWAN, cellular},
        {F::reachable | F::transientConnection | F::isDirect, wired},
        // Only a connection made automatically and without the user counts.
        {onRequest, off},
        {onRequest | F::connectionOnTraffic, wired},
        {onRequest | F::connectionOnDemand | F::isWWAN, cellular},
        {onRequest | F::connectionOnTraffic | F::interventionRequired, off},
        {onRequest | F::connectionOnDemand | F::interventionRequired, off},
        // Intervention matters only when a connection is required.
        {F::reachable | F::interventionRequired, wired},
        {F::connectionRequired | F::connectionOnTraffic, off},
    };
    for (const auto& row : rows) {
        const Status status = NetworkReachabilityManager::statusForFlags(row.flags);
        EXPECT_EQ(status, row.expected) << "flags 0x" << std::hex << row.flags;
    }
    // The connection type tells reachable statuses apart, and only them.
    EXPECT_NE(Status::reachable(Connection::cellular), Status::reachable(Connection::ethernetOrWiFi));
    EXPECT_NE(Status::unknown(), Status::notReachable());
}

struct NetworkReachabilityManagerTest : ::testing::Test {
    std::shared_ptr<WorkTracker> work = std::make_shared<WorkTracker>();
    std::shared_ptr<SerialExecutor> listenerQueue = std::make_shared<SerialExecutor>("test.listener", work);
    ScriptedNetwork network;
    std::shared_ptr<NetworkReachabilityManager> manager = NetworkReachabilityManager::makeForZeroAddress(network, work);
    std::mutex mutex;
    std::vector<Status> heard;
    std::atomic<int> offQueue{0};

    void listen() {
        ASSERT_TRUE(manager->startListening(listenerQueue, [this](Status status) {
            if (!listenerQueue->isCurrent()) ++offQueue;
            std::lock_guard lock(mutex);
            heard.push_back(status);
        }));
    }
    std::vector<Status> settled() {
        work->waitUntilIdle();
        std::lock_guard lock(mutex);
        return heard;
    }
};

TEST_F(NetworkReachabilityManagerTest, ReportsEachChangeOnceOnTheListenersQueue) {
    ASSERT_NE(manager, nullptr);
    listen();
    settled();
    // The current status is reported at once; repeats, even with other flags, are not.
    network.report(F::reachable);
    network.report(F::reachable | F::transientConnection);
    network.report(F::reachable | F::isWWAN);
    network.report(F::reachable | F::isWWAN);
    network.report(0);
    EXPECT_EQ(settled(), (std::vector<Status>{Status::reachable(Connection::ethernetOrWiFi),
                                             Status::reachable(Connection::cellular), Status::notReachable()}));
    EXPECT_EQ(offQueue, 0);

    network.report(F::reachable | F::isWWAN);
    settled();
    EXPECT_TRUE(manager->isReachable());
    EXPECT_TRUE(manager->isReachableOnCellular());
    EXPECT_FALSE(manager->isReachableOnEthernetOrWiFi());
    {
        std::lock_guard lock(network.mutex);
        network.flags.reset();
    }
    EXPECT_EQ(manager->status(), Status::unknown());
    EXPECT_FALSE(manager->isReachable());
}

TEST_F(NetworkReachabilityManagerTest, StopListeningForgetsThePreviousStatus) {
    listen();
    EXPECT_EQ(settled().size(), 1u);
    manager->stopListening();
    EXPECT_FALSE(network.isRegistered());
    network.report(F::reachable);
    EXPECT_EQ(settled().size(), 1u);

    // Listening again reports the same status afresh.
    listen();
    EXPECT_EQ(settled(), (std::vector<Status>(2, Status::reachable(Connection::ethernetOrWiFi))));

    network.canMakeTargets = false;
    EXPECT_EQ(NetworkReachabilityManager::make(network, "collector.invalid"), nullptr);
}

// Records the Connectivity events; every other insert is a fault here.
class ConnectivityRecorder final : public RVLEventInsertable {
public:
    struct Event {
        Date at;
        long code;
        friend bool operator==(const Event&, const Event&) = default;
    };

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

    void insertConnectivityEventWithTrackedAtMs(Date at, long code) override {
        std::lock_guard lock(mutex_);
        events_.push_back({at, code});
    }

    void insertWaypointEventWithTrackedAtMs(Date, double, double, double, double, double, double,
                                            const std::string&) override { unexpected(); }
    void insertSignificantLocationEventWithTrackedAtMs(Date, double, double, double) override { unexpected(); }
    void insertPreSleepEventWithTrackedAtMs(Date, double, double, double, long) override { unexpected(); }
    void insertPreWakeUpEventWithTrackedAtMs(Date, double, double, double, long) override { unexpected(); }
    void insertBatteryEventWithTrackedAtMs(Date, bool, float) override { unexpected(); }
    std::optional<std::string> insertToggleTrackingEventWithTrackedAtMs(Date, bool, long) override {
        unexpected();
        return std::nullopt;
    }
    void insertToggleStandbyEventWithTrackedAtMs(Date, bool, const std::string&) override { unexpected(); }
    void insertDebugEventWithTrackedAtMs(Date, long, const std::string&) override { unexpected(); }
    void insertIOSActivityEventWithTrackedAtMs(Date, long, const std::vector<IOSActivityTypeWrapper>&) override {
        unexpected();
    }
    void insertAccelerationEventWithTrackedAtMs(Date, Decimal) override { unexpected(); }
    void insertBuffers() override { unexpected(); }

private:
    static void unexpected() { ADD_FAILURE() << "only Connectivity events are expected"; }

    mutable std::mutex mutex_;
    std::vector<Event> events_;
};

constexpr long mobile = 0, disconnected = 1, wifi = 3;

struct ReachabilityTrackerTest : ::testing::Test {
    std::shared_ptr<WorkTracker> work = std::make_shared<WorkTracker>();
    std::shared_ptr<SerialExecutor> queue = std::make_shared<SerialExecutor>("test.reachability", work);
    SimulatedNetwork network{SimulatedConnection::wifi};
    std::shared_ptr<ConnectivityRecorder> recorder = std::make_shared<ConnectivityRecorder>();
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::mutex mutex;
    std::vector<bool> told;

    std::unique_ptr<ReachabilityTracker> makeTracker() {
        auto tracker = std::make_unique<ReachabilityTracker>(recorder, defaults, defaults, clock, network,
                                                             "collector.invalid", queue, work);
        tracker->setChangeListener([this](bool canSend) {
            EXPECT_TRUE(queue->isCurrent());
            std::lock_guard lock(mutex);
            told.push_back(canSend);
        });
        return tracker;
    }
    std::vector<bool> settledTold() {
        work->waitUntilIdle();
        std::lock_guard lock(mutex);
        return told;
    }
};

TEST_F(ReachabilityTrackerTest, RecordsChangesAndAppliesTheWifiOnlyRule) {
    auto tracker = makeTracker();
    EXPECT_FALSE(tracker->canSendDataNow());
    tracker->start();
    EXPECT_EQ(settledTold(), std::vector<bool>{true});
    EXPECT_TRUE(tracker->canSendDataNow());
    const Date first = clock->now();
    EXPECT_EQ(recorder->events(), (std::vector<ConnectivityRecorder::Event>{{first, wifi}}));
    EXPECT_EQ(defaults->lastConnectionType(), wifi);

    defaults->setWifiOnlyDataTransfer(true);
    clock->advance(60);
    network.setConnection(SimulatedConnection::cellular);
    EXPECT_EQ(settledTold(), (std::vector<bool>{true, false}));
    EXPECT_FALSE(tracker->canSendDataNow());
    EXPECT_EQ(recorder->events().back(), (ConnectivityRecorder::Event{clock->now(), mobile}));
    EXPECT_EQ(defaults->lastConnectionType(), mobile);
    defaults->setWifiOnlyDataTransfer(false);
    EXPECT_TRUE(tracker->canSendDataNow());

    network.setConnection(SimulatedConnection::offline);
    EXPECT_EQ(settledTold(), (std::vector<bool>{true, false, false}));
    EXPECT_FALSE(tracker->canSendDataNow());
    EXPECT_EQ(recorder->events().size(), 3u);
    EXPECT_EQ(recorder->events().back().code, disconnected);

    // Listening afresh reports the same network again: the listener hears it, but nothing new
    // is recorded.
    tracker->speedUp();
    EXPECT_EQ(settledTold().size(), 4u);
    EXPECT_EQ(recorder->events().size(), 3u);
}

TEST_F(ReachabilityTrackerTest, FirstReportAfterEachLaunchIsRecorded) {
    {
        auto launched = makeTracker();
        launched->start();
        work->waitUntilIdle();
    }
    clock->advance(3600);
    auto relaunched = makeTracker();
    relaunched->start();
    work->waitUntilIdle();
    const Date now = clock->now();
    EXPECT_EQ(recorder->events(),
              (std::vector<ConnectivityRecorder::Event>{{now.addingSeconds(-3600), wifi}, {now, wifi}}));

    // A change while nobody listens is recorded by the next report, because it differs from
    // the persisted type.
    relaunched->stop();
    network.setConnection(SimulatedConnection::cellular);
    relaunched->start();
    work->waitUntilIdle();
    EXPECT_EQ(recorder->events().size(), 3u);
    EXPECT_EQ(recorder->events().back().code, mobile);
}

TEST_F(ReachabilityTrackerTest, WhileTrackingIsOffStatusFollowsButNothingIsRecordedOrTold) {
    auto tracker = makeTracker();
    tracker->start();
    work->waitUntilIdle();
    tracker->stop();
    EXPECT_FALSE(tracker->isTrackingActive());
    // Waking the trackers listens again without tracking being on.
    tracker->speedUp();
    network.setConnection(SimulatedConnection::cellular);
    EXPECT_EQ(settledTold(), std::vector<bool>{true});
    EXPECT_EQ(tracker->status(), Connectivity::Status::mobile);
    EXPECT_TRUE(tracker->canSendDataNow());  // wifi-only is off by default
    EXPECT_EQ(recorder->events().size(), 1u);
    EXPECT_EQ(defaults->lastConnectionType(), wifi);
}

TEST(ReachabilityTrackerDeathTest, StopsWhenTheManagerCannotBeMade) {
    ScriptedNetwork network;
    network.canMakeTargets = false;
    auto defaults = std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    EXPECT_DEATH(ReachabilityTracker(std::make_shared<ConnectivityRecorder>(), defaults, defaults,
                                     std::make_shared<SettableDateSource>(), network, "collector.invalid",
                                     std::make_shared<SerialExecutor>("test.death")),
                 "Fatal error: Cannot construct NetworkReachabilityManager");
}

// ---------------------------------------------------------------------------------------

class RecordingOperationsController final : public RVLOperationsControllerType {
public:
    int sends() const { return sends_; }

    void performSendEventsOperationsWithToggleTrackingOffEventURI(const std::optional<std::string>& uri,
                                                                  Completion completion) override {
        EXPECT_FALSE(uri.has_value());
        EXPECT_TRUE(completion);
        if (completion) completion(true);
        ++sends_;
    }
    void performSpeedUpOperationsWithReason(const std::string&, const std::optional<Location>&) override { bad(); }
    void performSlowDownOperationsWithReason(const std::string&, const std::optional<Location>&) override { bad(); }
    void performPreShutDownOperationsWithTtOffEventURI(const std::optional<std::string>&, Completion) override {
        bad();
    }
    void performPostStartOperationsWithCompletion(Completion) override { bad(); }
    void performBGTransmissionOperationWithCompletion(Completion) override { bad(); }
    void cancelAllOperations() override { bad(); }
    void cancelAnyPendingSlowDownOperations() override { bad(); }

private:
    static void bad() { ADD_FAILURE() << "only sends are expected"; }
    std::atomic<int> sends_{0};
};

class SwitchableReachability final : public RVLReachabilityType {
public:
    bool canSendDataNow() const override { return canSend; }
    void setChangeListener(std::function<void(bool)> l) override { listener = std::move(l); }
    std::atomic<bool> canSend{true};
    std::function<void(bool)> listener;
};

struct RVLSendDataQueueTest : ::testing::Test {
    std::shared_ptr<RecordingOperationsController> controller = std::make_shared<RecordingOperationsController>();
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<SwitchableReachability> reachability = std::make_shared<SwitchableReachability>();
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::unique_ptr<RVLSendDataQueue> queue =
        std::make_unique<RVLSendDataQueue>(controller, defaults, reachability, clock);
};

TEST_F(RVLSendDataQueueTest, StartsAtOnceThenAtMostEveryFiveMinutes) {
    ASSERT_TRUE(reachability->listener);
    queue->applicationDidBecomeActive();
    EXPECT_EQ(controller->sends(), 1);
    clock->advance(299);
    reachability->listener(true);
    queue->applicationDidBecomeActive();
    EXPECT_EQ(controller->sends(), 1);
    clock->advance(2);
    reachability->listener(false);
    EXPECT_EQ(controller->sends(), 1);
    reachability->listener(true);
    EXPECT_EQ(controller->sends(), 2);

    // Triggers racing from two threads at one instant start one transfer.
    clock->advance(301);
    std::thread other([&] {
        for (int i = 0; i < 200; ++i) queue->reachabilityChanged(true);
    });
    for (int i = 0; i < 200; ++i) queue->applicationDidBecomeActive();
    other.join();
    EXPECT_EQ(controller->sends(), 3);

    queue.reset();
    EXPECT_FALSE(reachability->listener);
}

TEST_F(RVLSendDataQueueTest, LocationUpdatesStartATransferFifteenMinutesAfterTheLastUpload) {
    // No upload yet: the distant past is long ago.
    queue->updateTime();
    EXPECT_EQ(controller->sends(), 1);

    clock->advance(3600);
    defaults->setLastSuccessfulEventUploadDate(clock->now().addingSeconds(-14 * 60));
    queue->updateTime();
    EXPECT_EQ(controller->sends(), 1);
    clock->advance(2 * 60);
    queue->updateTime();
    EXPECT_EQ(controller->sends(), 2);
    // Still long after the upload, but within five minutes of the last attempt.
    clock->advance(60);
    queue->updateTime();
    EXPECT_EQ(controller->sends(), 2);
}

TEST_F(RVLSendDataQueueTest, WithoutAUsableNetworkNothingStartsAndTheAttemptTimeStays) {
    queue->applicationDidBecomeActive();
    ASSERT_EQ(controller->sends(), 1);
    clock->advance(400);
    reachability->canSend = false;
    queue->applicationDidBecomeActive();
    queue->updateTime();
    queue->reachabilityChanged(true);
    EXPECT_EQ(controller->sends(), 1);
    // Had a refused trigger counted as an attempt, this one would be held back.
    clock->advance(10);
    reachability->canSend = true;
    queue->applicationDidBecomeActive();
    EXPECT_EQ(controller->sends(), 2);
}

// The real tracker feeding the queue: cellular with wifi-only set is as good as no network.
TEST_F(ReachabilityTrackerTest, SendQueueWaitsForAUsableNetwork) {
    network.setConnection(SimulatedConnection::offline);
    defaults->setWifiOnlyDataTransfer(true);
    auto controller = std::make_shared<RecordingOperationsController>();
    std::shared_ptr<ReachabilityTracker> tracker = makeTracker();
    RVLSendDataQueue sendQueue(controller, defaults, tracker, clock);
    tracker->start();
    work->waitUntilIdle();
    sendQueue.applicationDidBecomeActive();
    network.setConnection(SimulatedConnection::cellular);
    work->waitUntilIdle();
    sendQueue.applicationDidBecomeActive();
    EXPECT_EQ(controller->sends(), 0);

    network.setConnection(SimulatedConnection::wifi);
    work->waitUntilIdle();
    EXPECT_EQ(controller->sends(), 1);
    tracker->stop();
}

}  // namespace
}  // namespace rovalis
