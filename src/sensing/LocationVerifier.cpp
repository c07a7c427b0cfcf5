#include "sensing/LocationVerifier.h"

#include <charconv>
#include <cmath>
#include <utility>

#include "rovalis/Console.h"

namespace rovalis {

namespace {

// The shortest text that reads back to the value: "91", "-0.5", "nan", "inf".
std::string numberText(double value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

}  // namespace

std::optional<std::string> fixDefect(const Location& fix) {
    const std::pair<const char*, double> numbers[] = {
        {"timestamp", fix.timestamp.secondsSince1970},
        {"latitude", fix.coordinate.latitude},
        {"longitude", fix.coordinate.longitude},
        {"horizontal accuracy", fix.horizontalAccuracy},
        {"speed", fix.speed},
        {"course", fix.course},
        {"altitude", fix.altitude},
    };
    for (const auto& [name, value] : numbers) {
        if (!std::isfinite(value)) return std::string(name) + " " + numberText(value) + " is not a finite number";
    }
    if (std::abs(fix.coordinate.latitude) > 90.0) {
        return "latitude " + numberText(fix.coordinate.latitude) + " is outside -90 to 90";
    }
    if (std::abs(fix.coordinate.longitude) > 180.0) {
        return "longitude " + numberText(fix.coordinate.longitude) + " is outside -180 to 180";
    }
    if (fix.horizontalAccuracy < 0.0) {
        return "horizontal accuracy " + numberText(fix.horizontalAccuracy) + " is negative";
    }
    return std::nullopt;
}

bool acceptFixFrom(std::string_view path, const Location& fix) {
    const auto defect = fixDefect(fix);
    if (!defect) return true;
    Console::log("dropped a location fix from " + std::string(path) + ": " + *defect);
    return false;
}

}  // namespace rovalis
