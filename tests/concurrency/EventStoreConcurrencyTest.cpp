// The event store and its buffer under several threads at once. Also run under
// ThreadSanitizer.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "events/EventBuffer.h"
#include "events/EventRepository.h"
#include "support/TestSupport.h"

namespace rovalis {
namespace {

TEST(EventStoreConcurrency, ProducersAndASenderNeverLoseOrRepeatARow) {
    constexpr int producers = 4;
    constexpr int perProducer = 5000;
    test::TempDir dir;
    test::ConsoleCapture console;  // keeps the delete messages out of the output
    EventRepository repository(dir / "events.sqlite");

    std::atomic<int> producersLeft{producers};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                repository.insertWaypointEventWithTrackedAtMs(Date{1700000000.0 + i}, p, i * 0.01, 0, 0, 1, 0,
                                                              "thread");
            }
            --producersLeft;
        });
    }

    // The sender: fetch the oldest batch, delete exactly it, repeat.
    std::set<std::string> delivered;
    long deleted = 0;
    bool repeated = false;
    for (;;) {
        const bool producing = producersLeft.load() > 0;
        const auto batch = repository.fetchEventsPayloadTo(std::nullopt, 700);
        for (const auto& payload : batch) repeated |= !delivered.insert(payload.uri).second;
        if (!batch.empty()) {
            const long removed = repository.deleteEventsWithPayload(batch);
            EXPECT_EQ(removed, static_cast<long>(batch.size()));
            deleted += removed;
        }
        if (!producing && batch.empty()) break;
    }
    for (auto& thread : threads) thread.join();

    EXPECT_FALSE(repeated);
    EXPECT_EQ(deleted + repository.eventsCount(), producers * perProducer);
    EXPECT_EQ(static_cast<long>(delivered.size()), deleted);
}

TEST(EventStoreConcurrency, AccelerationsFromManyThreadsAreAllWrittenOnce) {
    constexpr int threadsCount = 4;
    constexpr int perThread = 1000;
    test::TempDir dir;
    EventRepository repository(dir / "events.sqlite");

    std::vector<std::thread> threads;
    for (int t = 0; t < threadsCount; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                repository.insertAccelerationEventWithTrackedAtMs(Date{1.0 + i}, Decimal{t * perThread + i, 3});
                if (i % 250 == 0) repository.insertBuffers();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    repository.insertBuffers();

    const auto rows = repository.fetchEventsPayloadTo(std::nullopt, 0);
    ASSERT_EQ(rows.size(), static_cast<std::size_t>(threadsCount * perThread));
    std::set<std::string> payloads;
    for (const auto& row : rows) payloads.insert(row.payload);
    EXPECT_EQ(payloads.size(), rows.size());
}

TEST(EventStoreConcurrency, BufferHandsEveryRecordOverOnceInEachThreadsOrder) {
    constexpr int threadsCount = 4;
    constexpr int perThread = 2000;
    std::mutex mutex;
    std::vector<std::pair<int, int>> received;
    const EventBuffer<std::pair<int, int>>::HandOver handOver = [&](std::vector<std::pair<int, int>> records) {
        std::lock_guard lock(mutex);
        received.insert(received.end(), records.begin(), records.end());
    };
    {
        EventBuffer<std::pair<int, int>> buffer(300);
        std::vector<std::thread> threads;
        for (int t = 0; t < threadsCount; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    buffer.append({t, i}, handOver);
                    if (i % 333 == 0) buffer.flush(handOver);
                }
            });
        }
        for (auto& thread : threads) thread.join();
        buffer.flush(handOver);
        buffer.waitUntilDrained();
    }

    ASSERT_EQ(received.size(), static_cast<std::size_t>(threadsCount * perThread));
    std::vector<int> next(threadsCount, 0);
    for (const auto& [thread, index] : received) {
        ASSERT_EQ(index, next[thread]) << "thread " << thread;
        ++next[thread];
    }
}

}  // namespace
}  // namespace rovalis
