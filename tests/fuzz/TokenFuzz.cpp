// The access-token decoder: a host hands the SDK any text as its token. Whatever the text,
// the user id is a UUID or nothing, and a part's bytes written as base64url read back the same.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "rovalis/Uuid.h"
#include "upload/AccessTokenDecoder.h"

namespace {

using rovalis::fuzz::require;

// Unpadded base64url, as tokens carry their parts.
std::string base64url(const std::vector<std::uint8_t>& bytes) {
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string text;
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t bits = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6) text += alphabet[bits >> shift & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        const std::uint32_t bits = bytes[i] << 16 | (rest == 2 ? bytes[i + 1] << 8 : 0);
        text += alphabet[bits >> 18 & 63];
        text += alphabet[bits >> 12 & 63];
        if (rest == 2) text += alphabet[bits >> 6 & 63];
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto text = rovalis::fuzz::asText(data, size);

    const rovalis::AccessTokenDecoder decoder(text);
    if (const auto& userId = decoder.userId()) {
        const auto uuid = rovalis::Uuid::parse(*userId);
        require(uuid && uuid->uuidString() == *userId, "user id is not an upper-case UUID");
    }

    // The same bytes as the payload of a token: the decoder finds them again.
    const std::vector<std::uint8_t> bytes(data, data + size);
    const auto decoded = rovalis::AccessTokenDecoder::decodePart(base64url(bytes));
    require(decoded && *decoded == bytes, "base64url part did not read back as its bytes");

    // A part the decoder accepts, written again, reads back as the same bytes.
    if (const auto part = rovalis::AccessTokenDecoder::decodePart(text)) {
        require(rovalis::AccessTokenDecoder::decodePart(base64url(*part)) == part, "decoded part changed when written again");
    }
    return 0;
}
