#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "rovalis/Date.h"

namespace rovalis::sim {

// Reads an ISO 8601 date and time as recordings write them: "2024-01-16T08:10:00Z",
// fractional seconds ("08:10:00.250Z", with '.' or ','), an offset ("+01:00", "+0100", "-05"),
// a space or a lower-case 't' for the 'T', seconds left out ("08:10Z"). A time without a
// zone is taken as UTC, which is what the recorders that leave it out mean. Nothing else is
// accepted: an empty optional for anything that does not read as a whole.
std::optional<Date> parseIsoTime(std::string_view text);

// "2024-01-16T08:10:00Z", with `fractionDigits` (0..9) digits of the second after a '.'.
std::string isoTime(Date date, int fractionDigits = 0);

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day);
struct CivilDate {
    std::int64_t year;
    unsigned month;
    unsigned day;
};
CivilDate civilFromDays(std::int64_t days);

}  // namespace rovalis::sim
