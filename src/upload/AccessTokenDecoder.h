#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rovalis {

// Reads the user id out of an access token of dot-separated parts: the "sub" member of the
// JSON object in the second part, when it is a UUID. Neither the header nor the signature is
// read or checked. Decoding never fails towards the caller: whatever goes wrong only leaves
// the user id empty.
class AccessTokenDecoder {
public:
    enum class DecodeErrors {
        // The payload is not base64.
        badToken,
        // Too few parts, or a payload that is not a JSON object.
        other,
    };

    explicit AccessTokenDecoder(std::string_view accessToken);

    // The upper-case UUID text of "sub", or none.
    const std::optional<std::string>& userId() const { return userId_; }

    // One part of a token as bytes: base64url turned into base64, padded with "=" to a
    // multiple of four characters, then decoded strictly (characters outside the alphabet,
    // or "=" anywhere but in the final two places, give none).
    static std::optional<std::vector<std::uint8_t>> decodePart(std::string_view part);

private:
    std::optional<std::string> userId_;
};

}  // namespace rovalis
