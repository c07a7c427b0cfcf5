#include "platform/linux/GpsdProtocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace rovalis {
namespace {

using namespace gpsd;

const Date received{1714566000.0};
// 2024-01-01T00:00:00Z.
constexpr double startOf2024 = 1704067200.0;

Message parse(const std::string& line) { return parseLine(line, received); }

Location fixOf(const std::string& line) {
    const Message message = parse(line);
    const auto* fix = std::get_if<Fix>(&message);
    if (fix == nullptr) {
        ADD_FAILURE() << "no fix in " << line << " (alternative " << message.index() << ")";
        return {};
    }
    return fix->location;
}

TEST(GpsdProtocol, FixCarriesEveryFieldOfTheReport) {
    const Location fix = fixOf(
        R"({"class":"TPV","device":"/dev/ttyACM0","mode":3,"time":"2024-05-01T12:30:45.250Z","ept":0.005,)"
        R"("lat":52.520008,"lon":13.404954,"altHAE":80.5,"altMSL":41.25,"alt":41.0,"epx":3.1,"epy":4.2,)"
        R"("eph":6.5,"epv":9.75,"track":271.5,"speed":1.25,"climb":0.0,"eps":0.3})");
    EXPECT_EQ(fix.coordinate, (LocationCoordinate2D{52.520008, 13.404954}));
    EXPECT_EQ(fix.altitude, 41.25);  // mean sea level, as the platform gives it
    EXPECT_EQ(fix.horizontalAccuracy, 6.5);
    EXPECT_EQ(fix.verticalAccuracy, 9.75);
    EXPECT_EQ(fix.speed, 1.25);
    EXPECT_EQ(fix.course, 271.5);
    // Jan 31 + Feb 29 + Mar 31 + Apr 30 = 121 days into 2024.
    EXPECT_DOUBLE_EQ(fix.timestamp.secondsSince1970, startOf2024 + 121 * 86400.0 + 12 * 3600 + 30 * 60 + 45.25);
}

TEST(GpsdProtocol, AccuracyAltitudeAndMotionFallBackAsTheReportAllows) {
    const std::string head = R"({"class":"TPV","time":"2024-01-01T00:00:00Z","lat":1.5,"lon":-2.5,)";
    // Without eph, the two axis estimates combine into one radius; one axis alone stands.
    EXPECT_DOUBLE_EQ(fixOf(head + R"("mode":2,"epx":3.0,"epy":4.0})").horizontalAccuracy, 5.0);
    EXPECT_EQ(fixOf(head + R"("mode":2,"epy":7.0})").horizontalAccuracy, 7.0);
    EXPECT_EQ(fixOf(head + R"("mode":2,"eph":0,"epx":3.0,"epy":4.0})").horizontalAccuracy, 0.0);

    // A 2D fix has no altitude even if the report carries one.
    const Location flat = fixOf(head + R"("mode":2,"eph":8,"altMSL":30,"epv":4})");
    EXPECT_EQ(flat.altitude, 0.0);
    EXPECT_LT(flat.verticalAccuracy, 0.0);
    EXPECT_LT(flat.speed, 0.0);
    EXPECT_LT(flat.course, 0.0);

    // Older versions send "alt"; the ellipsoid height is the last resort.
    EXPECT_EQ(fixOf(head + R"("mode":3,"eph":8,"alt":12,"altHAE":50})").altitude, 12.0);
    const Location ellipsoid = fixOf(head + R"("mode":3,"eph":8,"altHAE":50})");
    EXPECT_EQ(ellipsoid.altitude, 50.0);
    EXPECT_LT(ellipsoid.verticalAccuracy, 0.0);  // no estimate given

    EXPECT_EQ(fixOf(head + R"("mode":2,"eph":8,"track":360,"speed":0})").course, 0.0);
    EXPECT_EQ(fixOf(head + R"("mode":2,"eph":8,"track":360,"speed":0})").speed, 0.0);

    // A fix without a time of its own is stamped when it arrived.
    EXPECT_EQ(fixOf(R"({"class":"TPV","mode":2,"lat":1,"lon":2,"eph":5})").timestamp, received);
}

TEST(GpsdProtocol, ReportsWithoutAUsableFixAndOtherClasses) {
    for (const char* line : {
             R"({"class":"TPV","mode":0})",
             R"({"class":"TPV","mode":1,"time":"2024-01-01T00:00:00Z"})",
             R"({"class":"TPV","mode":1,"lat":1,"lon":2,"eph":3})",
             // Nothing to judge the position by.
             R"({"class":"TPV","mode":3,"lat":1,"lon":2,"altMSL":3})",
         }) {
        EXPECT_TRUE(std::holds_alternative<NoFix>(parse(line))) << line;
    }
    for (const char* line : {
             R"({"class":"VERSION","release":"3.25","rev":"3.25","proto_major":3,"proto_minor":15})",
             R"({"class":"WATCH","enable":true,"json":true})",
             R"({"class":"SKY","satellites":[{"PRN":5,"used":true}]})",
             R"({"class":"ERROR","message":"Unrecognized request"})",
             R"({"class":"tpv","mode":3,"lat":1,"lon":2,"eph":3})",
         }) {
        EXPECT_TRUE(std::holds_alternative<Other>(parse(line))) << line;
    }
}

// A fix report with one field given as raw JSON text, in place of the one of that name.
std::string tpvWith(const std::string& key, const std::string& raw) {
    std::vector<std::pair<std::string, std::string>> fields = {
        {"class", R"("TPV")"}, {"mode", "3"}, {"lat", "1"}, {"lon", "2"}, {"eph", "5"}};
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return f.first == key; });
    if (found != fields.end()) {
        found->second = raw;
    } else {
        fields.emplace_back(key, raw);
    }
    std::string line = "{";
    for (const auto& [name, value] : fields) line += (line.size() > 1 ? ",\"" : "\"") + name + "\":" + value;
    return line + "}";
}

TEST(GpsdProtocol, DamagedRepliesAreInvalidNeverFixes) {
    const std::string lines[] = {
        "",
        "garbage",
        "[1,2,3]",
        "42",
        R"("TPV")",
        "{}",
        R"({"class":5})",
        R"({"class":null,"mode":3})",
        R"({"class":"TPV","mode":3,"lat":1,"lon":2,"eph":5)",  // cut short
        R"({"class":"TPV","mode":3,"lat":1,"lon":2,"eph":5}} trailing)",
        // The mode: missing, of the wrong type, out of range.
        R"({"class":"TPV","lat":1,"lon":2,"eph":5})",
        tpvWith("mode", R"("3")"),
        tpvWith("mode", "2.5"),
        tpvWith("mode", "4"),
        tpvWith("mode", "-1"),
        // A fix without its position.
        R"({"class":"TPV","mode":2,"lon":2,"eph":5})",
        // Wrong types and values that cannot be right, field by field.
        tpvWith("lat", R"("51")"),
        tpvWith("lat", "91"),
        tpvWith("lon", "-180.5"),
        tpvWith("lon", "null"),
        tpvWith("eph", "-1"),
        tpvWith("epx", R"("3")"),
        tpvWith("epy", "-0.5"),
        tpvWith("epv", "true"),
        tpvWith("speed", "-1"),
        tpvWith("speed", "1e300"),
        tpvWith("speed", "1e999"),  // too large for a double
        tpvWith("track", "361"),
        tpvWith("track", "-0.5"),
        tpvWith("altMSL", "1e9"),
        tpvWith("altHAE", "[1]"),
        tpvWith("alt", "{}"),
        tpvWith("time", "1714566645.25"),
        tpvWith("time", R"("yesterday")"),
        tpvWith("time", R"("2024-02-30T00:00:00Z")"),
        // Even a report without a fix is checked.
        R"({"class":"TPV","mode":1,"lat":"x"})",
        R"({"class":"DEVICES","devices":{"path":"/dev/ttyS0"}})",
        R"({"class":"DEVICES"})",
        R"({"class":"DEVICES","devices":["/dev/ttyS0"]})",
        R"({"class":"DEVICES","devices":[{"driver":"u-blox"}]})",
        R"({"class":"DEVICE","activated":"2024-01-01T00:00:00.000Z"})",
        R"({"class":"DEVICE","path":7})",
        R"({"class":"DEVICE","path":"/dev/ttyS0","activated":true})",
        "\xff\xfe{\"class\":\"TPV\"}",
        std::string(20000, '[') + std::string(20000, ']'),
        std::string(R"({"class":"TPV","mode":3,"lat":1,"lon":2,"eph":5,"device":"a)") + '\0' + "\"}x",
    };
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::holds_alternative<Invalid>(parse(line))) << line.substr(0, 200);
    }
    // The same report without damage is a fix: what failed above was the damage.
    EXPECT_TRUE(std::holds_alternative<Fix>(parse(tpvWith("speed", "0"))));
    EXPECT_TRUE(std::holds_alternative<Fix>(parse(tpvWith("time", R"("2024-02-29T00:00:00Z")"))));
}

TEST(GpsdProtocol, DeviceListsAndDeviceChanges) {
    const Message list = parse(
        R"({"class":"DEVICES","devices":[{"class":"DEVICE","path":"/dev/ttyACM0","driver":"u-blox",)"
        R"("activated":"2024-01-01T00:00:00.000Z"},{"class":"DEVICE","path":"/dev/ttyUSB1"}]})");
    ASSERT_TRUE(std::holds_alternative<DeviceList>(list));
    EXPECT_EQ(std::get<DeviceList>(list).paths, (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyUSB1"}));
    EXPECT_TRUE(std::get<DeviceList>(parse(R"({"class":"DEVICES","devices":[]})")).paths.empty());

    const struct {
        const char* line;
        bool active;
    } changes[] = {
        {R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":"2024-01-01T00:00:00.000Z"})", true},
        {R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":1714566645.5})", true},  // older versions
        {R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":0})", false},
        {R"({"class":"DEVICE","path":"/dev/ttyACM0"})", false},
        {R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":""})", false},
    };
    for (const auto& change : changes) {
        const Message message = parse(change.line);
        ASSERT_TRUE(std::holds_alternative<DeviceChange>(message)) << change.line;
        EXPECT_EQ(std::get<DeviceChange>(message).path, "/dev/ttyACM0");
        EXPECT_EQ(std::get<DeviceChange>(message).active, change.active) << change.line;
    }
}

TEST(GpsdProtocol, TimesAreReadAsUtc) {
    const struct {
        const char* text;
        double seconds;
    } valid[] = {
        {"1970-01-01T00:00:00Z", 0.0},
        {"2000-01-01T00:00:00.000Z", 946684800.0},
        {"2024-02-29T23:59:59.5Z", startOf2024 + 59 * 86400.0 + 86399.5},
        {"2024-01-01T00:00:00.123456789Z", startOf2024 + 0.123456789},
        // A leap second reads as the first second of the next day.
        {"2016-12-31T23:59:60Z", 1483228800.0},
    };
    for (const auto& row : valid) {
        const auto date = parseTime(row.text);
        ASSERT_TRUE(date.has_value()) << row.text;
        EXPECT_NEAR(date->secondsSince1970, row.seconds, 1e-6) << row.text;
    }
    for (const char* text : {"", "2024-01-01", "2024-01-01T00:00:00", "2024-01-01T00:00:00+01:00",
                             "2024-01-01 00:00:00Z", "2024-13-01T00:00:00Z", "2023-02-29T00:00:00Z",
                             "2024-01-01T24:00:00Z", "2024-01-01T00:60:00Z", "2024-01-01T00:00:61Z",
                             "2024-01-01T00:00:00.Z", "2024-01-01T00:00:00.5ZZ", "+024-01-01T00:00:00Z",
                             "2024-01-01T00:00:00.5x1Z", "２０24-01-01T00:00:00Z"}) {
        EXPECT_FALSE(parseTime(text).has_value()) << text;
    }
}

}  // namespace
}  // namespace rovalis
