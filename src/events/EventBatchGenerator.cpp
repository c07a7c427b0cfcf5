#include "events/EventBatchGenerator.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

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

constexpr std::string_view head = "{\"id\":\"";
constexpr std::string_view afterId = "\",\"sequential_id\":";
constexpr std::string_view beforeEvents = ",\"events\":[";
constexpr std::string_view tail = "]}";

EventBatchDocumentWriter::EventBatchDocumentWriter(std::string_view batchId, std::int64_t sequentialId, Sink sink)
    : sink_(std::move(sink)) {
    char number[24];
    const auto written = std::to_chars(number, number + sizeof number, sequentialId);
    sink_(head);
    sink_(batchId);
    sink_(afterId);
    sink_(std::string_view(number, static_cast<std::size_t>(written.ptr - number)));
    sink_(beforeEvents);
}

void EventBatchDocumentWriter::add(std::string_view payload) {
    if (!isValidUtf8(payload)) fatalError("Could not encode " + std::to_string(payload.size()) + " bytes to String.");
    if (!std::exchange(first_, false)) sink_(",");
    sink_(payload);
}

void EventBatchDocumentWriter::finish() { sink_(tail); }

std::string EventBatchGenerator::generateEventBatchFrom(const std::vector<EventPayload>& events,
                                                        const std::string& batchId,
                                                        std::int64_t sequentialId) {
    std::size_t size = head.size() + batchId.size() + afterId.size() + 20 + beforeEvents.size() + tail.size();
    for (const auto& event : events) size += event.payload.size() + 1;

    std::string document;
    document.reserve(size);
    EventBatchDocumentWriter writer(batchId, sequentialId, [&](std::string_view piece) { document.append(piece); });
    for (const auto& event : events) writer.add(event.payload);
    writer.finish();
    return document;
}

}  // namespace rovalis
