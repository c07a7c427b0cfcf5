#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "util/SerialExecutor.h"
#include "util/WorkTracker.h"

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

TEST(SerialExecutor, WorkTrackerSeesQueuedWorkUntilItHasRun) {
    auto tracker = std::make_shared<WorkTracker>();
    SerialExecutor executor("test.tracked", tracker);
    std::atomic<bool> release{false};
    executor.async([&] {
        while (!release) std::this_thread::yield();
    });
    executor.async([] {});
    EXPECT_GE(tracker->outstanding(), 1u);
    release = true;
    tracker->waitUntilIdle();
    EXPECT_TRUE(tracker->isIdle());
}

}  // namespace
}  // namespace rovalis
