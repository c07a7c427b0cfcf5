#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/sim/Scenario.h"

namespace rovalis::sim {
namespace {

const Date traceStart{1705385520.0};  // 2024-01-16 06:12 UTC

constexpr const char* kIBeaconLine =
    "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 1 2 at 51.51485,-0.09920 power -59";
constexpr const char* kUidLine =
    "beacon eddystone-uid 0102030405060708090a 0b0c0d0e0f10 at 51.50800,-0.09810 power -20 url "
    "https://example.com/cafe";
constexpr const char* kEidLine = "beacon eddystone-eid 1122334455667788 at 51.46080,-0.11210 power -20";

std::string errorOf(const std::string& text) {
    try {
        parseScenario(text, traceStart);
    } catch (const ScenarioError& error) {
        return error.what();
    }
    return "no error";
}

TEST(ScenarioBeacons, ReadsTheThreeKindsBesideTheSteps) {
    const auto scenario = parseScenario(std::string("# beacons for the whole run\n") + kIBeaconLine +
                                            "\nat 10:00 network offline\n" + kUidLine + "  # the cafe\n" + kEidLine +
                                            "\n",
                                        traceStart);
    ASSERT_EQ(scenario.steps.size(), 1u);
    EXPECT_EQ(scenario.steps[0].line, 3);
    ASSERT_EQ(scenario.beacons.size(), 3u);

    const auto& ibeacon = scenario.beacons[0];
    EXPECT_EQ(ibeacon.kind, ScenarioBeacon::Kind::iBeacon);
    EXPECT_EQ(ibeacon.uuid.uuidString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
    EXPECT_EQ(ibeacon.major, 1);
    EXPECT_EQ(ibeacon.minor, 2);
    EXPECT_EQ(ibeacon.position, (LocationCoordinate2D{51.51485, -0.09920}));
    EXPECT_EQ(ibeacon.power, -59);
    EXPECT_EQ(ibeacon.interval, 1.0);
    EXPECT_FALSE(ibeacon.url.has_value());
    EXPECT_EQ(ibeacon.line, 2);

    const auto& uid = scenario.beacons[1];
    EXPECT_EQ(uid.kind, ScenarioBeacon::Kind::eddystoneUid);
    EXPECT_EQ(uid.namespaceId, (std::array<std::uint8_t, 10>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(uid.instanceId, (std::array<std::uint8_t, 6>{11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(uid.url, "https://example.com/cafe");
    EXPECT_EQ(uid.interval, 0.5);
    EXPECT_EQ(uid.line, 4);

    const auto& eid = scenario.beacons[2];
    EXPECT_EQ(eid.kind, ScenarioBeacon::Kind::eddystoneEid);
    EXPECT_EQ(eid.ephemeralId, (std::array<std::uint8_t, 8>{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}));
    EXPECT_EQ(eid.power, -20);
    EXPECT_EQ(eid.position, (LocationCoordinate2D{51.46080, -0.11210}));
}

TEST(ScenarioBeacons, OptionsComeInAnyOrderAndDefaultByKind) {
    const auto scenario = parseScenario(
        "BEACON IBeacon e2c56db5-dffb-48d2-b060-d0f5a71096e0 65535 0 AT -33.5,151.25 interval 100 power -70\n"
        "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 0 65535 at 0,0\n"
        "beacon eddystone-eid 00000000000000FF at +1.5,-180 interval 10240 url http://www.example.org/\n"
        "beacon eddystone-uid FFFFFFFFFFFFFFFFFFFF 000000000000 at 90,180 power +20\n",
        traceStart);
    ASSERT_EQ(scenario.beacons.size(), 4u);
    EXPECT_EQ(scenario.beacons[0].major, 65535);
    EXPECT_EQ(scenario.beacons[0].power, -70);
    EXPECT_DOUBLE_EQ(scenario.beacons[0].interval, 0.1);
    EXPECT_EQ(scenario.beacons[0].position, (LocationCoordinate2D{-33.5, 151.25}));
    EXPECT_EQ(scenario.beacons[1].power, ScenarioBeacon::defaultIBeaconPower);
    EXPECT_EQ(scenario.beacons[2].power, ScenarioBeacon::defaultEddystonePower);
    EXPECT_EQ(scenario.beacons[2].interval, 10.24);
    EXPECT_EQ(scenario.beacons[2].ephemeralId[7], 0xFF);
    EXPECT_EQ(scenario.beacons[3].power, 20);
    EXPECT_EQ(scenario.beacons[3].interval, ScenarioBeacon::defaultEddystoneInterval);
}

TEST(ScenarioBeacons, DescribeWritesALineThatReadsBackAsTheSameBeacon) {
    EXPECT_EQ(describe(parseScenario(kIBeaconLine, traceStart).beacons.at(0)),
              "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 1 2 at 51.51485,-0.0992 power -59");
    for (const std::string& line :
         {std::string(kIBeaconLine), std::string(kUidLine), std::string(kEidLine),
          std::string("beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 7 9 at 1,2 interval 250"),
          std::string("beacon eddystone-uid 0102030405060708090A 0B0C0D0E0F10 at -0.000001,0.1 interval 1000")}) {
        const auto beacons = parseScenario(line, traceStart).beacons;
        ASSERT_EQ(beacons.size(), 1u) << line;
        const std::string text = describe(beacons[0]);
        const auto again = parseScenario(text, traceStart).beacons;
        ASSERT_EQ(again.size(), 1u) << text;
        EXPECT_EQ(again[0], beacons[0]) << line << "\n" << text;
    }
}

TEST(ScenarioBeacons, ReportsWhatIsWrongWithABeaconLine) {
    const std::string uuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
    const std::pair<std::string, std::string> cases[] = {
        {"beacon", "line 1: beacon needs a kind: ibeacon, eddystone-uid or eddystone-eid"},
        {"\nbeacon altbeacon 1 at 0,0", "line 2: beacon kind is ibeacon, eddystone-uid or eddystone-eid, not 'altbeacon'"},
        {"beacon ibeacon " + uuid + " 1 at 0,0", "line 1: expected 'beacon ibeacon UUID MAJOR MINOR at LAT,LON'"},
        {"beacon ibeacon " + uuid + " 1 2 51.5,-0.1", "line 1: expected 'beacon ibeacon UUID MAJOR MINOR at LAT,LON'"},
        {"beacon eddystone-eid 1122334455667788 at", "line 1: expected 'beacon eddystone-eid EID at LAT,LON'"},
        {"beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E 1 2 at 0,0",
         "line 1: bad beacon UUID 'E2C56DB5-DFFB-48D2-B060-D0F5A71096E'"},
        {"beacon ibeacon E2C56DB5DFFB48D2B060D0F5A71096E0 1 2 at 0,0", "line 1: bad beacon UUID"},
        {"beacon ibeacon " + uuid + " 65536 2 at 0,0", "line 1: beacon major is 0 - 65535, not '65536'"},
        {"beacon ibeacon " + uuid + " 1 -1 at 0,0", "line 1: beacon minor is 0 - 65535, not '-1'"},
        {"beacon ibeacon " + uuid + " 1 2.5 at 0,0", "line 1: beacon minor is 0 - 65535, not '2.5'"},
        {"beacon eddystone-uid 0102030405060708090 0b0c0d0e0f10 at 0,0",
         "line 1: a beacon namespace is 20 hex digits, not '0102030405060708090'"},
        {"beacon eddystone-uid 0102030405060708090a 0b0c0d0e0f1g at 0,0",
         "line 1: a beacon instance is 12 hex digits, not '0b0c0d0e0f1g'"},
        {"beacon eddystone-eid 112233445566778899 at 0,0",
         "line 1: an ephemeral identifier is 16 hex digits, not '112233445566778899'"},
        {"beacon eddystone-eid 1122334455667788 at 91,0", "line 1: bad beacon position '91,0' (LAT,LON in degrees)"},
        {"beacon eddystone-eid 1122334455667788 at 51.5", "line 1: bad beacon position '51.5'"},
        {"beacon eddystone-eid 1122334455667788 at 51.5,west", "line 1: bad beacon position '51.5,west'"},
        {"beacon eddystone-eid 1122334455667788 at 0,180.5", "line 1: bad beacon position"},
        {"beacon eddystone-eid 1122334455667788 at nan,0", "line 1: bad beacon position"},
        {"beacon eddystone-eid 1122334455667788 at 1e1,0", "line 1: bad beacon position"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 power 21",
         "line 1: beacon power is one whole number of dBm, -100 to 20, not '21'"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 power -101", "line 1: beacon power is"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 power +-5", "line 1: beacon power is"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 power -60 power -61", "line 1: beacon power is"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 interval 19",
         "line 1: beacon interval is one whole number of ms, 20 - 10240, not '19'"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 interval 10241", "line 1: beacon interval is"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 interval 1.5", "line 1: beacon interval is"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 power", "line 1: beacon power needs a value"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 colour red",
         "line 1: unexpected 'colour' in a beacon line (power, interval or url)"},
        {"beacon ibeacon " + uuid + " 1 2 at 0,0 url https://example.com", "line 1: only an Eddystone beacon has a URL"},
        {"beacon eddystone-eid 1122334455667788 at 0,0 url ftp://example.com",
         "line 1: beacon URL 'ftp://example.com' must start with http:// or https://"},
        {"beacon eddystone-eid 1122334455667788 at 0,0 url https://example.com/a-rather-long-path",
         "line 1: beacon URL 'https://example.com/a-rather-long-path' is too long for a URL frame"},
        {"beacon eddystone-eid 1122334455667788 at 0,0 url https://caf\xC3\xA9.com",
         "has a character a URL frame cannot carry"},
        {"beacon eddystone-eid 1122334455667788 at 0,0 url https://a.com url https://b.com",
         "line 1: a beacon has one URL"},
        // The identity alone counts: case, place and power do not tell two beacons apart.
        {"beacon ibeacon " + uuid + " 1 2 at 0,0\nat 10:00 app foreground\nbeacon ibeacon e2c56db5-dffb-48d2-b060-"
                                    "d0f5a71096e0 1 2 at 1,1 power -70",
         "line 3: the beacon has the identity of the one on line 1"},
        {"beacon eddystone-uid 0102030405060708090a 0b0c0d0e0f10 at 0,0\n"
         "beacon eddystone-uid 0102030405060708090A 0B0C0D0E0F10 at 1,1",
         "line 2: the beacon has the identity of the one on line 1"},
    };
    for (const auto& [text, message] : cases) {
        const std::string error = errorOf(text);
        EXPECT_NE(error.find(message), std::string::npos) << error << "\nwanted: " << message;
    }

    // Beacons that differ in one identifier, or are of another kind, are different beacons; a
    // URL of 17 encoded bytes (the scheme and ".com/" a byte each) still fits its frame.
    EXPECT_EQ(errorOf("beacon ibeacon " + uuid + " 1 2 at 0,0\nbeacon ibeacon " + uuid + " 1 3 at 0,0\n" +
                      "beacon ibeacon " + uuid + " 2 2 at 0,0\n" +
                      "beacon eddystone-uid 0102030405060708090a 0b0c0d0e0f10 at 0,0\n" +
                      "beacon eddystone-uid 0102030405060708090a 0b0c0d0e0f11 at 0,0\n" +
                      "beacon eddystone-eid 0102030405060708 at 0,0 url https://www.abcdefghijkl.com/abcd\n"),
              "no error");
    EXPECT_NE(errorOf("beacon eddystone-eid 0102030405060708 at 0,0 url https://www.abcdefghijkl.com/abcde")
                  .find("too long"),
              std::string::npos);
}

}  // namespace
}  // namespace rovalis::sim
