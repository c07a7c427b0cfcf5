#include "sensing/BeaconFrames.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <type_traits>
#include <utility>

#include "util/Fatal.h"

namespace rovalis {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t kFrameUid = 0x00;
constexpr std::uint8_t kFrameUrl = 0x10;
constexpr std::uint8_t kFrameTlm = 0x20;
constexpr std::uint8_t kFrameEid = 0x30;

constexpr std::size_t kUidLength = 18;              // without the reserved bytes
constexpr std::size_t kUidLengthWithReserved = 20;  // with them
constexpr std::size_t kEidLength = 10;
constexpr std::size_t kUrlHeaderLength = 3;  // type, tx power, scheme
constexpr std::size_t kUrlMaxEncodedLength = 17;
constexpr std::size_t kTlmPlainLength = 14;
constexpr std::size_t kTlmEncryptedLength = 18;
constexpr std::size_t kTlmEncryptedDataLength = kTlmEncryptedLength - 2;

constexpr std::uint16_t kTemperatureNotReported = 0x8000;

constexpr std::uint8_t kIBeaconType = 0x02;
constexpr std::uint8_t kIBeaconDataLength = 0x15;  // the 21 bytes after type and length
constexpr std::size_t kIBeaconLength = 23;

// Schemes by their code, and the texts that codes 0x00-0x0D stand for inside the URL.
constexpr std::array<std::string_view, 4> kUrlSchemes = {"http://www.", "https://www.", "http://", "https://"};
constexpr std::array<std::string_view, 14> kUrlExpansions = {".com/", ".org/", ".edu/", ".net/", ".info/",
                                                             ".biz/", ".gov/", ".com",  ".org",  ".edu",
                                                             ".net",  ".info", ".biz",  ".gov"};
constexpr std::uint8_t kUrlFirstLiteral = 0x21;
constexpr std::uint8_t kUrlLastLiteral = 0x7E;

std::uint16_t bigEndian16(Bytes bytes, std::size_t at) {
    return static_cast<std::uint16_t>((bytes[at] << 8) | bytes[at + 1]);
}

std::uint32_t bigEndian32(Bytes bytes, std::size_t at) {
    return (std::uint32_t{bytes[at]} << 24) | (std::uint32_t{bytes[at + 1]} << 16) |
           (std::uint32_t{bytes[at + 2]} << 8) | std::uint32_t{bytes[at + 3]};
}

void appendBigEndian16(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

void appendBigEndian32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    appendBigEndian16(out, static_cast<std::uint16_t>(value >> 16));
    appendBigEndian16(out, static_cast<std::uint16_t>(value));
}

template <std::size_t N>
std::array<std::uint8_t, N> copyOut(Bytes bytes, std::size_t at) {
    std::array<std::uint8_t, N> out{};
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), N, out.begin());
    return out;
}

std::string lowerHex(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0F]);
    }
    return text;
}

std::optional<EddystoneFrame> parseUid(Bytes data) {
    if (data.size() != kUidLength && data.size() != kUidLengthWithReserved) return std::nullopt;
    if (data.size() == kUidLengthWithReserved && (data[18] != 0 || data[19] != 0)) return std::nullopt;
    return EddystoneUid{static_cast<std::int8_t>(data[1]), copyOut<10>(data, 2), copyOut<6>(data, 12)};
}

std::optional<EddystoneFrame> parseEid(Bytes data) {
    if (data.size() != kEidLength) return std::nullopt;
    return EddystoneEid{static_cast<std::int8_t>(data[1]), copyOut<8>(data, 2)};
}

std::optional<EddystoneFrame> parseUrl(Bytes data) {
    if (data.size() < kUrlHeaderLength + 1 || data.size() > kUrlHeaderLength + kUrlMaxEncodedLength) {
        return std::nullopt;
    }
    const std::uint8_t scheme = data[2];
    if (scheme >= kUrlSchemes.size()) return std::nullopt;
    std::string url(kUrlSchemes[scheme]);
    for (const std::uint8_t byte : data.subspan(kUrlHeaderLength)) {
        if (byte < kUrlExpansions.size()) {
            url += kUrlExpansions[byte];
        } else if (byte >= kUrlFirstLiteral && byte <= kUrlLastLiteral) {
            url.push_back(static_cast<char>(byte));
        } else {
            return std::nullopt;
        }
    }
    return EddystoneUrl{static_cast<std::int8_t>(data[1]), std::move(url)};
}

std::optional<EddystoneFrame> parseTlm(Bytes data) {
    if (data.size() < 2) return std::nullopt;
    EddystoneTlm tlm;
    tlm.version = data[1];
    if (tlm.version == 0) {
        if (data.size() != kTlmPlainLength) return std::nullopt;
        if (const std::uint16_t battery = bigEndian16(data, 2); battery != 0) tlm.batteryMillivolts = battery;
        if (const std::uint16_t raw = bigEndian16(data, 4); raw != kTemperatureNotReported) {
            // Signed 8.8 fixed point: the two's-complement value in 1/256 degree.
            tlm.temperatureCelsius = static_cast<std::int16_t>(raw) / 256.0;
        }
        tlm.advertisementCount = bigEndian32(data, 6);
        tlm.secondsSincePowerOn = bigEndian32(data, 10) / 10.0;
        return tlm;
    }
    if (tlm.version == 1) {
        if (data.size() != kTlmEncryptedLength) return std::nullopt;
        tlm.encrypted.assign(data.begin() + 2, data.end());
        return tlm;
    }
    return std::nullopt;
}

// The shortest encoding of the part of a URL after its scheme. Taking the longest expansion
// wherever one matches is optimal: every expansion starts with '.' and holds no other '.', so
// no longer match could start inside the one taken.
std::optional<std::vector<std::uint8_t>> encodeUrlRest(std::string_view rest) {
    std::vector<std::uint8_t> out;
    while (!rest.empty()) {
        std::optional<std::size_t> best;
        for (std::size_t code = 0; code < kUrlExpansions.size(); ++code) {
            if (rest.starts_with(kUrlExpansions[code]) &&
                (!best || kUrlExpansions[code].size() > kUrlExpansions[*best].size())) {
                best = code;
            }
        }
        if (best) {
            out.push_back(static_cast<std::uint8_t>(*best));
            rest.remove_prefix(kUrlExpansions[*best].size());
            continue;
        }
        const auto byte = static_cast<std::uint8_t>(rest.front());
        if (byte < kUrlFirstLiteral || byte > kUrlLastLiteral) return std::nullopt;
        out.push_back(byte);
        rest.remove_prefix(1);
    }
    if (out.empty() || out.size() > kUrlMaxEncodedLength) return std::nullopt;
    return out;
}

void encodeUid(const EddystoneUid& uid, std::vector<std::uint8_t>& out) {
    out.push_back(kFrameUid);
    out.push_back(static_cast<std::uint8_t>(uid.txPower));
    out.insert(out.end(), uid.namespaceId.begin(), uid.namespaceId.end());
    out.insert(out.end(), uid.instanceId.begin(), uid.instanceId.end());
    out.push_back(0);
    out.push_back(0);
}

void encodeEid(const EddystoneEid& eid, std::vector<std::uint8_t>& out) {
    out.push_back(kFrameEid);
    out.push_back(static_cast<std::uint8_t>(eid.txPower));
    out.insert(out.end(), eid.ephemeralId.begin(), eid.ephemeralId.end());
}

void encodeUrl(const EddystoneUrl& url, std::vector<std::uint8_t>& out) {
    // "http://www.x" may also be written as "http://" with "www.x", and the longer scheme is
    // not always the shorter encoding (".info/" right after "www" is one byte), so every
    // scheme that fits is tried.
    std::optional<std::pair<std::uint8_t, std::vector<std::uint8_t>>> best;
    for (std::size_t scheme = 0; scheme < kUrlSchemes.size(); ++scheme) {
        const std::string_view text = url.url;
        if (!text.starts_with(kUrlSchemes[scheme])) continue;
        auto rest = encodeUrlRest(text.substr(kUrlSchemes[scheme].size()));
        if (rest && (!best || rest->size() < best->second.size())) {
            best.emplace(static_cast<std::uint8_t>(scheme), std::move(*rest));
        }
    }
    if (!best) fatalError("Eddystone URL cannot be encoded: " + url.url);
    out.push_back(kFrameUrl);
    out.push_back(static_cast<std::uint8_t>(url.txPower));
    out.push_back(best->first);
    out.insert(out.end(), best->second.begin(), best->second.end());
}

std::uint16_t encodedTemperature(std::optional<double> celsius) {
    if (!celsius || std::isnan(*celsius)) return kTemperatureNotReported;
    // -128.0 exactly would be the "not reported" pattern; the frame's range ends one step above.
    const double steps = std::clamp(std::round(*celsius * 256.0), -32767.0, 32767.0);
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(steps));
}

std::uint32_t encodedTenths(double seconds) {
    if (std::isnan(seconds)) return 0;
    return static_cast<std::uint32_t>(std::clamp(std::round(seconds * 10.0), 0.0, 4294967295.0));
}

void encodeTlm(const EddystoneTlm& tlm, std::vector<std::uint8_t>& out) {
    out.push_back(kFrameTlm);
    out.push_back(tlm.version);
    if (tlm.version == 0) {
        appendBigEndian16(out, tlm.batteryMillivolts.value_or(0));
        appendBigEndian16(out, encodedTemperature(tlm.temperatureCelsius));
        appendBigEndian32(out, tlm.advertisementCount);
        appendBigEndian32(out, encodedTenths(tlm.secondsSincePowerOn));
    } else if (tlm.version == 1 && tlm.encrypted.size() == kTlmEncryptedDataLength) {
        out.insert(out.end(), tlm.encrypted.begin(), tlm.encrypted.end());
    } else {
        fatalError("Eddystone TLM frame cannot be encoded: version " + std::to_string(tlm.version) + " with " +
                   std::to_string(tlm.encrypted.size()) + " encrypted bytes");
    }
}

}  // namespace

std::string EddystoneUid::identifierHex() const {
    return lowerHex(namespaceId) + lowerHex(instanceId);
}

std::string EddystoneEid::identifierHex() const {
    return lowerHex(ephemeralId);
}

std::optional<EddystoneFrame> parseEddystoneFrame(std::span<const std::uint8_t> serviceData) {
    if (serviceData.empty()) return std::nullopt;
    switch (serviceData[0]) {
        case kFrameUid: return parseUid(serviceData);
        case kFrameEid: return parseEid(serviceData);
        case kFrameUrl: return parseUrl(serviceData);
        case kFrameTlm: return parseTlm(serviceData);
        default: return std::nullopt;
    }
}

std::vector<std::uint8_t> encodeEddystoneFrame(const EddystoneFrame& frame) {
    std::vector<std::uint8_t> out;
    out.reserve(kUidLengthWithReserved);  // the longest frame
    std::visit(
        [&out](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, EddystoneUid>) encodeUid(value, out);
            else if constexpr (std::is_same_v<T, EddystoneEid>) encodeEid(value, out);
            else if constexpr (std::is_same_v<T, EddystoneUrl>) encodeUrl(value, out);
            else encodeTlm(value, out);
        },
        frame);
    return out;
}

std::optional<IBeaconAdvertisement> parseIBeacon(std::span<const std::uint8_t> manufacturerPayload) {
    const Bytes data = manufacturerPayload;
    if (data.size() != kIBeaconLength || data[0] != kIBeaconType || data[1] != kIBeaconDataLength) {
        return std::nullopt;
    }
    IBeaconAdvertisement advertisement;
    advertisement.uuid.bytes = copyOut<16>(data, 2);
    advertisement.major = bigEndian16(data, 18);
    advertisement.minor = bigEndian16(data, 20);
    advertisement.measuredPower = static_cast<std::int8_t>(data[22]);
    return advertisement;
}

std::vector<std::uint8_t> encodeIBeacon(const IBeaconAdvertisement& advertisement) {
    std::vector<std::uint8_t> out;
    out.reserve(kIBeaconLength);
    out.push_back(kIBeaconType);
    out.push_back(kIBeaconDataLength);
    out.insert(out.end(), advertisement.uuid.bytes.begin(), advertisement.uuid.bytes.end());
    appendBigEndian16(out, advertisement.major);
    appendBigEndian16(out, advertisement.minor);
    out.push_back(static_cast<std::uint8_t>(advertisement.measuredPower));
    return out;
}

}  // namespace rovalis
