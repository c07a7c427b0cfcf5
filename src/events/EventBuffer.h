#pragma once

// A bounded in-memory buffer that collects records and hands them over in groups: when it
// fills up, and when it is flushed. Records are added on the caller's thread under a lock;
// only a hand-over is a task on the buffer's own serial queue, posted under that lock, so
// records are handed over exactly once, in arrival order, and a group of samples a second
// costs no thread hand-off until the buffer fills.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "util/Fatal.h"
#include "util/SerialExecutor.h"

namespace rovalis {

class WorkTracker;

template <typename Record>
class EventBuffer {
public:
    // Receives the records taken out of the buffer, in arrival order. Runs on the buffer's
    // queue and must not wait for it.
    using HandOver = std::function<void(std::vector<Record>)>;

    static constexpr const char* queueLabel = "EventBufferDispatchQueue";

    explicit EventBuffer(std::int64_t maxSize, std::shared_ptr<WorkTracker> tracker = nullptr)
        : serialQueue_(queueLabel, std::move(tracker)), state_(makeState(maxSize)) {}

    EventBuffer(const EventBuffer&) = delete;
    EventBuffer& operator=(const EventBuffer&) = delete;

    // Adds the record and, once the buffer holds maxSize records, hands all of them over
    // on the queue and starts an empty list. Returns without waiting for the hand-over.
    void append(Record record, const HandOver& handOver) {
        std::lock_guard lock(state_->mutex);
        state_->events.push_back(std::move(record));
        if (state_->events.size() >= state_->maxSize) handOverLocked(handOver);
    }

    // The same for records that arrive together: each maxSize collected are handed over as
    // they fill up.
    void append(std::vector<Record> records, const HandOver& handOver) {
        std::lock_guard lock(state_->mutex);
        for (auto& record : records) {
            state_->events.push_back(std::move(record));
            if (state_->events.size() >= state_->maxSize) handOverLocked(handOver);
        }
    }

    // Hands over whatever is collected, possibly nothing, on the queue. Returns at once.
    void flush(const HandOver& handOver) {
        std::lock_guard lock(state_->mutex);
        handOverLocked(handOver);
    }

    // Waits until every hand-over caused by an append or flush before this call has run.
    // With none under way it returns at once, without a trip through the queue.
    void waitUntilDrained() {
        if (state_->handOversUnderWay.load(std::memory_order_acquire) == 0) return;
        serialQueue_.sync([] {});
    }

    std::size_t maxSize() const { return state_->maxSize; }

private:
    struct State {
        explicit State(std::size_t capacity) : maxSize(capacity) { events.reserve(capacity); }

        std::vector<Record> take() {
            std::vector<Record> taken;
            taken.reserve(maxSize);
            taken.swap(events);
            return taken;
        }

        const std::size_t maxSize;
        std::mutex mutex;
        std::vector<Record> events;
        // Posted and not yet finished; counted down after the hand-over returns.
        std::atomic<std::size_t> handOversUnderWay{0};
    };

    // Posted while the lock is held, so the queue runs hand-overs in the order of the
    // records they carry.
    void handOverLocked(const HandOver& handOver) {
        state_->handOversUnderWay.fetch_add(1, std::memory_order_relaxed);
        serialQueue_.async([weak = std::weak_ptr<State>(state_), records = state_->take(), handOver]() mutable {
            const auto state = weak.lock();
            if (!state) return;  // the buffer was released meanwhile
            handOver(std::move(records));
            state->handOversUnderWay.fetch_sub(1, std::memory_order_release);
        });
    }

    static std::shared_ptr<State> makeState(std::int64_t maxSize) {
        if (maxSize <= 0) fatalError("EventBuffer should be initialized with maxSize > 0.");
        return std::make_shared<State>(static_cast<std::size_t>(maxSize));
    }

    // Declared first so it is destroyed last: the state goes first, so hand-overs still
    // queued when the buffer is released find it gone and do nothing; then the queue drains.
    SerialExecutor serialQueue_;
    std::shared_ptr<State> state_;
};

}  // namespace rovalis
