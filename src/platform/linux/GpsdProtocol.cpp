#include "platform/linux/GpsdProtocol.h"

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

namespace rovalis::gpsd {

namespace {

using Json = nlohmann::json;

// A field that may be absent. Present with the wrong type or outside [minimum, maximum]
// makes the whole report invalid, so `valid` goes false.
class FieldReader {
public:
    explicit FieldReader(const Json& object) : object_(object) {}

    bool valid() const { return valid_; }

    std::optional<double> number(const char* key, double minimum, double maximum) {
        const auto found = object_.find(key);
        if (found == object_.end()) return std::nullopt;
        if (!found->is_number()) return fail();
        const double value = found->get<double>();
        if (!std::isfinite(value) || value < minimum || value > maximum) return fail();
        return value;
    }

    std::optional<std::string> string(const char* key) {
        const auto found = object_.find(key);
        if (found == object_.end()) return std::nullopt;
        if (!found->is_string()) {
            valid_ = false;
            return std::nullopt;
        }
        return found->get<std::string>();
    }

private:
    std::nullopt_t fail() {
        valid_ = false;
        return std::nullopt;
    }

    const Json& object_;
    bool valid_ = true;
};

// Bounds that no real receiver reports beyond; a value outside is damage, not data.
constexpr double maximumAltitude = 1.0e6;      // metres, either side of the ellipsoid
constexpr double maximumSpeed = 1.0e5;         // metres per second
constexpr double maximumErrorEstimate = 1.0e8;  // metres

Message parseTpv(const Json& object, Date receivedAt) {
    const auto mode = object.find("mode");
    if (mode == object.end() || !mode->is_number_integer()) return Invalid{};
    const auto modeValue = mode->get<long long>();
    if (modeValue < 0 || modeValue > 3) return Invalid{};

    FieldReader read(object);
    const auto latitude = read.number("lat", -90.0, 90.0);
    const auto longitude = read.number("lon", -180.0, 180.0);
    const auto timeText = read.string("time");
    const auto eph = read.number("eph", 0.0, maximumErrorEstimate);
    const auto epx = read.number("epx", 0.0, maximumErrorEstimate);
    const auto epy = read.number("epy", 0.0, maximumErrorEstimate);
    const auto epv = read.number("epv", 0.0, maximumErrorEstimate);
    // Mean sea level is what the platform calls altitude; older gpsd sends it as "alt".
    const auto altMsl = read.number("altMSL", -maximumAltitude, maximumAltitude);
    const auto alt = read.number("alt", -maximumAltitude, maximumAltitude);
    const auto altHae = read.number("altHAE", -maximumAltitude, maximumAltitude);
    const auto speed = read.number("speed", 0.0, maximumSpeed);
    const auto track = read.number("track", 0.0, 360.0);
    std::optional<Date> time;
    if (timeText) {
        time = parseTime(*timeText);
        if (!time) return Invalid{};
    }
    if (!read.valid()) return Invalid{};

    if (modeValue < 2) return NoFix{};
    if (!latitude || !longitude) return Invalid{};  // a 2D fix names its position

    Location location;
    location.coordinate = {*latitude, *longitude};
    if (eph) {
        location.horizontalAccuracy = *eph;
    } else if (epx && epy) {
        location.horizontalAccuracy = std::hypot(*epx, *epy);
    } else if (epx || epy) {
        location.horizontalAccuracy = epx ? *epx : *epy;
    } else {
        return NoFix{};  // a position nobody can judge is not handed on
    }
    const auto altitude = altMsl ? altMsl : alt ? alt : altHae;
    if (modeValue == 3 && altitude) {
        location.altitude = *altitude;
        location.verticalAccuracy = epv.value_or(-1.0);
    }
    location.speed = speed.value_or(-1.0);
    location.course = track ? (*track == 360.0 ? 0.0 : *track) : -1.0;
    location.timestamp = time.value_or(receivedAt);
    return Fix{location};
}

Message parseDevices(const Json& object) {
    const auto devices = object.find("devices");
    if (devices == object.end() || !devices->is_array()) return Invalid{};
    DeviceList list;
    for (const Json& device : *devices) {
        if (!device.is_object()) return Invalid{};
        const auto path = device.find("path");
        if (path == device.end() || !path->is_string()) return Invalid{};
        list.paths.push_back(path->get<std::string>());
    }
    return list;
}

Message parseDevice(const Json& object) {
    const auto path = object.find("path");
    if (path == object.end() || !path->is_string()) return Invalid{};
    DeviceChange change{path->get<std::string>(), false};
    // "activated" is the time the device was opened: an ISO text, or a number of seconds
    // in older versions; absent or zero when it is closed or gone.
    const auto activated = object.find("activated");
    if (activated == object.end()) return change;
    if (activated->is_string()) {
        change.active = !activated->get_ref<const std::string&>().empty();
    } else if (activated->is_number()) {
        const double seconds = activated->get<double>();
        if (!std::isfinite(seconds)) return Invalid{};
        change.active = seconds != 0.0;
    } else {
        return Invalid{};
    }
    return change;
}

bool digits(std::string_view text, std::size_t from, std::size_t count, int& value) {
    if (from + count > text.size()) return false;
    value = 0;
    for (std::size_t i = from; i < from + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

}  // namespace

std::optional<Date> parseTime(std::string_view text) {
    // YYYY-MM-DDTHH:MM:SS[.fff...]Z
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, 0, 4, year) || text.size() < 20 || text[4] != '-' || !digits(text, 5, 2, month) ||
        text[7] != '-' || !digits(text, 8, 2, day) || text[10] != 'T' || !digits(text, 11, 2, hour) ||
        text[13] != ':' || !digits(text, 14, 2, minute) || text[16] != ':' || !digits(text, 17, 2, second)) {
        return std::nullopt;
    }
    double fraction = 0.0;
    std::size_t position = 19;
    if (text[position] == '.') {
        ++position;
        double scale = 0.1;
        const std::size_t first = position;
        while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
            fraction += (text[position] - '0') * scale;
            scale /= 10.0;
            ++position;
        }
        if (position == first) return std::nullopt;
    }
    if (position + 1 != text.size() || text[position] != 'Z') return std::nullopt;

    using namespace std::chrono;
    const year_month_day date{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                              std::chrono::day{static_cast<unsigned>(day)}};
    // A leap second (:60) is allowed; it reads as the first second of the next minute.
    if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    const auto days = sys_days{date}.time_since_epoch().count();
    const double seconds = static_cast<double>(days) * 86400.0 + hour * 3600.0 + minute * 60.0 + second + fraction;
    return Date{seconds};
}

Message parseLine(std::string_view line, Date receivedAt) {
    const Json object = Json::parse(line.begin(), line.end(), nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) return Invalid{};  // also what a parse error gives (discarded)
    const auto kind = object.find("class");
    if (kind == object.end() || !kind->is_string()) return Invalid{};
    const auto& name = kind->get_ref<const std::string&>();
    if (name == "TPV") return parseTpv(object, receivedAt);
    if (name == "DEVICES") return parseDevices(object);
    if (name == "DEVICE") return parseDevice(object);
    return Other{};
}

}  // namespace rovalis::gpsd
