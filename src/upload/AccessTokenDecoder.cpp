#include "upload/AccessTokenDecoder.h"

#include <nlohmann/json.hpp>

#include <variant>

#include "rovalis/Uuid.h"

namespace rovalis {

namespace {

using DecodeErrors = AccessTokenDecoder::DecodeErrors;
using Bytes = std::vector<std::uint8_t>;

// The JSON parser's own error, with its message.
struct JsonParseError {
    std::string message;
};

// The payload's JSON object, or what stopped it from being read.
using Payload = std::variant<nlohmann::json, DecodeErrors, JsonParseError>;

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Standard base64 with padding: the length is a multiple of four and the only "=" are one or
// two at the end. Bits left over in the last character are not checked.
std::optional<Bytes> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
    if (padding > 2) return std::nullopt;
    const std::string_view body = text.substr(0, text.size() - padding);

    Bytes bytes;
    bytes.reserve(body.size() * 3 / 4);
    std::uint32_t bits = 0;
    int bitCount = 0;
    for (const char c : body) {
        const int value = base64Value(c);
        if (value < 0) return std::nullopt;
        bits = (bits << 6 | static_cast<std::uint32_t>(value)) & 0xFFFFFF;
        bitCount += 6;
        if (bitCount >= 8) {
            bitCount -= 8;
            bytes.push_back(static_cast<std::uint8_t>(bits >> bitCount));
        }
    }
    return bytes;
}

Payload readPayload(std::string_view token) {
    // Every "." splits, so empty parts count too.
    std::vector<std::string_view> parts;
    for (std::size_t start = 0;;) {
        const std::size_t dot = token.find('.', start);
        parts.push_back(token.substr(start, dot - start));
        if (dot == std::string_view::npos) break;
        start = dot + 1;
    }
    if (parts.size() < 2) return DecodeErrors::other;

    const auto bytes = AccessTokenDecoder::decodePart(parts[1]);
    if (!bytes) return DecodeErrors::badToken;

    nlohmann::json json;
    try {
        json = nlohmann::json::parse(bytes->begin(), bytes->end());
    } catch (const nlohmann::json::exception& error) {
        return JsonParseError{error.what()};
    }
    if (!json.is_object()) return DecodeErrors::other;
    return json;
}

}  // namespace

std::optional<Bytes> AccessTokenDecoder::decodePart(std::string_view part) {
    std::string text(part);
    for (char& c : text) {
        if (c == '-') c = '+';
        if (c == '_') c = '/';
    }
    text.append((4 - text.size() % 4) % 4, '=');
    return decodeBase64(text);
}

AccessTokenDecoder::AccessTokenDecoder(std::string_view accessToken) {
    const Payload payload = readPayload(accessToken);
    const auto* object = std::get_if<nlohmann::json>(&payload);
    if (object == nullptr) return;
    const auto sub = object->find("sub");
    if (sub == object->end() || !sub->is_string()) return;
    if (const auto uuid = Uuid::parse(sub->get_ref<const std::string&>())) userId_ = uuid->uuidString();
}

}  // namespace rovalis
