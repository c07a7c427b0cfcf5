// The upload client's reading of a service's answer: a status code and a body exactly as the
// transfer hands them over, turned into the message or the error the host sees. Any service
// (or anything posing as one) can answer anything. The headers of an answer are not read.
//
// Input: two bytes of status (modulo 1000: libcurl reads three digits), a byte whose low bit
// says whether the transfer itself failed, then the body.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "upload/RVLAPIClient.h"

namespace {

using rovalis::fuzz::require;

// The JSON writer refuses text that is not UTF-8.
bool dumpsAsUtf8(const nlohmann::json& value) {
    try {
        (void)value.dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

bool isValidUtf8(const std::string& text) { return dumpsAsUtf8(nlohmann::json(text)); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const long status = (data[0] << 8 | data[1]) % 1000;
    const bool transportFailed = (data[2] & 1) != 0;
    const std::string body(rovalis::fuzz::asText(data + 3, size - 3));

    const std::optional<rovalis::Error> transportError =
        transportFailed ? std::optional(rovalis::Error{"NSURLErrorDomain", -1005, "The network connection was lost."})
                        : std::nullopt;
    std::optional<rovalis::Error> processed;
    const auto message = rovalis::RVLAPIClient::processResponseDataFrom(body, status, transportError, processed);

    if (status >= 200 && status <= 298) {
        require(!processed, "a success status gave an error");
        // The message goes to the host's success block, which may print it.
        if (message) require(dumpsAsUtf8(*message), "the message is not UTF-8 text");
        return 0;
    }
    require(processed && !message, "a failure status gave no error");
    if (transportFailed) {
        require(*processed == *transportError, "the transfer's own error was not the one reported");
        return 0;
    }
    require(processed->domain == rovalis::kRVLServerErrorDomain && processed->code == status,
            "the server error does not carry the status");
    // The host gets the body as text: valid UTF-8 always, and the body itself when it was.
    require(isValidUtf8(processed->localizedDescription), "the error text is not UTF-8");
    if (isValidUtf8(body)) require(processed->localizedDescription == body, "a UTF-8 body was not kept as it was");
    (void)rovalis::errorDebugDescription(*processed);
    return 0;
}
