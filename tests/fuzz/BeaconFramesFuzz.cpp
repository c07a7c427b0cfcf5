// Coverage-guided fuzzing of the beacon frame parsers (libFuzzer). The bytes stand for what
// any device nearby may advertise: both parsers see every input, and whatever they accept must
// come back unchanged through its encoder and the parser again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

#include "FuzzSupport.h"
#include "sensing/BeaconFrames.h"

using rovalis::fuzz::fail;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);

    if (const auto frame = rovalis::parseEddystoneFrame(bytes)) {
        // The identifiers are what sightings carry: build them too.
        if (const auto* uid = std::get_if<rovalis::EddystoneUid>(&*frame); uid && uid->identifierHex().size() != 32) {
            fail("UID identifier is not 32 hex characters");
        }
        if (const auto* eid = std::get_if<rovalis::EddystoneEid>(&*frame); eid && eid->identifierHex().size() != 16) {
            fail("EID identifier is not 16 hex characters");
        }
        const auto again = rovalis::parseEddystoneFrame(rovalis::encodeEddystoneFrame(*frame));
        if (!again || !(*again == *frame)) fail("Eddystone frame changed through encoding and parsing again");
    }

    if (const auto advertisement = rovalis::parseIBeacon(bytes)) {
        const auto encoded = rovalis::encodeIBeacon(*advertisement);
        // The layout is fixed, so the bytes themselves come back.
        if (!std::equal(encoded.begin(), encoded.end(), bytes.begin(), bytes.end())) fail("iBeacon advertisement changed through encoding");
    }
    return 0;
}
