#pragma once

// What the summary, its JSON and the map page all derive from a report, worked out in one
// place so that the three never disagree, and the small text formats they share.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sim/SimulationReport.h"

namespace rovalis::sim {

// The location service's accuracy bands, most costly first.
inline constexpr const char* kAccuracyBands[] = {"ten-metre", "hundred-metre", "kilometre"};

struct ReportFigures {
    double simulatedSeconds = 0.0;
    std::optional<double> speedUp;  // simulated seconds per wall second

    std::int64_t staysFound = 0;
    std::vector<Transition> sleepsOutsideStays;  // sleeps that began while the device moved
    std::int64_t sleeps = 0;
    std::int64_t wakes = 0;

    // Location updates of every band, in seconds, and the share of the always-on baseline
    // that was not spent.
    double locationSeconds = 0.0;
    std::optional<double> savingPercent;
    // Bands with seconds, the named ones first, then any other the report holds.
    std::vector<std::pair<std::string, double>> bandSeconds;

    std::optional<double> compressionRatio;  // document bytes per wire byte
    std::int64_t uploadsSucceeded = 0;
    std::int64_t uploadsFailed = 0;

    std::int64_t eventsTotal = 0;
    std::vector<std::pair<std::string, std::int64_t>> eventsByCount;  // most first, then by name

    // Recorded events neither held by the service nor left on the device (negative: more
    // there than were ever recorded).
    std::int64_t unaccounted = 0;
    bool deliveredExactlyOnce = false;
};

ReportFigures deriveFigures(const SimulationReport& report);

// Whether `time` falls within the stay, both ends included.
bool withinStay(const StayOutcome& stay, Date time);

// "HH:MM:SS" in UTC, with "+Nd" when the time falls N days after `day`'s date.
std::string clockTime(Date time, Date day);
// "2024-05-14T07:22:13.250Z".
std::string isoTime(Date time);
// "2024-05-14".
std::string isoDay(Date time);
std::int64_t epochMilliseconds(Date time);
// "3h 05m 09s", "5m 09s", "9s", "0.25s".
std::string durationText(double seconds);
// "12,345".
std::string groupedNumber(std::int64_t value);
// A number with at most `decimals` decimals and no trailing zeros after the point.
std::string decimalText(double value, int decimals);
// A number with exactly `decimals` decimals, for columns.
std::string fixedText(double value, int decimals);

// Percent of `part` in `whole`, none when `whole` is not positive.
std::optional<double> percentOf(double part, double whole);

}  // namespace rovalis::sim
