#include "sensing/BeaconFrames.h"

#include <gtest/gtest.h>

#include <map>
#include <string_view>

namespace rovalis {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes hex(std::string_view text) {
    std::string digits(text);
    std::erase(digits, ' ');
    Bytes bytes;
    for (std::size_t at = 0; at + 1 < digits.size(); at += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    }
    return bytes;
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
constexpr std::string_view eddystoneAdvertisements[] = {uidAdvertisement, eidAdvertisement, urlAdvertisement,
                                                        tlmAdvertisement, encryptedTlmAdvertisement};

// What a scanner reports of an advertising payload (a run of length-type-value structures):
// the service data (type 0x16) or manufacturer data (0xFF) of `id`, sent little-endian, without it.
Bytes dataOf(std::string_view advertisement, std::uint8_t type, std::uint16_t id) {
    const Bytes payload = hex(advertisement);
    for (std::size_t at = 0; at + 3 < payload.size(); at += 1 + payload[at]) {
        const auto field = payload.begin() + static_cast<long>(at);
        if (field[1] == type && (field[2] | field[3] << 8) == id) return Bytes(field + 4, field + 1 + payload[at]);
    }
    ADD_FAILURE() << "nothing of type " << int(type) << " in " << advertisement;
    return {};
}
Bytes eddystoneData(std::string_view advertisement) { return dataOf(advertisement, 0x16, kEddystoneServiceUUID); }
Bytes iBeaconData() { return dataOf(iBeaconAdvertisement, 0xFF, kIBeaconCompanyIdentifier); }

template <typename T>
T parsedAs(const Bytes& serviceData) {
    const auto frame = parseEddystoneFrame(serviceData);
    EXPECT_TRUE(frame && std::holds_alternative<T>(*frame));
    return frame && std::holds_alternative<T>(*frame) ? std::get<T>(*frame) : T{};
}

TEST(BeaconFrames, ParsesTheFramesOfRealAdvertisementsAndWritesTheSameBytes) {
    const auto uid = parsedAs<EddystoneUid>(eddystoneData(uidAdvertisement));
    EXPECT_EQ(uid.txPower, -21);
    EXPECT_EQ(uid.identifierHex(), "8b0c2f4e763c5a110f2d0000000004d2");
    const auto eid = parsedAs<EddystoneEid>(eddystoneData(eidAdvertisement));
    EXPECT_EQ(eid.txPower, -11);
    EXPECT_EQ(eid.identifierHex(), "1f2e3d4c5b6a7988");
    const auto url = parsedAs<EddystoneUrl>(eddystoneData(urlAdvertisement));
    EXPECT_EQ(url, (EddystoneUrl{-21, "https://www.example.com"}));

    // Version, battery mV, degrees, advertisements, seconds since power-on; encrypted telemetry only as bytes.
    EXPECT_EQ(parsedAs<EddystoneTlm>(eddystoneData(tlmAdvertisement)),
              (EddystoneTlm{0, 3000, 23.5, 12345, 12345.6, {}}));
    EXPECT_EQ(parsedAs<EddystoneTlm>(eddystoneData(encryptedTlmAdvertisement)),
              (EddystoneTlm{1, {}, {}, 0, 0.0, hex("9A 41 C3 07 5E E2 10 8B 7F 33 D4 26  B1 5C  0E 4F")}));

    const auto iBeacon = parseIBeacon(iBeaconData());
    ASSERT_TRUE(iBeacon);
    EXPECT_EQ(*iBeacon, (IBeaconAdvertisement{*Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"), 1, 2, -59}));

    // The encoders write exactly what the beacons sent.
    for (const auto advertisement : eddystoneAdvertisements) {
        const Bytes serviceData = eddystoneData(advertisement);
        EXPECT_EQ(encodeEddystoneFrame(parseEddystoneFrame(serviceData).value()), serviceData) << advertisement;
    }
    EXPECT_EQ(encodeIBeacon(*iBeacon), iBeaconData());
}

TEST(BeaconFrames, TelemetryLeavesOutWhatTheBeaconDoesNotReportAndHoldsValuesWithinTheFrame) {
    // Battery 0 and temperature 0x8000 mean "not reported"; a temperature is signed 8.8 fixed point.
    const auto silent = parsedAs<EddystoneTlm>(hex("20 00 0000 8000 00000001 00000000"));
    EXPECT_FALSE(silent.batteryMillivolts);
    EXPECT_FALSE(silent.temperatureCelsius);
    EXPECT_EQ(parsedAs<EddystoneTlm>(hex("20 00 0C E4 FF 80 00000000 00000000")).temperatureCelsius, -0.5);

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

TEST(BeaconFrames, RefusesUnknownTypesAndValuesOutsideTheFrameWhateverTheLength) {
    // Wrong lengths are refused by the truncation and extension test below.
    const std::map<std::string, Bytes> malformed = {
        {"unknown frame type 0x01", hex("01 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2")},
        {"unknown frame type 0x40", hex("40 EB 1F 2E 3D 4C 5B 6A 79 88")},
        {"UID with reserved 0x01 0x00", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 01 00")},
        {"UID with reserved 0x00 0x80", hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2 00 80")},
        {"URL scheme 4", hex("10 EB 04 65 78 61 6D 70 6C 65 07")},
        {"URL byte 0x0E", hex("10 EB 01 65 78 61 6D 70 6C 65 0E")},
        {"URL byte 0x20 (space)", hex("10 EB 01 65 78 20 61")},
        {"URL byte 0x7F", hex("10 EB 01 65 78 7F")},
        {"TLM version 2", hex("20 02 0B B8 17 80 00 00 30 39 00 01 E2 40")},
        {"TLM version 0 of the encrypted length", hex("20 00 0B B8 17 80 00 00 30 39 00 01 E2 40 00 00 00 00")},
    };
    for (const auto& [what, bytes] : malformed) EXPECT_FALSE(parseEddystoneFrame(bytes)) << what;

    for (const std::size_t at : {0, 1}) {  // the type 0x02 and the length 0x15
        Bytes wrong = iBeaconData();
        ++wrong[at];
        EXPECT_FALSE(parseIBeacon(wrong)) << "iBeacon byte " << at;
    }
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
        ASSERT_EQ(parseEddystoneFrame(encodeEddystoneFrame(*frame)), frame);
    }
    if (const auto advertisement = parseIBeacon(bytes)) {
        ++iBeaconParsed;
        ASSERT_EQ(encodeIBeacon(*advertisement), bytes);  // a fixed layout has one encoding
    }
}

std::vector<Bytes> validFrames() {
    std::vector<Bytes> frames;
    for (const auto advertisement : eddystoneAdvertisements) frames.push_back(eddystoneData(advertisement));
    frames.push_back(hex("00 EB 8B 0C 2F 4E 76 3C 5A 11 0F 2D 00 00 00 00 04 D2"));  // UID without reserved
    frames.push_back(hex("10 EB 03 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 00"));  // longest URL
    frames.push_back(iBeaconData());
    return frames;
}

TEST(BeaconFrames, EveryTruncationAndOneByteExtensionOfAValidFrameIsHandled) {
    int eddystoneParsed = 0, iBeaconParsed = 0;
    std::map<std::size_t, int> acceptedPrefixLengths;  // of the 20-byte UID frame
    const Bytes uid = eddystoneData(uidAdvertisement);
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

}  // namespace
}  // namespace rovalis
