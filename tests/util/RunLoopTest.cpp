#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <future>
#include <string>
#include <vector>

#include "util/ExecutorRunLoop.h"
#include "util/SerialExecutor.h"
#include "util/ThreadRunLoop.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

constexpr double kStart = 1700000000.0;

struct VirtualLoop : ::testing::Test {
    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{kStart});
    VirtualRunLoop loop{clock};
    std::vector<std::pair<std::string, double>> fired;  // name, seconds after start

    std::function<void()> record(std::string name) {
        return [this, name] { fired.emplace_back(name, loop.now().secondsSince1970 - kStart); };
    }
};

using Fired = std::vector<std::pair<std::string, double>>;

TEST_F(VirtualLoop, TimersFireInDueOrderAtTheirVirtualTimesUpToTheBound) {
    loop.scheduleTimer(30, false, record("c"));
    loop.scheduleTimer(10, false, record("a"));
    loop.scheduleTimer(20, false, record("b1"));
    loop.scheduleTimer(20, false, record("b2"));  // same due time: scheduling order
    EXPECT_EQ(loop.nextPendingDelay(), 10.0);

    loop.fastForwardBy(29.5);
    EXPECT_EQ(fired, (Fired{{"a", 10}, {"b1", 20}, {"b2", 20}}));
    EXPECT_DOUBLE_EQ(loop.now().secondsSince1970, kStart + 29.5);
    EXPECT_DOUBLE_EQ(*loop.nextPendingDelay(), 0.5);
    EXPECT_FALSE(loop.hasPendingTasks());

    loop.fastForwardBy(0.5);  // a timer due exactly at the bound runs
    EXPECT_EQ(fired.back(), (std::pair<std::string, double>{"c", 30}));
    EXPECT_FALSE(loop.nextPendingDelay().has_value());
}

TEST_F(VirtualLoop, RepeatingTimerRearmsFromItsDueTimeUntilInvalidated) {
    auto timer = loop.scheduleTimer(10, true, record("tick"));
    loop.fastForwardBy(35);
    EXPECT_EQ(fired, (Fired{{"tick", 10}, {"tick", 20}, {"tick", 30}}));
    EXPECT_TRUE(timer->isValid());
    EXPECT_EQ(loop.nextPendingDelay(), 5.0);

    timer->invalidate();
    loop.fastForwardBy(100);
    EXPECT_EQ(fired.size(), 3u);
    EXPECT_FALSE(loop.nextPendingDelay().has_value());
}

TEST_F(VirtualLoop, TimerMayInvalidateItselfAndScheduleAnotherFromItsCallback) {
    std::shared_ptr<RunLoopTimer> timer;
    int ticks = 0;
    timer = loop.scheduleTimer(1, true, [&] {
        if (++ticks == 2) {
            timer->invalidate();
            loop.scheduleTimer(5, false, record("follow-up"));
        }
    });
    loop.fastForwardBy(60);
    EXPECT_EQ(ticks, 2);
    EXPECT_FALSE(timer->isValid());
    EXPECT_EQ(fired, (Fired{{"follow-up", 7}}));
}

TEST_F(VirtualLoop, FireRunsNowAndLeavesOnlyARepeatingTimerScheduled) {
    auto once = loop.scheduleTimer(10, false, record("once"));
    auto repeating = loop.scheduleTimer(10, true, record("repeating"));
    loop.fastForwardBy(4);

    once->fire();  // from outside the loop: runs as the loop's next task
    repeating->fire();
    EXPECT_FALSE(once->isValid());
    EXPECT_TRUE(repeating->isValid());
    loop.runUntilIdle();
    EXPECT_EQ(fired, (Fired{{"once", 4}, {"repeating", 4}}));

    loop.async([&] { repeating->fire(); });  // on the loop: runs in place
    loop.fastForwardBy(6);  // the repeating timer keeps its schedule; the one-shot is gone
    once->fire();
    loop.runUntilIdle();
    EXPECT_EQ(fired, (Fired{{"once", 4}, {"repeating", 4}, {"repeating", 4}, {"repeating", 10}}));
}

TEST_F(VirtualLoop, TasksRunInOrderWithoutMovingTimeAndSyncRunsTheQueuedOnesFirst) {
    std::vector<int> order;
    loop.async([&] {
        order.push_back(1);
        EXPECT_TRUE(loop.isCurrent());
        loop.async([&] {
            order.push_back(3);
            loop.async([&] { order.push_back(4); });
        });
    });
    loop.async([&] { order.push_back(2); });
    loop.scheduleTimer(0.001, false, record("later"));
    EXPECT_TRUE(loop.hasPendingTasks());
    EXPECT_FALSE(loop.isCurrent());

    loop.runUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(fired.empty());
    EXPECT_DOUBLE_EQ(loop.now().secondsSince1970, kStart);
    EXPECT_FALSE(loop.hasPendingTasks());

    // From the creating thread, outside a run, sync runs the queued tasks first, then in place.
    loop.async([&] { order.push_back(5); });
    loop.sync([&] {
        EXPECT_TRUE(loop.isCurrent());
        order.push_back(6);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST(VirtualLoopWithTracker, WaitsForTrackedWorkBeforeMovingTime) {
    auto tracker = std::make_shared<WorkTracker>();
    auto clock = std::make_shared<SettableDateSource>(Date{kStart});
    VirtualRunLoop loop(clock, tracker);
    SerialExecutor worker("test.worker", tracker);
    std::vector<std::string> log;

    for (int round = 0; round < 20; ++round) {
        log.clear();
        const double roundStart = loop.now().secondsSince1970;
        loop.async([&] {
            log.push_back("main");
            worker.async([&] {
                // A blocking call into the loop while the loop waits for this very work.
                const int answer = syncResult(loop, [] { return 7; });
                loop.async([&, answer] {
                    log.push_back("posted " + std::to_string(answer));
                    loop.scheduleTimer(5, false, [&] { log.push_back("timer"); });
                });
            });
        });
        loop.fastForwardBy(10);
        const bool idleAfterRun = tracker->isIdle();
        // Should the loop not have waited, release the worker so that a failure is not a hang.
        while (!tracker->isIdle() || loop.hasPendingTasks()) loop.runUntilIdle();
        ASSERT_EQ(log, (std::vector<std::string>{"main", "posted 7", "timer"})) << "round " << round;
        ASSERT_TRUE(idleAfterRun);
        EXPECT_DOUBLE_EQ(loop.now().secondsSince1970, roundStart + 10);
    }
}

// The loop sleeps until tracked work ends rather than looking again and again: the tracker
// tells it each time its work drops to none.
TEST(VirtualLoopWithTracker, TheTrackerTellsItsListenersEachTimeItsWorkDropsToNone) {
    WorkTracker tracker;
    int heard = 0;
    const auto token = tracker.addIdleListener([&] { ++heard; });
    tracker.begin();
    tracker.begin();
    tracker.end();
    EXPECT_EQ(heard, 0) << "work is still outstanding";
    tracker.end();
    EXPECT_EQ(heard, 1);
    tracker.removeIdleListener(token);
    tracker.begin();
    tracker.end();
    EXPECT_EQ(heard, 1);
}

TEST(VirtualLoopDeath, RunningTheLoopFromItsOwnTaskIsFatal) {
    VirtualRunLoop loop;
    loop.async([&] { loop.runUntilIdle(); });
    EXPECT_DEATH(loop.runUntilIdle(), "Fatal error: VirtualRunLoop was asked to run from one of its own tasks");
}

TEST(ThreadLoop, TimersAndSyncRunOnTheLoopThreadAndQueuedTasksRunBeforeDestruction) {
    std::vector<int> order;
    {
        ThreadRunLoop loop(std::make_shared<SystemDateSource>());
        std::promise<bool> firedOnLoop;
        const Date scheduled = loop.now();
        auto timer = loop.scheduleTimer(0.01, false, [&] { firedOnLoop.set_value(loop.isCurrent()); });
        auto result = firedOnLoop.get_future();
        ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_TRUE(result.get());
        EXPECT_GE(loop.now().timeIntervalSince(scheduled), 0.01);
        EXPECT_FALSE(timer->isValid());

        EXPECT_TRUE(syncResult(loop, [&] { return loop.isCurrent(); }));
        for (int i = 0; i < 100; ++i) loop.async([&order, i] { order.push_back(i); });
    }
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

TEST(ThreadLoop, TheLastOwnerMayLetGoOfTheLoopFromOneOfItsOwnTasks) {
    auto loop = std::make_shared<ThreadRunLoop>(std::make_shared<SystemDateSource>());
    std::promise<void> gate;
    std::promise<bool> finished;
    loop->async([keep = loop, opened = gate.get_future().share(), &finished]() mutable {
        opened.wait();
        const bool wasCurrent = keep->isCurrent();
        keep.reset();  // the loop is destroyed here, on its own thread
        finished.set_value(wasCurrent);
    });
    loop.reset();
    gate.set_value();
    auto result = finished.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_TRUE(result.get());
}

TEST(ExecutorLoop, TasksAndTimersRunOnTheHostsQueueInOrderAndSyncWorksFromAnyThread) {
    auto host = std::make_shared<SerialExecutor>("test.host");
    ExecutorRunLoop loop(host, std::make_shared<SystemDateSource>());
    std::vector<int> order;
    std::promise<bool> timerOnHost;
    auto timer = loop.scheduleTimer(0.005, false, [&] { timerOnHost.set_value(host->isCurrent()); });
    for (int i = 0; i < 50; ++i) loop.async([&order, &host, i] { order.push_back(host->isCurrent() ? i : -1); });
    auto fired = timerOnHost.get_future();
    ASSERT_EQ(fired.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_TRUE(fired.get());

    // From another thread the caller waits for the host's queue; on the host's queue it runs in place.
    EXPECT_TRUE(syncResult(loop, [&] { return host->isCurrent(); }));
    EXPECT_TRUE(syncResult(*host, [&] { return syncResult(loop, [&] { return loop.isCurrent(); }); }));
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);

    // A repeating timer keeps firing until invalidated, and the loop can go while it is due.
    std::atomic<int> ticks{0};
    auto repeating = loop.scheduleTimer(0.001, true, [&] { ++ticks; });
    while (ticks < 3) std::this_thread::yield();
    repeating->invalidate();
}

}  // namespace
}  // namespace rovalis
