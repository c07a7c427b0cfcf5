#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/UserDefaultsManager.h"
#include "events/EventRepository.h"
#include "platform/sim/SimulatedNetwork.h"
#include "support/TestSupport.h"
#include "upload/NetworkReachabilityManager.h"
#include "upload/RVLSendDataQueue.h"
#include "upload/ReachabilityTracker.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/SerialExecutor.h"
#include "util/SettableDateSource.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

using Status = NetworkReachabilityManager::NetworkReachabilityStatus;
using Connection = NetworkReachabilityManager::ConnectionType;
namespace F = ReachabilityFlags;

// A network whose targets report exactly what the test tells it, repeats included.
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
            network.callback = q ? std::move(cb) : nullptr;
            network.queue = q;
            return true;
        }
        ScriptedNetwork& network;
    };

    std::unique_ptr<NetworkReachabilityTarget> reachabilityForHost(const std::string&) override {
        return reachabilityForZeroAddress();
    }
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForZeroAddress() override {
        return canMakeTargets ? std::make_unique<Target>(*this) : nullptr;
    }
    void report(std::optional<std::uint32_t> newFlags) {
        std::lock_guard lock(mutex);
        flags = newFlags;
        if (newFlags && callback) queue->async([cb = callback, f = *newFlags] { cb(f); });
    }

    bool canMakeTargets = true;
    mutable std::mutex mutex;
    std::optional<std::uint32_t> flags = F::reachable;
    std::function<void(std::uint32_t)> callback;
    Executor* queue = nullptr;
};

constexpr Status off = Status::notReachable();
constexpr Status wired = Status::reachable(Connection::ethernetOrWiFi);
constexpr Status cellular = Status::reachable(Connection::cellular);

TEST(NetworkReachabilityManager, StatusFollowsThePlatformFlagRule) {
    // Reachable, but a connection must first be made.
    constexpr std::uint32_t onRequest = F::reachable | F::connectionRequired;
    const struct {
        std::uint32_t flags;
        Status expected;
    } rows[] = {
        {0, off}, {F::isWWAN, off}, {F::reachable, wired}, {F::reachable | F::isWWAN, cellular},
        {F::reachable | F::transientConnection | F::isDirect, wired},
        // Only a connection made automatically and without the user counts.
        {onRequest, off},
        {onRequest | F::connectionOnTraffic, wired}, {onRequest | F::connectionOnDemand | F::isWWAN, cellular},
        {onRequest | F::connectionOnTraffic | F::interventionRequired, off},
        {onRequest | F::connectionOnDemand | F::interventionRequired, off},
        // Intervention matters only when a connection is required.
        {F::reachable | F::interventionRequired, wired},
        {F::connectionRequired | F::connectionOnTraffic, off},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(NetworkReachabilityManager::statusForFlags(row.flags), row.expected) << std::hex << row.flags;
    }
    // Otherwise the rows above could not tell these apart.
    EXPECT_TRUE(cellular != wired && Status::unknown() != off);
}

TEST(NetworkReachabilityManager, ReportsEachChangeOnceOnTheListenersQueueUntilItStops) {
    auto work = std::make_shared<WorkTracker>();
    auto listenerQueue = std::make_shared<SerialExecutor>("test.listener", work);
    ScriptedNetwork network;
    auto manager = NetworkReachabilityManager::makeForZeroAddress(network, work);
    ASSERT_NE(manager, nullptr);
    std::mutex mutex;
    std::vector<Status> heard;
    const auto listen = [&] {
        ASSERT_TRUE(manager->startListening(listenerQueue, [&](Status status) {
            EXPECT_TRUE(listenerQueue->isCurrent());
            std::lock_guard lock(mutex);
            heard.push_back(status);
        }));
    };
    const auto settled = [&] {
        work->waitUntilIdle();
        std::lock_guard lock(mutex);
        return std::exchange(heard, {});
    };

    // The current status is reported at once; repeats, even with other flags, are not.
    listen();
    EXPECT_EQ(settled(), std::vector<Status>{wired});
    for (const std::uint32_t flags : {F::reachable, F::reachable | F::transientConnection, F::reachable | F::isWWAN,
                                      F::reachable | F::isWWAN, 0u, F::reachable | F::isWWAN}) {
        network.report(flags);
    }
    EXPECT_EQ(settled(), (std::vector<Status>{cellular, off, cellular}));
    EXPECT_TRUE(manager->isReachable() && manager->isReachableOnCellular());
    EXPECT_FALSE(manager->isReachableOnEthernetOrWiFi());
    network.report(std::nullopt);
    EXPECT_EQ(manager->status(), Status::unknown());
    EXPECT_FALSE(manager->isReachable());

    // Stopping unregisters; listening again reports the same status afresh.
    network.report(F::reachable);
    EXPECT_EQ(settled(), std::vector<Status>{wired});
    manager->stopListening();
    network.report(F::reachable | F::isWWAN);
    EXPECT_TRUE(settled().empty());
    network.report(F::reachable);
    listen();
    EXPECT_EQ(settled(), std::vector<Status>{wired});

    network.canMakeTargets = false;
    EXPECT_EQ(NetworkReachabilityManager::make(network, "collector.invalid"), nullptr);
}

struct ReachabilityTrackerTest : ::testing::Test {
    std::shared_ptr<WorkTracker> work = std::make_shared<WorkTracker>();
    std::shared_ptr<SerialExecutor> queue = std::make_shared<SerialExecutor>("test.reachability", work);
    SimulatedNetwork network{SimulatedConnection::wifi};
    test::TempDir dir;
    std::shared_ptr<EventRepository> store = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::mutex mutex;
    std::vector<bool> told;

    std::unique_ptr<ReachabilityTracker> makeTracker() {
        auto tracker = std::make_unique<ReachabilityTracker>(store, defaults, defaults, clock, network,
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
    // The stored events as "STATUS@seconds after the start"; only Connectivity events belong here.
    const double start = clock->now().secondsSince1970;
    std::vector<std::string> recorded() {
        std::vector<std::string> events;
        for (const auto& row : store->fetchEventsPayloadTo(std::nullopt, 0)) {
            EXPECT_EQ(row.type, "Connectivity");
            const auto at = row.payload.find("\"status\":\"") + 10;
            events.push_back(row.payload.substr(at, row.payload.find('"', at) - at) + "@" +
                             std::to_string(std::lround(row.trackedAtMs.secondsSince1970 - start)));
        }
        return events;
    }
};

TEST_F(ReachabilityTrackerTest, RecordsChangesAndAppliesTheWifiOnlyRule) {
    auto tracker = makeTracker();
    EXPECT_FALSE(tracker->canSendDataNow());
    tracker->start();
    EXPECT_EQ(settledTold(), std::vector<bool>{true});

    defaults->setWifiOnlyDataTransfer(true);
    clock->advance(60);
    network.setConnection(SimulatedConnection::cellular);
    EXPECT_EQ(settledTold(), (std::vector<bool>{true, false}));
    EXPECT_FALSE(tracker->canSendDataNow());
    EXPECT_EQ(defaults->lastConnectionType(), 0);  // mobile
    defaults->setWifiOnlyDataTransfer(false);
    EXPECT_TRUE(tracker->canSendDataNow());

    clock->advance(60);
    network.setConnection(SimulatedConnection::offline);
    EXPECT_EQ(settledTold(), (std::vector<bool>{true, false, false}));
    EXPECT_FALSE(tracker->canSendDataNow());
    const std::vector<std::string> expected = {"WIFI@0", "MOBILE@60", "DISCONNECTED@120"};
    EXPECT_EQ(recorded(), expected);

    // Listening afresh reports the same network again: the listener hears it, but nothing new
    // is recorded.
    tracker->speedUp();
    EXPECT_EQ(settledTold().size(), 4u);
    EXPECT_EQ(recorded(), expected);
}

TEST_F(ReachabilityTrackerTest, FirstReportAfterEachLaunchIsRecordedAndNothingWhileTrackingIsOff) {
    if (auto launched = makeTracker()) {
        launched->start();
        work->waitUntilIdle();
    }
    clock->advance(3600);
    auto relaunched = makeTracker();
    relaunched->start();
    EXPECT_EQ(settledTold(), (std::vector<bool>{true, true}));
    EXPECT_EQ(recorded(), (std::vector<std::string>{"WIFI@0", "WIFI@3600"}));

    // Waking the trackers listens again without tracking being on: the status follows, but
    // nothing is recorded or told.
    relaunched->stop();
    relaunched->speedUp();
    network.setConnection(SimulatedConnection::cellular);
    EXPECT_EQ(settledTold().size(), 2u);
    EXPECT_EQ(relaunched->status(), Connectivity::Status::mobile);
    EXPECT_EQ(recorded().size(), 2u);
    EXPECT_EQ(defaults->lastConnectionType(), 3);  // still wifi

    // The change is recorded by the next report, because it differs from the persisted type.
    relaunched->start();
    work->waitUntilIdle();
    EXPECT_EQ(recorded(), (std::vector<std::string>{"WIFI@0", "WIFI@3600", "MOBILE@3600"}));
}

using ReachabilityTrackerDeathTest = ReachabilityTrackerTest;

TEST_F(ReachabilityTrackerDeathTest, StopsWhenTheManagerCannotBeMade) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScriptedNetwork none;
    none.canMakeTargets = false;
    EXPECT_DEATH(ReachabilityTracker(store, defaults, defaults, clock, none, "collector.invalid", queue),
                 "Fatal error: Cannot construct NetworkReachabilityManager");
}

// ---------------------------------------------------------------------------------------

// Counts the sends, the one thing the queue asks for.
class RecordingOperationsController final : public RVLOperationsControllerType {
public:
    void performSendEventsOperationsWithToggleTrackingOffEventURI(const std::optional<std::string>& uri,
                                                                  Completion completion) override {
        EXPECT_FALSE(uri.has_value());
        if (completion) completion(true);
        ++sends;
    }
    void performSpeedUpOperationsWithReason(const std::string&, const std::optional<Location>&) override {}
    void performSlowDownOperationsWithReason(const std::string&, const std::optional<Location>&) override {}
    void performPreShutDownOperationsWithTtOffEventURI(const std::optional<std::string>&, Completion) override {}
    void performPostStartOperationsWithCompletion(Completion) override {}
    void performBGTransmissionOperationWithCompletion(Completion) override {}
    void cancelAllOperations() override {}
    void cancelAnyPendingSlowDownOperations() override {}
    std::atomic<int> sends{0};
};

class ListenedReachability final : public RVLReachabilityType {
public:
    bool canSendDataNow() const override { return true; }
    void setChangeListener(std::function<void(bool)> l) override { listener = std::move(l); }
    std::function<void(bool)> listener;
};

struct RVLSendDataQueueTest : ::testing::Test {
    std::shared_ptr<RecordingOperationsController> controller = std::make_shared<RecordingOperationsController>();
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<ListenedReachability> reachability = std::make_shared<ListenedReachability>();
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::unique_ptr<RVLSendDataQueue> queue =
        std::make_unique<RVLSendDataQueue>(controller, defaults, reachability, clock);

    int sendsAfter(double seconds, const std::function<void()>& trigger) {
        clock->advance(seconds);
        trigger();
        return controller->sends;
    }
    std::function<void()> active() { return [this] { queue->applicationDidBecomeActive(); }; }
    std::function<void()> told(bool canSend) { return [this, canSend] { reachability->listener(canSend); }; }
    std::function<void()> moved() { return [this] { queue->updateTime(); }; }
};

TEST_F(RVLSendDataQueueTest, StartsAtOnceThenAtMostEveryFiveMinutes) {
    ASSERT_TRUE(reachability->listener);
    EXPECT_EQ(sendsAfter(0, active()), 1);
    EXPECT_EQ(sendsAfter(299, told(true)), 1);
    EXPECT_EQ(sendsAfter(1, told(false)), 1) << "only a usable network starts one";
    EXPECT_EQ(sendsAfter(0, told(true)), 2) << "five minutes after the last attempt";

    // Triggers racing from two threads at one instant start one transfer.
    clock->advance(301);
    std::thread other([&] {
        for (int i = 0; i < 200; ++i) queue->reachabilityChanged(true);
    });
    for (int i = 0; i < 200; ++i) queue->applicationDidBecomeActive();
    other.join();
    EXPECT_EQ(controller->sends, 3);

    queue.reset();
    EXPECT_FALSE(reachability->listener);
}

TEST_F(RVLSendDataQueueTest, LocationUpdatesStartATransferFifteenMinutesAfterTheLastUpload) {
    EXPECT_EQ(sendsAfter(0, moved()), 1) << "no upload yet: the distant past is long ago";
    defaults->setLastSuccessfulEventUploadDate(clock->now().addingSeconds(3600 - 15 * 60));
    EXPECT_EQ(sendsAfter(3600, moved()), 1) << "exactly fifteen minutes after the upload";
    EXPECT_EQ(sendsAfter(1, moved()), 2);
    EXPECT_EQ(sendsAfter(299, moved()), 2) << "within five minutes of the last attempt";
}

// Without a usable network (none, or cellular with wifi-only set) no trigger starts a transfer,
// nor counts as an attempt: the real tracker's report of wifi at the same instant starts one.
TEST_F(ReachabilityTrackerTest, SendQueueStartsNothingWithoutAUsableNetwork) {
    network.setConnection(SimulatedConnection::offline);
    defaults->setWifiOnlyDataTransfer(true);
    auto controller = std::make_shared<RecordingOperationsController>();
    std::shared_ptr<ReachabilityTracker> tracker = makeTracker();
    RVLSendDataQueue sendQueue(controller, defaults, tracker, clock);
    tracker->start();
    work->waitUntilIdle();
    sendQueue.applicationDidBecomeActive();
    sendQueue.updateTime();
    network.setConnection(SimulatedConnection::cellular);
    work->waitUntilIdle();
    sendQueue.applicationDidBecomeActive();
    sendQueue.reachabilityChanged(true);
    EXPECT_EQ(controller->sends, 0);

    network.setConnection(SimulatedConnection::wifi);
    work->waitUntilIdle();
    EXPECT_EQ(controller->sends, 1);
    tracker->stop();
}

}  // namespace
}  // namespace rovalis
