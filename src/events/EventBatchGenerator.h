#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "events/EventStoreInterfaces.h"

namespace rovalis {

// Wraps stored events into the batch document that is uploaded:
//   {"id":"<batch id>","sequential_id":<n>,"events":[<payload>,<payload>,...]}
// The payloads are spliced in byte for byte; the batch id is written verbatim (it is a
// generated identifier without quotes or backslashes). No white space is added.
class EventBatchGeneratable {
public:
    virtual ~EventBatchGeneratable() = default;
    virtual std::string generateEventBatchFrom(const std::vector<EventPayload>& events, const std::string& batchId,
                                               std::int64_t sequentialId) = 0;
};
using RVLEventBatchGeneratable = EventBatchGeneratable;

// Writes the same document piece by piece to a sink, for batches too large to hold: the head
// at construction, each payload as it is added, the tail at finish(). The generator below
// makes its documents with it, so both give the same bytes for the same events.
class EventBatchDocumentWriter {
public:
    using Sink = std::function<void(std::string_view piece)>;

    EventBatchDocumentWriter(std::string_view batchId, std::int64_t sequentialId, Sink sink);
    // A payload that is not valid UTF-8 is a programming error and stops the process.
    void add(std::string_view payload);
    void finish();

private:
    Sink sink_;
    bool first_ = true;
};

// Stateless. A payload that is not valid UTF-8 is a programming error and stops the process.
class EventBatchGenerator final : public EventBatchGeneratable {
public:
    std::string generateEventBatchFrom(const std::vector<EventPayload>& events, const std::string& batchId,
                                       std::int64_t sequentialId) override;
};
using RVLEventBatchGenerator = EventBatchGenerator;

}  // namespace rovalis
