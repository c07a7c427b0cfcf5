#pragma once

// The beacon advertisement frames the SDK understands: the four Eddystone frames (carried as
// service data of service 0xFEAA) and the iBeacon advertisement (carried as manufacturer data
// of company 0x004C). The bytes come from any device nearby, so the parsers check every length
// and every reserved value, and give none for anything that is not exactly a valid frame.
// The encoders write the frames the parsers read; the simulated device and the tests use them.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "rovalis/Uuid.h"

namespace rovalis {

inline constexpr std::uint16_t kEddystoneServiceUUID = 0xFEAA;
inline constexpr std::uint16_t kIBeaconCompanyIdentifier = 0x004C;

// A UID frame (type 0x00): a fixed 10-byte namespace and 6-byte instance.
struct EddystoneUid {
    std::int8_t txPower = 0;  // dBm at 0 m
    std::array<std::uint8_t, 10> namespaceId{};
    std::array<std::uint8_t, 6> instanceId{};

    // Namespace then instance: 32 lower-case hex characters.
    std::string identifierHex() const;

    friend bool operator==(const EddystoneUid&, const EddystoneUid&) = default;
};

// An EID frame (type 0x30): an 8-byte identifier that the beacon rotates.
struct EddystoneEid {
    std::int8_t txPower = 0;
    std::array<std::uint8_t, 8> ephemeralId{};

    // 16 lower-case hex characters.
    std::string identifierHex() const;

    friend bool operator==(const EddystoneEid&, const EddystoneEid&) = default;
};

// A URL frame (type 0x10), with the URL expanded to its full text.
struct EddystoneUrl {
    std::int8_t txPower = 0;
    std::string url;

    friend bool operator==(const EddystoneUrl&, const EddystoneUrl&) = default;
};

// A TLM frame (type 0x20): the beacon's own telemetry, plain (version 0) or encrypted
// (version 1). Of an encrypted frame only `encrypted` is filled in.
struct EddystoneTlm {
    std::uint8_t version = 0;  // 0 plain, 1 encrypted
    std::optional<std::uint16_t> batteryMillivolts;  // none when the beacon does not report it
    std::optional<double> temperatureCelsius;        // none when the beacon does not report it
    std::uint32_t advertisementCount = 0;
    double secondsSincePowerOn = 0.0;  // in steps of 0.1 s
    // Version 1: the 12 bytes of encrypted telemetry, the 2-byte salt and the 2-byte message
    // integrity check, as received (16 bytes).
    std::vector<std::uint8_t> encrypted;

    friend bool operator==(const EddystoneTlm&, const EddystoneTlm&) = default;
};

using EddystoneFrame = std::variant<EddystoneUid, EddystoneEid, EddystoneUrl, EddystoneTlm>;

// The frame in the service data of service 0xFEAA (the bytes after the service UUID); none
// for a truncated, over-long or malformed frame or an unknown frame type.
std::optional<EddystoneFrame> parseEddystoneFrame(std::span<const std::uint8_t> serviceData);

// The service data that carries the frame. A UID frame is written with its two reserved bytes;
// a URL with the shortest encoding its scheme and expansions allow. A frame that has no valid
// encoding (a URL without a known scheme, with a character outside '!'..'~' or longer than 17
// encoded bytes; a TLM version other than 0 and 1, or of version 1 without exactly 16 bytes of
// encrypted data) is a programming error and stops the process. A TLM temperature is rounded
// to 1/256 degree and held within what the frame can say; the power-on time to 0.1 s.
std::vector<std::uint8_t> encodeEddystoneFrame(const EddystoneFrame& frame);

// An iBeacon advertisement.
struct IBeaconAdvertisement {
    Uuid uuid;  // proximity UUID
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    std::int8_t measuredPower = 0;  // dBm at 1 m

    friend bool operator==(const IBeaconAdvertisement&, const IBeaconAdvertisement&) = default;
};

// The advertisement in the manufacturer data of company 0x004C (the bytes after the company
// identifier); none unless the bytes are exactly one iBeacon advertisement.
std::optional<IBeaconAdvertisement> parseIBeacon(std::span<const std::uint8_t> manufacturerPayload);

// The manufacturer data (after the company identifier) that carries the advertisement.
std::vector<std::uint8_t> encodeIBeacon(const IBeaconAdvertisement& advertisement);

}  // namespace rovalis
