#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "util/SerialExecutor.h"

namespace rovalis {
namespace {

TEST(SerialExecutor, RunsTasksInOrderAndDrainsOnDestruction) {
    std::vector<int> seen;
    {
        SerialExecutor executor("test.order");
        for (int i = 0; i < 1000; ++i) executor.async([&seen, i] { seen.push_back(i); });
    }
    ASSERT_EQ(seen.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(seen[i], i);
}

// A task that holds the last owner of its executor (as a hand-over queued on a host's queue
// can) ends the executor on the executor's own thread; what is still queued runs after it.
TEST(SerialExecutor, MayBeEndedByItsOwnTaskAndStillRunsWhatIsQueued) {
    auto executor = std::make_shared<SerialExecutor>("test.self");
    std::atomic<bool> release{false};
    std::promise<void> queuedAfterRan;
    executor->async([&] {
        while (!release) std::this_thread::yield();
    });
    executor->async([last = std::shared_ptr<SerialExecutor>(executor)] {});
    executor->async([&] { queuedAfterRan.set_value(); });
    executor.reset();  // the second task now holds the last owner
    release = true;
    EXPECT_EQ(queuedAfterRan.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

TEST(SerialExecutor, SyncWaitsAndMayBeCalledFromItsOwnQueue) {
    SerialExecutor executor("test.sync");
    int value = 0;
    executor.async([&] { value = 1; });
    const int seen = syncResult(executor, [&] {
        int inner = 0;
        executor.sync([&] { inner = value + 1; });  // re-entrant: runs in place
        EXPECT_TRUE(executor.isCurrent());
        return inner;
    });
    EXPECT_EQ(seen, 2);
    EXPECT_FALSE(executor.isCurrent());
}

// A sync task holds the queue at its place in line, whichever thread runs it: tasks queued
// from inside it (or by others meanwhile) start only after it returns, and a task that
// throws still hands the queue back.
TEST(SerialExecutor, SyncHoldsTheQueueUntilItsTaskEnds) {
    SerialExecutor executor("test.hold");
    std::atomic<bool> syncRunning{false};
    std::atomic<int> overlaps{0};
    std::vector<int> order;
    executor.sync([&] {
        syncRunning = true;
        executor.async([&] {
            if (syncRunning) ++overlaps;
            order.push_back(2);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        order.push_back(1);
        syncRunning = false;
    });
    EXPECT_THROW(executor.sync([] { throw std::runtime_error("task failed"); }), std::runtime_error);
    executor.sync([&] { order.push_back(3); });
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

    // Another thread's sync is not mistaken for this thread's place on the queue.
    std::thread other([&] { executor.sync([&] { EXPECT_TRUE(executor.isCurrent()); }); });
    other.join();
    EXPECT_FALSE(executor.isCurrent());
}

}  // namespace
}  // namespace rovalis
