#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "sim/ReportFigures.h"
#include "sim/ReportRenderers.h"

namespace rovalis::sim {

namespace {

constexpr std::size_t kLineWidth = 100;
constexpr std::size_t kIndent = 2;
constexpr std::size_t kGap = 2;

constexpr const char* kBold = "1";
constexpr const char* kDim = "2";
constexpr const char* kGreen = "32";
constexpr const char* kRed = "31";
constexpr const char* kBoldGreen = "1;32";
constexpr const char* kBoldRed = "1;31";

class Painter {
public:
    explicit Painter(bool enabled) : enabled_(enabled) {}
    std::string operator()(const std::string& text, const char* code) const {
        if (!enabled_ || code == nullptr || text.empty()) return text;
        return "\x1b[" + std::string(code) + "m" + text + "\x1b[0m";
    }

private:
    bool enabled_;
};

// Text from outside (trace names, reasons, errors) as one line of printable ASCII: control
// characters become spaces, and each UTF-8 sequence one '?', so that widths are columns.
std::string plain(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x80) {
            result += '?';
            while (i + 1 < text.size() && (static_cast<unsigned char>(text[i + 1]) & 0xC0) == 0x80) ++i;
        } else if (byte < 0x20 || byte == 0x7F) {
            result += ' ';
        } else {
            result += static_cast<char>(byte);
        }
    }
    return result;
}

std::string fit(std::string text, std::size_t width) {
    if (text.size() <= width) return text;
    if (width <= 3) return text.substr(0, width);
    return text.substr(0, width - 3) + "...";
}

std::string padded(const std::string& text, std::size_t width, bool right) {
    if (text.size() >= width) return text;
    const std::string fill(width - text.size(), ' ');
    return right ? fill + text : text + fill;
}

struct Column {
    std::string heading;
    bool right = false;
};

struct Cell {
    std::string text;
    const char* colour = nullptr;
};

// Columns as wide as their widest cell; the last one takes what is left of the line and is
// cut short to stay within it.
class Table {
public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<Cell> cells) {
        cells.resize(columns_.size());
        rows_.push_back(std::move(cells));
    }
    bool empty() const { return rows_.empty(); }

    void render(std::vector<std::string>& lines, const Painter& paint) const {
        std::vector<std::size_t> widths(columns_.size(), 0);
        const bool headed =
            std::any_of(columns_.begin(), columns_.end(), [](const Column& column) { return !column.heading.empty(); });
        for (std::size_t c = 0; c < columns_.size(); ++c) {
            if (headed) widths[c] = columns_[c].heading.size();
            for (const auto& row : rows_) widths[c] = std::max(widths[c], row[c].text.size());
        }
        std::size_t used = kIndent;
        for (std::size_t c = 0; c + 1 < columns_.size(); ++c) used += widths[c] + kGap;
        const std::size_t last = kLineWidth > used ? kLineWidth - used : 1;

        auto line = [&](const std::vector<Cell>& cells) {
            std::string text(kIndent, ' ');
            for (std::size_t c = 0; c < cells.size(); ++c) {
                const bool isLast = c + 1 == cells.size();
                std::string cell = isLast ? fit(cells[c].text, last) : cells[c].text;
                if (!isLast || columns_[c].right)
                    cell = padded(cell, isLast ? std::min(widths[c], last) : widths[c], columns_[c].right);
                text += paint(cell, cells[c].colour);
                if (!isLast) text += std::string(kGap, ' ');
            }
            while (!text.empty() && text.back() == ' ') text.pop_back();
            lines.push_back(text);
        };
        if (headed) {
            std::vector<Cell> heading;
            for (const auto& column : columns_) heading.push_back({column.heading, kDim});
            line(heading);
        }
        for (const auto& row : rows_) line(row);
    }

private:
    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

std::string dateTimeText(Date time) { return isoDay(time) + " " + clockTime(time, time); }

std::string percentText(const std::optional<double>& percent) {
    return percent ? fixedText(*percent, 1) + " %" : "n/a";
}

std::string plural(std::int64_t count, const std::string& one, const std::string& many) {
    return groupedNumber(count) + " " + (count == 1 ? one : many);
}

std::string placeText(const LocationCoordinate2D& at) {
    return fixedText(at.latitude, 5) + ", " + fixedText(at.longitude, 5);
}

class Summary {
public:
    Summary(const SimulationReport& report, bool colour)
        : report_(report), figures_(deriveFigures(report)), paint_(colour) {}

    std::string render() {
        run();
        events();
        stays();
        tracking();
        transitions();
        energy();
        beacons();
        uploads();
        delivery();
        std::string text;
        for (const auto& line : lines_) text += line + "\n";
        return text;
    }

private:
    void heading(const std::string& text) {
        if (!lines_.empty()) lines_.emplace_back();
        lines_.push_back(paint_(fit(text, kLineWidth), kBold));
    }
    void note(const std::string& text, const char* colour = nullptr) {
        lines_.push_back(std::string(kIndent, ' ') + paint_(fit(text, kLineWidth - kIndent), colour));
    }
    std::string clock(Date time) const { return clockTime(time, report_.start); }

    void run() {
        heading("Simulated run of " + plain(report_.traceName));
        Table table({{}, {}});
        table.add({{"trace"}, {plain(report_.traceName)}});
        table.add({{"seed"}, {std::to_string(report_.seed)}});
        table.add({{"simulated"},
                   {dateTimeText(report_.start) + " to " + dateTimeText(report_.end) + " UTC (" +
                    durationText(figures_.simulatedSeconds) + ")"}});
        std::string wall = durationText(report_.wallSeconds);
        if (figures_.speedUp) {
            wall +=
                " (" + decimalText(*figures_.speedUp, *figures_.speedUp < 100.0 ? 1 : 0) + "x faster than real time)";
        }
        table.add({{"wall time"}, {wall}});
        table.render(lines_, paint_);
    }

    void events() {
        if (!report_.delivery.readBack) {
            heading("Events: not read back from the service");
            note("the service has no GET /api/events: the events by type, the sleeps, wake-ups and fixes");
            note("are not known, and delivery is counted from the service's answers");
            return;
        }
        heading("Events accepted by the service: " + groupedNumber(figures_.eventsTotal) + " in " +
                plural(static_cast<std::int64_t>(figures_.eventsByCount.size()), "type", "types"));
        Table table({{"type"}, {"count", true}, {"share", true}});
        for (const auto& [type, count] : figures_.eventsByCount) {
            table.add(
                {{plain(type)},
                 {groupedNumber(count)},
                 {percentText(percentOf(static_cast<double>(count), static_cast<double>(figures_.eventsTotal)))}});
        }
        if (table.empty()) {
            note("none");
        } else {
            table.render(lines_, paint_);
        }
    }

    void stays() {
        heading("Stays of the trace: " +
                (report_.delivery.readBack ? std::to_string(figures_.staysFound) + " of " : std::string()) +
                std::to_string(report_.stays.size()) +
                (report_.delivery.readBack ? " found by a sleep" : ", the SDK's sleeps not read back"));
        if (report_.stays.empty()) {
            note("the trace has no stays");
        } else {
            Table table(
                {{"#", true}, {"start"}, {"end"}, {"length", true}, {"place"}, {"slept at"}, {"woke at"}, {"result"}});
            std::size_t number = 0;
            for (const auto& stay : report_.stays) {
                const bool found = stay.sleptAt.has_value();
                const char* result = !report_.delivery.readBack ? "unknown" : found ? "found" : "missed";
                table.add({{std::to_string(++number)},
                           {clock(stay.start)},
                           {clock(stay.end)},
                           {durationText(stay.end.timeIntervalSince(stay.start))},
                           {placeText(stay.centre)},
                           {stay.sleptAt ? clock(*stay.sleptAt) : "-"},
                           {stay.wokeAt ? clock(*stay.wokeAt) : "-"},
                           {result, !report_.delivery.readBack ? nullptr : found ? kGreen : kRed}});
            }
            table.render(lines_, paint_);
        }
        const auto& outside = figures_.sleepsOutsideStays;
        if (outside.empty()) {
            note("Sleeps outside any true stay: none");
            return;
        }
        note("Sleeps outside any true stay: " + std::to_string(outside.size()), kRed);
        Table table({{"slept at"}, {"place"}, {"reason"}});
        for (const auto& sleep : outside) {
            table.add(
                {{clock(sleep.time)}, {sleep.position ? placeText(*sleep.position) : "-"}, {plain(sleep.reason)}});
        }
        table.render(lines_, paint_);
    }

    void tracking() {
        heading("Tracking switched on and off: " + plural(static_cast<std::int64_t>(report_.trackingToggles.size()),
                                                          "time", "times"));
        Table table({{"time"}, {"tracking"}, {"reason"}});
        for (const auto& toggle : report_.trackingToggles) {
            table.add({{clock(toggle.time)}, {toggle.on ? "on" : "off"}, {plain(toggle.reason)}});
        }
        table.render(lines_, paint_);
    }

    void transitions() {
        heading("Sleep and wake: " + plural(figures_.sleeps, "sleep", "sleeps") + ", " +
                plural(figures_.wakes, "wake-up", "wake-ups"));
        if (report_.transitions.empty()) {
            note("the SDK never slept");
            return;
        }
        Table table({{"time"}, {"state"}, {"reason"}});
        for (const auto& transition : report_.transitions) {
            table.add({{clock(transition.time)}, {transition.asleep ? "asleep" : "awake"}, {plain(transition.reason)}});
        }
        table.render(lines_, paint_);
    }

    void energy() {
        const auto& energy = report_.energy;
        heading("GPS and sensors against ten-metre updates all day");
        Table table({{"location updates"}, {"time", true}, {"of always-on", true}});
        for (const auto& [band, seconds] : figures_.bandSeconds) {
            table.add({{plain(band)},
                       {durationText(seconds)},
                       {percentText(percentOf(seconds, energy.alwaysOnBaselineSeconds))}});
        }
        table.add({{"all bands"},
                   {durationText(figures_.locationSeconds)},
                   {percentText(percentOf(figures_.locationSeconds, energy.alwaysOnBaselineSeconds))}});
        table.add({{"always-on"},
                   {durationText(energy.alwaysOnBaselineSeconds)},
                   {percentText(percentOf(energy.alwaysOnBaselineSeconds, energy.alwaysOnBaselineSeconds))}});
        table.add({{"saving"}, {}, {percentText(figures_.savingPercent), kBold}});
        table.render(lines_, paint_);
        lines_.emplace_back();
        Table other({{}, {}});
        other.add({{"bursts"}, {durationText(energy.burstSeconds)}});
        other.add({{"wake-ups"}, {groupedNumber(energy.wakeUps)}});
        other.add({{"accelerometer"}, {durationText(energy.accelerometerSeconds)}});
        other.render(lines_, paint_);
    }

    void beacons() {
        const auto& beacons = report_.beacons;
        if (beacons.placed.empty()) return;
        std::int64_t sightings = 0;
        for (const auto& beacon : beacons.placed) sightings += beacon.sightings;
        heading("Beacons: " + plural(static_cast<std::int64_t>(beacons.scans.size()), "scan", "scans") + ", " +
                plural(sightings, "sighting", "sightings"));
        Table table({{"beacon"}, {"at"}, {"sightings", true}});
        for (const auto& beacon : beacons.placed) {
            table.add({{plain(beacon.label)}, {placeText(beacon.position)}, {groupedNumber(beacon.sightings)}});
        }
        table.render(lines_, paint_);
        lines_.emplace_back();
        Table other({{}, {}});
        other.add({{"region crossings"}, {groupedNumber(beacons.regionEvents)}});
        other.add({{"ranging"}, {durationText(beacons.rangingSeconds)}});
        other.add({{"Bluetooth LE scanning"}, {durationText(beacons.scanningSeconds)}});
        other.render(lines_, paint_);
    }

    void uploads() {
        const auto& delivery = report_.delivery;
        heading("Uploads");
        Table table({{}, {"", true}});
        table.add({{"batches"}, {groupedNumber(delivery.batches)}});
        table.add({{"requests"}, {groupedNumber(delivery.batchRequests)}});
        table.add({{"failures"}, {groupedNumber(figures_.uploadsFailed), figures_.uploadsFailed > 0 ? kRed : nullptr}});
        table.add({{"duplicates refused"}, {groupedNumber(delivery.duplicateBatchesRefused)}});
        table.add({{"wire bytes"}, {groupedNumber(delivery.wireBytes)}});
        table.add({{"document bytes"}, {groupedNumber(delivery.documentBytes)}});
        table.add(
            {{"compression"}, {figures_.compressionRatio ? fixedText(*figures_.compressionRatio, 1) + " : 1" : "n/a"}});
        if (delivery.documentBytes > 0) {
            const auto megabytes = [](std::int64_t bytes) { return fixedText(static_cast<double>(bytes) / 1e6, 1); };
            table.add({{"store writes"},
                       {megabytes(delivery.storeWriteBytes) + " MB for " + megabytes(delivery.documentBytes) +
                        " MB of events, " +
                        fixedText(static_cast<double>(delivery.storeWriteBytes) /
                                      static_cast<double>(delivery.documentBytes), 1) +
                        "x"}});
        }
        table.render(lines_, paint_);
        if (figures_.uploadsFailed == 0) return;
        lines_.emplace_back();
        Table failures({{"failed at"}, {"events from"}, {"to"}, {"error"}});
        for (const auto& upload : report_.uploads) {
            if (upload.succeeded) continue;
            failures.add({{clock(upload.time), kRed},
                          {clock(upload.trackedFrom)},
                          {clock(upload.trackedTo)},
                          {upload.error.empty() ? "(no error text)" : plain(upload.error)}});
        }
        failures.render(lines_, paint_);
    }

    void delivery() {
        const auto& delivery = report_.delivery;
        heading("Delivery");
        if (!delivery.readBack) {
            note("recorded " + groupedNumber(delivery.recorded) + ", acknowledged by the service " +
                 groupedNumber(delivery.accepted) + ", left on the device " + groupedNumber(delivery.leftInStore));
            note("read-back check not available: the service has no GET /api/events, so the acknowledged");
            note("events are those the SDK deleted after a success answer, and none is checked to have");
            note("arrived exactly once");
            return;
        }
        const std::string counts = "recorded " + groupedNumber(delivery.recorded) + ", accepted by the service " +
                                   groupedNumber(delivery.accepted) + ", left on the device " +
                                   groupedNumber(delivery.leftInStore) + ", identical in content " +
                                   groupedNumber(delivery.identicalEvents);
        std::string verdict;
        const char* colour = kBoldGreen;
        if (figures_.deliveredExactlyOnce) {
            verdict = "nothing lost, nothing twice";
        } else {
            std::vector<std::string> faults;
            if (figures_.unaccounted > 0) {
                faults.push_back(plural(figures_.unaccounted, "event", "events") + " lost");
            } else if (figures_.unaccounted < 0) {
                faults.push_back(plural(-figures_.unaccounted, "event", "events") + " more than were recorded");
            }
            verdict = "FAILED: ";
            for (std::size_t i = 0; i < faults.size(); ++i) verdict += (i > 0 ? ", " : "") + faults[i];
            colour = kBoldRed;
        }
        if (kIndent + counts.size() + 2 + verdict.size() <= kLineWidth) {
            lines_.push_back(std::string(kIndent, ' ') + counts + ": " + paint_(verdict, colour));
        } else {
            note(counts + ":");
            note(verdict, colour);
        }
        if (delivery.batchDiagnostics > 0) {
            note("of the accepted, " + plural(delivery.batchDiagnostics, "diagnostic event", "diagnostic events") +
                 " closing a background batch, never recorded on the device");
        }
    }

    const SimulationReport& report_;
    const ReportFigures figures_;
    const Painter paint_;
    std::vector<std::string> lines_;
};

}  // namespace

std::string renderSummary(const SimulationReport& report, bool colour) { return Summary(report, colour).render(); }

}  // namespace rovalis::sim
