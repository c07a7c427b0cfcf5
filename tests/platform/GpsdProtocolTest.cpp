#include "platform/linux/GpsdProtocol.h"

#include <gtest/gtest.h>

#include <string>
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

TEST(GpsdProtocol, FixesTakeEveryFieldAndFallBackAsTheReportAllows) {
    const Location fix = fixOf(
        R"({"class":"TPV","mode":3,"time":"2024-05-01T12:30:45.250Z","lat":52.520008,"lon":13.404954,"altHAE":80.5,)"
        R"("altMSL":41.25,"alt":41.0,"epx":3.1,"epy":4.2,"eph":6.5,"epv":9.75,"track":271.5,"speed":1.25})");
    EXPECT_EQ(fix.coordinate, (LocationCoordinate2D{52.520008, 13.404954}));
    EXPECT_EQ(fix.altitude, 41.25) << "mean sea level, as the platform gives it";
    EXPECT_EQ(fix.horizontalAccuracy, 6.5);
    EXPECT_EQ(fix.verticalAccuracy, 9.75);
    EXPECT_EQ(fix.speed, 1.25);
    EXPECT_EQ(fix.course, 271.5);
    // Jan 31 + Feb 29 + Mar 31 + Apr 30 = 121 days into 2024.
    EXPECT_DOUBLE_EQ(fix.timestamp.secondsSince1970, startOf2024 + 121 * 86400.0 + 12 * 3600 + 30 * 60 + 45.25);

    const std::string head = R"({"class":"TPV","time":"2024-01-01T00:00:00Z","lat":1.5,"lon":-2.5,)";
    EXPECT_DOUBLE_EQ(fixOf(head + R"("mode":2,"epx":3.0,"epy":4.0})").horizontalAccuracy, 5.0) << "axes combine";
    EXPECT_EQ(fixOf(head + R"("mode":2,"epy":7.0})").horizontalAccuracy, 7.0) << "one axis alone stands";
    const Location flat = fixOf(head + R"("mode":2,"eph":8,"altMSL":30,"epv":4})");
    EXPECT_EQ(flat.altitude, 0.0) << "a 2D fix has no altitude";
    EXPECT_LT(flat.verticalAccuracy, 0.0);
    EXPECT_LT(flat.speed, 0.0);
    EXPECT_LT(flat.course, 0.0);
    EXPECT_EQ(fixOf(head + R"("mode":3,"eph":8,"alt":12,"altHAE":50})").altitude, 12.0) << "older versions' alt";
    EXPECT_EQ(fixOf(head + R"("mode":3,"eph":8,"altHAE":50})").altitude, 50.0) << "ellipsoid height last";
    EXPECT_EQ(fixOf(head + R"("mode":2,"eph":8,"track":360})").course, 0.0);
    EXPECT_EQ(fixOf(R"({"class":"TPV","mode":2,"lat":1,"lon":2,"eph":5})").timestamp, received)
        << "a fix without a time of its own is stamped when it arrived";
}

TEST(GpsdProtocol, ReportsWithoutAUsableFixAndOtherClasses) {
    for (const char* line : {R"({"class":"TPV","mode":1,"lat":1,"lon":2,"eph":3})",
                             R"({"class":"TPV","mode":3,"lat":1,"lon":2,"altMSL":3})"}) {  // nothing to judge it by
        EXPECT_TRUE(std::holds_alternative<NoFix>(parse(line))) << line;
    }
    for (const char* line :
         {R"({"class":"VERSION","release":"3.25"})", R"({"class":"tpv","mode":3,"lat":1,"lon":2,"eph":3})"}) {
        EXPECT_TRUE(std::holds_alternative<Other>(parse(line))) << line;
    }
}

TEST(GpsdProtocol, DamagedRepliesAreInvalidNeverFixes) {
    const std::string tpv = R"({"class":"TPV","mode":3,"lat":1,"lon":2,"eph":5)";
    const std::string lines[] = {
        // Not JSON, not an object, no class, cut short, nested deeper than any reply.
        "", "garbage", "[1,2,3]", R"({"class":5})", tpv, std::string(20000, '[') + std::string(20000, ']'),
        // The mode: missing, of the wrong type, out of range.
        R"({"class":"TPV","lat":1,"lon":2,"eph":5})", R"({"class":"TPV","mode":"3","lat":1,"lon":2,"eph":5})",
        R"({"class":"TPV","mode":4,"lat":1,"lon":2,"eph":5})",
        // A position missing, of the wrong type, off the globe.
        R"({"class":"TPV","mode":2,"lon":2,"eph":5})", R"({"class":"TPV","mode":3,"lat":"51","lon":2,"eph":5})",
        R"({"class":"TPV","mode":3,"lat":91,"lon":2,"eph":5})",
        // Other fields, even in a report without a fix.
        tpv + R"(,"speed":-1})", tpv + R"(,"speed":1e999})", tpv + R"(,"track":361})", tpv + R"(,"altHAE":[1]})",
        tpv + R"(,"time":"2024-02-30T00:00:00Z"})", R"({"class":"TPV","mode":1,"lat":"x"})",
        R"({"class":"DEVICES","devices":{"path":"/dev/ttyS0"}})", R"({"class":"DEVICES","devices":[{"driver":"x"}]})",
        R"({"class":"DEVICE","path":"/dev/ttyS0","activated":true})",
    };
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::holds_alternative<Invalid>(parse(line))) << line.substr(0, 80);
    }
    // What failed above was the damage.
    EXPECT_TRUE(std::holds_alternative<Fix>(parse(tpv + R"(,"speed":0,"time":"2024-02-29T00:00:00Z"})")));
}

TEST(GpsdProtocol, DeviceListsAndDeviceChanges) {
    const Message list = parse(R"({"class":"DEVICES","devices":[{"path":"/dev/ttyACM0"},{"path":"/dev/ttyUSB1"}]})");
    ASSERT_TRUE(std::holds_alternative<DeviceList>(list));
    EXPECT_EQ(std::get<DeviceList>(list).paths, (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyUSB1"}));
    const auto change = [](const std::string& activated) {
        const Message message = parse(R"({"class":"DEVICE","path":"/dev/ttyACM0")" + activated + "}");
        EXPECT_EQ(std::get<DeviceChange>(message).path, "/dev/ttyACM0");
        return std::get<DeviceChange>(message).active;
    };
    EXPECT_TRUE(change(R"(,"activated":"2024-01-01T00:00:00.000Z")"));
    EXPECT_TRUE(change(R"(,"activated":1714566645.5)")) << "older versions give seconds";
    EXPECT_FALSE(change(R"(,"activated":0)"));
    EXPECT_FALSE(change(R"(,"activated":"")"));
    EXPECT_FALSE(change(""));
}

TEST(GpsdProtocol, TimesAreReadAsUtc) {
    EXPECT_NEAR(parseTime("2024-02-29T23:59:59.5Z").value().secondsSince1970, startOf2024 + 60 * 86400.0 - 0.5, 1e-6);
    EXPECT_NEAR(parseTime("2024-01-01T00:00:00.123456789Z").value().secondsSince1970, startOf2024 + 0.123456789, 1e-6);
    EXPECT_EQ(parseTime("2016-12-31T23:59:60Z").value().secondsSince1970, 1483228800.0) << "a leap second";
    for (const char* text : {"2024-01-01T00:00:00", "2024-01-01T00:00:00+01:00", "2024-13-01T00:00:00Z",
                             "2023-02-29T00:00:00Z", "2024-01-01T24:00:00Z", "2024-01-01T00:00:61Z",
                             "2024-01-01T00:00:00.Z", "2024-01-01T00:00:00.5ZZ"}) {
        EXPECT_FALSE(parseTime(text).has_value()) << text;
    }
}

}  // namespace
}  // namespace rovalis
