#include "platform/sim/Scenario.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <type_traits>

namespace rovalis::sim {

namespace {

[[noreturn]] void fail(int line, const std::string& what) {
    throw ScenarioError("line " + std::to_string(line) + ": " + what);
}

std::string lowered(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> result;
    std::size_t position = 0;
    while (true) {
        position = line.find_first_not_of(" \t\r", position);
        if (position == std::string_view::npos) return result;
        const std::size_t end = std::min(line.find_first_of(" \t\r", position), line.size());
        result.push_back(line.substr(position, end - position));
        position = end;
    }
}

// The words a setting takes and what each means. The settings are in the order of the
// variant, so a change's index names its setting.
struct Choice {
    std::string_view word;
    ScenarioChange change;
};
struct Setting {
    std::string_view name;
    std::vector<Choice> choices;  // empty for the battery level and relaunch, which take other values
};

std::vector<Setting> settings() {
    using enum AuthorizationStatus;
    return {
        {"network",
         {{"wifi", NetworkChange{SimulatedConnection::wifi}},
          {"cellular", NetworkChange{SimulatedConnection::cellular}},
          {"offline", NetworkChange{SimulatedConnection::offline}}}},
        {"permission",
         {{"always", PermissionChange{authorizedAlways}},
          {"when-in-use", PermissionChange{authorizedWhenInUse}},
          {"denied", PermissionChange{denied}},
          {"restricted", PermissionChange{restricted}},
          {"not-determined", PermissionChange{notDetermined}}}},
        {"accuracy",
         {{"full", AccuracyChange{AccuracyAuthorization::fullAccuracy}},
          {"reduced", AccuracyChange{AccuracyAuthorization::reducedAccuracy}}}},
        {"location-services", {{"on", LocationServicesChange{true}}, {"off", LocationServicesChange{false}}}},
        {"motion-permission",
         {{"authorized", MotionPermissionChange{MotionAuthorizationStatus::authorized}},
          {"denied", MotionPermissionChange{MotionAuthorizationStatus::denied}},
          {"restricted", MotionPermissionChange{MotionAuthorizationStatus::restricted}},
          {"not-determined", MotionPermissionChange{MotionAuthorizationStatus::notDetermined}}}},
        {"charging", {{"on", ChargingChange{true}}, {"off", ChargingChange{false}}}},
        {"battery", {}},
        {"low-power", {{"on", LowPowerChange{true}}, {"off", LowPowerChange{false}}}},
        {"app", {{"foreground", AppStateChange{true}}, {"background", AppStateChange{false}}}},
        {"wifi-only", {{"on", WifiOnlyChange{true}}, {"off", WifiOnlyChange{false}}}},
        {"tracking", {{"start", TrackingChange{true}}, {"stop", TrackingChange{false}}}},
        {"relaunch", {}},
    };
}

std::string choiceList(const std::vector<Choice>& choices) {
    std::string list;
    for (std::size_t i = 0; i < choices.size(); ++i) {
        if (i > 0) list += i + 1 == choices.size() ? " or " : ", ";
        list += choices[i].word;
    }
    return list;
}

std::optional<double> wholeNumber(std::string_view text) {
    if (text.empty() || text.size() > 9) return std::nullopt;
    double value = 0.0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10.0 + (c - '0');
    }
    return value;
}

// "0.35", "1", "35%", "12.5%".
std::optional<double> batteryLevel(std::string_view text) {
    const bool percent = text.ends_with('%');
    if (percent) text.remove_suffix(1);
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789.") != std::string_view::npos ||
        std::count(text.begin(), text.end(), '.') > 1 || text == ".") {
        return std::nullopt;
    }
    double value = std::strtod(std::string(text).c_str(), nullptr);
    if (percent) value /= 100.0;
    if (!(value >= 0.0 && value <= 1.0)) return std::nullopt;
    return value;
}

// A time as the file writes it, or nothing when it does not read as one.
std::optional<Date> timeOf(std::string_view text, Date traceStart) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        double seconds = 0.0;
        const std::string_view units = "hms";
        std::size_t nextUnit = 0;
        if (text.empty()) return std::nullopt;
        while (!text.empty()) {
            const std::size_t digits = text.find_first_not_of("0123456789");
            if (digits == 0 || digits == std::string_view::npos) return std::nullopt;
            const auto amount = wholeNumber(text.substr(0, digits));
            const std::size_t unit = units.find(text[digits], nextUnit);
            if (!amount || unit == std::string_view::npos) return std::nullopt;
            seconds += *amount * (unit == 0 ? 3600.0 : unit == 1 ? 60.0 : 1.0);
            nextUnit = unit + 1;
            text.remove_prefix(digits + 1);
        }
        return traceStart.addingSeconds(seconds);
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon > 2) return std::nullopt;
    const auto hours = wholeNumber(text.substr(0, colon));
    const std::string_view rest = text.substr(colon + 1);
    if (!hours || (rest.size() != 2 && rest.size() != 5) || (rest.size() == 5 && rest[2] != ':')) return std::nullopt;
    const auto minutes = wholeNumber(rest.substr(0, 2));
    const auto seconds = rest.size() == 5 ? wholeNumber(rest.substr(3)) : std::optional<double>(0.0);
    if (!minutes || !seconds || *minutes > 59 || *seconds > 59 || *hours > 24) return std::nullopt;
    if (*hours == 24 && (*minutes > 0 || *seconds > 0)) return std::nullopt;
    const double dayStart = std::floor(traceStart.secondsSince1970 / 86400.0) * 86400.0;
    return Date{dayStart + *hours * 3600.0 + *minutes * 60.0 + *seconds};
}

ScenarioChange changeOf(const std::vector<std::string_view>& tokens, int line) {
    if (tokens.empty()) fail(line, "the step says no change");
    const std::vector<Setting> table = settings();
    const std::string verb = lowered(tokens[0]);
    const auto setting = std::find_if(table.begin(), table.end(), [&](const Setting& s) { return s.name == verb; });
    if (setting == table.end()) fail(line, "unknown change '" + std::string(tokens[0]) + "'");

    if (verb == "relaunch") {
        RelaunchChange relaunch;
        for (std::size_t i = 1; i < tokens.size(); i += 2) {
            const std::string key = lowered(tokens[i]);
            auto& field = key == "build" ? relaunch.build : relaunch.version;
            if ((key != "build" && key != "version") || field) {
                fail(line, "relaunch takes 'build B' and 'version V', not '" + std::string(tokens[i]) + "'");
            }
            if (i + 1 >= tokens.size()) fail(line, "relaunch " + key + " needs a value");
            field = std::string(tokens[i + 1]);
        }
        return relaunch;
    }
    const std::string expected = verb == "battery" ? "a level 0..1 or a percentage" : choiceList(setting->choices);
    if (tokens.size() < 2) fail(line, verb + " needs a value: " + expected);
    if (tokens.size() > 2)
        fail(line, "unexpected '" + std::string(tokens[2]) + "' after " + verb + " " + std::string(tokens[1]));
    if (verb == "battery") {
        const auto level = batteryLevel(tokens[1]);
        if (!level) fail(line, "battery takes " + expected + ", not '" + std::string(tokens[1]) + "'");
        return BatteryChange{*level};
    }
    const std::string value = lowered(tokens[1]);
    for (const Choice& choice : setting->choices) {
        if (choice.word == value) return choice.change;
    }
    fail(line, verb + " takes " + expected + ", not '" + std::string(tokens[1]) + "'");
}

// The setting's value in `state`, as a change of the same kind as `like`.
ScenarioChange settingIn(const ScenarioState& state, const ScenarioChange& like) {
    return std::visit(
        [&](const auto& change) -> ScenarioChange {
            using T = std::decay_t<decltype(change)>;
            if constexpr (std::is_same_v<T, NetworkChange>) return NetworkChange{state.network};
            if constexpr (std::is_same_v<T, PermissionChange>) return PermissionChange{state.permission};
            if constexpr (std::is_same_v<T, AccuracyChange>) return AccuracyChange{state.accuracy};
            if constexpr (std::is_same_v<T, LocationServicesChange>)
                return LocationServicesChange{state.locationServices};
            if constexpr (std::is_same_v<T, MotionPermissionChange>)
                return MotionPermissionChange{state.motionPermission};
            if constexpr (std::is_same_v<T, ChargingChange>) return ChargingChange{state.charging};
            if constexpr (std::is_same_v<T, BatteryChange>) return BatteryChange{state.batteryLevel};
            if constexpr (std::is_same_v<T, LowPowerChange>) return LowPowerChange{state.lowPower};
            if constexpr (std::is_same_v<T, AppStateChange>) return AppStateChange{state.foreground};
            if constexpr (std::is_same_v<T, WifiOnlyChange>) return WifiOnlyChange{state.wifiOnly};
            if constexpr (std::is_same_v<T, TrackingChange>) return TrackingChange{state.tracking};
            if constexpr (std::is_same_v<T, RelaunchChange>) return change;
        },
        like);
}

// ---- beacons ----

constexpr int lowestBeaconPower = -100;
constexpr int highestBeaconPower = 20;
constexpr int shortestAdvertisingInterval = 20;     // ms
constexpr int longestAdvertisingInterval = 10240;   // ms
// What a URL frame can hold after its scheme byte.
constexpr std::size_t longestEncodedUrl = 17;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

template <std::size_t N>
std::optional<std::array<std::uint8_t, N>> hexBytes(std::string_view text) {
    if (text.size() != 2 * N) return std::nullopt;
    std::array<std::uint8_t, N> bytes{};
    for (std::size_t i = 0; i < N; ++i) {
        const int high = hexDigit(text[2 * i]);
        const int low = hexDigit(text[2 * i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return bytes;
}

std::string hexText(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0F]);
    }
    return text;
}

// A whole number with an optional sign, within [low, high].
std::optional<int> integerIn(std::string_view text, int low, int high) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return std::nullopt;
    }
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value < low || value > high) return std::nullopt;
    return value;
}

// A plain decimal number: no exponent, no hex, no infinities.
std::optional<double> decimal(std::string_view text) {
    if (text.empty() || text.size() > 24 || text.find_first_not_of("+-0123456789.") != std::string_view::npos ||
        text.find_first_of("0123456789") == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string copy(text);
    char* end = nullptr;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

// "51.51485,-0.09920".
std::optional<LocationCoordinate2D> coordinateOf(std::string_view text) {
    const std::size_t comma = text.find(',');
    if (comma == std::string_view::npos) return std::nullopt;
    const auto latitude = decimal(text.substr(0, comma));
    const auto longitude = decimal(text.substr(comma + 1));
    if (!latitude || !longitude || std::abs(*latitude) > 90.0 || std::abs(*longitude) > 180.0) return std::nullopt;
    return LocationCoordinate2D{*latitude, *longitude};
}

// Why a URL frame could not carry the URL, or nothing when it can. The frame writes the
// scheme as one byte and each common domain ending as one byte; the rest byte for byte.
std::optional<std::string> urlProblem(std::string_view url) {
    static constexpr std::string_view schemes[] = {"https://www.", "http://www.", "https://", "http://"};
    static constexpr std::string_view expansions[] = {".com/", ".org/", ".edu/", ".net/", ".info/", ".biz/", ".gov/",
                                                      ".info", ".com",  ".org",  ".edu",  ".net",   ".biz",  ".gov"};
    const auto scheme = std::find_if(std::begin(schemes), std::end(schemes),
                                     [&](std::string_view prefix) { return url.starts_with(prefix); });
    if (scheme == std::end(schemes)) return "must start with http:// or https://";
    std::string_view rest = url.substr(scheme->size());
    if (std::any_of(rest.begin(), rest.end(), [](char c) { return c < '!' || c > '~'; })) {
        return "has a character a URL frame cannot carry";
    }
    std::size_t encoded = 0;
    while (!rest.empty()) {
        const auto expansion = std::find_if(std::begin(expansions), std::end(expansions),
                                            [&](std::string_view ending) { return rest.starts_with(ending); });
        rest.remove_prefix(expansion == std::end(expansions) ? 1 : expansion->size());
        ++encoded;
    }
    if (encoded > longestEncodedUrl) return "is too long for a URL frame";
    return std::nullopt;
}

const char* kindWord(ScenarioBeacon::Kind kind) {
    switch (kind) {
        case ScenarioBeacon::Kind::iBeacon:
            return "ibeacon";
        case ScenarioBeacon::Kind::eddystoneUid:
            return "eddystone-uid";
        case ScenarioBeacon::Kind::eddystoneEid:
            return "eddystone-eid";
    }
    return "?";
}

ScenarioBeacon beaconOf(const std::vector<std::string_view>& tokens, int line) {
    if (tokens.size() < 2) fail(line, "beacon needs a kind: ibeacon, eddystone-uid or eddystone-eid");
    ScenarioBeacon beacon;
    beacon.line = line;
    const std::string kind = lowered(tokens[1]);
    std::size_t identifiers = 0;
    if (kind == "ibeacon") {
        beacon.kind = ScenarioBeacon::Kind::iBeacon;
        identifiers = 3;
    } else if (kind == "eddystone-uid") {
        beacon.kind = ScenarioBeacon::Kind::eddystoneUid;
        identifiers = 2;
    } else if (kind == "eddystone-eid") {
        beacon.kind = ScenarioBeacon::Kind::eddystoneEid;
        identifiers = 1;
    } else {
        fail(line, "beacon kind is ibeacon, eddystone-uid or eddystone-eid, not '" + std::string(tokens[1]) + "'");
    }
    const std::string usage = beacon.kind == ScenarioBeacon::Kind::iBeacon ? "beacon ibeacon UUID MAJOR MINOR at LAT,LON"
                              : beacon.kind == ScenarioBeacon::Kind::eddystoneUid
                                  ? "beacon eddystone-uid NAMESPACE INSTANCE at LAT,LON"
                                  : "beacon eddystone-eid EID at LAT,LON";
    const std::size_t at = 2 + identifiers;
    if (tokens.size() < at + 2 || lowered(tokens[at]) != "at") fail(line, "expected '" + usage + "'");

    const auto word = [&](std::size_t index) { return std::string(tokens[index]); };
    switch (beacon.kind) {
        case ScenarioBeacon::Kind::iBeacon: {
            const auto uuid = Uuid::parse(tokens[2]);
            if (!uuid) fail(line, "bad beacon UUID '" + word(2) + "'");
            beacon.uuid = *uuid;
            const auto major = integerIn(tokens[3], 0, 65535);
            if (!major) fail(line, "beacon major is 0 - 65535, not '" + word(3) + "'");
            const auto minor = integerIn(tokens[4], 0, 65535);
            if (!minor) fail(line, "beacon minor is 0 - 65535, not '" + word(4) + "'");
            beacon.major = static_cast<std::uint16_t>(*major);
            beacon.minor = static_cast<std::uint16_t>(*minor);
            break;
        }
        case ScenarioBeacon::Kind::eddystoneUid: {
            const auto space = hexBytes<10>(tokens[2]);
            if (!space) fail(line, "a beacon namespace is 20 hex digits, not '" + word(2) + "'");
            const auto instance = hexBytes<6>(tokens[3]);
            if (!instance) fail(line, "a beacon instance is 12 hex digits, not '" + word(3) + "'");
            beacon.namespaceId = *space;
            beacon.instanceId = *instance;
            break;
        }
        case ScenarioBeacon::Kind::eddystoneEid: {
            const auto eid = hexBytes<8>(tokens[2]);
            if (!eid) fail(line, "an ephemeral identifier is 16 hex digits, not '" + word(2) + "'");
            beacon.ephemeralId = *eid;
            break;
        }
    }
    const auto position = coordinateOf(tokens[at + 1]);
    if (!position) fail(line, "bad beacon position '" + word(at + 1) + "' (LAT,LON in degrees)");
    beacon.position = *position;
    beacon.power =
        beacon.isEddystone() ? ScenarioBeacon::defaultEddystonePower : ScenarioBeacon::defaultIBeaconPower;
    beacon.interval =
        beacon.isEddystone() ? ScenarioBeacon::defaultEddystoneInterval : ScenarioBeacon::defaultIBeaconInterval;

    bool power = false, interval = false;
    for (std::size_t i = at + 2; i < tokens.size(); i += 2) {
        const std::string key = lowered(tokens[i]);
        if (key != "power" && key != "interval" && key != "url") {
            fail(line, "unexpected '" + word(i) + "' in a beacon line (power, interval or url)");
        }
        if (i + 1 >= tokens.size()) fail(line, "beacon " + key + " needs a value");
        const std::string value = word(i + 1);
        if (key == "power") {
            const auto dbm = integerIn(value, lowestBeaconPower, highestBeaconPower);
            if (power || !dbm) fail(line, "beacon power is one whole number of dBm, -100 to 20, not '" + value + "'");
            beacon.power = *dbm;
            power = true;
        } else if (key == "interval") {
            const auto ms = integerIn(value, shortestAdvertisingInterval, longestAdvertisingInterval);
            if (interval || !ms) fail(line, "beacon interval is one whole number of ms, 20 - 10240, not '" + value + "'");
            beacon.interval = *ms / 1000.0;
            interval = true;
        } else {
            if (!beacon.isEddystone()) fail(line, "only an Eddystone beacon has a URL");
            if (beacon.url) fail(line, "a beacon has one URL");
            if (const auto problem = urlProblem(value)) fail(line, "beacon URL '" + value + "' " + *problem);
            beacon.url = value;
        }
    }
    return beacon;
}

struct Entry {
    Date start;
    std::optional<Date> end;  // for a span
    ScenarioChange change;
    int line;
    std::string when;  // as written, for messages
};

}  // namespace

void ScenarioState::apply(const ScenarioChange& change) {
    std::visit(
        [&](const auto& c) {
            using T = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<T, NetworkChange>) network = c.connection;
            if constexpr (std::is_same_v<T, PermissionChange>) permission = c.status;
            if constexpr (std::is_same_v<T, AccuracyChange>) accuracy = c.accuracy;
            if constexpr (std::is_same_v<T, LocationServicesChange>) locationServices = c.enabled;
            if constexpr (std::is_same_v<T, MotionPermissionChange>) motionPermission = c.status;
            if constexpr (std::is_same_v<T, ChargingChange>) charging = c.charging;
            if constexpr (std::is_same_v<T, BatteryChange>) batteryLevel = c.level;
            if constexpr (std::is_same_v<T, LowPowerChange>) lowPower = c.enabled;
            if constexpr (std::is_same_v<T, AppStateChange>) foreground = c.foreground;
            if constexpr (std::is_same_v<T, WifiOnlyChange>) wifiOnly = c.enabled;
            if constexpr (std::is_same_v<T, TrackingChange>) tracking = c.started;
        },
        change);
}

std::string describe(const ScenarioChange& change) {
    if (const auto* relaunch = std::get_if<RelaunchChange>(&change)) {
        std::string text = "relaunch";
        if (relaunch->build || relaunch->version) text += " as";
        if (relaunch->version) text += " version " + *relaunch->version;
        if (relaunch->build) text += " build " + *relaunch->build;
        return text;
    }
    if (const auto* battery = std::get_if<BatteryChange>(&change)) {
        char percent[32];
        std::snprintf(percent, sizeof percent, "%g", std::round(battery->level * 1000.0) / 10.0);
        return std::string("battery ") + percent + "%";
    }
    const Setting setting = settings()[change.index()];
    for (const Choice& choice : setting.choices) {
        if (choice.change == change) return std::string(setting.name) + " " + std::string(choice.word);
    }
    return std::string(setting.name);
}

bool ScenarioBeacon::hasSameIdentity(const ScenarioBeacon& other) const {
    if (kind != other.kind) return false;
    switch (kind) {
        case Kind::iBeacon:
            return uuid == other.uuid && major == other.major && minor == other.minor;
        case Kind::eddystoneUid:
            return namespaceId == other.namespaceId && instanceId == other.instanceId;
        case Kind::eddystoneEid:
            return ephemeralId == other.ephemeralId;
    }
    return false;
}

std::string describe(const ScenarioBeacon& beacon) {
    // The shortest digits that read back as the same number, without an exponent.
    const auto number = [](double value) {
        char text[400];
        const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
        return std::string(text, result.ptr);
    };
    std::string line = std::string("beacon ") + kindWord(beacon.kind) + " ";
    switch (beacon.kind) {
        case ScenarioBeacon::Kind::iBeacon:
            line += beacon.uuid.uuidString() + " " + std::to_string(beacon.major) + " " + std::to_string(beacon.minor);
            break;
        case ScenarioBeacon::Kind::eddystoneUid:
            line += hexText(beacon.namespaceId) + " " + hexText(beacon.instanceId);
            break;
        case ScenarioBeacon::Kind::eddystoneEid:
            line += hexText(beacon.ephemeralId);
            break;
    }
    line += " at " + number(beacon.position.latitude) + "," + number(beacon.position.longitude);
    line += " power " + std::to_string(beacon.power);
    const double usual =
        beacon.isEddystone() ? ScenarioBeacon::defaultEddystoneInterval : ScenarioBeacon::defaultIBeaconInterval;
    if (beacon.interval != usual) line += " interval " + number(std::round(beacon.interval * 1000.0));
    if (beacon.url) line += " url " + *beacon.url;
    return line;
}

Scenario parseScenario(std::string_view text, Date traceStart) {
    std::vector<Entry> entries;
    std::vector<ScenarioBeacon> beacons;
    int lineNumber = 0;
    std::size_t position = 0;
    while (position <= text.size()) {
        std::size_t end = text.find('\n', position);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(position, end - position);
        position = end + 1;
        ++lineNumber;
        if (lineNumber == 1 && line.starts_with("\xEF\xBB\xBF")) line.remove_prefix(3);
        line = line.substr(0, line.find('#'));
        const auto tokens = words(line);
        if (tokens.empty()) continue;

        const std::string keyword = lowered(tokens[0]);
        const auto timeAt = [&](std::size_t index) {
            if (index >= tokens.size()) fail(lineNumber, "a time is missing");
            const auto time = timeOf(tokens[index], traceStart);
            if (!time) {
                fail(lineNumber,
                     "bad time '" + std::string(tokens[index]) + "' (HH:MM, HH:MM:SS or an offset like +1h30m)");
            }
            return *time;
        };
        if (keyword == "beacon") {
            ScenarioBeacon beacon = beaconOf(tokens, lineNumber);
            for (const ScenarioBeacon& earlier : beacons) {
                if (earlier.hasSameIdentity(beacon)) {
                    fail(lineNumber, "the beacon has the identity of the one on line " + std::to_string(earlier.line));
                }
            }
            beacons.push_back(std::move(beacon));
            continue;
        }
        Entry entry{};
        entry.line = lineNumber;
        std::size_t changeStart = 0;
        if (keyword == "at") {
            entry.start = timeAt(1);
            entry.when = "at " + std::string(tokens[1]);
            changeStart = 2;
        } else if (keyword == "from") {
            entry.start = timeAt(1);
            if (tokens.size() < 3 || lowered(tokens[2]) != "to") fail(lineNumber, "expected 'to' after the start time");
            entry.end = timeAt(3);
            entry.when = "from " + std::string(tokens[1]) + " to " + std::string(tokens[3]);
            changeStart = 4;
            if (*entry.end <= entry.start) fail(lineNumber, "the span ends at or before its start");
        } else {
            fail(lineNumber,
                 "expected 'at TIME change' or 'from TIME to TIME change', not '" + std::string(tokens[0]) + "'");
        }
        entry.change = changeOf({tokens.begin() + static_cast<std::ptrdiff_t>(changeStart), tokens.end()}, lineNumber);
        if (entry.end && std::holds_alternative<RelaunchChange>(entry.change)) {
            fail(lineNumber, "a relaunch happens at one moment: write 'at TIME relaunch'");
        }
        entries.push_back(std::move(entry));
    }

    // One setting is changed by one span at a time, and not by a step while a span holds it:
    // the value to restore at the span's end would be ambiguous.
    for (std::size_t later = 0; later < entries.size(); ++later) {
        for (std::size_t earlier = 0; earlier < later; ++earlier) {
            const Entry& a = entries[earlier];
            const Entry& b = entries[later];
            if (a.change.index() != b.change.index() || std::holds_alternative<RelaunchChange>(a.change)) continue;
            const Date aEnd = a.end.value_or(a.start), bEnd = b.end.value_or(b.start);
            const bool overlap = (!a.end && !b.end) ? false
                                 : !a.end           ? b.start <= a.start && a.start < bEnd
                                 : !b.end           ? a.start <= b.start && b.start < aEnd
                                                    : a.start < bEnd && b.start < aEnd;
            if (overlap) {
                fail(b.line, "'" + b.when + " " + describe(b.change) + "' conflicts with '" + a.when + " " +
                                 describe(a.change) + "' on line " + std::to_string(a.line));
            }
        }
    }

    // Each entry's moments; at one moment, the ends of spans go first, then file order.
    struct Moment {
        Date time;
        bool ending;
        std::size_t entry;
    };
    std::vector<Moment> moments;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        moments.push_back({entries[i].start, false, i});
        if (entries[i].end) moments.push_back({*entries[i].end, true, i});
    }
    std::stable_sort(moments.begin(), moments.end(), [](const Moment& a, const Moment& b) {
        if (a.time != b.time) return a.time < b.time;
        return a.ending && !b.ending;
    });

    Scenario scenario;
    scenario.beacons = std::move(beacons);
    ScenarioState state;
    std::vector<std::optional<ScenarioChange>> restore(entries.size());
    for (const Moment& moment : moments) {
        const Entry& entry = entries[moment.entry];
        ScenarioChange change = entry.change;
        if (moment.ending) {
            change = *restore[moment.entry];
        } else if (entry.end) {
            restore[moment.entry] = settingIn(state, entry.change);
        }
        state.apply(change);
        scenario.steps.push_back(ScenarioStep{moment.time, std::move(change), entry.line, moment.ending});
    }
    return scenario;
}

Scenario readScenario(const std::filesystem::path& path, Date traceStart) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ScenarioError(path.string() + ": cannot open: " + std::strerror(errno));
    const std::string text(std::istreambuf_iterator<char>(in), {});
    try {
        return parseScenario(text, traceStart);
    } catch (const ScenarioError& error) {
        throw ScenarioError(path.string() + ": " + error.what());
    }
}

}  // namespace rovalis::sim
