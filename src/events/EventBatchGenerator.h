#pragma once

#include <cstdint>
#include <string>
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

// Stateless. A payload that is not valid UTF-8 is a programming error and stops the process.
class EventBatchGenerator final : public EventBatchGeneratable {
public:
    std::string generateEventBatchFrom(const std::vector<EventPayload>& events, const std::string& batchId,
                                       std::int64_t sequentialId) override;
};
using RVLEventBatchGenerator = EventBatchGenerator;

}  // namespace rovalis
