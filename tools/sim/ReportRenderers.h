#pragma once

// The three ways a simulated run is shown: the summary a developer reads in the terminal at
// the end of a run, the same figures as JSON for scripts, and a self-contained HTML page with
// the map and the day's timeline.

#include <string>

#include "sim/SimulationReport.h"

namespace rovalis::sim {

// Plain ASCII, aligned columns, no line over 100 characters. With `colour`, headings and
// verdicts are set off with ANSI escapes.
std::string renderSummary(const SimulationReport& report, bool colour);

// The summary's figures as one JSON object: snake_case keys in sorted order, times both as
// ISO 8601 UTC text and as epoch milliseconds, figures that have no value (a ratio over
// zero) as null.
std::string renderSummaryJson(const SimulationReport& report);

// One HTML page with inline SVG and CSS and nothing fetched from the network.
std::string renderMapHtml(const SimulationReport& report);

}  // namespace rovalis::sim
