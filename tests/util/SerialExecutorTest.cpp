#include <gtest/gtest.h>

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

}  // namespace
}  // namespace rovalis
