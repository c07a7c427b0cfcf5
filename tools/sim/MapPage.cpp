#include <algorithm>
#include <cmath>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sim/MapProjection.h"
#include "sim/ReportFigures.h"
#include "sim/ReportRenderers.h"

namespace rovalis::sim {

namespace {

// Layout, in the pixels of the drawings' view boxes; the page scales them to its width.
constexpr double kPageWidth = 1400.0;
constexpr double kMapMargin = 40.0;
constexpr double kMapMaxHeight = 820.0;
constexpr double kMapMinHeight = 420.0;
constexpr double kStayRadius = 150.0;  // metres
constexpr std::size_t kMostFixesDrawn = 20000;

constexpr double kTimelineLeft = 150.0;
constexpr double kTimelineRight = kPageWidth - 30.0;
constexpr double kLabelLevels = 5;
constexpr double kLabelLevelHeight = 15.0;
constexpr double kRowsTop = 16.0 + kLabelLevels * kLabelLevelHeight;
constexpr double kRowHeight = 22.0;
constexpr double kRowPitch = 32.0;

// One palette for the page: what means the same is drawn in the same colour everywhere.
constexpr const char* kInk = "#1f2933";
constexpr const char* kMuted = "#616e7c";
constexpr const char* kPathGrey = "#9aa5b1";
constexpr const char* kRegularBlue = "#2563eb";
constexpr const char* kPauseAmber = "#d97706";
constexpr const char* kOtherViolet = "#7c3aed";
constexpr const char* kFoundGreen = "#059669";
constexpr const char* kMissedRed = "#dc2626";
constexpr const char* kAsleepIndigo = "#4338ca";
constexpr const char* kOffGrey = "#cbd2d9";
constexpr const char* kAwakeSky = "#7dd3fc";
constexpr const char* kWakeOrange = "#ea580c";
constexpr const char* kSignificantPink = "#db2777";
constexpr const char* kBeaconTeal = "#0d9488";
constexpr const char* kStayShade = "#10b981";
constexpr const char* kRowGrey = "#eceff3";
constexpr const char* kUploadGreen = "#16a34a";
constexpr const char* kUploadRed = "#dc2626";
constexpr const char* kFenceColours[] = {"#0891b2", "#be185d", "#65a30d", "#9333ea", "#ca8a04", "#0f766e"};

struct Band {
    const char* name;
    const char* colour;
};
constexpr Band kBands[] = {
    {"ten-metre", "#b91c1c"}, {"hundred-metre", "#f59e0b"}, {"kilometre", "#fde68a"}, {"off", "#d1d5db"}};

// Text for HTML and SVG alike: markup characters as entities, control characters (which XML
// cannot hold) dropped.
std::string escape(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            case '\'':
                result += "&#39;";
                break;
            case '\t':
            case '\n':
            case '\r':
                result += ' ';
                break;
            default:
                if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) result += c;
        }
    }
    return result;
}

std::string num(double value) { return decimalText(value, 1); }

std::string title(std::string_view text) { return "<title>" + escape(text) + "</title>"; }

std::string metresText(double metres) {
    return metres >= 1000.0 ? decimalText(metres / 1000.0, 2) + " km" : decimalText(metres, 0) + " m";
}

const char* providerColour(const std::string& provider) {
    if (provider == "regular") return kRegularBlue;
    if (provider == "PauseManager") return kPauseAmber;
    return kOtherViolet;
}

const char* bandColour(const std::string& band) {
    for (const auto& known : kBands) {
        if (band == known.name) return known.colour;
    }
    return kOtherViolet;
}

// Less accurate fixes fade: 10 m and better fully drawn, 1 km and worse barely.
double accuracyOpacity(double accuracy) {
    const double decades = std::log10(std::max(accuracy, 1.0)) - 1.0;
    return std::clamp(0.9 - 0.35 * decades, 0.15, 0.9);
}

std::string coordinateText(const LocationCoordinate2D& at) {
    return fixedText(at.latitude, 5) + ", " + fixedText(at.longitude, 5);
}

// A small mark used on the map and, at legend size, in the legend.
std::string squareMark(double x, double y, double size, const char* colour) {
    return "<rect x=\"" + num(x - size / 2) + "\" y=\"" + num(y - size / 2) + "\" width=\"" + num(size) +
           "\" height=\"" + num(size) + "\" fill=\"" + colour + "\" stroke=\"#fff\" stroke-width=\"1.5\">";
}
std::string triangleMark(double x, double y, double size, const char* colour) {
    const double h = size * 0.9;
    return "<polygon points=\"" + num(x) + "," + num(y - h / 2 - 1) + " " + num(x + size / 2 + 1) + "," +
           num(y + h / 2) + " " + num(x - size / 2 - 1) + "," + num(y + h / 2) + "\" fill=\"" + colour +
           "\" stroke=\"#fff\" stroke-width=\"1.5\">";
}
std::string diamondMark(double x, double y, double size, const char* colour, const char* stroke) {
    const double r = size / 2;
    return "<polygon points=\"" + num(x) + "," + num(y - r) + " " + num(x + r) + "," + num(y) + " " + num(x) + "," +
           num(y + r) + " " + num(x - r) + "," + num(y) + "\" fill=\"" + colour + "\" stroke=\"" + stroke +
           "\" stroke-width=\"1.2\">";
}

// The geofences laid together at one sleep: a new set starts with a new centre region, or a
// minute after the set's first region.
std::vector<std::vector<const GeofenceRegion*>> fenceSets(const std::vector<GeofenceRegion>& regions) {
    std::vector<const GeofenceRegion*> sorted;
    for (const auto& region : regions) sorted.push_back(&region);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto* a, const auto* b) { return a->created < b->created; });
    std::vector<std::vector<const GeofenceRegion*>> sets;
    for (const auto* region : sorted) {
        const bool startsSet = sets.empty() || region->created.timeIntervalSince(sets.back().front()->created) > 60.0 ||
                               (region->centreRegion && std::any_of(sets.back().begin(), sets.back().end(),
                                                                    [](const auto* r) { return r->centreRegion; }));
        if (startsSet) sets.emplace_back();
        sets.back().push_back(region);
    }
    return sets;
}

// The providers of the fixes and how many each gave: the SDK's regular updates first, then
// the pause manager's bursts, then any other by name.
std::vector<std::pair<std::string, std::size_t>> providerCounts(const std::vector<RecordedFix>& fixes) {
    std::map<std::string, std::size_t> counts;
    for (const auto& fix : fixes) ++counts[fix.provider];
    std::vector<std::pair<std::string, std::size_t>> result(counts.begin(), counts.end());
    auto rank = [](const std::string& provider) {
        return provider == "regular" ? 0 : provider == "PauseManager" ? 1 : 2;
    };
    std::stable_sort(result.begin(), result.end(),
                     [&](const auto& a, const auto& b) { return rank(a.first) < rank(b.first); });
    return result;
}

class MapPage {
public:
    explicit MapPage(const SimulationReport& report)
        : report_(report),
          figures_(deriveFigures(report)),
          projection_(extents(report), kPageWidth, kMapMaxHeight, kMapMinHeight, kMapMargin),
          sets_(fenceSets(report.geofences)),
          providers_(providerCounts(report.fixes)) {
        timeFrom_ = report.start;
        span_ = std::max(report.end.timeIntervalSince(report.start), 1.0);
    }

    std::string render() {
        head();
        out_ += "<body>\n<main>\n";
        header();
        out_ += "<h2>Map</h2>\n";
        map();
        mapLegend();
        out_ += "<h2>Timeline (UTC)</h2>\n";
        timeline();
        timelineLegend();
        out_ += "</main>\n";
        script();
        out_ += "</body>\n</html>\n";
        return std::move(out_);
    }

private:
    static std::vector<MapExtent> extents(const SimulationReport& report) {
        std::vector<MapExtent> result;
        for (const auto& at : report.truePath) result.push_back({at, 0.0});
        for (const auto& fix : report.fixes) result.push_back({fix.coordinate, 0.0});
        for (const auto& stay : report.stays) result.push_back({stay.centre, kStayRadius});
        for (const auto& transition : report.transitions) {
            if (transition.position) result.push_back({*transition.position, 0.0});
        }
        for (const auto& region : report.geofences) result.push_back({region.centre, region.radius});
        for (const auto& fix : report.significantFixes) result.push_back({fix.coordinate, 0.0});
        for (const auto& beacon : report.beacons.placed) result.push_back({beacon.position, 0.0});
        return result;
    }

    std::string clock(Date time) const { return clockTime(time, report_.start); }

    std::string dayText() const {
        // A run that ends at midnight ends on the day before.
        const std::string first = isoDay(report_.start), last = isoDay(report_.end.addingSeconds(-0.001));
        return first == last || report_.end <= report_.start ? first : first + " to " + last;
    }

    void head() {
        out_ += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
        out_ += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
        out_ += "<title>" + escape(report_.traceName) + " &#8211; " + escape(dayText()) + "</title>\n";
        out_ += R"(<style>
:root { --ink: #1f2933; --muted: #616e7c; --line: #d9dee4; --panel: #f7f8fa; }
* { box-sizing: border-box; }
body { margin: 0; padding: 24px 32px 40px; font: 14px/1.45 system-ui, sans-serif; color: var(--ink);
       background: #fff; }
main { max-width: 1400px; margin: 0 auto; }
header { display: flex; flex-wrap: wrap; justify-content: space-between; align-items: flex-start; gap: 16px 40px; }
h1 { font-size: 24px; margin: 0 0 4px; font-weight: 600; }
h2 { font-size: 16px; margin: 28px 0 8px; font-weight: 600; }
.sub { color: var(--muted); margin: 0; }
svg.drawing { display: block; width: 100%; height: auto; background: var(--panel); border: 1px solid var(--line);
              border-radius: 6px; }
svg text { font-family: system-ui, sans-serif; fill: var(--ink); }
svg .label { font-size: 12px; fill: var(--muted); }
svg .mark-label { font-size: 11px; fill: var(--ink); paint-order: stroke; stroke: #fff; stroke-width: 3px;
                  stroke-linejoin: round; }
table.figures { border-collapse: collapse; font-size: 13px; font-variant-numeric: tabular-nums; }
table.figures th { text-align: left; font-weight: 500; color: var(--muted); padding: 2px 16px 2px 0; }
table.figures td { padding: 2px 0; text-align: right; }
.ok { color: #15803d; font-weight: 600; }
.failed { color: #b91c1c; font-weight: 600; }
ul.legend { display: flex; flex-wrap: wrap; gap: 6px 20px; margin: 10px 0 0; padding: 0; list-style: none;
            color: var(--muted); font-size: 13px; }
ul.legend li { display: flex; align-items: center; gap: 6px; }
ul.legend svg { width: 24px; height: 16px; flex: none; }
.note { color: var(--muted); font-size: 13px; margin: 6px 0 0; }
.toggle { display: none; margin: 0; }
.js .toggle { display: inline; }
</style>
</head>
)";
    }

    void figureRow(const std::string& name, const std::string& valueHtml) {
        out_ += "<tr><th>" + escape(name) + "</th><td>" + valueHtml + "</td></tr>\n";
    }

    void header() {
        out_ += "<header>\n<div>\n<h1>" + escape(report_.traceName) + "</h1>\n";
        out_ += "<p class=\"sub\">" + escape(dayText()) + " &#183; seed " + std::to_string(report_.seed) +
                " &#183; simulated " + escape(clock(report_.start)) + " to " + escape(clock(report_.end)) +
                " UTC</p>\n</div>\n";
        out_ += "<table class=\"figures\">\n";
        std::string span = durationText(figures_.simulatedSeconds) + " in " + durationText(report_.wallSeconds);
        if (figures_.speedUp) span += " (" + decimalText(*figures_.speedUp, 0) + "x)";
        figureRow("Simulated", escape(span));
        figureRow("Stays found", std::to_string(figures_.staysFound) + " of " + std::to_string(report_.stays.size()));
        figureRow("Sleeps / wake-ups", std::to_string(figures_.sleeps) + " / " + std::to_string(figures_.wakes));
        const auto outside = figures_.sleepsOutsideStays.size();
        figureRow("Sleeps outside stays",
                  outside == 0 ? "0" : "<span class=\"failed\">" + std::to_string(outside) + "</span>");
        std::string gps =
            durationText(figures_.locationSeconds) + " of " + durationText(report_.energy.alwaysOnBaselineSeconds);
        if (figures_.savingPercent) gps += " (" + decimalText(*figures_.savingPercent, 1) + " % saved)";
        figureRow("GPS against always-on", escape(gps));
        figureRow("Uploads", escape(groupedNumber(report_.delivery.batches) + " batches, " +
                                    groupedNumber(report_.delivery.batchRequests) + " requests, " +
                                    groupedNumber(figures_.uploadsFailed) + " failed"));
        figureRow("Compression", figures_.compressionRatio ? escape(fixedText(*figures_.compressionRatio, 1) + " : 1")
                                                           : std::string("n/a"));
        const auto& delivery = report_.delivery;
        const std::string counts = groupedNumber(delivery.recorded) + " recorded, " + groupedNumber(delivery.accepted) +
                                   " accepted, " + groupedNumber(delivery.leftInStore) + " left, " +
                                   groupedNumber(delivery.identicalEvents) + " identical";
        figureRow("Delivery",
                  escape(counts) + (!delivery.readBack                ? " (not read back: unchecked)"
                                    : figures_.deliveredExactlyOnce ? " <span class=\"ok\">exactly once</span>"
                                                                    : " <span class=\"failed\">FAILED</span>"));
        out_ += "</table>\n</header>\n";
    }

    // --- The map ---

    void map() {
        const double width = projection_.width(), height = projection_.height();
        out_ += "<svg class=\"drawing map\" viewBox=\"0 0 " + num(width) + " " + num(height) +
                "\" xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" aria-label=\"Map of " +
                escape(report_.traceName) + "\">\n";
        out_ += title("Map of " + report_.traceName + " on " + dayText());
        out_ += "<defs><clipPath id=\"map-area\"><rect x=\"0\" y=\"0\" width=\"" + num(width) + "\" height=\"" +
                num(height) + "\"/></clipPath></defs>\n";
        out_ += "<g clip-path=\"url(#map-area)\">\n";
        geofences();
        stays();
        truePath();
        significantFixes();
        fixes();
        crossings();
        transitions();
        beacons();
        out_ += "</g>\n";
        if (drawnNothing()) {
            out_ += "<text x=\"" + num(width / 2) + "\" y=\"" + num(height / 2) +
                    "\" text-anchor=\"middle\" class=\"label\">" + title("The run has no positions") +
                    "No positions to draw</text>\n";
        }
        scaleBar(height);
        northArrow();
        out_ += "</svg>\n";
    }

    bool drawnNothing() const {
        return report_.truePath.empty() && report_.fixes.empty() && report_.stays.empty() &&
               report_.geofences.empty() && report_.significantFixes.empty() &&
               std::none_of(report_.transitions.begin(), report_.transitions.end(),
                            [](const Transition& t) { return t.position.has_value(); });
    }

    double pixels(double metres) const { return std::max(0.0, metres) * projection_.pixelsPerMetre(); }

    std::string circleOpen(const LocationCoordinate2D& at, double radiusMetres) const {
        const MapPoint p = projection_.project(at);
        return "<circle cx=\"" + num(p.x) + "\" cy=\"" + num(p.y) + "\" r=\"" + num(pixels(radiusMetres)) + "\"";
    }

    void geofences() {
        if (sets_.empty()) return;
        out_ += "<g class=\"layer-geofences\">\n";
        for (std::size_t s = 0; s < sets_.size(); ++s) {
            const char* colour = kFenceColours[s % std::size(kFenceColours)];
            out_ += "<g>" + title("Geofences laid at " + clock(sets_[s].front()->created) + " (set " +
                                  std::to_string(s + 1) + ")");
            for (const auto* region : sets_[s]) {
                const std::string what = region->centreRegion ? "centre region" : "outer ring region";
                out_ += circleOpen(region->centre, region->radius) + " stroke=\"" + colour + "\"" +
                        (region->centreRegion
                             ? " fill=\"none\" stroke-width=\"2\" stroke-dasharray=\"6 4\""
                             : " fill=\"" + std::string(colour) + "\" fill-opacity=\"0.05\" stroke-width=\"1\"") +
                        ">" +
                        title(what + " " + region->identifier + ", radius " + metresText(region->radius) +
                              ", laid at " + clock(region->created)) +
                        "</circle>\n";
            }
            out_ += "</g>\n";
        }
        out_ += "</g>\n";
    }

    void stays() {
        if (report_.stays.empty()) return;
        out_ += "<g class=\"layer-stays\">\n";
        // Stays at one place (home, morning and evening) share one label: "1, 4".
        std::map<std::pair<long, long>, std::pair<MapPoint, std::vector<std::string>>> labels;
        std::size_t number = 0;
        for (const auto& stay : report_.stays) {
            ++number;
            const bool found = stay.sleptAt.has_value();
            std::string text = "True stay " + std::to_string(number) + ": " + clock(stay.start) + " to " +
                               clock(stay.end) + " at " + coordinateText(stay.centre) + ", ";
            text += found ? "found: slept at " + clock(*stay.sleptAt) +
                                (stay.wokeAt ? ", woke at " + clock(*stay.wokeAt) : std::string(", never woke"))
                          : std::string("missed: no sleep");
            out_ += circleOpen(stay.centre, kStayRadius) + " fill=\"none\" stroke=\"" +
                    (found ? kFoundGreen : kMissedRed) + "\" stroke-width=\"2\">" + title(text) + "</circle>\n";
            const MapPoint p = projection_.project(stay.centre);
            auto& label = labels[{std::lround(p.x / 8.0), std::lround(p.y / 8.0)}];
            if (label.second.empty()) label.first = p;
            label.second.push_back(std::to_string(number));
        }
        for (const auto& [cell, label] : labels) {
            std::string numbers;
            for (const auto& n : label.second) numbers += (numbers.empty() ? "" : ", ") + n;
            out_ += "<text x=\"" + num(label.first.x) + "\" y=\"" + num(label.first.y - pixels(kStayRadius) - 5) +
                    "\" text-anchor=\"middle\" class=\"mark-label\">" + title("True stays " + numbers) + numbers +
                    "</text>\n";
        }
        out_ += "</g>\n";
    }

    void truePath() {
        if (report_.truePath.empty()) return;
        out_ += "<g class=\"layer-path\"><polyline fill=\"none\" stroke=\"" + std::string(kPathGrey) +
                "\" stroke-width=\"1.5\" stroke-linejoin=\"round\" stroke-linecap=\"round\" points=\"";
        bool first = true;
        for (const auto& at : report_.truePath) {
            const MapPoint p = projection_.project(at);
            out_ += (first ? "" : " ") + num(p.x) + "," + num(p.y);
            first = false;
        }
        out_ += "\">" + title("True path of the trace (" + std::to_string(report_.truePath.size()) + " points)") +
                "</polyline></g>\n";
    }

    std::size_t providerIndex(const std::string& provider) const {
        for (std::size_t i = 0; i < providers_.size(); ++i) {
            if (providers_[i].first == provider) return i;
        }
        return 0;
    }

    std::size_t fixStep() const {
        const std::size_t count = report_.fixes.size();
        return count > kMostFixesDrawn ? (count + kMostFixesDrawn - 1) / kMostFixesDrawn : 1;
    }

    void fixes() {
        if (report_.fixes.empty()) return;
        const std::size_t step = fixStep();
        // One group per provider, so that each can be shown or hidden on its own.
        std::vector<std::string> groups(providers_.size());
        for (std::size_t i = 0; i < report_.fixes.size(); i += step) {
            const auto& fix = report_.fixes[i];
            const MapPoint p = projection_.project(fix.coordinate);
            groups[providerIndex(fix.provider)] +=
                "<circle cx=\"" + num(p.x) + "\" cy=\"" + num(p.y) + "\" r=\"2.4\" fill-opacity=\"" +
                decimalText(accuracyOpacity(fix.accuracy), 2) + "\">" +
                title(clock(fix.time) + " " + fix.provider + " fix, accuracy " + decimalText(fix.accuracy, 0) + " m") +
                "</circle>\n";
        }
        for (std::size_t i = 0; i < groups.size(); ++i) {
            const std::string& provider = providers_[i].first;
            out_ += "<g class=\"layer-fixes-" + std::to_string(i) + "\" fill=\"" + providerColour(provider) + "\">" +
                    title("Recorded fixes, provider " + provider) + "\n" + groups[i] + "</g>\n";
        }
    }

    void significantFixes() {
        if (report_.significantFixes.empty()) return;
        out_ += "<g class=\"layer-significant\">\n";
        for (const auto& fix : report_.significantFixes) {
            const std::string text =
                "Significant-location fix at " + clock(fix.time) + ", accuracy " + metresText(fix.accuracy);
            const MapPoint p = projection_.project(fix.coordinate);
            out_ += circleOpen(fix.coordinate, fix.accuracy) + " fill=\"" + kSignificantPink +
                    "\" fill-opacity=\"0.06\" stroke=\"" + kSignificantPink +
                    "\" stroke-width=\"1\" stroke-dasharray=\"3 3\">" + title(text) + "</circle>\n";
            out_ += diamondMark(p.x, p.y, 10, kSignificantPink, "#fff") + title(text) + "</polygon>\n";
        }
        out_ += "</g>\n";
    }

    void beacons() {
        if (report_.beacons.placed.empty()) return;
        out_ += "<g class=\"layer-beacons\">\n";
        for (const auto& beacon : report_.beacons.placed) {
            const std::string text = beacon.label + ": " + groupedNumber(beacon.sightings) + " sightings";
            const MapPoint p = projection_.project(beacon.position);
            out_ += diamondMark(p.x, p.y, 12, kBeaconTeal, kInk) + title(text) + "</polygon>\n";
        }
        out_ += "</g>\n";
    }

    // Crossings carry no position: each is drawn on the crossed region's edge, towards the
    // recorded fix nearest in time.
    void crossings() {
        if (report_.crossings.empty()) return;
        out_ += "<g class=\"layer-crossings\">\n";
        for (const auto& crossing : report_.crossings) {
            // The latest region of that name laid before the crossing, else the first one.
            const GeofenceRegion* region = nullptr;
            for (const auto& candidate : report_.geofences) {
                if (candidate.identifier != crossing.identifier) continue;
                const bool before = candidate.created <= crossing.time;
                if (region == nullptr ||
                    (before && (region->created > crossing.time || candidate.created >= region->created))) {
                    region = &candidate;
                }
            }
            if (region == nullptr) continue;
            const MapPoint centre = projection_.project(region->centre);
            double dx = 0.0, dy = -1.0;
            if (const auto* fix = nearestFix(crossing.time)) {
                const MapPoint at = projection_.project(fix->coordinate);
                const double length = std::hypot(at.x - centre.x, at.y - centre.y);
                if (length > 0.5) {
                    dx = (at.x - centre.x) / length;
                    dy = (at.y - centre.y) / length;
                }
            }
            const double r = pixels(region->radius);
            const double x = centre.x + dx * r, y = centre.y + dy * r;
            out_ += "<g stroke=\"" + std::string(kInk) + "\" stroke-width=\"2\" stroke-linecap=\"round\">" +
                    title(std::string(crossing.exit ? "Exit from " : "Entry into ") + crossing.identifier + " at " +
                          clock(crossing.time)) +
                    "<line x1=\"" + num(x - 4) + "\" y1=\"" + num(y - 4) + "\" x2=\"" + num(x + 4) + "\" y2=\"" +
                    num(y + 4) + "\"/><line x1=\"" + num(x - 4) + "\" y1=\"" + num(y + 4) + "\" x2=\"" + num(x + 4) +
                    "\" y2=\"" + num(y - 4) + "\"/></g>\n";
        }
        out_ += "</g>\n";
    }

    const RecordedFix* nearestFix(Date time) const {
        const RecordedFix* nearest = nullptr;
        for (const auto& fix : report_.fixes) {
            if (nearest == nullptr ||
                std::fabs(fix.time.timeIntervalSince(time)) < std::fabs(nearest->time.timeIntervalSince(time))) {
                nearest = &fix;
            }
        }
        return nearest;
    }

    void transitions() {
        out_ += "<g class=\"layer-transitions\">\n";
        for (const auto& transition : report_.transitions) {
            if (!transition.position) continue;
            const MapPoint p = projection_.project(*transition.position);
            const std::string text = std::string(transition.asleep ? "Sleep" : "Wake-up") + " at " +
                                     clock(transition.time) + ": " + transition.reason + " (accuracy " +
                                     decimalText(transition.accuracy, 0) + " m)";
            if (transition.asleep) {
                out_ += squareMark(p.x, p.y, 10, kAsleepIndigo) + title(text) + "</rect>\n";
            } else {
                out_ += triangleMark(p.x, p.y, 11, kWakeOrange) + title(text) + "</polygon>\n";
            }
        }
        out_ += "</g>\n";
    }

    void scaleBar(double height) {
        const ScaleBar bar = projection_.scaleBar(200.0);
        const double x = 20.0, y = height - 22.0;
        out_ += "<g class=\"scale-bar\" data-metres=\"" + decimalText(bar.metres, 3) + "\" data-pixels=\"" +
                decimalText(bar.pixels, 3) + "\">" + title("Scale: " + bar.label) + "<rect x=\"" + num(x - 6) +
                "\" y=\"" + num(y - 20) + "\" width=\"" + num(bar.pixels + 12) +
                "\" height=\"32\" rx=\"4\" fill=\"#fff\" fill-opacity=\"0.85\"/>" + "<path d=\"M" + num(x) + " " +
                num(y - 5) + " V" + num(y) + " H" + num(x + bar.pixels) + " V" + num(y - 5) +
                "\" fill=\"none\" stroke=\"" + kInk + "\" stroke-width=\"1.5\"/>" + "<text x=\"" +
                num(x + bar.pixels / 2) + "\" y=\"" + num(y - 8) + "\" text-anchor=\"middle\" class=\"label\">" +
                escape(bar.label) + "</text></g>\n";
    }

    void northArrow() {
        const double x = projection_.width() - 28.0, y = 30.0;
        out_ += "<g>" + title("North is up") + "<path d=\"M" + num(x) + " " + num(y - 14) + " L" + num(x + 6) + " " +
                num(y + 4) + " L" + num(x) + " " + num(y) + " L" + num(x - 6) + " " + num(y + 4) + " Z\" fill=\"" +
                kMuted + "\"/><text x=\"" + num(x) + "\" y=\"" + num(y + 18) +
                "\" text-anchor=\"middle\" class=\"label\">N</text></g>\n";
    }

    // A legend entry: a little drawing, the text, and (with scripts) a box that shows or hides
    // the layer.
    void legendItem(const std::string& swatch, const std::string& text, const std::string& layer = "") {
        out_ += "<li>";
        if (!layer.empty()) {
            out_ += "<input type=\"checkbox\" class=\"toggle\" checked data-layer=\"" + layer +
                    "\" aria-label=\"show " + escape(text) + "\">";
        }
        out_ += "<svg viewBox=\"0 0 24 16\" aria-hidden=\"true\">" + title(text) + swatch + "</svg>" + escape(text) +
                "</li>\n";
    }

    void mapLegend() {
        out_ += "<ul class=\"legend\">\n";
        legendItem(
            "<line x1=\"1\" y1=\"8\" x2=\"23\" y2=\"8\" stroke=\"" + std::string(kPathGrey) + "\" stroke-width=\"2\"/>",
            "true path", "layer-path");
        for (std::size_t i = 0; i < providers_.size(); ++i) {
            const auto& [provider, count] = providers_[i];
            legendItem("<circle cx=\"12\" cy=\"8\" r=\"4\" fill=\"" + std::string(providerColour(provider)) + "\"/>",
                       provider + " fixes (" + groupedNumber(static_cast<std::int64_t>(count)) + ")",
                       "layer-fixes-" + std::to_string(i));
        }
        legendItem("<circle cx=\"12\" cy=\"8\" r=\"6\" fill=\"none\" stroke=\"" + std::string(kFoundGreen) +
                       "\" stroke-width=\"2\"/>",
                   "true stay found (150 m)", "layer-stays");
        legendItem("<circle cx=\"12\" cy=\"8\" r=\"6\" fill=\"none\" stroke=\"" + std::string(kMissedRed) +
                       "\" stroke-width=\"2\"/>",
                   "true stay missed (150 m)", "layer-stays");
        legendItem(squareMark(12, 8, 10, kAsleepIndigo) + title("sleep") + "</rect>", "sleep", "layer-transitions");
        legendItem(triangleMark(12, 8, 11, kWakeOrange) + title("wake-up") + "</polygon>", "wake-up",
                   "layer-transitions");
        legendItem("<circle cx=\"12\" cy=\"8\" r=\"6\" fill=\"none\" stroke=\"" + std::string(kFenceColours[0]) +
                       "\" stroke-width=\"2\" stroke-dasharray=\"4 2\"/>",
                   "geofence centre region (one colour per sleep)", "layer-geofences");
        legendItem("<circle cx=\"12\" cy=\"8\" r=\"6\" fill=\"" + std::string(kFenceColours[0]) +
                       "\" fill-opacity=\"0.1\" stroke=\"" + kFenceColours[0] + "\"/>",
                   "geofence outer ring", "layer-geofences");
        legendItem("<g stroke=\"" + std::string(kInk) +
                       "\" stroke-width=\"2\"><line x1=\"8\" y1=\"4\" x2=\"16\" y2=\"12\"/>"
                       "<line x1=\"8\" y1=\"12\" x2=\"16\" y2=\"4\"/></g>",
                   "geofence crossing (" + std::to_string(report_.crossings.size()) + ")", "layer-crossings");
        legendItem(diamondMark(12, 8, 10, kSignificantPink, "#fff") + title("significant-location fix") + "</polygon>",
                   "significant-location fix and its accuracy", "layer-significant");
        if (!report_.beacons.placed.empty()) {
            legendItem(diamondMark(12, 8, 12, kBeaconTeal, kInk) + title("beacon") + "</polygon>",
                       "beacon placed by the scenario", "layer-beacons");
        }
        out_ += "</ul>\n";
        out_ += "<p class=\"note\">Fixes fade as their accuracy grows. ";
        if (const std::size_t step = fixStep(); step > 1) {
            out_ += "1 in " + std::to_string(step) + " of the " +
                    groupedNumber(static_cast<std::int64_t>(report_.fixes.size())) + " fixes is drawn. ";
        }
        out_ += "Projection: equirectangular about latitude " +
                escape(decimalText(projection_.referenceLatitude(), 4)) + "&#176;.</p>\n";
    }

    // --- The timeline ---

    double timeX(Date time) const {
        const double share = std::clamp(time.timeIntervalSince(timeFrom_) / span_, 0.0, 1.0);
        return kTimelineLeft + share * (kTimelineRight - kTimelineLeft);
    }

    std::string rect(double x0, double x1, double y, double height, const std::string& fill,
                     const std::string& text) const {
        return "<rect x=\"" + num(x0) + "\" y=\"" + num(y) + "\" width=\"" + num(std::max(x1 - x0, 0.8)) +
               "\" height=\"" + num(height) + "\" fill=\"" + fill + "\">" + title(text) + "</rect>\n";
    }

    double rowTop(int row) const { return kRowsTop + row * kRowPitch; }

    void rowBackground(int row, const std::string& name, const std::string& text) {
        const double y = rowTop(row);
        out_ += "<text x=\"" + num(kTimelineLeft - 10) + "\" y=\"" + num(y + kRowHeight / 2 + 4) +
                "\" text-anchor=\"end\" class=\"label\">" + title(text) + escape(name) + "</text>\n";
        out_ += rect(kTimelineLeft, kTimelineRight, y, kRowHeight, kRowGrey, text);
    }

    void timeline() {
        constexpr int kRows = 5;
        const double axis = rowTop(kRows) - 4.0;
        const double height = axis + 30.0;
        out_ += "<svg class=\"drawing timeline\" viewBox=\"0 0 " + num(kPageWidth) + " " + num(height) +
                "\" xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" aria-label=\"Timeline\">\n";
        out_ += title("Timeline of " + report_.traceName + " from " + clock(report_.start) + " to " +
                      clock(report_.end) + " UTC");
        stayShades(axis);
        hourTicks(axis);
        rowBackground(0, "SDK", "Tracking off, awake or asleep, from the tracking, sleep and wake-up events");
        rowBackground(1, "location accuracy", "The location service's accuracy");
        rowBackground(2, "true stays", "The trace's stays");
        rowBackground(3, "wake-up sources", "Geofence crossings and significant-location fixes");
        rowBackground(4, "uploads", "Uploads as the host heard of them");
        sleepBand(rowTop(0));
        accuracyBand(rowTop(1));
        stayBand(rowTop(2));
        wakeSources(rowTop(3));
        uploadTicks(rowTop(4));
        scenarioMarks(axis);
        out_ += "</svg>\n";
    }

    void hourTicks(double axis) {
        const double hours = span_ / 3600.0;
        double step = 1.0;
        for (const double candidate : {1.0, 2.0, 3.0, 6.0, 12.0, 24.0}) {
            step = candidate;
            if (hours / candidate <= 26.0) break;
        }
        if (hours / step > 26.0) step = 24.0 * std::ceil(hours / 24.0 / 26.0);
        const double stepSeconds = step * 3600.0;
        double tick = std::ceil(timeFrom_.secondsSince1970 / stepSeconds) * stepSeconds;
        const double end = timeFrom_.secondsSince1970 + span_;
        out_ += "<g class=\"hours\">" + title("Hours, UTC");
        out_ += "<line x1=\"" + num(kTimelineLeft) + "\" y1=\"" + num(axis) + "\" x2=\"" + num(kTimelineRight) +
                "\" y2=\"" + num(axis) + "\" stroke=\"" + kMuted + "\" stroke-width=\"1\"/>\n";
        for (int count = 0; tick <= end && count < 400; tick += stepSeconds, ++count) {
            const Date at{tick};
            const double x = timeX(at);
            const std::string label = clockTime(at, at).substr(0, 2) == "00" && step < 24.0
                                          ? isoDay(at).substr(5)
                                          : clockTime(at, at).substr(0, 5);
            out_ += "<line x1=\"" + num(x) + "\" y1=\"" + num(kRowsTop - 4) + "\" x2=\"" + num(x) + "\" y2=\"" +
                    num(axis + 4) + "\" stroke=\"#d9dee4\" stroke-width=\"1\"/>";
            out_ += "<text x=\"" + num(x) + "\" y=\"" + num(axis + 18) + "\" text-anchor=\"middle\" class=\"label\">" +
                    escape(label) + "</text>\n";
        }
        out_ += "</g>\n";
    }

    void sleepBand(double y) {
        enum class State { off, awake, asleep };
        struct Change {
            Date time;
            State state;
            std::string reason;
        };
        std::vector<Change> changes;
        for (const auto& toggle : report_.trackingToggles) {
            changes.push_back({toggle.time, toggle.on ? State::awake : State::off,
                               std::string("tracking ") + (toggle.on ? "on, " : "off, ") + toggle.reason});
        }
        for (const auto& transition : report_.transitions) {
            changes.push_back({transition.time, transition.asleep ? State::asleep : State::awake, transition.reason});
        }
        std::stable_sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) { return a.time < b.time; });
        // Before the first change the SDK was in another state: off before tracking starts,
        // awake before a sleep, asleep before a wake-up.
        State state = State::off;
        if (report_.trackingToggles.empty() && !changes.empty()) {
            state = changes.front().state == State::asleep ? State::awake : State::asleep;
        }
        Date from = timeFrom_;
        std::string reason = "since the start";
        auto segment = [&](Date to) {
            if (to <= from) return;
            const char* colour = state == State::asleep ? kAsleepIndigo : state == State::awake ? kAwakeSky : kOffGrey;
            const char* name = state == State::asleep ? "Asleep " : state == State::awake ? "Awake " : "Tracking off ";
            out_ += rect(timeX(from), timeX(to), y, kRowHeight, colour,
                         std::string(name) + clock(from) + " to " + clock(to) + " (" +
                             durationText(to.timeIntervalSince(from)) + "): " + reason);
        };
        out_ += "<g class=\"sleep-band\">\n";
        for (const auto& change : changes) {
            segment(change.time);
            if (change.time > from) from = change.time;
            state = change.state;
            reason = change.reason;
        }
        segment(report_.end);
        out_ += "</g>\n";
    }

    void accuracyBand(double y) {
        out_ += "<g class=\"accuracy-band\">\n";
        for (const auto& span : report_.accuracy) {
            out_ += rect(timeX(span.from), timeX(span.to), y, kRowHeight, bandColour(span.band),
                         "Location " + span.band + " " + clock(span.from) + " to " + clock(span.to) + " (" +
                             durationText(span.to.timeIntervalSince(span.from)) + ")");
        }
        out_ += "</g>\n";
    }

    // Behind the rows, so that the stays show in the gaps between them and line up with the
    // SDK's state.
    void stayShades(double axis) {
        for (const auto& stay : report_.stays) {
            const double x0 = timeX(stay.start), x1 = timeX(stay.end);
            out_ += "<rect x=\"" + num(x0) + "\" y=\"" + num(kRowsTop - 6) + "\" width=\"" +
                    num(std::max(x1 - x0, 0.8)) + "\" height=\"" + num(axis - kRowsTop + 6) + "\" fill=\"" +
                    kStayShade + "\" fill-opacity=\"0.22\"/>\n";
        }
    }

    void stayBand(double y) {
        out_ += "<g class=\"stay-band\">\n";
        std::size_t number = 0;
        for (const auto& stay : report_.stays) {
            ++number;
            const std::string text = "True stay " + std::to_string(number) + ": " + clock(stay.start) + " to " +
                                     clock(stay.end) + (stay.sleptAt ? ", found" : ", missed");
            out_ +=
                rect(timeX(stay.start), timeX(stay.end), y, kRowHeight, stay.sleptAt ? kStayShade : kMissedRed, text);
        }
        out_ += "</g>\n";
    }

    void tick(double x, double y, const char* colour, const std::string& text) {
        out_ += "<line x1=\"" + num(x) + "\" y1=\"" + num(y + 3) + "\" x2=\"" + num(x) + "\" y2=\"" +
                num(y + kRowHeight - 3) + "\" stroke=\"" + colour + "\" stroke-width=\"2\">" + title(text) +
                "</line>\n";
    }

    void wakeSources(double y) {
        out_ += "<g class=\"wake-sources\">\n";
        for (const auto& crossing : report_.crossings) {
            tick(timeX(crossing.time), y, kInk,
                 std::string(crossing.exit ? "Exit from " : "Entry into ") + crossing.identifier + " at " +
                     clock(crossing.time));
        }
        for (const auto& fix : report_.significantFixes) {
            tick(timeX(fix.time), y, kSignificantPink,
                 "Significant-location fix at " + clock(fix.time) + ", accuracy " + metresText(fix.accuracy));
        }
        out_ += "</g>\n";
    }

    void uploadTicks(double y) {
        out_ += "<g class=\"upload-ticks\">\n";
        for (const auto& upload : report_.uploads) {
            std::string text = std::string(upload.succeeded ? "Upload at " : "Failed upload at ") + clock(upload.time) +
                               " of events from " + clock(upload.trackedFrom) + " to " + clock(upload.trackedTo);
            if (!upload.succeeded) text += ": " + (upload.error.empty() ? std::string("no error text") : upload.error);
            tick(timeX(upload.time), y, upload.succeeded ? kUploadGreen : kUploadRed, text);
        }
        out_ += "</g>\n";
    }

    // Vertical lines over every row, labels staggered over three levels so that close marks
    // stay readable.
    void scenarioMarks(double axis) {
        out_ += "<g class=\"scenario\">\n";
        double levelEnd[static_cast<int>(kLabelLevels)];
        std::fill(std::begin(levelEnd), std::end(levelEnd), -1e9);
        for (const auto& mark : report_.scenario) {
            const double x = timeX(mark.time);
            std::string label = mark.text.size() > 40 ? mark.text.substr(0, 37) + "..." : mark.text;
            const double labelWidth = 6.2 * static_cast<double>(label.size()) + 8.0;
            // The first level free at x; with none free, the mark keeps only its line and
            // hover text rather than writing over another label.
            int level = -1;
            for (int l = 0; l < static_cast<int>(kLabelLevels); ++l) {
                if (levelEnd[l] < x) {
                    level = l;
                    break;
                }
            }
            const double labelY = 14.0 + std::max(level, 0) * kLabelLevelHeight;
            if (level >= 0) levelEnd[level] = x + labelWidth;
            const std::string text = clock(mark.time) + ": " + mark.text;
            out_ += "<g>" + title(text) + "<line x1=\"" + num(x) + "\" y1=\"" + num(level >= 0 ? labelY + 3 : kRowsTop - 4) +
                    "\" x2=\"" + num(x) + "\" y2=\"" + num(axis) + "\" stroke=\"" + kMuted +
                    "\" stroke-width=\"1\" stroke-dasharray=\"3 3\"/>";
            if (level >= 0) {
                // Near the right edge the label reads leftwards from its line.
                const bool leftwards = x + labelWidth > kPageWidth;
                out_ += "<text x=\"" + num(leftwards ? x - 3 : x + 3) + "\" y=\"" + num(labelY) + "\"" +
                        (leftwards ? " text-anchor=\"end\"" : "") + " class=\"mark-label\">" + escape(label) +
                        "</text>";
            }
            out_ += "</g>\n";
        }
        out_ += "</g>\n";
    }

    void timelineLegend() {
        out_ += "<ul class=\"legend\">\n";
        legendItem(rect(2, 22, 3, 10, kAwakeSky, "awake"), "awake");
        legendItem(rect(2, 22, 3, 10, kAsleepIndigo, "asleep"), "asleep");
        legendItem(rect(2, 22, 3, 10, kOffGrey, "tracking off"), "tracking off");
        for (const auto& band : kBands) {
            legendItem(rect(2, 22, 3, 10, band.colour, band.name), std::string("location ") + band.name);
        }
        legendItem(rect(2, 22, 3, 10, kStayShade, "true stay found"), "true stay found");
        legendItem(rect(2, 22, 3, 10, kMissedRed, "true stay missed"), "true stay missed");
        legendItem("<line x1=\"12\" y1=\"2\" x2=\"12\" y2=\"14\" stroke=\"" + std::string(kUploadGreen) +
                       "\" stroke-width=\"2\"/>",
                   "upload");
        legendItem("<line x1=\"12\" y1=\"2\" x2=\"12\" y2=\"14\" stroke=\"" + std::string(kUploadRed) +
                       "\" stroke-width=\"2\"/>",
                   "failed upload");
        legendItem("<line x1=\"12\" y1=\"1\" x2=\"12\" y2=\"15\" stroke=\"" + std::string(kMuted) +
                       "\" stroke-dasharray=\"3 3\"/>",
                   "scenario mark");
        out_ += "</ul>\n";
    }

    void script() {
        // Without scripts the page is complete; with them, the legend's boxes hide layers.
        out_ += R"(<script>
document.body.classList.add('js');
document.querySelectorAll('input[data-layer]').forEach(function (box) {
  box.addEventListener('change', function () {
    document.querySelectorAll('input[data-layer="' + box.dataset.layer + '"]').forEach(function (twin) {
      twin.checked = box.checked;
    });
    document.querySelectorAll('svg.map .' + box.dataset.layer).forEach(function (layer) {
      layer.style.display = box.checked ? '' : 'none';
    });
  });
});
</script>
)";
    }

    const SimulationReport& report_;
    const ReportFigures figures_;
    const MapProjection projection_;
    const std::vector<std::vector<const GeofenceRegion*>> sets_;
    const std::vector<std::pair<std::string, std::size_t>> providers_;
    Date timeFrom_;
    double span_ = 1.0;
    std::string out_;
};

}  // namespace

std::string renderMapHtml(const SimulationReport& report) { return MapPage(report).render(); }

}  // namespace rovalis::sim
