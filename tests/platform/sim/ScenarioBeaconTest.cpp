#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/sim/Scenario.h"

namespace rovalis::sim {
namespace {

using Kind = ScenarioBeacon::Kind;

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

TEST(ScenarioBeacons, ReadsEachKindBesideTheStepsAndDescribesItAsALineThatReadsBack) {
    const auto scenario = parseScenario(std::string("# beacons for the whole run\n")
                                            .append(kIBeaconLine)
                                            .append("\nat 10:00 network offline\n")
                                            .append(kUidLine)
                                            .append("  # the cafe\n")
                                            .append(kEidLine),
                                        traceStart);
    ASSERT_EQ(scenario.steps.size(), 1u);
    EXPECT_EQ(scenario.steps[0].line, 3);
    EXPECT_EQ(scenario.beacons,
              (std::vector<ScenarioBeacon>{
                  {.kind = Kind::iBeacon, .uuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"), .major = 1,
                   .minor = 2, .position = {51.51485, -0.0992}, .power = -59, .url = std::nullopt, .interval = 1.0,
                   .line = 2},
                  {.kind = Kind::eddystoneUid, .uuid = {}, .namespaceId = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10},
                   .instanceId = {11, 12, 13, 14, 15, 16}, .position = {51.508, -0.0981}, .power = -20,
                   .url = "https://example.com/cafe", .interval = 0.5, .line = 4},
                  {.kind = Kind::eddystoneEid, .uuid = {},
                   .ephemeralId = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}, .position = {51.4608, -0.1121},
                   .power = -20, .url = std::nullopt, .interval = 0.5, .line = 5}}));
    for (const ScenarioBeacon& beacon : scenario.beacons) {
        auto again = parseScenario(describe(beacon), traceStart).beacons.at(0);
        again.line = beacon.line;
        EXPECT_EQ(again, beacon) << describe(beacon);
    }

    // Options in any order or left out, words in any case, values at their limits. The line that
    // describes a beacon gives its power always and its interval when not its kind's default.
    const std::pair<std::string, std::string> lines[] = {
        {"BEACON IBeacon e2c56db5-dffb-48d2-b060-d0f5a71096e0 65535 0 AT -33.5,151.25 interval 100 power -70",
         "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 65535 0 at -33.5,151.25 power -70 interval 100"},
        {"beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 0 65535 at -0.000001,0.1",
         "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 0 65535 at -0.000001,0.1 power -59"},
        {"beacon eddystone-eid 00000000000000FF at +1.5,-180 interval 10240 url http://www.example.org/",
         "beacon eddystone-eid 00000000000000ff at 1.5,-180 power -20 interval 10240 url http://www.example.org/"},
        {"beacon eddystone-uid FFFFFFFFFFFFFFFFFFFF 000000000000 at 90,180 power +20 interval 500",
         "beacon eddystone-uid ffffffffffffffffffff 000000000000 at 90,180 power 20"},
    };
    for (const auto& [line, described] : lines) {
        const auto beacon = parseScenario(line, traceStart).beacons.at(0);
        EXPECT_EQ(describe(beacon), described);
        EXPECT_EQ(parseScenario(described, traceStart).beacons.at(0), beacon) << described;
    }
}

TEST(ScenarioBeacons, ReportsWhatIsWrongWithABeaconLine) {
    const std::string ibeacon = "beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 ";
    const std::string uid = "beacon eddystone-uid ";
    const std::string eid = "beacon eddystone-eid 1122334455667788 at";
    const std::pair<std::string, std::string> cases[] = {
        {"beacon", "line 1: beacon needs a kind: ibeacon, eddystone-uid or eddystone-eid"},
        {"\nbeacon altbeacon 1", "line 2: beacon kind is ibeacon, eddystone-uid or eddystone-eid, not 'altbeacon'"},
        {ibeacon + "1 at 0,0", "line 1: expected 'beacon ibeacon UUID MAJOR MINOR at LAT,LON'"},
        {eid, "line 1: expected 'beacon eddystone-eid EID at LAT,LON'"},
        {"beacon ibeacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E 1 2 at 0,0",
         "line 1: bad beacon UUID 'E2C56DB5-DFFB-48D2-B060-D0F5A71096E'"},
        {ibeacon + "65536 2 at 0,0", "line 1: beacon major is 0 - 65535, not '65536'"},
        {ibeacon + "1 -1 at 0,0", "line 1: beacon minor is 0 - 65535, not '-1'"},
        {ibeacon + "1 2.5 at 0,0", "line 1: beacon minor is 0 - 65535, not '2.5'"},
        {uid + "0102030405060708090 0b0c0d0e0f10 at 0,0",
         "line 1: a beacon namespace is 20 hex digits, not '0102030405060708090'"},
        {uid + "0102030405060708090a 0b0c0d0e0f1g at 0,0",
         "line 1: a beacon instance is 12 hex digits, not '0b0c0d0e0f1g'"},
        {"beacon eddystone-eid 112233445566778899 at 0,0",
         "line 1: an ephemeral identifier is 16 hex digits, not '112233445566778899'"},
        {eid + " 91,0", "line 1: bad beacon position '91,0' (LAT,LON in degrees)"},
        {eid + " 0,180.5", "line 1: bad beacon position '0,180.5'"},
        {eid + " 51.5", "line 1: bad beacon position '51.5'"},
        {eid + " 1e1,0", "line 1: bad beacon position '1e1,0'"},
        {ibeacon + "1 2 at 0,0 power 21", "line 1: beacon power is one whole number of dBm, -100 to 20, not '21'"},
        {ibeacon + "1 2 at 0,0 power -101", "line 1: beacon power is one whole number of dBm, -100 to 20, not '-101'"},
        {ibeacon + "1 2 at 0,0 power +-5", "not '+-5'"},
        {ibeacon + "1 2 at 0,0 power -60 power -61", "not '-61'"},
        {ibeacon + "1 2 at 0,0 interval 19", "line 1: beacon interval is one whole number of ms, 20 - 10240, not '19'"},
        {ibeacon + "1 2 at 0,0 interval 10241", "beacon interval is one whole number of ms, 20 - 10240, not '10241'"},
        {ibeacon + "1 2 at 0,0 power", "line 1: beacon power needs a value"},
        {ibeacon + "1 2 at 0,0 colour red", "line 1: unexpected 'colour' in a beacon line (power, interval or url)"},
        {ibeacon + "1 2 at 0,0 url https://example.com", "line 1: only an Eddystone beacon has a URL"},
        {eid + " 0,0 url ftp://a.com", "line 1: beacon URL 'ftp://a.com' must start with http:// or https://"},
        {eid + " 0,0 url https://caf\xC3\xA9.com", "has a character a URL frame cannot carry"},
        {eid + " 0,0 url https://a.com url https://b.com", "line 1: a beacon has one URL"},
        // A URL of 18 encoded bytes (the scheme and ".com/" a byte each) no longer fits its frame.
        {eid + " 0,0 url https://www.abcdefghijkl.com/abcde", "is too long for a URL frame"},
        // The identity alone counts: case, place and power do not tell two beacons apart.
        {ibeacon + "1 2 at 0,0\nat 10:00 app foreground\n"
                   "beacon ibeacon e2c56db5-dffb-48d2-b060-d0f5a71096e0 1 2 at 1,1",
         "line 3: the beacon has the identity of the one on line 1"},
        {uid + "0102030405060708090a 0b0c0d0e0f10 at 0,0\n" + uid + "0102030405060708090A 0B0C0D0E0F10 at 1,1 power -7",
         "line 2: the beacon has the identity of the one on line 1"},
    };
    for (const auto& [text, message] : cases) {
        const std::string error = errorOf(text);
        EXPECT_NE(error.find(message), std::string::npos) << error << "\nwanted: " << message;
    }

    // Beacons that differ in one identifier, or are of another kind, are different beacons; a
    // URL of 17 encoded bytes still fits.
    std::string distinct;
    for (const std::string& line : {ibeacon + "1 2 at 0,0", ibeacon + "1 3 at 0,0", ibeacon + "2 2 at 0,0",
                                    uid + "0102030405060708090a 0b0c0d0e0f10 at 0,0",
                                    uid + "0102030405060708090a 0b0c0d0e0f11 at 0,0",
                                    eid + " 0,0 url https://www.abcdefghijkl.com/abcd"}) {
        distinct.append(line).append("\n");
    }
    EXPECT_EQ(errorOf(distinct), "no error");
}

}  // namespace
}  // namespace rovalis::sim
