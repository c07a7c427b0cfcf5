#pragma once

#include <string>

#include "events/EventRecords.h"

namespace rovalis {

// The one JSON writer of the SDK's events. Keys are written in ascending byte order (each
// record's keys are fixed, so the order is fixed in the code, not sorted at run time), with
// no white space. Times are whole milliseconds since 1970, rounded half away from zero;
// doubles are the shortest text that reads back to the same value; decimals are written
// with exactly their digits. Holds no mutable state.
class EventEncoder {
public:
    EventEncoder() = default;

    // Appends the record's JSON object to out.
    void encode(const EventRecord& record, std::string& out) const;

    // The record's JSON object.
    std::string encode(const EventRecord& record) const;

    // The description used in the fatal message of a failed encoding.
    static constexpr const char* description = "RovalisSDK.EventEncoder";
};

using RVLEventEncoder = EventEncoder;

}  // namespace rovalis
