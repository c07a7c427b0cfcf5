#include <gtest/gtest.h>

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
constexpr double kHour = 3600.0;
const LocationCoordinate2D kHome{52.52, 13.405};
const LocationCoordinate2D kOffice{52.53, 13.42};
const std::string kHostile = "<script>&\"'";

Date at(int hours, int minutes = 0) { return Date{kMidnight + hours * kHour + minutes * 60.0}; }

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
                        {at(7, 12), "ring-0", offset(kHome, 0, 300), 150.0, false},
                        {at(10), "centre", offset(kHome, 90, 600), 150.0, true}};
    report.crossings = {{at(8), "centre", true}};
    report.significantFixes = {{at(10, 20), offset(kHome, 90, 900), 500.0}};
    report.accuracy = {{at(0), at(7, 12), "ten-metre"}, {at(7, 12), at(8), "off"}, {at(8), at(24), "hundred-metre"}};
    report.uploads = {{at(9), at(6), at(8, 54), true, ""}, {at(13), at(9), at(12, 54), false, "network offline"}};
    report.scenario = {{at(12, 30), "network offline"}, {at(12, 36), "relaunch as build 41"}};
    report.energy.locationSeconds = {{"ten-metre", 4320.0}, {"hundred-metre", 2160.0}, {"kilometre", 2160.0}};
    report.energy.burstSeconds = 120.0;
    report.energy.wakeUps = 3;
    report.energy.accelerometerSeconds = 600.0;
    report.energy.alwaysOnBaselineSeconds = 86400.0;
    report.delivery = {100, 90, 10, 0, 4, 5, 1, 1000, 7500, {{"visit", 10}, {"location", 60}, {"motion", 30}}};
    return report;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

// The first line holding every one of `parts`, or "" when none does.
std::string lineWith(const std::string& text, const std::vector<std::string>& parts) {
    for (const auto& line : lines(text)) {
        bool all = true;
        for (const auto& part : parts) all = all && line.find(part) != std::string::npos;
        if (all) return line;
    }
    return "";
}

// The text with its ANSI colour escapes ("\x1b[1;31m") taken out.
std::string withoutAnsi(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
            i = text.find('m', i);
            if (i == std::string::npos) break;
            continue;
        }
        result += text[i];
    }
    return result;
}

// --- The terminal summary ---

TEST(SimulationSummary, DeliveryCountsThatAddUpSayNothingLost) {
    const std::string summary = renderSummary(sampleReport(), false);
    EXPECT_NE(summary.find("recorded 100, accepted by the service 90, left on the device 10, identical in content 0"),
              std::string::npos)
        << summary;
    EXPECT_NE(summary.find("nothing lost, nothing twice"), std::string::npos);
    EXPECT_EQ(summary.find("FAILED"), std::string::npos);
}

TEST(SimulationSummary, DeliveryFailsAndSaysWhatIsOff) {
    auto report = sampleReport();
    report.delivery.accepted = 85;
    std::string summary = renderSummary(report, false);
    EXPECT_NE(lineWith(summary, {"FAILED", "5 events lost"}), "") << summary;
    EXPECT_EQ(summary.find("nothing lost"), std::string::npos);

    report.delivery.accepted = 93;
    summary = renderSummary(report, false);
    EXPECT_NE(lineWith(summary, {"FAILED", "3 events more than were recorded"}), "") << summary;

    // Distinct events that happen to read alike are no fault.
    report.delivery.accepted = 90;
    report.delivery.identicalEvents = 2;
    summary = renderSummary(report, false);
    EXPECT_NE(summary.find("nothing lost, nothing twice"), std::string::npos) << summary;
}

TEST(SimulationSummary, StaysTableMarksFoundAndMissedAndListsSleepsWhileMoving) {
    const std::string summary = renderSummary(sampleReport(), false);
    const std::string found = lineWith(summary, {"07:00:00", "08:00:00"});
    EXPECT_NE(found.find("found"), std::string::npos) << summary;
    EXPECT_NE(found.find("07:12:00"), std::string::npos);
    EXPECT_NE(found.find("08:01:00"), std::string::npos);
    const std::string missed = lineWith(summary, {"12:00:00", "12:40:00"});
    EXPECT_NE(missed.find("missed"), std::string::npos) << summary;
    EXPECT_EQ(missed.find("found"), std::string::npos);
    EXPECT_NE(summary.find("1 of 2 found"), std::string::npos);

    // Only the 10:00 sleep began outside the stays.
    const auto from = summary.find("Sleeps outside any true stay: 1");
    ASSERT_NE(from, std::string::npos) << summary;
    const std::string section = summary.substr(from, summary.find("\n\n", from) - from);
    EXPECT_NE(section.find("10:00:00"), std::string::npos) << section;
    EXPECT_EQ(section.find("07:12:00"), std::string::npos) << section;
}

TEST(SimulationSummary, ListsEveryTransitionEventsByCountAndTheFigures) {
    const std::string summary = renderSummary(sampleReport(), false);
    EXPECT_NE(lineWith(summary, {"07:12:00", "asleep", "no movement in 10 minutes"}), "") << summary;
    EXPECT_NE(lineWith(summary, {"08:01:00", "awake", "exited geofence"}), "");
    EXPECT_NE(lineWith(summary, {"10:20:00", "awake", "significant location"}), "");

    const auto location = summary.find("  location "), motion = summary.find("  motion "),
               visit = summary.find("  visit ");
    ASSERT_NE(visit, std::string::npos) << summary;
    EXPECT_LT(location, motion);
    EXPECT_LT(motion, visit);

    // 4320 + 2160 + 2160 s of the 86400 s baseline were spent; 7500 bytes went as 1000.
    EXPECT_NE(lineWith(summary, {"saving", "90.0 %"}), "") << summary;
    EXPECT_NE(lineWith(summary, {"ten-metre", "1h 12m 00s", "5.0 %"}), "");
    EXPECT_NE(lineWith(summary, {"compression", "7.5 : 1"}), "");
    EXPECT_NE(lineWith(summary, {"failures", "1"}), "");
    EXPECT_NE(lineWith(summary, {"13:00:00", "network offline"}), "");
    EXPECT_NE(summary.find("21600x faster"), std::string::npos);
}

TEST(SimulationSummary, StaysPlainAsciiWithinOneHundredColumns) {
    auto report = sampleReport();
    report.traceName = "Z\xC3\xBCrich " + std::string(150, 'x');
    report.transitions[0].reason = std::string(300, 'r') + "\n\ttail";
    report.uploads[1].error = std::string(200, 'e');
    for (int i = 0; i < 12; ++i) report.delivery.eventsByType["type" + std::to_string(i)] = 1000000000LL + i;

    const std::string plain = renderSummary(report, false);
    const std::string coloured = renderSummary(report, true);
    EXPECT_EQ(plain.find('\x1b'), std::string::npos);
    EXPECT_NE(coloured.find("\x1b["), std::string::npos);
    // Colour is added after alignment, so taking it away gives the plain text back.
    EXPECT_EQ(withoutAnsi(coloured), plain);
    for (const auto& line : lines(plain)) {
        EXPECT_LE(line.size(), 100u) << line;
        for (const char c : line) EXPECT_TRUE(c >= 0x20 && c < 0x7F) << line;
    }
}

TEST(SimulationSummary, CompressionAndSavingWithoutABaseAreNotANumber) {
    SimulationReport report;
    const std::string summary = renderSummary(report, false);
    EXPECT_NE(lineWith(summary, {"compression", "n/a"}), "") << summary;
    EXPECT_NE(lineWith(summary, {"saving", "n/a"}), "");
    EXPECT_EQ(summary.find("nan"), std::string::npos);
    EXPECT_EQ(summary.find("inf"), std::string::npos);
}

// --- Times and figures ---

TEST(SimulationReportFormats, TimesInUtcWithMilliseconds) {
    EXPECT_EQ(isoTime(Date{kMidnight + 7 * kHour + 0.25}), "2024-05-14T07:00:00.250Z");
    EXPECT_EQ(isoTime(Date{0.0}), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(isoTime(Date{-0.5}), "1969-12-31T23:59:59.500Z");
    EXPECT_EQ(epochMilliseconds(Date{kMidnight + 0.25}), 1715644800250LL);
    EXPECT_EQ(clockTime(at(13, 30), at(0)), "13:30:00");
    EXPECT_EQ(clockTime(at(25), at(0)), "01:00:00+1d");
    EXPECT_EQ(clockTime(Date{std::nan("")}, at(0)), "--:--:--");
    EXPECT_EQ(groupedNumber(-1234567), "-1,234,567");
    EXPECT_EQ(durationText(3 * kHour + 5 * 60 + 9), "3h 05m 09s");
}

TEST(SimulationReportFormats, SleepsOnAStayBoundaryCountAsInside) {
    auto report = sampleReport();
    report.transitions = {{at(8), true, "no movement", {}, 0.0}, {at(8, 1), true, "no movement", {}, 0.0}};
    const auto figures = deriveFigures(report);
    ASSERT_EQ(figures.sleepsOutsideStays.size(), 1u);
    EXPECT_EQ(figures.sleepsOutsideStays[0].time, at(8, 1));
}

// --- The JSON figures ---

TEST(SimulationSummaryJson, RoundTripsTheKeyFigures) {
    const json figures = json::parse(renderSummaryJson(sampleReport()));
    EXPECT_EQ(figures["trace"], "commute");
    EXPECT_EQ(figures["seed"], 7);
    EXPECT_EQ(figures["start"], "2024-05-14T00:00:00.000Z");
    EXPECT_EQ(figures["start_epoch_ms"], 1715644800000LL);
    EXPECT_EQ(figures["end"], "2024-05-15T00:00:00.000Z");
    EXPECT_DOUBLE_EQ(figures["speed_up"].get<double>(), 21600.0);

    ASSERT_EQ(figures["stays"].size(), 2u);
    EXPECT_EQ(figures["stays"][0]["found"], true);
    EXPECT_EQ(figures["stays"][0]["slept_at"], "2024-05-14T07:12:00.000Z");
    EXPECT_EQ(figures["stays"][0]["woke_at_epoch_ms"], std::llround((kMidnight + 8 * kHour + 60) * 1000));
    EXPECT_EQ(figures["stays"][1]["found"], false);
    EXPECT_TRUE(figures["stays"][1]["slept_at"].is_null());
    EXPECT_TRUE(figures["stays"][1]["slept_at_epoch_ms"].is_null());
    EXPECT_EQ(figures["stays_found"], 1);
    EXPECT_EQ(figures["stays_missed"], 1);

    ASSERT_EQ(figures["transitions"].size(), 4u);
    EXPECT_EQ(figures["transitions"][1]["state"], "awake");
    EXPECT_EQ(figures["transitions"][1]["reason"], "exited geofence");
    EXPECT_TRUE(figures["transitions"][3]["position"].is_null());
    ASSERT_EQ(figures["sleeps_outside_stays"].size(), 1u);
    EXPECT_EQ(figures["sleeps_outside_stays"][0]["time"], "2024-05-14T10:00:00.000Z");

    EXPECT_EQ(figures["events_by_type"]["location"], 60);
    EXPECT_EQ(figures["events_total"], 100);
    const auto& energy = figures["energy"];
    EXPECT_DOUBLE_EQ(energy["location_seconds"]["hundred_metre"].get<double>(), 2160.0);
    EXPECT_DOUBLE_EQ(energy["location_seconds_total"].get<double>(), 8640.0);
    EXPECT_NEAR(energy["saving_percent"].get<double>(), 90.0, 1e-9);
    EXPECT_DOUBLE_EQ(figures["uploads"]["compression_ratio"].get<double>(), 7.5);
    EXPECT_EQ(figures["uploads"]["failed"], 1);
    EXPECT_EQ(figures["uploads"]["failures"][0]["error"], "network offline");
    EXPECT_EQ(figures["delivery"]["left_on_device"], 10);
    EXPECT_EQ(figures["delivered_exactly_once"], true);
}

TEST(SimulationSummaryJson, FaultsAndMissingFiguresShowAsSuch) {
    auto report = sampleReport();
    report.delivery.identicalEvents = 1;
    report.delivery.accepted = 88;
    report.delivery.wireBytes = 0;
    report.wallSeconds = 0.0;
    report.transitions[0].reason = kHostile + "\xFF";
    const json figures = json::parse(renderSummaryJson(report));
    EXPECT_EQ(figures["delivered_exactly_once"], false);
    EXPECT_EQ(figures["delivery"]["lost"], 2);
    EXPECT_EQ(figures["delivery"]["identical"], 1);
    EXPECT_TRUE(figures["uploads"]["compression_ratio"].is_null());
    EXPECT_TRUE(figures["speed_up"].is_null());
    // A byte that is not UTF-8 is replaced, and the rest of the text is kept as it was.
    EXPECT_EQ(figures["transitions"][0]["reason"].get<std::string>().substr(0, kHostile.size()), kHostile);
}

// --- The map page ---

bool voidElement(const std::string& name) { return name == "meta" || name == "input" || name == "br"; }

// What is wrong with the page's tags and entities: a closing tag out of order, an element left
// open, or a '&' that starts no entity. Empty when nothing is.
std::string markupFaults(const std::string& page) {
    std::vector<std::string> open;
    std::size_t i = 0;
    const auto scriptStart = page.find("<script>"), scriptEnd = page.find("</script>");
    for (std::size_t a = page.find('&'); a != std::string::npos; a = page.find('&', a + 1)) {
        if (a > scriptStart && a < scriptEnd) continue;
        // "&name;" or "&#digits;"
        const bool numeric = a + 1 < page.size() && page[a + 1] == '#';
        std::size_t e = a + (numeric ? 2 : 1);
        while (e < page.size() && (numeric ? std::isdigit(static_cast<unsigned char>(page[e]))
                                           : std::islower(static_cast<unsigned char>(page[e])))) {
            ++e;
        }
        if (e == a + (numeric ? 2 : 1) || e >= page.size() || page[e] != ';') return "bare & at " + page.substr(a, 20);
    }
    while ((i = page.find('<', i)) != std::string::npos) {
        if (page.compare(i, 2, "<!") == 0) {
            i = page.find('>', i);
            continue;
        }
        const auto end = page.find('>', i);
        if (end == std::string::npos) return "unterminated tag";
        const std::string tag = page.substr(i + 1, end - i - 1);
        const bool closing = !tag.empty() && tag[0] == '/';
        const auto nameStart = closing ? 1u : 0u;
        const std::string name = tag.substr(nameStart, tag.find_first_of(" />", nameStart) - nameStart);
        if (closing) {
            if (open.empty() || open.back() != name) return "stray </" + name + ">";
            open.pop_back();
        } else if (tag.back() != '/' && !voidElement(name)) {
            open.push_back(name);
            if (name == "script" || name == "style") {
                i = page.find("</" + name + ">", end);
                if (i == std::string::npos) return "unclosed <" + name + ">";
                continue;
            }
        }
        i = end + 1;
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

TEST(SimulationMapPage, TagsBalanceAndEveryDrawnThingHasATitle) {
    const auto report = sampleReport();
    const std::string page = renderMapHtml(report);
    EXPECT_EQ(markupFaults(page), "");
    EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_EQ(occurrences(page, "<svg"), occurrences(page, "</svg>"));
    EXPECT_EQ(occurrences(page, "<script"), 1u);
    // Nothing is fetched: the only address is the SVG namespace.
    EXPECT_EQ(occurrences(page, "http"), occurrences(page, "http://www.w3.org/2000/svg"));

    // Shapes drawn for the data are open elements with a title first; decorations close
    // themselves.
    std::size_t shapes = 0;
    for (const std::string element : {"circle", "rect", "polygon", "polyline", "line"}) {
        const std::string start = "<" + element + " ";
        for (auto i = page.find(start); i != std::string::npos; i = page.find(start, i + 1)) {
            const auto end = page.find('>', i);
            if (page[end - 1] == '/') continue;
            ++shapes;
            EXPECT_EQ(page.substr(end + 1, 7), "<title>") << page.substr(i, end + 1 - i);
        }
    }
    EXPECT_GT(shapes, 20u);
    EXPECT_EQ(occurrences(page, " fix, accuracy "), report.fixes.size());
    EXPECT_EQ(occurrences(page, "<title>True stay 1:"), 2u);  // on the map and on the timeline
    EXPECT_EQ(occurrences(page, "<title>Asleep "), 2u);
    EXPECT_EQ(occurrences(page, "<title>Failed upload at 13:00:00"), 1u);
    EXPECT_NE(page.find("<title>Exit from centre at 08:00:00"), std::string::npos);
}

TEST(SimulationMapPage, EscapesEveryText) {
    auto report = sampleReport();
    report.traceName = kHostile;
    report.transitions[0].reason = kHostile;
    report.scenario[0].text = kHostile;
    report.uploads[1].error = kHostile;
    report.fixes[0].provider = kHostile;
    report.geofences[1].identifier = kHostile;
    const std::string page = renderMapHtml(report);
    EXPECT_EQ(page.find(kHostile), std::string::npos);
    EXPECT_EQ(occurrences(page, "<script"), 1u);
    EXPECT_GE(occurrences(page, "&lt;script&gt;&amp;&quot;&#39;"), 6u);
    EXPECT_EQ(markupFaults(page), "");
}

TEST(SimulationMapPage, AKilometreEastIsAKilometreOfScaleBar) {
    auto report = sampleReport();
    const LocationCoordinate2D east = offset(kHome, 90, 1000);
    report.fixes = {{at(5), kHome, 5.0, "regular"}, {at(5, 30), east, 5.0, "regular"}};
    const std::string page = renderMapHtml(report);

    const double x0 = attributeOf(page, "circle", "05:00:00 regular fix", "cx");
    const double y0 = attributeOf(page, "circle", "05:00:00 regular fix", "cy");
    const double x1 = attributeOf(page, "circle", "05:30:00 regular fix", "cx");
    const double y1 = attributeOf(page, "circle", "05:30:00 regular fix", "cy");
    const auto bar = page.find("class=\"scale-bar\"");
    ASSERT_NE(bar, std::string::npos);
    const double metres = std::stod(page.substr(page.find("data-metres=\"", bar) + 13));
    const double barPixels = std::stod(page.substr(page.find("data-pixels=\"", bar) + 13));
    ASSERT_GT(metres, 0.0);

    const double kilometre = std::hypot(x1 - x0, y1 - y0) / barPixels * metres;
    EXPECT_NEAR(kilometre, 1000.0, 10.0);  // positions are written to a tenth of a pixel
    EXPECT_NEAR(y1, y0, 1.0);
    EXPECT_GT(x1, x0);
}

// The text of the attribute of the `element` tag whose title starts with `titleStart`.
std::string textAttributeOf(const std::string& page, const std::string& element, const std::string& titleStart,
                            const std::string& attribute) {
    const auto titled = page.find("<title>" + titleStart);
    const auto tag = page.rfind("<" + element + " ", titled);
    const auto value = page.find(" " + attribute + "=\"", tag);
    if (titled == std::string::npos || tag == std::string::npos || value > titled) return "";
    const auto start = value + attribute.size() + 3;
    return page.substr(start, page.find('"', start) - start);
}

double pixelsPerMetre(const std::string& page) {
    const auto bar = page.find("class=\"scale-bar\"");
    return std::stod(page.substr(page.find("data-pixels=\"", bar) + 13)) /
           std::stod(page.substr(page.find("data-metres=\"", bar) + 13));
}

TEST(SimulationMapPage, CrossingsSitOnTheRegionEdgeTowardsTheDevice) {
    auto report = sampleReport();
    report.fixes.push_back({at(8), offset(kHome, 90, 600), 5.0, "regular"});
    const std::string page = renderMapHtml(report);
    const double homeX = attributeOf(page, "circle", "07:06:00 PauseManager fix", "cx");
    const double homeY = attributeOf(page, "circle", "07:06:00 PauseManager fix", "cy");
    const auto crossing = page.find("<title>Exit from centre at 08:00:00");
    ASSERT_NE(crossing, std::string::npos);
    const auto line = page.find("<line x1=\"", crossing);
    const double x = std::stod(page.substr(line + 10)) + 4;
    const double y = std::stod(page.substr(page.find("y1=\"", line) + 4)) + 4;
    EXPECT_NEAR((x - homeX) / pixelsPerMetre(page), 150.0, 3.0);  // the centre region's radius, east
    EXPECT_NEAR(y, homeY, 0.5);
}

TEST(SimulationMapPage, EachSleepsGeofencesShareOneColour) {
    const std::string page = renderMapHtml(sampleReport());
    const std::string first =
        textAttributeOf(page, "circle", "centre region centre, radius 150 m, laid at 07:12", "stroke");
    const std::string ring = textAttributeOf(page, "circle", "outer ring region ring-0", "stroke");
    const std::string second =
        textAttributeOf(page, "circle", "centre region centre, radius 150 m, laid at 10:00", "stroke");
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first, ring);
    EXPECT_NE(first, second);
    EXPECT_FALSE(second.empty());
}

TEST(SimulationMapPage, TimelineStartsInTheStateBeforeTheFirstTransition) {
    auto report = sampleReport();
    report.transitions = {{at(6), false, "exited geofence", kHome, 10.0}};
    const std::string page = renderMapHtml(report);
    // Asleep from the start until the wake-up, a quarter of the day's width.
    const double x = attributeOf(page, "rect", "Asleep 00:00:00 to 06:00:00", "x");
    const double width = attributeOf(page, "rect", "Asleep 00:00:00 to 06:00:00", "width");
    const double awakeX = attributeOf(page, "rect", "Awake 06:00:00 to 00:00:00+1d", "x");
    const double awakeWidth = attributeOf(page, "rect", "Awake 06:00:00 to 00:00:00+1d", "width");
    ASSERT_FALSE(std::isnan(width)) << page;
    EXPECT_NEAR(awakeX, x + width, 0.2);
    EXPECT_NEAR(awakeWidth, 3 * width, 0.5);

    // With tracking switched on and off, the SDK row is off before the start and after the stop.
    report.trackingToggles = {{at(3), true, "FORCE"}, {at(20), false, "INSUFFICIENT_LOCATION"}};
    const std::string tracked = renderMapHtml(report);
    EXPECT_FALSE(std::isnan(attributeOf(tracked, "rect", "Tracking off 00:00:00 to 03:00:00", "x"))) << tracked;
    EXPECT_FALSE(std::isnan(attributeOf(tracked, "rect", "Awake 03:00:00 to 06:00:00", "x")));
    EXPECT_FALSE(std::isnan(attributeOf(tracked, "rect", "Tracking off 20:00:00 to 00:00:00+1d", "x")));
    const std::string summary = renderSummary(report, false);
    EXPECT_NE(lineWith(summary, {"20:00:00", "off", "INSUFFICIENT_LOCATION"}), "") << summary;
    EXPECT_EQ(json::parse(renderSummaryJson(report))["tracking"][1]["reason"], "INSUFFICIENT_LOCATION");
}

TEST(SimulationMapPage, ProjectionKeepsDistancesInEveryDirectionAndFitsTheData) {
    for (const LocationCoordinate2D centre :
         {LocationCoordinate2D{0.5, 10.0}, LocationCoordinate2D{69.65, 18.95}, LocationCoordinate2D{-33.9, 179.99}}) {
        const auto north = offset(centre, 0, 2000), east = offset(centre, 90, 3000);
        const std::vector<MapExtent> extents = {{centre, 150.0}, {north, 0.0}, {east, 0.0}};
        const MapProjection projection(extents, 1400, 800, 400, 40);
        const auto p = projection.project(centre), n = projection.project(north), e = projection.project(east);
        const double perMetre = projection.pixelsPerMetre();
        EXPECT_NEAR(std::hypot(n.x - p.x, n.y - p.y) / perMetre, 2000.0, 2000.0 * 0.003) << centre.latitude;
        EXPECT_NEAR(std::hypot(e.x - p.x, e.y - p.y) / perMetre, 3000.0, 3000.0 * 0.003) << centre.latitude;
        EXPECT_LT(n.y, p.y);
        EXPECT_GT(e.x, p.x);  // across the antimeridian too
        for (const auto& point : {n, e}) {
            EXPECT_GE(point.x, 40.0 - 1e-6);
            EXPECT_LE(point.x, 1400.0 - 40.0 + 1e-6);
            EXPECT_GE(point.y, 40.0 - 1e-6);
            EXPECT_LE(point.y, projection.height() - 40.0 + 1e-6);
        }
        EXPECT_GE(p.y - 150.0 * perMetre, 40.0 - 1e-6);  // the stay's circle is inside too

        const ScaleBar bar = projection.scaleBar(200);
        EXPECT_LE(bar.pixels, 200.0);
        EXPECT_GT(bar.pixels, 200.0 / 2.5);  // the next round length would not fit
        EXPECT_NEAR(bar.pixels, bar.metres * perMetre, 1e-9);
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
    for (const std::string bad : {"nan", "inf", "NaN"}) {
        EXPECT_EQ(page.find("=\"" + bad), std::string::npos) << bad;
        EXPECT_EQ(page.find("=\"-" + bad), std::string::npos) << bad;
    }
    const json figures = json::parse(renderSummaryJson(empty));
    EXPECT_TRUE(figures["energy"]["saving_percent"].is_null());
    EXPECT_EQ(figures["delivered_exactly_once"], true);
    EXPECT_FALSE(renderSummary(empty, true).empty());

    // A single point is shown a few hundred metres across, not infinitely close.
    SimulationReport one;
    one.fixes = {{at(1), kHome, 5.0, "regular"}};
    const MapProjection projection({{kHome, 0.0}}, 1400, 800, 400, 40);
    EXPECT_TRUE(std::isfinite(projection.pixelsPerMetre()));
    EXPECT_EQ(markupFaults(renderMapHtml(one)), "");
}

TEST(SimulationMapPage, ThinsManyFixesAndSaysSo) {
    auto report = sampleReport();
    report.fixes.clear();
    for (int i = 0; i < 45000; ++i) {
        report.fixes.push_back({Date{kMidnight + i}, offset(kHome, i % 360, 10.0 + i % 500), 10.0, "regular"});
    }
    const std::string page = renderMapHtml(report);
    const std::size_t drawn = occurrences(page, " fix, accuracy ");
    EXPECT_LE(drawn, 20000u);
    EXPECT_GE(drawn, 15000u);
    EXPECT_NE(page.find("1 in 3 of the 45,000 fixes is drawn"), std::string::npos);
    EXPECT_NE(page.find("regular fixes (45,000)"), std::string::npos);
}

}  // namespace
}  // namespace rovalis::sim
