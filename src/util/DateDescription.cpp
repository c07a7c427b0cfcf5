#include "util/DateDescription.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace rovalis {

std::string dateDebugDescription(Date date) {
    const double seconds = std::floor(date.secondsSince1970);
    if (!std::isfinite(seconds)) return "(invalid date)";
    const auto whole = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (::gmtime_r(&whole, &parts) == nullptr) return "(invalid date)";
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d +0000", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

}  // namespace rovalis
