#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/platform/Location.h"

namespace rovalis::gpsd {

// The requests this client sends. gpsd ignores the newline after a command.
inline constexpr std::string_view watchOnCommand = "?WATCH={\"enable\":true,\"json\":true};\n";
inline constexpr std::string_view watchOffCommand = "?WATCH={\"enable\":false};\n";
inline constexpr std::string_view devicesCommand = "?DEVICES;\n";

// What one line from gpsd says, as far as the location service cares.

// A reply that is not a well-formed gpsd object: not JSON, not an object, no class, or a
// field we read with the wrong type or a value that cannot be right.
struct Invalid {};
// A well-formed object of a class we do not use (VERSION, WATCH, SKY, ERROR, ...).
struct Other {};
// A time-position-velocity report without a usable position (mode 0 or 1, or no error
// estimate to judge it by).
struct NoFix {};
// A time-position-velocity report with a 2D or 3D position.
struct Fix {
    Location location;
};
// The devices gpsd knows, active or not.
struct DeviceList {
    std::vector<std::string> paths;
};
// One device became active, or was closed or removed.
struct DeviceChange {
    std::string path;
    bool active = false;
};

using Message = std::variant<Invalid, Other, NoFix, Fix, DeviceList, DeviceChange>;

// Reads one line (without its line end). A fix without a time of its own is stamped with
// receivedAt. Never throws: every line is outside input.
Message parseLine(std::string_view line, Date receivedAt);

// An ISO 8601 UTC time as gpsd writes it: "2024-05-01T12:30:45.123Z" (the fraction may be
// absent or of any length). None for anything else.
std::optional<Date> parseTime(std::string_view text);

}  // namespace rovalis::gpsd
