#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>

#include "platform/sim/TraceAnalysis.h"
#include "platform/sim/TraceReader.h"
#include "platform/sim/TraceTime.h"
#include "support/TestSupport.h"

namespace rovalis::sim {
namespace {

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

template <typename Parse>
void expectRefusals(Parse parse, const std::vector<std::pair<std::string, std::string>>& cases) {
    for (const auto& [text, message] : cases) {
        const std::string error = errorOf([&parse, &text = text] { parse(text); });
        EXPECT_NE(error.find(message), std::string::npos) << error << "\nwanted: " << message;
    }
}

TEST(TraceTime, ReadsTheFormsRecordersWrite) {
    const double base = 1705393800.0;  // 2024-01-16T08:30:00Z
    for (const auto& [text, seconds] : {std::pair{"2024-01-16T08:30:00,5Z", base + 0.5},
                                        {"2024-01-16T03:30:00-0500", base}, {"2024-01-16T10:30:00+02", base},
                                        {"2024-01-16t08:30z", base}, {"2024-01-16 08:30:00", base},
                                        {"2024-01-16T24:00:00Z", 1705449600.0}, {"1969-12-31T23:59:59Z", -1.0}}) {
        EXPECT_DOUBLE_EQ(parseIsoTime(text)->secondsSince1970, seconds) << text;
    }
    for (const char* bad : {"2024-02-30T00:00:00Z", "2023-02-29T00:00:00Z", "2024-01-16T08:60:00Z",
                            "2024-01-16T08:30:00+1", "2024-01-16T08:30:00.Z", "2024-01-16T24:00:01Z"}) {
        EXPECT_FALSE(parseIsoTime(bad)) << bad;
    }
    EXPECT_EQ(isoTime(Date{base + 0.9996}, 3), "2024-01-16T08:30:01.000Z") << "rounded once, never to second 60";
}

// As phone apps write it: a byte order mark, CRLF, prefixed elements, waypoints, several
// tracks and segments out of order, accuracy in extensions or from hdop, times with
// fractions and offsets.
TEST(TraceReader, ReadsGpxAsPhoneAppsWriteIt) {
    const std::string gpx =
        "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
        "<g:gpx xmlns:g=\"http://www.topografix.com/GPX/1/1\" xmlns:x=\"urn:example:ext\" version=\"1.1\">\r\n"
        "<g:wpt lat=\"10\" lon=\"10\"><g:time>2024-01-16T07:00:00Z</g:time></g:wpt>\r\n"
        "<g:trk><g:trkseg>\r\n"
        "  <g:trkpt lat=\"51.5\" lon=\"-0.1\"><g:time>2024-01-16T08:00:00.500Z</g:time>\r\n"
        "    <g:extensions><x:Ext><x:accuracy>6.5</x:accuracy></x:Ext></g:extensions></g:trkpt>\r\n"
        "  <g:trkpt lat=\"51.501\" lon=\"-0.101\"><g:time>2024-01-16T09:00:02+01:00</g:time><g:hdop>1.2</g:hdop>"
        "<g:extensions><x:hAcc>4</x:hAcc></g:extensions></g:trkpt>\r\n"
        "</g:trkseg><g:trkseg>\r\n"
        "  <g:trkpt lon=\"-0.102\" lat=\"51.502\"><g:time>2024-01-16T08:00:04Z</g:time><g:hdop>2</g:hdop></g:trkpt>\r\n"
        "</g:trkseg></g:trk>\r\n"
        "<g:trk><g:trkseg><g:trkpt lat=\"51.503\" lon=\"-0.103\"><g:time>2024-01-16T08:00:01Z</g:time></g:trkpt>"
        "</g:trkseg></g:trk>\r\n"
        "<g:rte><g:rtept lat=\"1\" lon=\"1\"><g:time>2024-01-16T08:00:00Z</g:time></g:rtept></g:rte>\r\n"
        "</g:gpx>\r\n";
    const std::vector<TracePoint> expected{
        {utc("2024-01-16T08:00:00.5Z"), {51.5, -0.1}, 6.5},
        {utc("2024-01-16T08:00:01Z"), {51.503, -0.103}, std::nullopt},
        {utc("2024-01-16T08:00:02Z"), {51.501, -0.101}, 4.0},   // an extension wins over hdop
        {utc("2024-01-16T08:00:04Z"), {51.502, -0.102}, 10.0},  // hdop 2 at 5 m each
    };
    EXPECT_EQ(parseGpx(gpx), expected);

    // Route points only count when there are no track points.
    const auto route = parseGpx(R"(<gpx version="1.0" xmlns="http://www.topografix.com/GPX/1/0"><trk><trkseg/></trk>
<rte><rtept lat="48.85" lon="2.35"><time>2024-01-16T08:00:00Z</time></rtept>
<rtept lat="48.86" lon="2.36"><time>2024-01-16T08:05:00Z</time></rtept></rte></gpx>)");
    ASSERT_EQ(route.size(), 2u);
    EXPECT_EQ(route[1].coordinate, (LocationCoordinate2D{48.86, 2.36}));
}

TEST(TraceReader, RefusesGpxItCannotUseWithTheLine) {
    const auto wrap = [](const std::string& points) {
        return "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\">\n<trk><trkseg>\n" + points + "</trkseg></trk>\n</gpx>\n";
    };
    const std::string fine = "<trkpt lat=\"51\" lon=\"0\"><time>2024-01-16T08:00:00Z</time></trkpt>\n";
    expectRefusals(parseGpx, {
        {wrap(fine + "<trkpt lat=\"51\" lon=\"0\"><ele>3</ele></trkpt>\n"), "line 5: track point has no time"},
        {wrap(fine + "<trkpt lat=\"91\" lon=\"0\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"), "line 5: latitude"},
        {wrap("<trkpt lat=\"nan\" lon=\"0\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"), "line 4: bad latitude"},
        {wrap("<trkpt lat=\"51\"><time>2024-01-16T08:00:01Z</time></trkpt>\n"), "line 4: track point without lat"},
        {wrap("<trkpt lat=\"51\" lon=\"0\"><time>yesterday</time></trkpt>\n"), "line 4: bad time 'yesterday'"},
        {wrap(fine + "<trkpt lat=\"51\" lon=\"0\">\n"), "line 6: not well-formed XML"},
        {wrap(""), "no track or route points"},
        {"<?xml version=\"1.0\"?>\n<kml><Placemark/></kml>", "line 2: not a GPX file"},
    });
}

TEST(TraceReader, ReadsCsvWithHeadersByTheirCommonNamesOrWithout) {
    const std::pair<std::string, std::optional<double>> cases[] = {
        {"Timestamp,Latitude,Longitude,Accuracy\n2024-01-16T08:00:00Z,51.5,-0.1,7\n", 7.0},
        {"DateTime;LAT;Lng;horizontal_accuracy\n2024-01-16T08:00:00Z;51,5;-0,1;7,5\n", 7.5},
        {"date\tlatitude\tlong\thacc\n2024-01-16T08:00:00Z\t51.5\t-0.1\t\n", std::nullopt},
        {"speed,Longitude,name,Latitude,Time,acc\n3,-0.1,\"Main St, 4\",51.5,1705392000,4\n", 4.0},
        {"\"Time\",\"Lat\",\"Lon\"\n\"2024-01-16T09:00:00+01:00\",\"51.5\",\"-0.1\"\n", std::nullopt},
    };
    for (const auto& [text, accuracy] : cases) {
        EXPECT_EQ(parseCsv(text), (std::vector<TracePoint>{{utc("2024-01-16T08:00:00Z"), {51.5, -0.1}, accuracy}}))
            << text;
    }
    // Without a header: time, latitude, longitude[, accuracy].
    const std::string csv =
        "\xEF\xBB\xBF# recorded on a bike\r\n"
        "\r\n"
        "1705392000,51.5,-0.1\r\n"
        "1705392001500,51.501,-0.101,5.5\r\n"  // milliseconds
        "   # paused\r\n"
        "\"2024-01-16T08:00:03Z\",\"51.502\",-0.102,\r\n"
        "2024-01-16T08:00:02.25Z, 51.503 , -0.103 , 3\r\n";
    const std::vector<TracePoint> expected{
        {utc("2024-01-16T08:00:00Z"), {51.5, -0.1}, std::nullopt},
        {utc("2024-01-16T08:00:01.5Z"), {51.501, -0.101}, 5.5},
        {utc("2024-01-16T08:00:02.25Z"), {51.503, -0.103}, 3.0},
        {utc("2024-01-16T08:00:03Z"), {51.502, -0.102}, std::nullopt},
    };
    EXPECT_EQ(parseCsv(csv), expected);
}

TEST(TraceReader, RefusesCsvItCannotUseWithTheLine) {
    expectRefusals(parseCsv, {
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
    });
}

TEST(TraceReader, ChoosesTheFormatByContentAndNamesTheFile) {
    test::TempDir directory;
    test::writeFile(directory / "a.txt", "\xEF\xBB\xBF\n  <gpx><trk><trkseg><trkpt lat=\"1\" lon=\"2\">"
                                         "<time>2024-01-16T08:00:00Z</time></trkpt></trkseg></trk></gpx>");
    test::writeFile(directory / "b.gpx", "time,lat,lon\n2024-01-16T08:00:00Z,1,2\n");
    EXPECT_EQ(readTrace(directory / "a.txt"), readTrace(directory / "b.gpx"));

    test::writeFile(directory / "bad.csv", "time,lat,lon\n2024-01-16T08:00:00Z,1,200\n");
    const std::string bad = errorOf([&] { readTrace(directory / "bad.csv"); });
    EXPECT_EQ(bad.find((directory / "bad.csv").string() + ": line 2: longitude"), 0u) << bad;
    EXPECT_NE(errorOf([&] { readTrace(directory / "missing.gpx"); }).find("missing.gpx: cannot open"),
              std::string::npos);
}

// --- stays -----------------------------------------------------------------------------------

const LocationCoordinate2D origin{51.5, -0.1};
const Date t0{1705392000.0};

// The point `metres` east of the origin (west when negative).
LocationCoordinate2D east(double metres) {
    double latitude = 0.0, longitude = 0.0;
    GeographicLib::Geodesic::WGS84().Direct(origin.latitude, origin.longitude, 90.0, metres, latitude, longitude);
    return {latitude, longitude};
}

TracePoint at(double seconds, LocationCoordinate2D where) { return TracePoint{t0.addingSeconds(seconds), where, 5.0}; }

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
        EXPECT_NEAR(pathLength(path), 2000.0, 0.01);
        EXPECT_DOUBLE_EQ(movementTimes(path).movingSeconds, 2.0) << "only the two one-second legs move";
        EXPECT_DOUBLE_EQ(movementTimes(path).standingSeconds, 628.0);
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
    for (const auto& stay : stays) {
        EXPECT_GE(stay.duration(), 600.0);
        for (Date t = stay.start; t <= stay.end; t = t.addingSeconds(1.0)) {
            ASSERT_LE(distanceBetween(path.at(t).coordinate, stay.centre), 150.5) << t.timeIntervalSince(t0);
        }
    }
    // The first ends at the first sample that would not fit, 10 s later at most.
    EXPECT_GT(distanceBetween(path.at(stays[0].end.addingSeconds(10)).coordinate, stays[0].centre), 145.0);
}

// --- the committed day -----------------------------------------------------------------------

TEST(LondonWeekdayTrace, HasTheStaysItsReadmeLists) {
    const auto points = readTrace(std::filesystem::path(ROVALIS_SOURCE_DATA_DIR) / "traces" / "london-weekday.gpx");
    const TruePath path(points);
    EXPECT_EQ(path.start(), utc("2024-01-16T00:00:00Z"));
    EXPECT_EQ(path.end(), utc("2024-01-17T00:00:00Z"));
    for (const auto& point : points) ASSERT_TRUE(point.accuracy);

    const LocationCoordinate2D home{51.45550, -0.10750}, office{51.51485, -0.09920};
    const std::tuple<LocationCoordinate2D, const char*, const char*> expected[] = {
        {home, "00:00:00", "07:54:50"},
        {office, "08:24:06", "12:31:55"},
        {{51.50800, -0.09810}, "12:39:07", "12:59:07"},  // café
        {office, "13:13:36", "17:37:10"},
        {{51.46080, -0.11210}, "18:09:28", "18:28:39"},  // shop
        {home, "18:33:47", "00:00:00"},                  // midnight, the day's end
    };
    const auto stays = findStays(path);
    ASSERT_EQ(stays.size(), std::size(expected));
    for (std::size_t i = 0; i < stays.size(); ++i) {
        const auto& [where, start, end] = expected[i];
        EXPECT_LT(distanceBetween(stays[i].centre, where), 30.0) << i;
        EXPECT_EQ(isoTime(stays[i].start).substr(11, 8), start) << i;
        EXPECT_EQ(isoTime(stays[i].end).substr(11, 8), end) << i;
    }

    // Moving, a fix every 1-4 s; the one long gap is the Tube.
    int gaps = 0;
    for (std::size_t i = 1; i < points.size(); ++i) {
        const double gap = points[i].time.timeIntervalSince(points[i - 1].time);
        if (gap > 1000.0) ++gaps;
        const bool still = distanceBetween(points[i].coordinate, points[i - 1].coordinate) < 40.0;
        EXPECT_TRUE(gap <= 5.0 || still || gap > 1000.0) << isoTime(points[i].time);
    }
    EXPECT_EQ(gaps, 1);
}

}  // namespace
}  // namespace rovalis::sim
