#include "events/EventBatchGenerator.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "util/Fatal.h"

namespace rovalis {

namespace {

// Well-formed UTF-8 as the platform's text type accepts it: no overlong forms, no
// surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        // ASCII runs are by far the common case: check eight bytes at a time.
        while (end - p >= 8) {
            std::uint64_t chunk;
            std::memcpy(&chunk, p, 8);
            if (chunk & 0x8080808080808080ULL) break;
            p += 8;
        }
        if (p == end) break;
        const unsigned char lead = *p;
        if (lead < 0x80) {
            ++p;
            continue;
        }
        int length;
        unsigned char low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            return false;
        }
        if (end - p < length) return false;
        if (p[1] < low || p[1] > high) return false;
        for (int i = 2; i < length; ++i) {
            if (p[i] < 0x80 || p[i] > 0xBF) return false;
        }
        p += length;
    }
    return true;
}

}  // namespace

std::string EventBatchGenerator::generateEventBatchFrom(const std::vector<EventPayload>& events,
                                                        const std::string& batchId,
                                                        std::int64_t sequentialId) {
    static constexpr std::string_view head = "{\"id\":\"";
    static constexpr std::string_view afterId = "\",\"sequential_id\":";
    static constexpr std::string_view beforeEvents = ",\"events\":[";
    static constexpr std::string_view tail = "]}";

    std::size_t size = head.size() + batchId.size() + afterId.size() + 20 + beforeEvents.size() + tail.size();
    for (const auto& event : events) size += event.payload.size() + 1;

    std::string document;
    document.reserve(size);
    document.append(head);
    document.append(batchId);
    document.append(afterId);
    char number[24];
    const auto written = std::to_chars(number, number + sizeof number, sequentialId);
    document.append(number, written.ptr);
    document.append(beforeEvents);
    bool first = true;
    for (const auto& event : events) {
        if (!isValidUtf8(event.payload)) {
            fatalError("Could not encode " + std::to_string(event.payload.size()) + " bytes to String.");
        }
        if (!first) document.push_back(',');
        first = false;
        document.append(event.payload);
    }
    document.append(tail);
    return document;
}

}  // namespace rovalis
