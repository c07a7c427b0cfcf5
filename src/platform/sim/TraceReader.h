#pragma once

#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "platform/sim/TruePath.h"

namespace rovalis::sim {

// A trace that cannot be read: the message names the file and the line where they are known.
class TraceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads a recorded trace, GPX when the file is XML and CSV otherwise. The points come back
// in time order (stable for equal times); each has a time and a valid coordinate, and the
// trace has at least one point.
std::vector<TracePoint> readTrace(const std::filesystem::path& path);

// GPX 1.1 or 1.0: every track point of every track and segment, or, when there are none, the
// route points. Waypoints are ignored. A point's accuracy comes from an extension element
// named `accuracy` or `hacc` (any namespace), else from `hdop`.
std::vector<TracePoint> parseGpx(std::string_view text);

// Delimited text (comma, semicolon or tab): a header row naming the columns, or rows of
// time, latitude, longitude[, accuracy]. Times are ISO 8601, epoch seconds or epoch
// milliseconds.
std::vector<TracePoint> parseCsv(std::string_view text);

}  // namespace rovalis::sim
