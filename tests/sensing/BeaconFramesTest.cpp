#include "sensing/BeaconFrames.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string_view>

namespace rovalis {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes hex(std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (const char c : text) {
        if (c == ' ') continue;
        const int digit = (c >= '0' && c <= '9') ? c - '0' : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : c - 'a' + 10;
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    return bytes;
}

// The service data and manufacturer data of an advertising payload (a run of length-type-value
// structures), keyed the way a scanner reports them. The structures are well formed here.
struct AdvertisingData {
    std::map<std::uint16_t, Bytes> serviceData;
    std::map<std::uint16_t, Bytes> manufacturerData;
};

AdvertisingData advertisingData(const Bytes& payload) {
    AdvertisingData result;
    for (std::size_t at = 0; at < payload.size();) {
        const std::size_t length = payload[at];
        const std::uint8_t type = payload[at + 1];
        const Bytes value(payload.begin() + static_cast<long>(at) + 2,
                          payload.begin() + static_cast<long>(at + 1 + length));
        at += 1 + length;
        if (type != 0x16 && type != 0xFF) continue;  // neither service data nor manufacturer data
        const auto id = static_cast<std::uint16_t>(value[0] | (value[1] << 8));  // little-endian on air
        (type == 0x16 ? result.serviceData : result.manufacturerData)[id] = Bytes(value.begin() + 2, value.end());
    }
    return result;
}

Bytes eddystoneServiceData(std::string_view advertisement) {
    return advertisingData(hex(advertisement)).serviceData.at(kEddystoneServiceUUID);
}

// Advertising payloads as beacons put them on air: flags, the complete list of 16-bit
// services, then the service data (or the manufacturer data of an iBeacon).
constexpr std::string_view uidAdvertisement =
    "02 01 06  03 03 AA FE  17 16 AA FE  00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 00 00";
constexpr std::string_view eidAdvertisement = "02 01 06  03 03 AA FE  0D 16 AA FE  30 F5 1F 2E 3D 4C 5B 6A 79 88";
constexpr std::string_view urlAdvertisement =
    "02 01 06  03 03 AA FE  0E 16 AA FE  10 EB 01 65 78 61 6D 70 6C 65 07";
constexpr std::string_view tlmAdvertisement =
    "02 01 06  03 03 AA FE  11 16 AA FE  20 00 0B B8 17 80 00 00 30 39 00 01 E2 40";
constexpr std::string_view encryptedTlmAdvertisement =
    "02 01 06  03 03 AA FE  15 16 AA FE  20 01 9A 41 C3 07 5E E2 10 8B 7F 33 D4 26 B1 5C 0E 4F";
constexpr std::string_view iBeaconAdvertisement =
    "02 01 06  1A FF 4C 00  02 15 E2 C5 6D B5 DF FB 48 D2 B0 60 D0 F5 A7 10 96 E0 00 01 00 02 C5";

template <typename T>
T parsedAs(const Bytes& serviceData) {
    const auto frame = parseEddystoneFrame(serviceData);
    EXPECT_TRUE(frame.has_value());
    if (!frame) return T{};
    EXPECT_TRUE(std::holds_alternative<T>(*frame));
    return std::holds_alternative<T>(*frame) ? std::get<T>(*frame) : T{};
}

TEST(BeaconFrames, ParsesTheFramesOfRealAdvertisements) {
    const auto uid = parsedAs<EddystoneUid>(eddystoneServiceData(uidAdvertisement));
    EXPECT_EQ(uid.txPower, -21);
    EXPECT_EQ(uid.identifierHex(), "8b0c2f4e763c5a110f2d0000000004d2");

    const auto eid = parsedAs<EddystoneEid>(eddystoneServiceData(eidAdvertisement));
    EXPECT_EQ(eid.txPower, -11);
    EXPECT_EQ(eid.identifierHex(), "1f2e3d4c5b6a7988");

    const auto url = parsedAs<EddystoneUrl>(eddystoneServiceData(urlAdvertisement));
    EXPECT_EQ(url.txPower, -21);
    EXPECT_EQ(url.url, "https://www.example.com");

    const auto tlm = parsedAs<EddystoneTlm>(eddystoneServiceData(tlmAdvertisement));
    EXPECT_EQ(tlm.version, 0);
    EXPECT_EQ(tlm.batteryMillivolts, 3000);
    EXPECT_EQ(tlm.temperatureCelsius, 23.5);
    EXPECT_EQ(tlm.advertisementCount, 12345u);
    EXPECT_DOUBLE_EQ(tlm.secondsSincePowerOn, 12345.6);
    EXPECT_TRUE(tlm.encrypted.empty());

    const auto encrypted = parsedAs<EddystoneTlm>(eddystoneServiceData(encryptedTlmAdvertisement));
    EXPECT_EQ(encrypted.version, 1);
    EXPECT_EQ(encrypted.encrypted, hex("9A 41 C3 07 5E E2 10 8B 7F 33 D4 26  B1 5C  0E 4F"));
    EXPECT_FALSE(encrypted.batteryMillivolts);
    EXPECT_FALSE(encrypted.temperatureCelsius);

    const auto iBeacon = parseIBeacon(advertisingData(hex(iBeaconAdvertisement)).manufacturerData.at(0x004C));
    ASSERT_TRUE(iBeacon);
    EXPECT_EQ(iBeacon->uuid.uuidString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
    EXPECT_EQ(iBeacon->major, 1);
    EXPECT_EQ(iBeacon->minor, 2);
    EXPECT_EQ(iBeacon->measuredPower, -59);
}

TEST(BeaconFrames, EncodersWriteTheBytesBeaconsTransmit) {
    for (const auto advertisement : {uidAdvertisement, eidAdvertisement, urlAdvertisement, tlmAdvertisement,
                                     encryptedTlmAdvertisement}) {
        const Bytes serviceData = eddystoneServiceData(advertisement);
        const auto frame = parseEddystoneFrame(serviceData);
        ASSERT_TRUE(frame) << advertisement;
        EXPECT_EQ(encodeEddystoneFrame(*frame), serviceData) << advertisement;
    }
    const Bytes iBeaconPayload = advertisingData(hex(iBeaconAdvertisement)).manufacturerData.at(0x004C);
    EXPECT_EQ(encodeIBeacon(*parseIBeacon(iBeaconPayload)), iBeaconPayload);

    // Built from values rather than bytes: the reserved bytes of a UID frame are written.
    EddystoneUid uid{-4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {0xA, 0xB, 0xC, 0xD, 0xE, 0xF}};
    EXPECT_EQ(encodeEddystoneFrame(uid), hex("00 FC 0102030405060708090A 0A0B0C0D0E0F 0000"));
}

TEST(BeaconFrames, TelemetryReportsWhatTheBeaconLeavesOutAsAbsentAndReadsSignedTemperatures) {
    // Battery 0 and temperature 0x8000 mean "not reported".
    const auto silent = parsedAs<EddystoneTlm>(hex("20 00 0000 8000 00000001 00000000"));
    EXPECT_FALSE(silent.batteryMillivolts);
    EXPECT_FALSE(silent.temperatureCelsius);
    EXPECT_EQ(silent.secondsSincePowerOn, 0.0);

    EXPECT_EQ(parsedAs<EddystoneTlm>(hex("20 00 0C E4 FF 80 00000000 00000000")).temperatureCelsius, -0.5);
    EXPECT_EQ(parsedAs<EddystoneTlm>(hex("20 00 0C E4 80 01 00000000 00000000")).temperatureCelsius,
              -128.0 + 1.0 / 256.0);
    EXPECT_EQ(parsedAs<EddystoneTlm>(hex("20 00 0C E4 7F FF FFFFFFFF FFFFFFFF")).secondsSincePowerOn,
              429496729.5);

    // Values the frame cannot hold are brought within it rather than wrapped round.
    EddystoneTlm extreme;
    extreme.temperatureCelsius = -300.0;
    extreme.secondsSincePowerOn = -5.0;
    auto back = parsedAs<EddystoneTlm>(encodeEddystoneFrame(extreme));
    EXPECT_EQ(back.temperatureCelsius, -128.0 + 1.0 / 256.0);
    EXPECT_EQ(back.secondsSincePowerOn, 0.0);
    extreme.temperatureCelsius = 21.337;  // rounded to the nearest 1/256 degree
    extreme.secondsSincePowerOn = 1e12;
    back = parsedAs<EddystoneTlm>(encodeEddystoneFrame(extreme));
    EXPECT_EQ(back.temperatureCelsius, 5462.0 / 256.0);
    EXPECT_EQ(back.secondsSincePowerOn, 429496729.5);
}

TEST(BeaconFrames, UrlsExpandEveryCodeAndEncodeAsShortAsTheyCan) {
    EXPECT_EQ(parsedAs<EddystoneUrl>(hex("10 00 00 61 00 62 01 63 02 64 03 65 04 66 05 67 06")).url,
              "http://www.a.com/b.org/c.edu/d.net/e.info/f.biz/g.gov/");
    EXPECT_EQ(parsedAs<EddystoneUrl>(hex("10 00 02 61 07 62 08 63 09 64 0A 65 0B 66 0C 67 0D")).url,
              "http://a.comb.orgc.edud.nete.infof.bizg.gov");
    EXPECT_EQ(parsedAs<EddystoneUrl>(hex("10 00 03 21 7E 2E 63 6F 6D 2F")).url, "https://!~.com/");

    // The longest scheme and expansion win...
    EXPECT_EQ(encodeEddystoneFrame(EddystoneUrl{-7, "https://www.goo.gl/abc.com/x"}),
              hex("10 F9 01 67 6F 6F 2E 67 6C 2F 61 62 63 00 78"));
    // ...unless the shorter scheme leaves the better expansion: "www" + ".info/".
    EXPECT_EQ(encodeEddystoneFrame(EddystoneUrl{0, "http://www.info/abcdefghijklm"}),
              hex("10 00 02 77 77 77 04 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D"));
    // A scheme with nothing after it cannot be sent as the "www." scheme alone.
    EXPECT_EQ(encodeEddystoneFrame(EddystoneUrl{0, "http://www."}), hex("10 00 02 77 77 77 2E"));
}

TEST(BeaconFrames, RefusesMalformedFrames) {
    const std::map<std::string, Bytes> malformed = {
        {"empty", {}},
        {"unknown frame type 0x01", hex("01 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2")},
        {"unknown frame type 0x40", hex("40 EB 1F 2E 3D 4C 5B 6A 79 88")},
        {"unknown frame type 0xFF", hex("FF")},
        {"UID of 17 bytes", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04")},
        {"UID of 19 bytes", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 00")},
        {"UID of 21 bytes", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 00 00 00")},
        {"UID with reserved 0x01 0x00", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 01 00")},
        {"UID with reserved 0x00 0x80", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 00 80")},
        {"EID of 9 bytes", hex("30 F5 1F 2E 3D 4C 5B 6A 79")},
        {"EID of 11 bytes", hex("30 F5 1F 2E 3D 4C 5B 6A 79 88 00")},
        {"URL without encoded bytes", hex("10 EB 01")},
        {"URL without scheme", hex("10 EB")},
        {"URL of 18 encoded bytes", hex("10 EB 03 616263646566676869 6A6B6C6D6E6F707172")},
        {"URL scheme 4", hex("10 EB 04 65 78 61 6D 70 6C 65 07")},
        {"URL scheme 0xFF", hex("10 EB FF 65 78 61 6D 70 6C 65 07")},
        {"URL byte 0x0E", hex("10 EB 01 65 78 61 6D 70 6C 65 0E")},
        {"URL byte 0x20 (space)", hex("10 EB 01 65 78 20 61")},
        {"URL byte 0x7F", hex("10 EB 01 65 78 7F")},
        {"URL byte 0xC3 (non-ASCII)", hex("10 EB 01 C3 A9 07")},
        {"TLM without version", hex("20")},
        {"TLM version 2", hex("20 02 0B B8 17 80 00 00 30 39 00 01 E2 40")},
        {"TLM version 0 of 13 bytes", hex("20 00 0B B8 17 80 00 00 30 39 00 01 E2")},
        {"TLM version 0 of 15 bytes", hex("20 00 0B B8 17 80 00 00 30 39 00 01 E2 40 00")},
        {"TLM version 0 of 18 bytes", hex("20 00 0B B8 17 80 00 00 30 39 00 01 E2 40 00 00 00 00")},
        {"TLM version 1 of 14 bytes", hex("20 01 0B B8 17 80 00 00 30 39 00 01 E2 40")},
        {"TLM version 1 of 19 bytes", hex("20 01 9A 41 C3 07 5E E2 10 8B 7F 33 D4 26 B1 5C 0E 4F 00")},
    };
    for (const auto& [what, bytes] : malformed) EXPECT_FALSE(parseEddystoneFrame(bytes)) << what;

    const Bytes iBeacon = hex("02 15 E2 C5 6D B5 DF FB 48 D2 B0 60 D0 F5 A7 10 96 E0 00 01 00 02 C5");
    ASSERT_TRUE(parseIBeacon(iBeacon));
    Bytes wrong = iBeacon;
    wrong[0] = 0x03;
    EXPECT_FALSE(parseIBeacon(wrong)) << "type byte";
    wrong = iBeacon;
    wrong[1] = 0x16;
    EXPECT_FALSE(parseIBeacon(wrong)) << "length byte";
    EXPECT_FALSE(parseIBeacon(Bytes(iBeacon.begin(), iBeacon.end() - 1))) << "22 bytes";
    wrong = iBeacon;
    wrong.push_back(0x00);
    EXPECT_FALSE(parseIBeacon(wrong)) << "24 bytes";
    EXPECT_FALSE(parseIBeacon({})) << "empty";
}

TEST(BeaconFramesDeathTest, FramesWithoutAValidEncodingStopTheProcess) {
    EXPECT_DEATH(encodeEddystoneFrame(EddystoneUrl{0, "ftp://example.com"}), "Eddystone URL cannot be encoded");
    EXPECT_DEATH(encodeEddystoneFrame(EddystoneUrl{0, "https://a b"}), "Eddystone URL cannot be encoded");
    EXPECT_DEATH(encodeEddystoneFrame(EddystoneUrl{0, "https://"}), "Eddystone URL cannot be encoded");
    EXPECT_DEATH(encodeEddystoneFrame(EddystoneUrl{0, "https://abcdefghijklmnopqr"}),
                 "Eddystone URL cannot be encoded");
    EddystoneTlm tlm;
    tlm.version = 2;
    EXPECT_DEATH(encodeEddystoneFrame(tlm), "TLM frame cannot be encoded: version 2");
    tlm.version = 1;
    tlm.encrypted = Bytes(12, 0xAB);
    EXPECT_DEATH(encodeEddystoneFrame(tlm), "TLM frame cannot be encoded: version 1 with 12 encrypted bytes");
}

// ---- Bytes from anyone nearby ----

// Whatever the parsers accept must survive being written again and read back.
void expectRoundTrip(const Bytes& bytes, int& eddystoneParsed, int& iBeaconParsed) {
    if (const auto frame = parseEddystoneFrame(bytes)) {
        ++eddystoneParsed;
        const auto again = parseEddystoneFrame(encodeEddystoneFrame(*frame));
        ASSERT_TRUE(again);
        ASSERT_EQ(*again, *frame);
    }
    if (const auto advertisement = parseIBeacon(bytes)) {
        ++iBeaconParsed;
        ASSERT_EQ(encodeIBeacon(*advertisement), bytes);  // a fixed layout has one encoding
    }
}

std::vector<Bytes> validFrames() {
    std::vector<Bytes> frames;
    for (const auto advertisement : {uidAdvertisement, eidAdvertisement, urlAdvertisement, tlmAdvertisement,
                                     encryptedTlmAdvertisement}) {
        frames.push_back(eddystoneServiceData(advertisement));
    }
    frames.push_back(hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2"));  // UID without reserved
    frames.push_back(hex("10 EB 03 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 00"));  // longest URL
    frames.push_back(advertisingData(hex(iBeaconAdvertisement)).manufacturerData.at(0x004C));
    return frames;
}

TEST(BeaconFrames, EveryTruncationAndOneByteExtensionOfAValidFrameIsHandled) {
    int eddystoneParsed = 0, iBeaconParsed = 0;
    std::map<std::size_t, int> acceptedPrefixLengths;  // of the 20-byte UID frame
    const Bytes uid = eddystoneServiceData(uidAdvertisement);
    for (const Bytes& frame : validFrames()) {
        for (std::size_t length = 0; length <= frame.size(); ++length) {
            // A copy of exactly `length` bytes, so that a read past the end is caught by the sanitizers.
            const Bytes prefix(frame.begin(), frame.begin() + static_cast<long>(length));
            expectRoundTrip(prefix, eddystoneParsed, iBeaconParsed);
            if (frame == uid && parseEddystoneFrame(prefix)) ++acceptedPrefixLengths[length];
        }
        for (int extra = 0; extra < 256; ++extra) {
            Bytes longer = frame;
            longer.push_back(static_cast<std::uint8_t>(extra));
            expectRoundTrip(longer, eddystoneParsed, iBeaconParsed);
        }
    }
    EXPECT_EQ(acceptedPrefixLengths, (std::map<std::size_t, int>{{18, 1}, {20, 1}}));
    // Whole frames: 7. URL prefixes of 4 bytes and more that are not whole: 7 of the short URL,
    // 16 of the longest. The 20-byte UID without its reserved bytes: 1. Extensions: only the
    // short URL takes one, any of the 14 expansion codes and 94 literal characters.
    EXPECT_EQ(eddystoneParsed, 7 + 7 + 16 + 1 + 14 + 94);
    EXPECT_EQ(iBeaconParsed, 1);
}

TEST(BeaconFrames, SeededRandomBytesOfEveryFrameTypeNeverBreakTheParsers) {
    std::mt19937 random(20240611);
    const auto byte = [&random] { return static_cast<std::uint8_t>(random() & 0xFF); };
    const std::vector<Bytes> seeds = validFrames();
    std::map<std::uint8_t, int> parsedByType;
    int eddystoneParsed = 0, iBeaconParsed = 0;
    for (int i = 0; i < 100000; ++i) {
        Bytes bytes;
        const std::uint8_t type = std::array<std::uint8_t, 5>{0x00, 0x10, 0x20, 0x30, 0x02}[i % 5];
        if (i % 2 == 0) {
            // Pure noise of a plausible length, typed.
            bytes.resize(random() % 26);
            for (auto& b : bytes) b = byte();
        } else {
            // A valid frame with a few bytes changed, dropped or added: these reach the deeper checks.
            bytes = seeds[random() % seeds.size()];
            for (int edits = 1 + static_cast<int>(random() % 3); edits > 0; --edits) {
                const std::size_t at = bytes.empty() ? 0 : random() % bytes.size();
                switch (random() % 3) {
                    case 0: if (!bytes.empty()) bytes[at] = byte(); break;
                    case 1: if (!bytes.empty()) bytes.erase(bytes.begin() + static_cast<long>(at)); break;
                    default: bytes.insert(bytes.begin() + static_cast<long>(at), byte()); break;
                }
            }
        }
        if (!bytes.empty()) bytes[0] = type;
        const int before = eddystoneParsed + iBeaconParsed;
        expectRoundTrip(bytes, eddystoneParsed, iBeaconParsed);
        if (HasFatalFailure()) return;
        if (eddystoneParsed + iBeaconParsed > before) ++parsedByType[type];
    }
    // Each type was reached often enough for its accepting paths to have been checked.
    for (const std::uint8_t type : {0x00, 0x10, 0x20, 0x30, 0x02}) EXPECT_GT(parsedByType[type], 100) << int(type);
}

}  // namespace
}  // namespace rovalis
