#include "sim/ReportFigures.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iterator>

namespace rovalis::sim {

namespace {

// Dates too far out for a calendar are shown as such rather than as a wrapped year.
constexpr double kLargestDate = 253402300799.0;  // 9999-12-31 23:59:59 UTC

bool drawable(Date time) {
    // The platform's distant past and future stand for "no time at all".
    return std::isfinite(time.secondsSince1970) && std::fabs(time.secondsSince1970) <= kLargestDate &&
           time > Date::distantPast() && time < Date::distantFuture();
}

std::int64_t wholeDays(double seconds) { return static_cast<std::int64_t>(std::floor(seconds / 86400.0)); }

}  // namespace

ReportFigures deriveFigures(const SimulationReport& report) {
    ReportFigures figures;
    figures.simulatedSeconds = report.end.timeIntervalSince(report.start);
    if (report.wallSeconds > 0.0 && figures.simulatedSeconds > 0.0) {
        figures.speedUp = figures.simulatedSeconds / report.wallSeconds;
    }

    for (const auto& stay : report.stays) {
        if (stay.sleptAt) ++figures.staysFound;
    }
    for (const auto& transition : report.transitions) {
        if (!transition.asleep) {
            ++figures.wakes;
            continue;
        }
        ++figures.sleeps;
        const bool inStay = std::any_of(report.stays.begin(), report.stays.end(),
                                        [&](const StayOutcome& stay) { return withinStay(stay, transition.time); });
        if (!inStay) figures.sleepsOutsideStays.push_back(transition);
    }

    const auto& seconds = report.energy.locationSeconds;
    for (const char* band : kAccuracyBands) {
        const auto found = seconds.find(band);
        figures.bandSeconds.emplace_back(band, found == seconds.end() ? 0.0 : found->second);
    }
    for (const auto& [band, value] : seconds) {
        if (std::find(std::begin(kAccuracyBands), std::end(kAccuracyBands), band) == std::end(kAccuracyBands)) {
            figures.bandSeconds.emplace_back(band, value);
        }
    }
    for (const auto& [band, value] : figures.bandSeconds) figures.locationSeconds += value;
    if (const auto spent = percentOf(figures.locationSeconds, report.energy.alwaysOnBaselineSeconds)) {
        figures.savingPercent = 100.0 - *spent;
    }

    const auto& delivery = report.delivery;
    if (delivery.wireBytes > 0) {
        figures.compressionRatio =
            static_cast<double>(delivery.documentBytes) / static_cast<double>(delivery.wireBytes);
    }
    for (const auto& upload : report.uploads) {
        ++(upload.succeeded ? figures.uploadsSucceeded : figures.uploadsFailed);
    }

    for (const auto& [type, count] : delivery.eventsByType) {
        figures.eventsTotal += count;
        figures.eventsByCount.emplace_back(type, count);
    }
    // Stable, so equal counts stay in the map's order of names.
    std::stable_sort(figures.eventsByCount.begin(), figures.eventsByCount.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });

    if (delivery.readBack) figures.unaccounted = delivery.recorded - (delivery.accepted - delivery.batchDiagnostics) - delivery.leftInStore;
    figures.deliveredExactlyOnce = report.deliveredExactlyOnce();
    return figures;
}

bool withinStay(const StayOutcome& stay, Date time) { return stay.start <= time && time <= stay.end; }

std::string clockTime(Date time, Date day) {
    if (!drawable(time)) return "--:--:--";
    // Whole seconds of the time as it is written to the millisecond, so that the clock and the
    // ISO text never disagree.
    const double whole = std::floor(static_cast<double>(epochMilliseconds(time)) / 1000.0);
    const auto ofDay = static_cast<long>(whole - static_cast<double>(wholeDays(whole)) * 86400.0);
    char text[48];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld", ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
    std::string result = text;
    if (drawable(day)) {
        const auto later = wholeDays(whole) - wholeDays(day.secondsSince1970);
        // Appended piece by piece: prefixing the sign to a temporary string makes GCC 12 at -O3
        // warn of an overlapping copy inside std::string that cannot happen.
        if (later > 0) result += '+';
        if (later != 0) result += std::to_string(later) + 'd';
    }
    return result;
}

std::int64_t epochMilliseconds(Date time) {
    if (!drawable(time)) return 0;
    return static_cast<std::int64_t>(std::llround(time.secondsSince1970 * 1000.0));
}

std::string isoTime(Date time) {
    if (!drawable(time)) return "invalid";
    using namespace std::chrono;
    const sys_time<milliseconds> point{milliseconds{epochMilliseconds(time)}};
    const auto day = floor<days>(point);
    const year_month_day date{day};
    const hh_mm_ss clock{point - day};
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
    return text;
}

std::string isoDay(Date time) { return isoTime(time).substr(0, 10); }

std::string durationText(double seconds) {
    if (!std::isfinite(seconds)) return "?";
    const std::string sign = seconds < 0 ? "-" : "";
    seconds = std::fabs(seconds);
    if (seconds < 60.0) return sign + decimalText(seconds, seconds < 10.0 ? 2 : 1) + "s";
    const auto whole = static_cast<long long>(std::llround(seconds));
    char text[64];
    if (whole < 3600) {
        std::snprintf(text, sizeof text, "%lldm %02llds", whole / 60, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%lldh %02lldm %02llds", whole / 3600, whole / 60 % 60, whole % 60);
    }
    return sign + text;
}

std::string groupedNumber(std::int64_t value) {
    const std::string digits =
        std::to_string(value < 0 ? -static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value));
    std::string result;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) result += ',';
        result += digits[i];
    }
    return (value < 0 ? "-" : "") + result;
}

std::string decimalText(double value, int decimals) {
    if (!std::isfinite(value)) return "?";
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    std::string result = text;
    if (result.find('.') != std::string::npos) {
        while (result.back() == '0') result.pop_back();
        if (result.back() == '.') result.pop_back();
    }
    if (result == "-0") result = "0";
    return result;
}

std::string fixedText(double value, int decimals) {
    if (!std::isfinite(value)) return "?";
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::optional<double> percentOf(double part, double whole) {
    if (!(whole > 0.0) || !std::isfinite(part)) return std::nullopt;
    return part / whole * 100.0;
}

}  // namespace rovalis::sim
