#pragma once

// The strict checks of an upload: headers, user agent, gzip body and batch document. Pure
// functions over the request's parts, so they are testable without a socket. Every refusal
// carries the HTTP status to answer and a plain text that says what is wrong.

#include <httplib.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rovalis::collector {

struct Rejection {
    int status = 400;
    std::string message;
};

// The ten values of the SDK's "User-Agent" JSON object.
struct UserAgent {
    std::string appName, operatingSystem, osVersion, sdkVersion, handset, sdkBuildNumber, deviceId, appId, appVersion,
        appBuildNumber;
};

// One event of an accepted batch: its kind ("type", or "protocol" for a beacon sighting
// stored on its own), its time and its JSON object exactly as it was sent.
struct BatchEvent {
    std::string_view type;     // the kind's name, valid for the whole run
    std::int64_t trackedAtMs = 0;
    std::string_view payload;  // within the text the document was read from
};

struct BatchDocument {
    std::string id;
    std::int64_t sequentialId = 0;
    std::vector<BatchEvent> events;  // valid as long as the document's text
};

// The fixed headers, then "Authorization", "User-Agent" and "Content-Length" against the
// received body size, in that order. Fills userAgent when it parses.
std::optional<Rejection> checkUploadHeaders(const httplib::Headers& headers, std::size_t bodySize,
                                            UserAgent& userAgent);

// A JSON object with exactly the ten keys, all strings, the whole text pure ASCII, and a
// non-empty device id.
std::optional<Rejection> parseUserAgent(std::string_view text, UserAgent& out);

// Inflates a gzip stream, refusing more than limit bytes of output, a stream cut short and
// bytes after its end.
std::optional<Rejection> gunzipBounded(std::string_view body, std::size_t limit, std::string& out);

// {"id": string, "sequential_id": integer, "events": [objects]} with every event checked
// against its kind, in one pass over the text. Duplicate keys anywhere and nesting deeper
// than any event needs are refused. The events point into `text`.
std::optional<Rejection> parseBatchDocument(std::string_view text, BatchDocument& out);

}  // namespace rovalis::collector
