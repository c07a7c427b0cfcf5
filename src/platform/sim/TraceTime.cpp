#include "platform/sim/TraceTime.h"

#include <cmath>
#include <cstdio>

namespace rovalis::sim {

// The two conversions are the well-known era-based ones: exact for every date, no tables.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

CivilDate civilFromDays(std::int64_t days) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
    const unsigned month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
    return CivilDate{static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

namespace {

class Cursor {
public:
    explicit Cursor(std::string_view text) : text_(text) {}

    bool atEnd() const { return position_ == text_.size(); }
    char peek() const { return atEnd() ? '\0' : text_[position_]; }
    bool take(char c) {
        if (peek() != c) return false;
        ++position_;
        return true;
    }
    // Exactly `count` digits.
    std::optional<unsigned> digits(int count) {
        unsigned value = 0;
        for (int i = 0; i < count; ++i) {
            const char c = peek();
            if (c < '0' || c > '9') return std::nullopt;
            value = value * 10 + static_cast<unsigned>(c - '0');
            ++position_;
        }
        return value;
    }
    // One or more digits after a decimal separator, as the fraction they stand for.
    std::optional<double> fraction() {
        double value = 0.0, scale = 0.1;
        const std::size_t first = position_;
        while (peek() >= '0' && peek() <= '9') {
            value += (peek() - '0') * scale;
            scale /= 10.0;
            ++position_;
        }
        if (position_ == first) return std::nullopt;
        return value;
    }

private:
    std::string_view text_;
    std::size_t position_ = 0;
};

}  // namespace

std::optional<Date> parseIsoTime(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    Cursor cursor(text);
    const auto year = cursor.digits(4);
    if (!year || !cursor.take('-')) return std::nullopt;
    const auto month = cursor.digits(2);
    if (!month || !cursor.take('-')) return std::nullopt;
    const auto day = cursor.digits(2);
    if (!day || !(cursor.take('T') || cursor.take('t') || cursor.take(' '))) return std::nullopt;
    const auto hour = cursor.digits(2);
    if (!hour || !cursor.take(':')) return std::nullopt;
    const auto minute = cursor.digits(2);
    if (!minute) return std::nullopt;
    unsigned second = 0;
    double fraction = 0.0;
    if (cursor.take(':')) {
        const auto whole = cursor.digits(2);
        if (!whole) return std::nullopt;
        second = *whole;
        if (cursor.take('.') || cursor.take(',')) {
            const auto part = cursor.fraction();
            if (!part) return std::nullopt;
            fraction = *part;
        }
    }
    if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 24 || *minute > 59 || second > 60) {
        return std::nullopt;
    }
    if (*hour == 24 && (*minute != 0 || second != 0 || fraction != 0.0)) return std::nullopt;
    const std::int64_t days = daysFromCivil(*year, *month, *day);
    // A day that does not exist (February 30th) comes back as another date.
    const CivilDate check = civilFromDays(days);
    if (check.month != *month || check.day != *day) return std::nullopt;

    int offsetSeconds = 0;
    if (cursor.take('Z') || cursor.take('z')) {
    } else if (cursor.peek() == '+' || cursor.peek() == '-') {
        const int sign = cursor.peek() == '-' ? -1 : 1;
        cursor.take(cursor.peek());
        const auto offsetHours = cursor.digits(2);
        if (!offsetHours) return std::nullopt;
        unsigned offsetMinutes = 0;
        if (!cursor.atEnd()) {
            cursor.take(':');
            const auto minutes = cursor.digits(2);
            if (!minutes) return std::nullopt;
            offsetMinutes = *minutes;
        }
        if (*offsetHours > 18 || offsetMinutes > 59) return std::nullopt;
        offsetSeconds = sign * static_cast<int>(*offsetHours * 3600 + offsetMinutes * 60);
    }
    if (!cursor.atEnd()) return std::nullopt;
    const double seconds = static_cast<double>(days) * 86400.0 + *hour * 3600.0 + *minute * 60.0 + second;
    return Date{seconds - offsetSeconds + fraction};
}

std::string isoTime(Date date, int fractionDigits) {
    if (fractionDigits < 0) fractionDigits = 0;
    if (fractionDigits > 9) fractionDigits = 9;
    const double scale = std::pow(10.0, fractionDigits);
    // Rounded once, in units of the last digit shown, so 59.9999 never prints as "60".
    const auto units = static_cast<std::int64_t>(std::llround(date.secondsSince1970 * scale));
    const auto perSecond = static_cast<std::int64_t>(scale);
    std::int64_t wholeSeconds = units / perSecond;
    std::int64_t part = units % perSecond;
    if (part < 0) {
        part += perSecond;
        --wholeSeconds;
    }
    std::int64_t days = wholeSeconds / 86400;
    std::int64_t secondOfDay = wholeSeconds % 86400;
    if (secondOfDay < 0) {
        secondOfDay += 86400;
        --days;
    }
    const CivilDate civil = civilFromDays(days);
    char buffer[64];
    int length = std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02lld:%02lld:%02lld",
                               static_cast<long long>(civil.year), civil.month, civil.day,
                               static_cast<long long>(secondOfDay / 3600),
                               static_cast<long long>(secondOfDay / 60 % 60), static_cast<long long>(secondOfDay % 60));
    if (fractionDigits > 0) {
        length += std::snprintf(buffer + length, sizeof buffer - static_cast<std::size_t>(length), ".%0*lld",
                                fractionDigits, static_cast<long long>(part));
    }
    return std::string(buffer, static_cast<std::size_t>(length)) + "Z";
}

}  // namespace rovalis::sim
