#include "events/StoredPayload.h"

#include <charconv>
#include <cmath>

namespace rovalis::stored_payload {

namespace {

// Integers up to 2^53 are exact in a double: the range in which the text below is the one
// the encoder writes for the same time. Beyond it a payload is kept whole.
constexpr double largestExactMilliseconds = 9007199254740992.0;

// `"tracked_at_ms":<ms>,"type":"<type>"}` for the row's columns, as the encoder writes it
// (whole milliseconds, halves away from zero). False when the time has no such text.
bool appendEnding(std::string_view type, double trackedAt, std::string& out) {
    const double milliseconds = std::round(trackedAt * 1000.0);
    if (!std::isfinite(milliseconds) || std::fabs(milliseconds) > largestExactMilliseconds) return false;
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, static_cast<long long>(milliseconds)).ptr;
    out.append("\"tracked_at_ms\":").append(digits, end).append(",\"type\":\"").append(type).append("\"}");
    return true;
}

}  // namespace

std::string_view kept(std::string_view type, double trackedAt, std::string_view payload, std::string& scratch) {
    scratch.clear();
    if (!appendEnding(type, trackedAt, scratch)) return payload;
    // Cut only after a ',' so that what is kept cannot be mistaken for a whole payload.
    if (payload.size() <= scratch.size() || !payload.ends_with(scratch) ||
        payload[payload.size() - scratch.size() - 1] != ',') {
        return payload;
    }
    return payload.substr(0, payload.size() - scratch.size());
}

void restore(std::string_view type, double trackedAt, std::string_view kept, std::string& out) {
    out.assign(kept);
    if (!kept.ends_with(',')) return;
    // Only a damaged row has a cut payload whose time has no text: it reads as a null time.
    if (!appendEnding(type, trackedAt, out)) {
        out.append("\"tracked_at_ms\":null,\"type\":\"").append(type).append("\"}");
    }
}

std::string restored(std::string_view type, double trackedAt, std::string_view kept) {
    std::string out;
    restore(type, trackedAt, kept, out);
    return out;
}

}  // namespace rovalis::stored_payload
