// rovalis-tracegen: writes a recorded day for the simulator, the same for the same seed.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <limits>

#include "LondonWeekday.h"
#include "platform/sim/TraceAnalysis.h"
#include "platform/sim/TraceTime.h"

namespace {

using namespace rovalis;
using namespace rovalis::tracegen;

std::string coordinate(double degrees) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6f", degrees);
    return text;
}

std::string metres(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string clockTime(Date date) { return sim::isoTime(date).substr(11, 8); }

void writeGpx(std::ostream& out, const Recorder& recorder, std::uint64_t seed) {
    const auto& first = recorder.segments().front().front();
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<gpx version=\"1.1\" creator=\"rovalis-tracegen\" xmlns=\"http://www.topografix.com/GPX/1/1\" "
           "xmlns:rvl=\"urn:rovalis:trace:1\">\n"
           " <metadata>\n"
           "  <name>London weekday</name>\n"
           "  <desc>A generated day: rovalis-tracegen --seed "
        << seed << "</desc>\n"
        << "  <time>" << sim::isoTime(first.time) << "</time>\n"
        << " </metadata>\n"
           " <trk>\n"
           "  <name>London weekday</name>\n";
    for (const auto& segment : recorder.segments()) {
        if (segment.empty()) continue;
        out << "  <trkseg>\n";
        for (const auto& point : segment) {
            out << "   <trkpt lat=\"" << coordinate(point.coordinate.latitude) << "\" lon=\""
                << coordinate(point.coordinate.longitude) << "\"><time>" << sim::isoTime(point.time)
                << "</time><extensions><rvl:hacc>" << metres(*point.accuracy) << "</rvl:hacc></extensions></trkpt>\n";
        }
        out << "  </trkseg>\n";
    }
    out << " </trk>\n</gpx>\n";
}

void writeCsv(std::ostream& out, const Recorder& recorder) {
    out << "time,latitude,longitude,accuracy\n";
    for (const auto& segment : recorder.segments()) {
        for (const auto& point : segment) {
            out << sim::isoTime(point.time) << ',' << coordinate(point.coordinate.latitude) << ','
                << coordinate(point.coordinate.longitude) << ',' << metres(*point.accuracy) << '\n';
        }
    }
}

void printSummary(const Recorder& recorder) {
    std::vector<sim::TracePoint> points;
    for (const auto& segment : recorder.segments()) points.insert(points.end(), segment.begin(), segment.end());
    std::cout << points.size() << " points\n\nThe day:\n";
    for (const Leg& leg : recorder.legs()) {
        std::cout << "  " << clockTime(leg.start) << " - " << clockTime(leg.end) << "  " << leg.what << "\n";
    }
    const sim::TruePath path(points);
    std::cout << "\nStays (150 m, 10 min):\n";
    for (const sim::TrueStay& stay : sim::findStays(path)) {
        std::string nearest;
        double distance = std::numeric_limits<double>::infinity();
        for (const NamedPlace& place : londonWeekdayPlaces()) {
            if (const double d = sim::distanceBetween(stay.centre, place.where); d < distance) {
                distance = d;
                nearest = place.name;
            }
        }
        std::cout << "  " << clockTime(stay.start) << " - " << clockTime(stay.end) << "  " << nearest << " ("
                  << metres(distance) << " m from it)\n";
    }
    const auto times = sim::movementTimes(path);
    std::cout << "\nLength " << metres(sim::pathLength(path) / 1000.0) << " km; moving "
              << metres(times.movingSeconds / 60.0) << " min, standing " << metres(times.standingSeconds / 60.0)
              << " min\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t seed = 20240116;
    std::string date = "2024-01-16";
    std::string gpxPath = "london-weekday.gpx";
    std::string csvPath;
    CLI::App app{"Writes a generated day in London as a phone app would record it."};
    app.add_option("--seed", seed, "Seed of the position errors, pauses and dwell times")->capture_default_str();
    app.add_option("--date", date, "The day, YYYY-MM-DD (a winter day keeps UTC and London's clock one)")
        ->capture_default_str();
    app.add_option("--out", gpxPath, "The GPX 1.1 file to write")->capture_default_str();
    app.add_option("--csv", csvPath, "Also write the points as CSV to this file");
    CLI11_PARSE(app, argc, argv);

    const auto midnight = sim::parseIsoTime(date + "T00:00:00Z");
    if (!midnight) {
        std::cerr << "--date: expected YYYY-MM-DD, not '" << date << "'" << std::endl;
        return 2;
    }
    Recorder recorder(*midnight, seed);
    recordLondonWeekday(recorder, *midnight);

    std::ofstream gpx(gpxPath, std::ios::binary);
    writeGpx(gpx, recorder, seed);
    if (!gpx.flush()) {
        std::cerr << "cannot write " << gpxPath << std::endl;
        return 1;
    }
    if (!csvPath.empty()) {
        std::ofstream csv(csvPath, std::ios::binary);
        writeCsv(csv, recorder);
        if (!csv.flush()) {
            std::cerr << "cannot write " << csvPath << std::endl;
            return 1;
        }
    }
    printSummary(recorder);
    return 0;
}
