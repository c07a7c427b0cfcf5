// The collection service's readers of an upload: whatever a client sends, each is refused
// with a status and a message or read; what is read, written again, reads back the same.
//
// The first byte chooses: 0 the batch document, 1 the user agent, 2 the bounded gunzip (two
// bytes of limit first), 3 the headers (lines of "Name: value", two bytes of body size first).

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "collector/BatchValidator.h"
#include "upload/Gzip.h"

namespace {

namespace collector = rovalis::collector;
using rovalis::fuzz::require;

void requireRejection(const std::optional<collector::Rejection>& rejection) {
    require(rejection->status >= 400 && rejection->status < 600 && !rejection->message.empty(),
            "a refusal without an error status or a message");
}

// The document as the SDK writes it: the events exactly as they were sent.
std::string writeDocument(const collector::BatchDocument& document) {
    std::string text = "{\"id\":" + nlohmann::json(document.id).dump() +
                       ",\"sequential_id\":" + std::to_string(document.sequentialId) + ",\"events\":[";
    for (std::size_t i = 0; i < document.events.size(); ++i) {
        if (i > 0) text += ',';
        text += document.events[i].payload;
    }
    return text + "]}";
}

void batchDocument(std::string_view text) {
    collector::BatchDocument document;
    if (const auto rejection = collector::parseBatchDocument(text, document)) {
        requireRejection(rejection);
        require(document.events.empty() && document.id.empty(), "a refused document left events behind");
        return;
    }
    require(!document.id.empty(), "an accepted document without an id");
    const std::string written = writeDocument(document);
    collector::BatchDocument again;
    require(!collector::parseBatchDocument(written, again), "an accepted document, written again, was refused");
    require(again.id == document.id && again.sequentialId == document.sequentialId &&
                again.events.size() == document.events.size(),
            "an accepted document changed through writing and reading");
    for (std::size_t i = 0; i < again.events.size(); ++i) {
        require(again.events[i].type == document.events[i].type &&
                    again.events[i].trackedAtMs == document.events[i].trackedAtMs &&
                    again.events[i].payload == document.events[i].payload,
                "an event changed through writing and reading");
    }
}

void userAgent(std::string_view text) {
    collector::UserAgent agent;
    if (const auto rejection = collector::parseUserAgent(text, agent)) {
        requireRejection(rejection);
        return;
    }
    const nlohmann::ordered_json written = {
        {"app_name", agent.appName},         {"operating_system", agent.operatingSystem},
        {"os_version", agent.osVersion},     {"sdk_version", agent.sdkVersion},
        {"handset", agent.handset},          {"sdk_build_number", agent.sdkBuildNumber},
        {"device_id", agent.deviceId},       {"app_id", agent.appId},
        {"app_version", agent.appVersion},   {"app_build_number", agent.appBuildNumber}};
    collector::UserAgent again;
    require(!collector::parseUserAgent(written.dump(-1, ' ', /*ensure_ascii=*/true), again),
            "an accepted user agent, written again, was refused");
    require(again.appName == agent.appName && again.operatingSystem == agent.operatingSystem &&
                again.osVersion == agent.osVersion && again.sdkVersion == agent.sdkVersion &&
                again.handset == agent.handset && again.sdkBuildNumber == agent.sdkBuildNumber &&
                again.deviceId == agent.deviceId && again.appId == agent.appId &&
                again.appVersion == agent.appVersion && again.appBuildNumber == agent.appBuildNumber,
            "a user agent changed through writing and reading");
}

void gunzip(std::size_t limit, std::string_view body) {
    std::string out;
    if (const auto rejection = collector::gunzipBounded(body, limit, out)) {
        requireRejection(rejection);
        return;
    }
    require(out.size() <= limit, "gunzip gave more than its limit");
    // The SDK's own inflation reads the same bytes out of what the service accepts.
    require(rovalis::dataByGZipDecompressingDataWithError(body, nullptr) == out,
            "the service and the SDK inflate a body differently");
}

void headers(std::size_t bodySize, std::string_view text) {
    httplib::Headers headers;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        std::string_view value = line.substr(colon + 1);
        if (!value.empty() && value.front() == ' ') value.remove_prefix(1);
        headers.emplace(std::string(line.substr(0, colon)), std::string(value));
    }
    collector::UserAgent agent;
    if (const auto rejection = collector::checkUploadHeaders(headers, bodySize, agent)) requireRejection(rejection);
}

std::size_t twoBytesOf(std::string_view input) {
    return static_cast<std::size_t>(static_cast<unsigned char>(input[0]) << 8 | static_cast<unsigned char>(input[1]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The gunzip's limit and the headers' body size are the two bytes after the first.
    const auto gunzipWithLimit = [](std::string_view input) {
        if (input.size() >= 2) gunzip(twoBytesOf(input), input.substr(2));
    };
    const auto headersWithBodySize = [](std::string_view input) {
        if (input.size() >= 2) headers(twoBytesOf(input), input.substr(2));
    };
    return rovalis::fuzz::readWithChosenReader(data, size,
                                               {batchDocument, userAgent, gunzipWithLimit, headersWithBodySize});
}
