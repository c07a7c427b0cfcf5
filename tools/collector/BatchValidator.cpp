#include "collector/BatchValidator.h"

#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <vector>

namespace rovalis::collector {

namespace {

using nlohmann::json;

// A value from the outside, fit for a one-line message: non-printable bytes escaped, long
// texts cut.
std::string showText(std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    constexpr std::size_t shown = 120;
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size() && i < shown; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c < 0x20 || c >= 0x7F) {
            out += "\\x";
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 0xF]);
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    if (text.size() > shown) out += "...";
    out.push_back('"');
    return out;
}

Rejection reject(int status, std::string message) { return Rejection{status, std::move(message)}; }

// ---- Headers ----

std::optional<Rejection> checkSingle(const httplib::Headers& headers, const std::string& name, int missingStatus) {
    const std::size_t count = headers.count(name);
    if (count == 0) return reject(missingStatus, "missing header " + showText(name));
    if (count > 1) return reject(400, "header " + showText(name) + " is given " + std::to_string(count) + " times");
    return std::nullopt;
}

std::optional<Rejection> checkExact(const httplib::Headers& headers, const std::string& name,
                                    std::string_view expected, int status) {
    if (auto single = checkSingle(headers, name, status)) {
        single->message += " (expected " + showText(expected) + ")";
        return single;
    }
    const std::string& value = headers.find(name)->second;
    if (value != expected) {
        return reject(status, "header " + showText(name) + " must be " + showText(expected) + ", got " + showText(value));
    }
    return std::nullopt;
}

bool visibleAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
}

std::optional<Rejection> checkAuthorization(const httplib::Headers& headers) {
    if (auto single = checkSingle(headers, "Authorization", 401)) return single;
    const std::string& value = headers.find("Authorization")->second;
    constexpr std::string_view scheme = "Bearer ";
    // Trailing white space of a header value is not kept, so "Bearer " arrives as "Bearer".
    if (value == "Bearer") return reject(401, "the bearer token is empty");
    if (value.compare(0, scheme.size(), scheme) != 0) {
        return reject(401, "header \"Authorization\" must be \"Bearer <token>\"");
    }
    const std::string_view token = std::string_view(value).substr(scheme.size());
    if (token.empty()) return reject(401, "the bearer token is empty");
    if (!visibleAscii(token)) return reject(401, "the bearer token holds spaces or characters outside ASCII");
    // header.payload.signature; an unsigned token has an empty signature.
    const std::size_t first = token.find('.');
    const std::size_t second = first == std::string_view::npos ? first : token.find('.', first + 1);
    if (first == std::string_view::npos || second == std::string_view::npos ||
        token.find('.', second + 1) != std::string_view::npos) {
        return reject(401, "the bearer token must have three dot-separated parts");
    }
    if (first == 0 || second == first + 1) return reject(401, "the bearer token has an empty header or payload part");
    return std::nullopt;
}

std::optional<Rejection> checkContentLength(const httplib::Headers& headers, std::size_t bodySize) {
    if (auto single = checkSingle(headers, "Content-Length", 411)) return single;
    const std::string& value = headers.find("Content-Length")->second;
    std::uint64_t length = 0;
    const auto result = std::from_chars(value.data(), value.data() + value.size(), length);
    if (value.empty() || result.ec != std::errc() || result.ptr != value.data() + value.size()) {
        return reject(400, "header \"Content-Length\" is not a decimal number: " + showText(value));
    }
    if (length != bodySize) {
        return reject(400, "header \"Content-Length\" says " + value + " bytes but the body has " +
                               std::to_string(bodySize));
    }
    return std::nullopt;
}

// ---- Events ----

enum class Shape {
    number,
    integer,
    boolean,
    text,
    oneOf,       // a text from a fixed list
    latitude,    // number, -90..90
    longitude,   // number, -180..180
    accuracy,    // number, >= 0
    fraction,    // number, 0..1
    confidence,  // integer 0..2
    activities,  // list of activity texts
    beacons,     // non-empty list of sightings
    uuid,        // 36-character text
};

struct Field {
    std::string_view key;
    Shape shape;
    std::vector<std::string_view> allowed = {};
};

struct Kind {
    std::string_view name;
    std::string_view discriminator;  // "type", or "protocol" for beacon sightings
    std::vector<Field> fields;       // besides the discriminator and "tracked_at_ms"
};

const std::vector<std::string_view> sleepReasons = {"no movement", "unknown"};
const std::vector<std::string_view> wakeReasons = {"exited geofence", "entered surrounding geofence",
                                                   "significant location", "unknown"};
const std::vector<std::string_view> regionReasons = {"ENTER", "EXIT"};
const std::vector<std::string_view> connectivityStatuses = {"MOBILE", "DISCONNECTED", "OTHER", "WIFI"};
const std::vector<std::string_view> trackingReasons = {"FORCE",         "LOCATION_SERVICE",   "DENIED_LOCATION",
                                                       "INSUFFICIENT_LOCATION", "IMPRECISE_LOCATION", "APP_UPDATE"};
const std::vector<std::string_view> debugTopics = {"Application Notification", "Application State",
                                                   "Location Authorization",   "Background Task",
                                                   "Beacon Ranging",           "Log"};
const std::vector<std::string_view> activityKinds = {"stationary", "walking", "running",
                                                     "automotive", "cycling", "unknown"};

const std::vector<Kind>& eventKinds() {
    static const std::vector<Kind> kinds = {
        {"Waypoint",
         "type",
         {{"accuracy", Shape::accuracy},
          {"altitude", Shape::number},
          {"bearing", Shape::number},
          {"latitude", Shape::latitude},
          {"longitude", Shape::longitude},
          {"provider", Shape::text},
          {"speed", Shape::number}}},
        {"SignificantLocation",
         "type",
         {{"accuracy", Shape::accuracy}, {"latitude", Shape::latitude}, {"longitude", Shape::longitude}}},
        {"PreSleep",
         "type",
         {{"accuracy", Shape::accuracy},
          {"latitude", Shape::latitude},
          {"longitude", Shape::longitude},
          {"reason", Shape::oneOf, sleepReasons}}},
        {"PreWakeUp",
         "type",
         {{"accuracy", Shape::accuracy},
          {"latitude", Shape::latitude},
          {"longitude", Shape::longitude},
          {"reason", Shape::oneOf, wakeReasons}}},
        {"GeofenceCreate",
         "type",
         {{"identifier", Shape::text},
          {"latitude", Shape::latitude},
          {"longitude", Shape::longitude},
          {"radius", Shape::number},
          {"reason", Shape::oneOf, regionReasons}}},
        {"GeofenceTrigger",
         "type",
         {{"identifier", Shape::text},
          {"latitude", Shape::latitude},
          {"longitude", Shape::longitude},
          {"radius", Shape::number},
          {"reason", Shape::oneOf, regionReasons}}},
        {"Battery", "type", {{"battery_status", Shape::fraction}, {"is_charging", Shape::boolean}}},
        {"SDKSettings", "type", {{"wifi_only_data_transfer", Shape::boolean}}},
        {"DeviceSettings",
         "type",
         {{"background_app_refresh", Shape::boolean}, {"power_save_mode", Shape::boolean}}},
        {"Connectivity", "type", {{"status", Shape::oneOf, connectivityStatuses}}},
        {"ToggleTracking",
         "type",
         {{"toggle_tracking_reason", Shape::oneOf, trackingReasons}, {"toggle_tracking_state", Shape::boolean}}},
        {"ToggleStandby", "type", {{"toggle_standby_reason", Shape::text}, {"toggle_standby_state", Shape::boolean}}},
        {"Debug", "type", {{"comment", Shape::text}, {"topic", Shape::oneOf, debugTopics}}},
        {"Acceleration", "type", {{"magnitude", Shape::number}}},
        {"IOSActivity", "type", {{"activities", Shape::activities}, {"confidence", Shape::confidence}}},
        {"BeaconScan", "type", {{"beacons", Shape::beacons}}},
        {"IBeacon",
         "protocol",
         {{"major", Shape::integer}, {"minor", Shape::integer}, {"rssi", Shape::integer}, {"uuid", Shape::uuid}}},
        {"Eddystone", "protocol", {{"eid", Shape::text}, {"rssi", Shape::integer}}},
    };
    return kinds;
}

const Kind* findKind(std::string_view discriminator, std::string_view name) {
    for (const auto& kind : eventKinds()) {
        if (kind.discriminator == discriminator && kind.name == name) return &kind;
    }
    return nullptr;
}

bool fitsInt64(const json& value) {
    if (value.is_number_unsigned()) {
        return value.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    }
    return value.is_number_integer();
}

bool inRange(const json& value, double low, double high) {
    const double number = value.get<double>();
    return number >= low && number <= high;
}

bool isUuidText(const std::string& text) {
    if (text.size() != 36) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? c != '-' : !std::isxdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

std::string listOf(const std::vector<std::string_view>& allowed) {
    std::string out;
    for (const auto& text : allowed) {
        if (!out.empty()) out += ", ";
        out += showText(text);
    }
    return out;
}

std::optional<std::string> checkObject(const json& object, const std::string& where);

// Empty when the value has the field's shape; otherwise what is wrong with it.
std::optional<std::string> checkValue(const Field& field, const json& value, const std::string& where) {
    const std::string key = "key " + showText(field.key);
    auto wrongType = [&](const char* expected) {
        return key + " must be " + expected + ", found " + value.type_name();
    };
    switch (field.shape) {
        case Shape::number:
            if (!value.is_number()) return wrongType("a number");
            return std::nullopt;
        case Shape::integer:
            if (!value.is_number_integer() || !fitsInt64(value)) return wrongType("an integer");
            return std::nullopt;
        case Shape::boolean:
            if (!value.is_boolean()) return wrongType("true or false");
            return std::nullopt;
        case Shape::text:
            if (!value.is_string()) return wrongType("a string");
            return std::nullopt;
        case Shape::oneOf:
            if (!value.is_string()) return wrongType("a string");
            if (std::find(field.allowed.begin(), field.allowed.end(), value.get<std::string>()) ==
                field.allowed.end()) {
                return key + " must be one of " + listOf(field.allowed) + ", found " + showText(value.get<std::string>());
            }
            return std::nullopt;
        case Shape::latitude:
            if (!value.is_number()) return wrongType("a number");
            if (!inRange(value, -90, 90)) return key + " is outside -90..90: " + value.dump();
            return std::nullopt;
        case Shape::longitude:
            if (!value.is_number()) return wrongType("a number");
            if (!inRange(value, -180, 180)) return key + " is outside -180..180: " + value.dump();
            return std::nullopt;
        case Shape::accuracy:
            if (!value.is_number()) return wrongType("a number");
            if (value.get<double>() < 0) return key + " is negative: " + value.dump();
            return std::nullopt;
        case Shape::fraction:
            if (!value.is_number()) return wrongType("a number");
            if (!inRange(value, 0, 1)) return key + " is outside 0..1: " + value.dump();
            return std::nullopt;
        case Shape::confidence:
            if (!value.is_number_integer() || !fitsInt64(value)) return wrongType("an integer");
            if (value.get<std::int64_t>() < 0 || value.get<std::int64_t>() > 2) {
                return key + " must be 0, 1 or 2, found " + value.dump();
            }
            return std::nullopt;
        case Shape::activities:
            if (!value.is_array()) return wrongType("a list");
            for (std::size_t i = 0; i < value.size(); ++i) {
                const json& item = value[i];
                if (!item.is_string() ||
                    std::find(activityKinds.begin(), activityKinds.end(), item.get<std::string>()) ==
                        activityKinds.end()) {
                    return key + " item " + std::to_string(i) + " must be one of " + listOf(activityKinds) +
                           ", found " + item.dump();
                }
            }
            return std::nullopt;
        case Shape::beacons:
            if (!value.is_array()) return wrongType("a list");
            if (value.empty()) return key + " is an empty list";
            for (std::size_t i = 0; i < value.size(); ++i) {
                const std::string inner = where + ", beacon " + std::to_string(i);
                if (!value[i].is_object()) {
                    return "beacon " + std::to_string(i) + " must be an object, found " + value[i].type_name();
                }
                if (auto problem = checkObject(value[i], inner)) {
                    return "beacon " + std::to_string(i) + ": " + *problem;
                }
                if (!value[i].contains("protocol")) return "beacon " + std::to_string(i) + " has no \"protocol\"";
            }
            return std::nullopt;
        case Shape::uuid:
            if (!value.is_string()) return wrongType("a string");
            if (!isUuidText(value.get<std::string>())) {
                return key + " is not a 36-character UUID: " + showText(value.get<std::string>());
            }
            return std::nullopt;
    }
    return std::nullopt;
}

// One event or sighting object: its discriminator, "tracked_at_ms", and exactly the keys of
// its kind with their shapes.
std::optional<std::string> checkObject(const json& object, const std::string& where) {
    const bool hasType = object.contains("type");
    const bool hasProtocol = object.contains("protocol");
    if (hasType && hasProtocol) return std::string("has both \"type\" and \"protocol\"");
    if (!hasType && !hasProtocol) return std::string("missing key \"type\"");
    const std::string discriminator = hasType ? "type" : "protocol";
    const json& name = object.at(discriminator);
    if (!name.is_string()) return "key " + showText(discriminator) + " must be a string, found " + name.type_name();
    const Kind* kind = findKind(discriminator, name.get<std::string>());
    if (!kind) return "unknown " + discriminator + " " + showText(name.get<std::string>());

    const std::string prefix = "(" + std::string(kind->name) + ") ";
    const auto time = object.find("tracked_at_ms");
    if (time == object.end()) return prefix + "missing key \"tracked_at_ms\"";
    if (!time->is_number_integer() || !fitsInt64(*time)) {
        return prefix + "key \"tracked_at_ms\" must be an integer, found " +
               (time->is_number() ? time->dump() : std::string(time->type_name()));
    }
    for (const auto& field : kind->fields) {
        const auto value = object.find(field.key);
        if (value == object.end()) return prefix + "missing key " + showText(field.key);
        if (auto problem = checkValue(field, *value, where)) return prefix + *problem;
    }
    for (const auto& [key, value] : object.items()) {
        if (key == discriminator || key == "tracked_at_ms") continue;
        const bool known = std::any_of(kind->fields.begin(), kind->fields.end(),
                                       [&key = key](const Field& field) { return field.key == key; });
        if (!known) return prefix + "unexpected key " + showText(key);
    }
    return std::nullopt;
}

// ---- Document ----

struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The deepest legitimate value is a sighting inside a scan inside the events list.
constexpr int maxDepth = 8;

// Builds the document as the plain parser does, refusing a duplicate key or nesting deeper
// than maxDepth on the way. (The library's callback parser would do the same checks, but it
// scans an array for discarded values each time one of its objects ends: quadratic in the
// number of events.)
class DocumentReader : public nlohmann::detail::json_sax_dom_parser<json> {
public:
    explicit DocumentReader(json& document) : json_sax_dom_parser(document, /*allow_exceptions_=*/true) {}

    bool start_object(std::size_t elements) {
        enter();
        keys_.emplace_back();
        return json_sax_dom_parser::start_object(elements);
    }
    bool key(std::string& key) {
        if (!keys_.back().insert(key).second) throw Refusal("duplicate key " + showText(key));
        return json_sax_dom_parser::key(key);
    }
    bool end_object() {
        keys_.pop_back();
        --depth_;
        return json_sax_dom_parser::end_object();
    }
    bool start_array(std::size_t elements) {
        enter();
        return json_sax_dom_parser::start_array(elements);
    }
    bool end_array() {
        --depth_;
        return json_sax_dom_parser::end_array();
    }

private:
    void enter() {
        if (++depth_ > maxDepth) throw Refusal("the batch document is nested deeper than any event needs");
    }

    int depth_ = 0;
    std::vector<std::set<std::string>> keys_;
};

// Positions inside a text already known to be valid JSON.
std::size_t skipSpace(std::string_view s, std::size_t i) {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
    return i;
}

std::size_t skipString(std::string_view s, std::size_t i) {
    for (++i; i < s.size(); ++i) {
        if (s[i] == '\\') {
            ++i;
        } else if (s[i] == '"') {
            return i + 1;
        }
    }
    return s.size();
}

std::size_t skipValue(std::string_view s, std::size_t i) {
    if (i >= s.size()) return i;
    if (s[i] == '"') return skipString(s, i);
    if (s[i] == '{' || s[i] == '[') {
        int depth = 0;
        while (i < s.size()) {
            const char c = s[i];
            if (c == '"') {
                i = skipString(s, i);
                continue;
            }
            if (c == '{' || c == '[') ++depth;
            if (c == '}' || c == ']') {
                if (--depth == 0) return i + 1;
            }
            ++i;
        }
        return i;
    }
    while (i < s.size() && s[i] != ',' && s[i] != '}' && s[i] != ']' && s[i] != ' ' && s[i] != '\t' &&
           s[i] != '\n' && s[i] != '\r') {
        ++i;
    }
    return i;
}

// The exact bytes of each element of the top-level "events" list, so events are kept as
// they were sent rather than as a re-encoding.
bool eventSpans(std::string_view s, std::vector<std::string_view>& spans) {
    std::size_t i = skipSpace(s, 0);
    if (i >= s.size() || s[i] != '{') return false;
    ++i;
    std::optional<std::size_t> events;
    while (true) {
        i = skipSpace(s, i);
        if (i >= s.size()) return false;
        if (s[i] == '}') break;
        if (s[i] == ',') {
            ++i;
            continue;
        }
        const std::size_t keyStart = i;
        i = skipString(s, i);
        const std::string key = json::parse(s.substr(keyStart, i - keyStart)).get<std::string>();
        i = skipSpace(s, i);
        if (i >= s.size() || s[i] != ':') return false;
        i = skipSpace(s, i + 1);
        if (key == "events") events = i;
        i = skipValue(s, i);
    }
    if (!events || s[*events] != '[') return false;
    i = *events + 1;
    while (true) {
        i = skipSpace(s, i);
        if (i >= s.size()) return false;
        if (s[i] == ']') return true;
        if (s[i] == ',') {
            ++i;
            continue;
        }
        const std::size_t start = i;
        i = skipValue(s, i);
        spans.push_back(s.substr(start, i - start));
    }
}

}  // namespace

std::optional<Rejection> parseUserAgent(std::string_view text, UserAgent& out) {
    if (!std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        return reject(400, "header \"User-Agent\" holds characters outside ASCII");
    }
    json agent;
    try {
        agent = json::parse(text);
    } catch (const json::exception& error) {
        return reject(400, std::string("header \"User-Agent\" is not JSON: ") + error.what());
    }
    if (!agent.is_object()) {
        return reject(400, std::string("header \"User-Agent\" must be a JSON object, found ") + agent.type_name());
    }
    const std::pair<const char*, std::string UserAgent::*> keys[] = {
        {"app_name", &UserAgent::appName},       {"operating_system", &UserAgent::operatingSystem},
        {"os_version", &UserAgent::osVersion},   {"sdk_version", &UserAgent::sdkVersion},
        {"handset", &UserAgent::handset},        {"sdk_build_number", &UserAgent::sdkBuildNumber},
        {"device_id", &UserAgent::deviceId},     {"app_id", &UserAgent::appId},
        {"app_version", &UserAgent::appVersion}, {"app_build_number", &UserAgent::appBuildNumber},
    };
    for (const auto& [key, member] : keys) {
        const auto value = agent.find(key);
        if (value == agent.end()) return reject(400, std::string("header \"User-Agent\" lacks key \"") + key + "\"");
        if (!value->is_string()) {
            return reject(400, std::string("header \"User-Agent\" key \"") + key + "\" must be a string, found " +
                                   value->type_name());
        }
        out.*member = value->get<std::string>();
    }
    for (const auto& [key, value] : agent.items()) {
        const bool known = std::any_of(std::begin(keys), std::end(keys),
                                       [&key = key](const auto& entry) { return key == entry.first; });
        if (!known) return reject(400, "header \"User-Agent\" has unexpected key " + showText(key));
    }
    if (out.deviceId.empty()) return reject(400, "header \"User-Agent\" has an empty \"device_id\"");
    return std::nullopt;
}

std::optional<Rejection> checkUploadHeaders(const httplib::Headers& headers, std::size_t bodySize,
                                            UserAgent& userAgent) {
    if (auto r = checkExact(headers, "Content-Type", "application/octet-stream", 415)) return r;
    if (auto r = checkExact(headers, "X-Content-Encoding", "gzip", 415)) return r;
    if (headers.count("Content-Encoding") > 0) {
        return reject(415, "header \"Content-Encoding\" must not be set; the body's gzip is announced in "
                           "\"X-Content-Encoding\" only");
    }
    if (auto r = checkExact(headers, "Accept", "application/json", 406)) return r;
    if (auto r = checkExact(headers, "Accept-Language", "en", 400)) return r;
    if (auto r = checkAuthorization(headers)) return r;
    if (auto r = checkSingle(headers, "User-Agent", 400)) return r;
    if (auto r = parseUserAgent(headers.find("User-Agent")->second, userAgent)) return r;
    return checkContentLength(headers, bodySize);
}

std::optional<Rejection> gunzipBounded(std::string_view body, std::size_t limit, std::string& out) {
    out.clear();
    if (body.empty()) return reject(400, "the request body is empty");

    z_stream stream{};
    if (inflateInit2(&stream, 31) != Z_OK) return reject(500, "could not start inflating the body");
    struct End {
        z_stream& stream;
        ~End() { inflateEnd(&stream); }
    } end{stream};

    std::vector<unsigned char> chunk(64 * 1024);
    std::size_t offset = 0;
    int status = Z_OK;
    while (status != Z_STREAM_END) {
        if (stream.avail_in == 0 && offset < body.size()) {
            const std::size_t piece = std::min<std::size_t>(body.size() - offset, UINT_MAX);
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data() + offset));
            stream.avail_in = static_cast<uInt>(piece);
            offset += piece;
        }
        stream.next_out = chunk.data();
        stream.avail_out = static_cast<uInt>(chunk.size());
        status = inflate(&stream, Z_NO_FLUSH);
        if (status == Z_BUF_ERROR) return reject(400, "the gzip body is cut short");
        if (status != Z_OK && status != Z_STREAM_END) {
            return reject(400, std::string("the body is not a valid gzip stream: ") +
                                   (stream.msg ? stream.msg : "inflate failed"));
        }
        const std::size_t produced = chunk.size() - stream.avail_out;
        if (out.size() + produced > limit) {
            return reject(413, "the inflated body exceeds " + std::to_string(limit) + " bytes");
        }
        out.append(reinterpret_cast<const char*>(chunk.data()), produced);
    }
    const std::size_t rest = stream.avail_in + (body.size() - offset);
    if (rest > 0) return reject(400, std::to_string(rest) + " bytes follow the end of the gzip stream");
    return std::nullopt;
}

std::optional<Rejection> parseBatchDocument(std::string_view text, BatchDocument& out) {
    out = BatchDocument{};
    json document;
    try {
        DocumentReader reader(document);
        json::sax_parse(text, &reader);
    } catch (const Refusal& refusal) {
        return reject(422, refusal.what());
    } catch (const json::exception& error) {
        return reject(400, std::string("the batch document is not JSON: ") + error.what());
    }

    if (!document.is_object()) {
        return reject(422, std::string("the batch document must be an object, found ") + document.type_name());
    }
    const auto id = document.find("id");
    if (id == document.end()) return reject(422, "the batch document lacks \"id\"");
    if (!id->is_string()) return reject(422, std::string("\"id\" must be a string, found ") + id->type_name());
    if (id->get_ref<const std::string&>().empty()) return reject(422, "\"id\" is empty");
    const auto sequential = document.find("sequential_id");
    if (sequential == document.end()) return reject(422, "the batch document lacks \"sequential_id\"");
    if (!sequential->is_number_integer() || !fitsInt64(*sequential)) {
        return reject(422, "\"sequential_id\" must be an integer, found " +
                               (sequential->is_number() ? sequential->dump() : std::string(sequential->type_name())));
    }
    const auto events = document.find("events");
    if (events == document.end()) return reject(422, "the batch document lacks \"events\"");
    if (!events->is_array()) {
        return reject(422, std::string("\"events\" must be a list, found ") + events->type_name());
    }
    for (const auto& [key, value] : document.items()) {
        if (key != "id" && key != "sequential_id" && key != "events") {
            return reject(422, "the batch document has unexpected key " + showText(key));
        }
    }

    std::vector<std::string_view> spans;
    if (!eventSpans(text, spans) || spans.size() != events->size()) {
        return reject(400, "the events of the batch document could not be delimited");
    }
    out.id = id->get<std::string>();
    out.sequentialId = sequential->get<std::int64_t>();
    out.events.reserve(spans.size());
    for (std::size_t i = 0; i < events->size(); ++i) {
        const json& event = (*events)[i];
        const std::string where = "event " + std::to_string(i);
        if (!event.is_object()) return reject(422, where + " must be an object, found " + event.type_name());
        if (auto problem = checkObject(event, where)) return reject(422, where + " " + *problem);
        const std::string& type = event.contains("type") ? event["type"].get_ref<const std::string&>()
                                                         : event["protocol"].get_ref<const std::string&>();
        out.events.push_back(BatchEvent{type, event["tracked_at_ms"].get<std::int64_t>(), std::string(spans[i])});
    }
    return std::nullopt;
}

}  // namespace rovalis::collector
