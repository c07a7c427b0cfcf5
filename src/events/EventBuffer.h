#pragma once

// A bounded in-memory buffer that collects records and hands them over in groups: when it
// fills up, and when it is flushed. All access to the collected records runs on the
// buffer's own serial queue, so records are handed over exactly once, in arrival order.

#include <cstdint>
#include <functional>
#include <memory>
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

    // Returns at once. On the queue: adds the record and, once the buffer holds maxSize
    // records, hands all of them over and starts an empty list.
    void append(Record record, HandOver handOver) {
        serialQueue_.async([weak = std::weak_ptr<State>(state_), record = std::move(record),
                            handOver = std::move(handOver)]() mutable {
            const auto state = weak.lock();
            if (!state) return;  // the buffer was released meanwhile
            state->events.push_back(std::move(record));
            if (state->events.size() >= state->maxSize) handOver(state->take());
        });
    }

    // The same for records that arrive together, in one task: each maxSize collected are
    // handed over as they fill up.
    void append(std::vector<Record> records, HandOver handOver) {
        serialQueue_.async([weak = std::weak_ptr<State>(state_), records = std::move(records),
                            handOver = std::move(handOver)]() mutable {
            const auto state = weak.lock();
            if (!state) return;
            for (auto& record : records) {
                state->events.push_back(std::move(record));
                if (state->events.size() >= state->maxSize) handOver(state->take());
            }
        });
    }

    // Returns at once. On the queue: hands over whatever is collected, possibly nothing.
    void flush(HandOver handOver) {
        serialQueue_.async([weak = std::weak_ptr<State>(state_), handOver = std::move(handOver)] {
            const auto state = weak.lock();
            if (!state) return;
            handOver(state->take());
        });
    }

    // Waits until every append and flush queued before this call has run, so the
    // hand-overs they caused have happened.
    void waitUntilDrained() {
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
        std::vector<Record> events;
    };

    static std::shared_ptr<State> makeState(std::int64_t maxSize) {
        if (maxSize <= 0) fatalError("EventBuffer should be initialized with maxSize > 0.");
        return std::make_shared<State>(static_cast<std::size_t>(maxSize));
    }

    // Declared first so it is destroyed last: the state goes first, so tasks still queued
    // when the buffer is released find it gone and do nothing; then the queue drains.
    SerialExecutor serialQueue_;
    std::shared_ptr<State> state_;
};

}  // namespace rovalis
