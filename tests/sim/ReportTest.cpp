#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <GeographicLib/Geodesic.hpp>
#include <nlohmann/json.hpp>

#include "sim/MapProjection.h"
#include "sim/ReportFigures.h"
#include "sim/ReportRenderers.h"

namespace rovalis::sim {
namespace {

using nlohmann::json;

constexpr double kMidnight = 1715644800.0;  // 2024-05-14 00:00:00 UTC
const LocationCoordinate2D kHome{52.52, 13.405};
const LocationCoordinate2D kOffice{52.53, 13.42};
const std::string kHostile = "<script>&\"'";

Date at(int hours, int minutes = 0) { return Date{kMidnight + hours * 3600.0 + minutes * 60.0}; }

LocationCoordinate2D offset(const LocationCoordinate2D& from, double azimuth, double metres) {
    LocationCoordinate2D to;
    GeographicLib::Geodesic::WGS84().Direct(from.latitude, from.longitude, azimuth, metres, to.latitude, to.longitude);
    return to;
}

// A day with one stay the SDK found, one it missed and one sleep while the device moved.
SimulationReport sampleReport() {
    SimulationReport report;
    report.traceName = "commute";
    report.seed = 7;
    report.start = at(0);
    report.end = at(24);
    report.wallSeconds = 4.0;
    report.truePath = {kHome, offset(kHome, 45, 800), kOffice};
    report.fixes = {{at(6, 30), kHome, 8.0, "regular"},
                    {at(7, 6), kHome, 30.0, "PauseManager"},
                    {at(11, 30), kOffice, 800.0, "regular"}};
    report.stays = {{at(7), at(8), kHome, at(7, 12), at(8, 1)}, {at(12), at(12, 40), kOffice, {}, {}}};
    report.transitions = {{at(7, 12), true, "no movement in 10 minutes", kHome, 12.0},
                          {at(8, 1), false, "exited geofence", kHome, 20.0},
                          {at(10), true, "no movement in 10 minutes", offset(kHome, 90, 600), 15.0},
                          {at(10, 20), false, "significant location", std::nullopt, 0.0}};
    report.geofences = {{at(7, 12), "centre", kHome, 150.0, true},
                        {at(7, 12), "ring-0", offset(kHome, 0, 300), 150.0, false}};
    report.crossings = {{at(8), "centre", true}};
    report.significantFixes = {{at(10, 20), offset(kHome, 90, 900), 500.0}};
    report.accuracy = {{at(0), at(7, 12), "ten-metre"}, {at(7, 12), at(8), "off"}, {at(8), at(24), "hundred-metre"}};
    report.uploads = {{at(9), at(6), at(8, 54), true, ""}, {at(13), at(9), at(12, 54), false, "network offline"}};
    report.scenario = {{at(12, 30), "network offline"}, {at(12, 36), "relaunch as build 41"}};
    report.energy.locationSeconds = {{"ten-metre", 4320.0}, {"hundred-metre", 2160.0}, {"kilometre", 2160.0}};
    report.energy.alwaysOnBaselineSeconds = 86400.0;
    report.delivery = {.recorded = 100,
                       .accepted = 90,
                       .leftInStore = 10,
                       .batches = 4,
                       .batchRequests = 5,
                       .duplicateBatchesRefused = 1,
                       .wireBytes = 1000,
                       .documentBytes = 7500,
                       .eventsByType = {{"visit", 10}, {"location", 60}, {"motion", 30}}};
    return report;
}

// The first line holding every one of `parts`, or "" when none does.
std::string lineWith(const std::string& text, const std::vector<std::string>& parts) {
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (std::all_of(parts.begin(), parts.end(), [&](const auto& part) { return line.find(part) != line.npos; }))
            return line;
    }
    return "";
}

// --- The terminal summary ---

TEST(SimulationSummary, DeliveryVerdictSaysWhatIsLostOrExtra) {
    auto report = sampleReport();
    std::string summary = renderSummary(report, false);
    EXPECT_NE(summary.find("recorded 100, accepted by the service 90, left on the device 10, identical in content 0"),
              std::string::npos) << summary;
    EXPECT_NE(summary.find("nothing lost, nothing twice"), std::string::npos);
    report.delivery.accepted = 85;
    summary = renderSummary(report, false);
    EXPECT_NE(lineWith(summary, {"FAILED", "5 events lost"}), "") << summary;
    EXPECT_EQ(summary.find("nothing lost"), std::string::npos);
    report.delivery.accepted = 93;
    EXPECT_NE(lineWith(renderSummary(report, false), {"FAILED", "3 events more than were recorded"}), "");
    // Distinct events that happen to read alike are no fault.
    report.delivery.accepted = 90;
    report.delivery.identicalEvents = 2;
    EXPECT_NE(renderSummary(report, false).find("nothing lost, nothing twice"), std::string::npos);
    // The diagnostic event that closes a background batch was never recorded on the device.
    report.delivery.accepted = 91;
    report.delivery.batchDiagnostics = 1;
    summary = renderSummary(report, false);
    EXPECT_NE(summary.find("nothing lost, nothing twice"), std::string::npos) << summary;
    EXPECT_NE(summary.find("1 diagnostic event closing a background batch"), std::string::npos) << summary;
}

TEST(SimulationSummary, MarksStaysFoundAndMissedAndListsSleepsOutsideThem) {
    const std::string summary = renderSummary(sampleReport(), false);
    EXPECT_NE(lineWith(summary, {"07:00:00", "08:00:00", "07:12:00", "08:01:00", "found"}), "") << summary;
    EXPECT_NE(lineWith(summary, {"12:00:00", "12:40:00", "missed"}), "");
    EXPECT_NE(summary.find("1 of 2 found"), std::string::npos);
    // Only the 10:00 sleep began outside the stays.
    const auto from = summary.find("Sleeps outside any true stay: 1");
    ASSERT_NE(from, std::string::npos) << summary;
    const std::string section = summary.substr(from, summary.find("\n\n", from) - from);
    EXPECT_NE(section.find("10:00:00"), std::string::npos) << section;
    EXPECT_EQ(section.find("07:12:00"), std::string::npos) << section;

    // A sleep on a stay's last second is inside it; a second later it is not.
    auto report = sampleReport();
    report.transitions = {{at(8), true, "no movement", {}, 0.0}, {at(8, 1), true, "no movement", {}, 0.0}};
    const auto outside = deriveFigures(report).sleepsOutsideStays;
    ASSERT_EQ(outside.size(), 1u);
    EXPECT_EQ(outside[0].time, at(8, 1));
}

TEST(SimulationSummary, ShowsSavingCompressionAndFailures) {
    const std::string summary = renderSummary(sampleReport(), false);
    // 4320 + 2160 + 2160 s of the 86400 s baseline were spent; 7500 bytes went as 1000.
    EXPECT_NE(lineWith(summary, {"saving", "90.0 %"}), "") << summary;
    EXPECT_NE(lineWith(summary, {"ten-metre", "1h 12m 00s", "5.0 %"}), "");
    EXPECT_NE(lineWith(summary, {"compression", "7.5 : 1"}), "");
    EXPECT_NE(lineWith(summary, {"13:00:00", "network offline"}), "");
    EXPECT_NE(lineWith(summary, {"08:01:00", "awake", "exited geofence"}), "");
    EXPECT_NE(summary.find("21600x faster"), std::string::npos);
}

// The text without its terminal colour sequences (ESC [ digits and ';' ... m).
std::string withoutColour(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
            std::size_t end = i + 2;
            while (end < text.size() && (std::isdigit(static_cast<unsigned char>(text[end])) || text[end] == ';')) ++end;
            if (end < text.size() && text[end] == 'm') {
                i = end;
                continue;
            }
        }
        plain.push_back(text[i]);
    }
    return plain;
}

TEST(SimulationSummary, StaysPlainAsciiWithinOneHundredColumns) {
    auto report = sampleReport();
    report.traceName = "Z\xC3\xBCrich " + std::string(150, 'x');
    report.transitions[0].reason = std::string(300, 'r') + "\n\ttail";
    for (int i = 0; i < 12; ++i) report.delivery.eventsByType["type" + std::to_string(i)] = 1000000000LL + i;
    const std::string plain = renderSummary(report, false);
    // Colour is added after alignment, so taking it away gives the plain text back.
    const std::string coloured = renderSummary(report, true);
    EXPECT_NE(coloured, plain);
    EXPECT_EQ(withoutColour(coloured), plain);
    std::istringstream stream(plain);
    for (std::string line; std::getline(stream, line);) {
        EXPECT_LE(line.size(), 100u) << line;
        for (const char c : line) EXPECT_TRUE(c >= 0x20 && c < 0x7F) << line;
    }
}

// --- The JSON figures ---

TEST(SimulationSummaryJson, RoundTripsTheFiguresWithIsoTimesAndNulls) {
    const json figures = json::parse(renderSummaryJson(sampleReport()));
    EXPECT_EQ(figures["start"], "2024-05-14T00:00:00.000Z");
    EXPECT_DOUBLE_EQ(figures["speed_up"].get<double>(), 21600.0);
    const auto& stays = figures["stays"];
    EXPECT_EQ(stays[0]["slept_at"], "2024-05-14T07:12:00.000Z");
    EXPECT_EQ(stays[0]["woke_at_epoch_ms"], std::llround((kMidnight + 8 * 3600 + 60) * 1000));
    EXPECT_EQ(stays[1]["found"], false);
    EXPECT_TRUE(stays[1]["slept_at"].is_null());
    EXPECT_TRUE(stays[1]["slept_at_epoch_ms"].is_null());
    EXPECT_EQ(figures["stays_missed"], 1);
    EXPECT_TRUE(figures["transitions"][3]["position"].is_null());
    EXPECT_EQ(figures["sleeps_outside_stays"][0]["time"], "2024-05-14T10:00:00.000Z");
    EXPECT_DOUBLE_EQ(figures["energy"]["location_seconds"]["hundred_metre"].get<double>(), 2160.0);
    EXPECT_NEAR(figures["energy"]["saving_percent"].get<double>(), 90.0, 1e-9);
    EXPECT_DOUBLE_EQ(figures["uploads"]["compression_ratio"].get<double>(), 7.5);
    EXPECT_EQ(figures["uploads"]["failures"][0]["error"], "network offline");
    EXPECT_EQ(figures["delivered_exactly_once"], true);

    auto report = sampleReport();
    report.delivery.identicalEvents = 1;
    report.delivery.accepted = 88;
    report.delivery.wireBytes = 0;
    report.wallSeconds = 0.0;
    report.transitions[0].reason = kHostile + "\xFF";
    const json faulty = json::parse(renderSummaryJson(report));
    EXPECT_EQ(faulty["delivered_exactly_once"], false);
    EXPECT_EQ(faulty["delivery"]["lost"], 2);
    EXPECT_EQ(faulty["delivery"]["identical"], 1);
    EXPECT_TRUE(faulty["uploads"]["compression_ratio"].is_null());
    EXPECT_TRUE(faulty["speed_up"].is_null());
    // A byte that is not UTF-8 is replaced, and the rest of the text is kept as it was.
    EXPECT_EQ(faulty["transitions"][0]["reason"].get<std::string>().substr(0, kHostile.size()), kHostile);
}

// --- The map page ---

// What is wrong with the page's markup: a '&' that starts no entity, a closing tag out of
// order or an element left open. Empty when nothing is.
std::string markupFaults(std::string page) {
    for (const std::string name : {"style", "script"}) {
        const auto from = page.find("<" + name + ">"), to = page.find("</" + name + ">");
        if (from != std::string::npos && to != std::string::npos) page.erase(from, to + name.size() + 3 - from);
    }
    for (auto at = page.find('&'); at != std::string::npos; at = page.find('&', at + 1)) {
        std::size_t i = at + 1;
        const bool numeric = i < page.size() && page[i] == '#';
        if (numeric) ++i;
        const std::size_t first = i;
        while (i < page.size() && (numeric ? std::isdigit(static_cast<unsigned char>(page[i])) != 0
                                           : page[i] >= 'a' && page[i] <= 'z')) {
            ++i;
        }
        if (i == first || i == page.size() || page[i] != ';') return "a bare &";
    }
    std::vector<std::string> open;
    for (auto i = page.find('<'); i != std::string::npos; i = page.find('<', i + 1)) {
        const auto end = page.find('>', i);
        if (end == std::string::npos) return "unterminated tag";
        const std::string tag = page.substr(i + 1, end - i - 1);
        const std::size_t closing = tag.starts_with('/') ? 1 : 0;
        const std::string name = tag.substr(closing, tag.find_first_of(" /", closing) - closing);
        if (tag.starts_with('!') || tag.ends_with('/') || name == "meta" || name == "input") continue;
        if (!closing) {
            open.push_back(name);
        } else if (open.empty() || open.back() != name) {
            return "stray </" + name + ">";
        } else {
            open.pop_back();
        }
    }
    return open.empty() ? "" : "unclosed <" + open.back() + ">";
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto i = text.find(part); i != std::string::npos; i = text.find(part, i + 1)) ++count;
    return count;
}

// The numeric attribute of the `element` tag whose title starts with `titleStart`.
double attributeOf(const std::string& page, const std::string& element, const std::string& titleStart,
                   const std::string& attribute) {
    const auto titled = page.find("<title>" + titleStart);
    if (titled == std::string::npos) return std::nan("");
    const auto tag = page.rfind("<" + element + " ", titled);
    const auto value = page.find(" " + attribute + "=\"", tag);
    if (tag == std::string::npos || value == std::string::npos || value > titled) return std::nan("");
    return std::stod(page.substr(value + attribute.size() + 3));
}

TEST(SimulationMapPage, IsWellFormedSelfContainedAndEscapesEveryText) {
    auto report = sampleReport();
    std::string page = renderMapHtml(report);
    EXPECT_EQ(markupFaults(page), "");
    // Nothing is fetched: the only address is the SVG namespace.
    EXPECT_EQ(occurrences(page, "http"), occurrences(page, "http://www.w3.org/2000/svg"));
    EXPECT_EQ(occurrences(page, " fix, accuracy "), report.fixes.size()) << "every fix drawn with its title";
    EXPECT_EQ(occurrences(page, "<title>True stay 1:"), 2u) << "on the map and on the timeline";
    EXPECT_EQ(occurrences(page, "<title>Failed upload at 13:00:00"), 1u);
    EXPECT_NE(page.find("<title>Exit from centre at 08:00:00"), std::string::npos);

    report.traceName = report.transitions[0].reason = report.scenario[0].text = report.uploads[1].error =
        report.fixes[0].provider = report.geofences[1].identifier = kHostile;
    page = renderMapHtml(report);
    EXPECT_EQ(page.find(kHostile), std::string::npos);
    EXPECT_GE(occurrences(page, "&lt;script&gt;&amp;&quot;&#39;"), 6u);
    EXPECT_EQ(markupFaults(page), "");
}

TEST(SimulationMapPage, AKilometreEastIsAKilometreOfScaleBar) {
    auto report = sampleReport();
    report.fixes = {{at(5), kHome, 5.0, "regular"}, {at(5, 30), offset(kHome, 90, 1000), 5.0, "regular"}};
    const std::string page = renderMapHtml(report);
    const double x0 = attributeOf(page, "circle", "05:00:00 regular fix", "cx");
    const double y0 = attributeOf(page, "circle", "05:00:00 regular fix", "cy");
    const double x1 = attributeOf(page, "circle", "05:30:00 regular fix", "cx");
    const double y1 = attributeOf(page, "circle", "05:30:00 regular fix", "cy");
    const auto bar = page.find("class=\"scale-bar\"");
    ASSERT_NE(bar, std::string::npos);
    const double metres = std::stod(page.substr(page.find("data-metres=\"", bar) + 13));
    const double pixels = std::stod(page.substr(page.find("data-pixels=\"", bar) + 13));
    EXPECT_NEAR((x1 - x0) / pixels * metres, 1000.0, 10.0);  // positions are written to a tenth of a pixel
    EXPECT_NEAR(y1, y0, 1.0);
}

TEST(SimulationMapPage, TimelineStartsInTheStateBeforeTheFirstChangeAndShowsTrackingOff) {
    auto report = sampleReport();
    report.transitions = {{at(6), false, "exited geofence", kHome, 10.0}};
    const std::string page = renderMapHtml(report);
    // Asleep from the start until the wake-up, a quarter of the day's width.
    const double x = attributeOf(page, "rect", "Asleep 00:00:00 to 06:00:00", "x");
    const double width = attributeOf(page, "rect", "Asleep 00:00:00 to 06:00:00", "width");
    ASSERT_FALSE(std::isnan(width)) << page;
    EXPECT_NEAR(attributeOf(page, "rect", "Awake 06:00:00 to 00:00:00+1d", "x"), x + width, 0.2);
    EXPECT_NEAR(attributeOf(page, "rect", "Awake 06:00:00 to 00:00:00+1d", "width"), 3 * width, 0.5);

    // With tracking switched on and off, the SDK row is off before the start and after the stop.
    report.trackingToggles = {{at(3), true, "FORCE"}, {at(20), false, "INSUFFICIENT_LOCATION"}};
    const std::string tracked = renderMapHtml(report);
    for (const char* band : {"Tracking off 00:00:00 to 03:00:00", "Awake 03:00:00 to 06:00:00",
                             "Tracking off 20:00:00 to 00:00:00+1d"}) {
        EXPECT_FALSE(std::isnan(attributeOf(tracked, "rect", band, "x"))) << band;
    }
    EXPECT_NE(lineWith(renderSummary(report, false), {"20:00:00", "off", "INSUFFICIENT_LOCATION"}), "");
    EXPECT_EQ(json::parse(renderSummaryJson(report))["tracking"][1]["reason"], "INSUFFICIENT_LOCATION");
}

TEST(SimulationMapPage, ProjectionKeepsDistancesInEveryDirectionAndFitsTheData) {
    // On the equator, in the Arctic and across the antimeridian.
    for (const LocationCoordinate2D centre : {LocationCoordinate2D{0.5, 10.0}, {69.65, 18.95}, {-33.9, 179.99}}) {
        const auto north = offset(centre, 0, 2000), east = offset(centre, 90, 3000);
        const MapProjection projection({{centre, 150.0}, {north, 0.0}, {east, 0.0}}, 1400, 800, 400, 40);
        const auto p = projection.project(centre), n = projection.project(north), e = projection.project(east);
        const double perMetre = projection.pixelsPerMetre();
        EXPECT_NEAR(std::hypot(n.x - p.x, n.y - p.y) / perMetre, 2000.0, 2000.0 * 0.003) << centre.latitude;
        EXPECT_NEAR(std::hypot(e.x - p.x, e.y - p.y) / perMetre, 3000.0, 3000.0 * 0.003) << centre.latitude;
        EXPECT_GT(e.x, p.x) << "east is to the right, across the antimeridian too";
        EXPECT_NEAR(n.y, 40.0, 1e-6) << "the data fill the height, within the margin";
        EXPECT_LE(e.x, 1400.0 - 40.0 + 1e-6);
        EXPECT_NEAR(projection.height() - (p.y + 150.0 * perMetre), 40.0, 1e-6) << "the stay's circle is inside too";

        const ScaleBar bar = projection.scaleBar(200);
        EXPECT_LE(bar.pixels, 200.0);
        EXPECT_GT(bar.pixels, 200.0 / 2.5) << "the next round length would have fitted";
        const double mantissa = bar.metres / std::pow(10.0, std::floor(std::log10(bar.metres)));
        EXPECT_TRUE(std::fabs(mantissa - 1) < 1e-9 || std::fabs(mantissa - 2) < 1e-9 || std::fabs(mantissa - 5) < 1e-9)
            << bar.metres;
    }
}

TEST(SimulationMapPage, AnEmptyRunRendersEverywhere) {
    const SimulationReport empty;
    const std::string page = renderMapHtml(empty);
    EXPECT_EQ(markupFaults(page), "");
    EXPECT_NE(page.find("No positions to draw"), std::string::npos);
    std::string lower = page;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const char* number : {"=\"nan", "=\"-nan", "=\"inf", "=\"-inf"}) EXPECT_EQ(lower.find(number), lower.npos);
    const json figures = json::parse(renderSummaryJson(empty));
    EXPECT_TRUE(figures["energy"]["saving_percent"].is_null());
    EXPECT_EQ(figures["delivered_exactly_once"], true);
    const std::string summary = renderSummary(empty, true);
    EXPECT_NE(lineWith(summary, {"compression", "n/a"}), "") << summary;
    EXPECT_NE(lineWith(summary, {"saving", "n/a"}), "");
    EXPECT_EQ(summary.find("nan"), summary.npos);
    EXPECT_EQ(summary.find("inf"), summary.npos);

    // A single point is shown a few hundred metres across, not infinitely close.
    EXPECT_TRUE(std::isfinite(MapProjection({{kHome, 0.0}}, 1400, 800, 400, 40).pixelsPerMetre()));
}

TEST(SimulationMapPage, ThinsManyFixesAndSaysSo) {
    auto report = sampleReport();
    report.fixes.clear();
    for (int i = 0; i < 45000; ++i) report.fixes.push_back({Date{kMidnight + i}, kHome, 10.0, "regular"});
    const std::string page = renderMapHtml(report);
    EXPECT_EQ(occurrences(page, " fix, accuracy "), 15000u);
    EXPECT_NE(page.find("1 in 3 of the 45,000 fixes is drawn"), std::string::npos);
}

}  // namespace
}  // namespace rovalis::sim
