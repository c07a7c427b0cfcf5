#include "events/EventBuffer.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

namespace rovalis {
namespace {

// Collects every hand-over the buffer makes, in order.
struct Groups {
    std::mutex mutex;
    std::vector<std::vector<int>> groups;

    EventBuffer<int>::HandOver handOver() {
        return [this](std::vector<int> records) {
            std::lock_guard lock(mutex);
            groups.push_back(std::move(records));
        };
    }
};

std::vector<int> range(int from, int to) {
    std::vector<int> values;
    for (int i = from; i < to; ++i) values.push_back(i);
    return values;
}

TEST(EventBuffer, FullBufferHandsOverItsCapacityAndAFlushWhatIsCollectedEvenWhenEmpty) {
    Groups groups;
    EventBuffer<int> buffer(300);
    buffer.flush(groups.handOver());
    for (int i = 0; i < 299; ++i) buffer.append(i, groups.handOver());
    buffer.waitUntilDrained();
    ASSERT_EQ(groups.groups.size(), 1u);
    EXPECT_TRUE(groups.groups[0].empty());

    buffer.append(299, groups.handOver());
    buffer.append(300, groups.handOver());
    buffer.waitUntilDrained();
    ASSERT_EQ(groups.groups.size(), 2u);
    EXPECT_EQ(groups.groups[1], range(0, 300));

    // The 301st record started the next group, which a flush hands over.
    buffer.flush(groups.handOver());
    buffer.waitUntilDrained();
    ASSERT_EQ(groups.groups.size(), 3u);
    EXPECT_EQ(groups.groups[2], std::vector<int>{300});

    // Records that arrive together fill the buffer the same way: a group of 700 completes
    // two hand-overs and leaves the rest collected.
    buffer.append(range(1000, 1700), groups.handOver());
    buffer.flush(groups.handOver());
    buffer.waitUntilDrained();
    ASSERT_EQ(groups.groups.size(), 6u);
    EXPECT_EQ(groups.groups[3], range(1000, 1300));
    EXPECT_EQ(groups.groups[4], range(1300, 1600));
    EXPECT_EQ(groups.groups[5], range(1600, 1700));
}

TEST(EventBufferDeathTest, CapacityMustBePositive) {
    EXPECT_DEATH(EventBuffer<int>(0), "EventBuffer should be initialized with maxSize > 0\\.");
    EXPECT_DEATH(EventBuffer<int>(-1), "EventBuffer should be initialized with maxSize > 0\\.");
}

}  // namespace
}  // namespace rovalis
