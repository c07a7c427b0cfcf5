#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>

#include "platform/sim/TraceAnalysis.h"
#include "platform/sim/TraceReader.h"
#include "platform/sim/TraceTime.h"
#include "support/TestSupport.h"

namespace rovalis::sim {
namespace {

using test::TempDir;
using test::writeFile;

Date utc(const char* text) { return *parseIsoTime(text); }

// The message of the TraceError that `read` throws, or a failure.
template <typename Read>
std::string errorOf(Read read) {
    try {
        read();
    } catch (const TraceError& error) {
        return error.what();
    }
    ADD_FAILURE() << "no TraceError";
    return {};
}

TEST(TraceTime, ReadsTheFormsRecordersWrite) {
    const double base = 1705393800.0;  // 2024-01-16T08:30:00Z
    const std::pair<const char*, double> cases[] = {
        {"2024-01-16T08:30:00Z", base},         {"2024-01-16T08:30:00.250Z", base + 0.25},
        {"2024-01-16T08:30:00,5Z", base + 0.5}, {"2024-01-16T09:30:00+01:00", base},
        {"2024-01-16T03:30:00-0500", base},     {"2024-01-16T10:30:00+02", base},
        {"2024-01-16 08:30:00", base},          {"2024-01-16t08:30z", base},
        {"2024-01-17T00:00:00Z", 1705449600.0}, {"2024-01-16T24:00:00Z", 1705449600.0},
        {"1969-12-31T23:59:59Z", -1.0},         {"2024-02-29T00:00:00Z", 1709164800.0},
    };
    for (const auto& [text, seconds] : cases) {
        const auto date = parseIsoTime(text);
        ASSERT_TRUE(date) << text;
        EXPECT_DOUBLE_EQ(date->secondsSince1970, seconds) << text;
    }
    for (const char* bad : {"", "2024-01-16", "2024-02-30T00:00:00Z", "2023-02-29T00:00:00Z", "2024-01-16T25:00:00Z",
                            "2024-01-16T08:60:00Z", "2024-01-16T08:30:00Q", "2024-01-16T08:30:00+1", "16/01/2024 08:30",
                            "2024-01-16T08:30:00.Z", "2024-01-16T24:00:01Z"}) {
        EXPECT_FALSE(parseIsoTime(bad)) << bad;
    }
    EXPECT_EQ(isoTime(Date{base + 0.9996}, 3), "2024-01-16T08:30:01.000Z");
    EXPECT_EQ(isoTime(Date{-0.25}, 2), "1969-12-31T23:59:59.75Z");
    for (double seconds : {base, -86400.0 * 365 * 300, 253402300799.0}) {
        EXPECT_EQ(parseIsoTime(isoTime(Date{seconds}))->secondsSince1970, seconds);
    }
}

// A recording as phone apps write them: a byte order mark, CRLF line ends, prefixed GPX
// elements, metadata and waypoints, comments and CDATA, accuracy in extensions of all sorts.
TEST(TraceReader, ReadsGpxAsPhoneAppsWriteIt) {
    const std::string gpx =
        "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\r\n"
        "<!-- exported by a recorder -->\r\n"
        "<g:gpx xmlns:g=\"http://www.topografix.com/GPX/1/1\" xmlns:x=\"urn:example:ext\" version=\"1.1\" "
        "creator=\"app\">\r\n"
        "<g:metadata><g:name><![CDATA[Morning <walk>]]></g:name><g:time>2024-01-16T00:00:00Z</g:time></g:metadata>\r\n"
        "<g:wpt lat=\"10\" lon=\"10\"><g:time>2024-01-16T07:00:00Z</g:time></g:wpt>\r\n"
        "<g:trk><g:name>day</g:name><g:trkseg>\r\n"
        "  <g:trkpt lat=\"51.5\" lon=\"-0.1\"><g:ele>12</g:ele><g:time>2024-01-16T08:00:00.500Z</g:time>\r\n"
        "    "
        "<g:extensions><x:TrackPointExtension><x:accuracy>6.5</x:accuracy></x:TrackPointExtension></g:extensions>\r\n"
        "  </g:trkpt>\r\n"
        "  <g:trkpt lat=\"51.501\" lon=\"-0.101\"><g:time>2024-01-16T09:00:02+01:00</g:time><g:hdop>1.2</g:hdop>"
        "<g:extensions><x:hAcc>4</x:hAcc></g:extensions></g:trkpt>\r\n"
        "</g:trkseg><g:trkseg>\r\n"
        "  <g:trkpt lon=\"-0.102\" lat=\"51.502\"><g:time><!-- c "
        "-->2024-01-16T08:00:04Z</g:time><g:hdop>2</g:hdop></g:trkpt>\r\n"
        "</g:trkseg></g:trk>\r\n"
        "<g:trk><g:trkseg><g:trkpt lat=\"51.503\" lon=\"-0.103\"><g:time>2024-01-16T08:00:01Z</g:time></g:trkpt>"
        "</g:trkseg></g:trk>\r\n"
        "<g:rte><g:rtept lat=\"1\" lon=\"1\"><g:time>2024-01-16T08:00:00Z</g:time></g:rtept></g:rte>\r\n"
        "</g:gpx>\r\n";
    const auto points = parseGpx(gpx);
    const std::vector<TracePoint> expected{
        {utc("2024-01-16T08:00:00.5Z"), {51.5, -0.1}, 6.5},
        {utc("2024-01-16T08:00:01Z"), {51.503, -0.103}, std::nullopt},
        {utc("2024-01-16T08:00:02Z"), {51.501, -0.101}, 4.0},
        {utc("2024-01-16T08:00:04Z"), {51.502, -0.102}, 10.0},  // hdop 2 at 5 m each
    };
    EXPECT_EQ(points, expected);
}

TEST(TraceReader, ReadsRoutePointsOnlyWithoutTrackPoints) {
    const std::string gpx = R"(<?xml version="1.0"?>
<gpx version="1.0" xmlns="http://www.topografix.com/GPX/1/0">
  <trk><trkseg></trkseg></trk>
  <rte><rtept lat="48.85" lon="2.35"><time>2024-01-16T08:00:00Z</time></rtept>
       <rtept lat="48.86" lon="2.36"><time>2024-01-16T08:05:00Z</time></rtept></rte>
</gpx>)";
    const auto points = parseGpx(gpx);
    ASSERT_EQ(points.size(), 2u);
    EXPECT_EQ(points[1].coordinate, (LocationCoordinate2D{48.86, 2.36}));
}

TEST(TraceReader, RefusesGpxItCannotUseWithTheLine) {
    const auto wrap = [](const std::string& points) {
        return "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\">\n<trk><trkseg>\n" + points + "</trkseg></trk>\n</gpx>\n";
    };
    const std::string fine = "<trkpt lat=\"51\" lon=\"0\"><time>2024-01-16T08:00:00Z</time></trkpt>\n";
    const std::pair<std::string, std::string> cases[] = {
        {wrap(fine + "<trkpt lat=\"51\" lon=\"0\"><ele>3</ele></trkpt>\n"), "line 5: track point has no time"},
        {wrap(fine + "<trkpt lat=\"91\" lon=\"0\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"), "line 5: latitude"},
        {wrap("<trkpt lat=\"51\" lon=\"-180.5\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"), "line 4: longitude"},
        {wrap("<trkpt lat=\"nan\" lon=\"0\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"),
         "line 4: bad latitude 'nan'"},
        {wrap("<trkpt lat=\"51\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"),
         "line 4: track point without lat and lon"},
        {wrap("<trkpt lat=\"51\" lon=\"0\"><time>yesterday</time></trkpt>\n"), "line 4: bad time 'yesterday'"},
        {wrap("<trkpt lat=\"51\" lon=\"0\"><time>2024-01-16T08:00:01Z</time><hdop>-1</hdop></trkpt>\n"),
         "line 4: accuracy"},
        {wrap(fine + "<trkpt lat=\"51\" lon=\"0\">\n"), "line 6: not well-formed XML"},
        {wrap(""), "no track or route points"},
        {"<?xml version=\"1.0\"?>\n<kml><Placemark/></kml>", "line 2: not a GPX file"},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_NE(errorOf([&] { parseGpx(text); }).find(message), std::string::npos)
            << errorOf([&] { parseGpx(text); }) << "\nwanted: " << message;
    }
}

TEST(TraceReader, ReadsCsvHeadersByTheirCommonNames) {
    const std::pair<std::string, std::optional<double>> cases[] = {
        {"time,lat,lon\n2024-01-16T08:00:00Z,51.5,-0.1\n", std::nullopt},
        {"Timestamp,Latitude,Longitude,Accuracy\n2024-01-16T08:00:00Z,51.5,-0.1,7\n", 7.0},
        {"DateTime;LAT;Lng;horizontal_accuracy\n2024-01-16T08:00:00Z;51,5;-0,1;7,5\n", 7.5},
        {"date\tlatitude\tlong\thacc\n2024-01-16T08:00:00Z\t51.5\t-0.1\t\n", std::nullopt},
        {"speed,Longitude,name,Latitude,Time,acc\n3,-0.1,\"Main St, 4\",51.5,1705392000,4\n", 4.0},
        {"\"Time\",\"Lat\",\"Lon\"\n\"2024-01-16T09:00:00+01:00\",\"51.5\",\"-0.1\"\n", std::nullopt},
    };
    for (const auto& [text, accuracy] : cases) {
        const auto points = parseCsv(text);
        ASSERT_EQ(points.size(), 1u) << text;
        EXPECT_EQ(points[0], (TracePoint{utc("2024-01-16T08:00:00Z"), {51.5, -0.1}, accuracy})) << text;
    }
}

TEST(TraceReader, ReadsCsvWithoutHeaderInTimeLatitudeLongitudeOrder) {
    const std::string csv =
        "\xEF\xBB\xBF# recorded on a bike\r\n"
        "\r\n"
        "1705392000,51.5,-0.1\r\n"
        "1705392001500,51.501,-0.101,5.5\r\n"
        "   # paused\r\n"
        "\"2024-01-16T08:00:03Z\",\"51.502\",-0.102,\r\n"
        "2024-01-16T08:00:02.25Z, 51.503 , -0.103 , 3\r\n";
    const auto points = parseCsv(csv);
    const std::vector<TracePoint> expected{
        {utc("2024-01-16T08:00:00Z"), {51.5, -0.1}, std::nullopt},
        {utc("2024-01-16T08:00:01.5Z"), {51.501, -0.101}, 5.5},
        {utc("2024-01-16T08:00:02.25Z"), {51.503, -0.103}, 3.0},
        {utc("2024-01-16T08:00:03Z"), {51.502, -0.102}, std::nullopt},
    };
    EXPECT_EQ(points, expected);
}

TEST(TraceReader, RefusesCsvItCannotUseWithTheLine) {
    const std::pair<std::string, std::string> cases[] = {
        {"time,lat,lon\n1705392000,51.5,-0.1\n1705392001,95,-0.1\n", "line 3: latitude"},
        {"time,lat,lon\n\n# note\n1705392000,51.5\n", "line 4: expected at least 3 fields, found 2"},
        {"time,lat,lon\n1705392000,51.5,east\n", "line 2: bad longitude 'east'"},
        {"time,lat,lon,acc\n1705392000,51.5,-0.1,-3\n", "line 2: accuracy"},
        {"when,lat,lon\n1705392000,51.5,-0.1\n", "line 1: the header names no time column"},
        {"time,x,y\n1705392000,51.5,-0.1\n", "line 1: the header names no latitude and longitude"},
        {"id,x,y\n1,51.5,-0.1\n", "line 1: the first row is neither a header"},
        {"1705392000,51.5,-0.1\nnoon,51.5,-0.1\n", "line 2: bad time 'noon'"},
        {"1705392000,\"51.5\n", "line 1: a quoted field is not closed"},
        {"# nothing yet\n\n", "the trace has no points"},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_NE(errorOf([&] { parseCsv(text); }).find(message), std::string::npos)
            << errorOf([&] { parseCsv(text); }) << "\nwanted: " << message;
    }
}

TEST(TraceReader, ChoosesTheFormatByContentAndNamesTheFile) {
    TempDir directory;
    writeFile(directory / "a.txt",
              "\xEF\xBB\xBF\n  <gpx><trk><trkseg><trkpt lat=\"1\" lon=\"2\"><time>2024-01-16T08:00:00Z</time></trkpt>"
              "</trkseg></trk></gpx>");
    writeFile(directory / "b.gpx", "time,lat,lon\n2024-01-16T08:00:00Z,1,2\n");
    EXPECT_EQ(readTrace(directory / "a.txt"), readTrace(directory / "b.gpx"));

    writeFile(directory / "bad.csv", "time,lat,lon\n2024-01-16T08:00:00Z,1,200\n");
    const std::string bad = errorOf([&] { readTrace(directory / "bad.csv"); });
    EXPECT_EQ(bad.find((directory / "bad.csv").string() + ": line 2: longitude"), 0u) << bad;
    const std::string missing = errorOf([&] { readTrace(directory / "missing.gpx"); });
    EXPECT_NE(missing.find("missing.gpx: cannot open"), std::string::npos) << missing;
}

// --- stays -----------------------------------------------------------------------------------

const LocationCoordinate2D origin{51.5, -0.1};

// The point `metres` east of the origin (west when negative).
LocationCoordinate2D east(double metres) {
    double latitude = 0.0, longitude = 0.0;
    GeographicLib::Geodesic::WGS84().Direct(origin.latitude, origin.longitude, 90.0, metres, latitude, longitude);
    return {latitude, longitude};
}

const Date t0{1705392000.0};

TracePoint at(double seconds, LocationCoordinate2D where) { return TracePoint{t0.addingSeconds(seconds), where, 5.0}; }

// Every second of the stay the path is within the radius of its centre, and the stay is at
// least the minimum long.
void expectHolds(const TruePath& path, const TrueStay& stay, double radius, double minimum) {
    EXPECT_GE(stay.duration(), minimum);
    for (Date t = stay.start; t <= stay.end; t = t.addingSeconds(1.0)) {
        ASSERT_LE(distanceBetween(path.at(t).coordinate, stay.centre), radius + 0.5) << t.timeIntervalSince(t0);
    }
}

TEST(TraceAnalysis, FindsAStayOfExactlyTheMinimumAndNothingShorter) {
    // Arriving and leaving take a second, so the path is within the radius for just the stay.
    for (const double seconds : {600.0, 599.0}) {
        const TruePath path({at(0, east(-1000)), at(9, east(-1000)), at(10, origin), at(10 + seconds, origin),
                             at(11 + seconds, east(1000)), at(30 + seconds, east(1000))});
        const auto stays = findStays(path, 150.0, 600.0);
        if (seconds < 600.0) {
            EXPECT_TRUE(stays.empty());
            continue;
        }
        ASSERT_EQ(stays.size(), 1u);
        EXPECT_EQ(stays[0].start, t0.addingSeconds(10));
        EXPECT_EQ(stays[0].end, t0.addingSeconds(610));
        EXPECT_LT(distanceBetween(stays[0].centre, origin), 0.01);
    }
}

TEST(TraceAnalysis, EndsAStayWhenASlowDriftLeavesTheRadius) {
    // Twenty minutes still, then an hour creeping east at 0.1 m/s: too slow to count as
    // moving, but out of the radius in the end.
    std::vector<TracePoint> points{at(0, origin), at(1200, origin)};
    for (int minute = 1; minute <= 60; ++minute) points.push_back(at(1200 + minute * 60.0, east(minute * 6.0)));
    const TruePath path(points);
    const auto stays = findStays(path);
    ASSERT_EQ(stays.size(), 2u);
    EXPECT_EQ(stays[0].start, path.start());
    EXPECT_EQ(stays[1].end, path.end());
    EXPECT_GT(stays[1].start, stays[0].end);
    for (const auto& stay : stays) expectHolds(path, stay, 150.0, 600.0);
    // The first ends at the first sample that would not fit, 10 s later at most.
    EXPECT_GT(distanceBetween(path.at(stays[0].end.addingSeconds(10)).coordinate, stays[0].centre), 145.0);
}

TEST(TraceAnalysis, FindsStaysAtTheStartAndEndButNotAShortStop) {
    // Half an hour at home, a walk of 1.4 km with a five-minute stop half way, half an hour
    // at work; a point every 10 s while walking.
    std::vector<TracePoint> points{at(0, origin)};
    double clock = 1800.0, along = 0.0;
    points.push_back(at(clock, origin));
    while (along < 1400.0) {
        clock += 10.0;
        along += 14.0;
        points.push_back(at(clock, east(along)));
        if (along == 700.0) points.push_back(at(clock += 300.0, east(along)));
    }
    const double leftHome = 1800.0, arrived = clock;
    points.push_back(at(clock + 1800.0, east(1400.0)));
    const TruePath path(points);
    const auto stays = findStays(path);
    ASSERT_EQ(stays.size(), 2u);
    EXPECT_EQ(stays[0].start, path.start());
    EXPECT_EQ(stays[1].end, path.end());
    // The ends run on while the walker is still within the radius: 150 m at 1.4 m/s.
    EXPECT_GE(stays[0].end.timeIntervalSince(t0), leftHome);
    EXPECT_LE(stays[0].end.timeIntervalSince(t0), leftHome + 150.0 / 1.4 + 20.0);
    EXPECT_LE(stays[1].start.timeIntervalSince(t0), arrived);
    EXPECT_GE(stays[1].start.timeIntervalSince(t0), arrived - 150.0 / 1.4 - 20.0);
    EXPECT_LT(distanceBetween(stays[0].centre, origin), 20.0);
    EXPECT_LT(distanceBetween(stays[1].centre, east(1400.0)), 20.0);
    for (const auto& stay : stays) expectHolds(path, stay, 150.0, 600.0);

    EXPECT_NEAR(pathLength(path), 1400.0, 0.01);
    const auto times = movementTimes(path);
    EXPECT_DOUBLE_EQ(times.movingSeconds, 1000.0);
    EXPECT_DOUBLE_EQ(times.standingSeconds, path.end().timeIntervalSince(path.start()) - 1000.0);
}

// --- the committed day -----------------------------------------------------------------------

TEST(LondonWeekdayTrace, HasTheStaysItsReadmeLists) {
    const auto file = std::filesystem::path(ROVALIS_SOURCE_DATA_DIR) / "traces" / "london-weekday.gpx";
    EXPECT_LT(std::filesystem::file_size(file), 1500u * 1000u);
    const auto points = readTrace(file);
    const TruePath path(points);
    EXPECT_EQ(path.start(), utc("2024-01-16T00:00:00Z"));
    EXPECT_EQ(path.end(), utc("2024-01-17T00:00:00Z"));
    for (const auto& point : points) ASSERT_TRUE(point.accuracy);

    struct Expected {
        const char* place;
        LocationCoordinate2D where;
        const char* start;
        const char* end;
    };
    const LocationCoordinate2D home{51.45550, -0.10750}, office{51.51485, -0.09920};
    const Expected expected[] = {
        {"home", home, "00:00:00", "07:54:50"},
        {"office", office, "08:24:06", "12:31:55"},
        {"café", {51.50800, -0.09810}, "12:39:07", "12:59:07"},
        {"office", office, "13:13:36", "17:37:10"},
        {"shop", {51.46080, -0.11210}, "18:09:28", "18:28:39"},
        {"home", home, "18:33:47", "24:00:00"},
    };
    const auto stays = findStays(path);
    ASSERT_EQ(stays.size(), std::size(expected));
    for (std::size_t i = 0; i < stays.size(); ++i) {
        const auto clock = [](const char* hms) { return utc((std::string("2024-01-16T") + hms + "Z").c_str()); };
        EXPECT_LT(distanceBetween(stays[i].centre, expected[i].where), 30.0) << expected[i].place;
        EXPECT_EQ(isoTime(stays[i].start), isoTime(clock(expected[i].start))) << expected[i].place;
        EXPECT_EQ(isoTime(stays[i].end), isoTime(clock(expected[i].end))) << expected[i].place;
    }

    // Moving, a fix every 1-4 s; the one long gap is the Tube.
    int gaps = 0;
    for (std::size_t i = 1; i < points.size(); ++i) {
        const double gap = points[i].time.timeIntervalSince(points[i - 1].time);
        if (gap > 1000.0) ++gaps;
        if (gap <= 5.0) continue;
        const bool still = distanceBetween(points[i].coordinate, points[i - 1].coordinate) < 40.0;
        EXPECT_TRUE(still || gap > 1000.0) << isoTime(points[i].time);
    }
    EXPECT_EQ(gaps, 1);
}

}  // namespace
}  // namespace rovalis::sim
