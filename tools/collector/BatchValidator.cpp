#include "collector/BatchValidator.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
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

// The most frequent kinds first: a day's events are nearly all accelerations and fixes.
const std::vector<Kind>& eventKinds() {
    static const std::vector<Kind> kinds = {
        {"Acceleration", "type", {{"magnitude", Shape::number}}},
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
        if (kind.name == name && kind.discriminator == discriminator) return &kind;
    }
    return nullptr;
}

bool isUuidText(std::string_view text) {
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

// ---- Reading the document ----
//
// One pass over the text, with no tree: each event's members are noted (key, kind of value,
// the value's text) in a buffer reused from event to event, and checked against the event's
// kind when its object closes. A refusal of the whole document (not JSON, a duplicate key,
// nesting deeper than any event needs) ends the reading at once; the first event that does
// not fit its kind is remembered and refused once the whole text has been read, so that a
// text that is not JSON is always refused as such, as a parser that builds the tree would.

struct Refusal {
    int status;
    std::string message;
};

// The deepest legitimate value is a sighting inside a scan inside the events list.
constexpr int maxDepth = 8;

enum class Token { object, array, string, integer, number, boolean, null };

const char* nameOf(Token token) {
    switch (token) {
    case Token::object: return "object";
    case Token::array: return "array";
    case Token::string: return "string";
    case Token::integer:
    case Token::number: return "number";
    case Token::boolean: return "boolean";
    case Token::null: return "null";
    }
    return "value";
}

struct Value {
    Token token = Token::null;
    std::string_view text;  // the value's JSON text; a string's without its quotes
    bool escaped = false;   // a string that holds escapes
};

struct Member {
    std::string_view rawKey;  // as written, without quotes
    std::string decodedKey;   // when the key holds escapes
    bool escaped = false;
    Value value;

    std::string_view key() const { return escaped ? std::string_view(decodedKey) : rawKey; }
};

using Members = std::vector<Member>;

// Bytes that stand for themselves inside a string: printable ASCII but the quote and the
// backslash.
constexpr std::array<bool, 256> plainStringBytes = [] {
    std::array<bool, 256> plain{};
    for (int c = 0x20; c < 0x80; ++c) plain[static_cast<std::size_t>(c)] = c != '"' && c != '\\';
    return plain;
}();

unsigned hexValue(char c) {
    if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
    return 16;
}

void appendUtf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (code >> 6)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (code >> 12)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (code >> 18)));
        out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

// The text of a string already read (so known to be well formed), its escapes resolved.
std::string decoded(std::string_view raw) {
    std::string out;
    out.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\') {
            out.push_back(raw[i]);
            continue;
        }
        const char escape = raw[++i];
        switch (escape) {
        case 'b': out.push_back('\b'); break;
        case 'f': out.push_back('\f'); break;
        case 'n': out.push_back('\n'); break;
        case 'r': out.push_back('\r'); break;
        case 't': out.push_back('\t'); break;
        case 'u': {
            const auto unit = [&raw](std::size_t at) {
                std::uint32_t code = 0;
                for (std::size_t k = 0; k < 4; ++k) code = code * 16 + hexValue(raw[at + k]);
                return code;
            };
            std::uint32_t code = unit(i + 1);
            i += 4;
            if (code >= 0xD800 && code <= 0xDBFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (unit(i + 3) - 0xDC00);
                i += 6;
            }
            appendUtf8(out, code);
            break;
        }
        default: out.push_back(escape); break;  // '"', '\\', '/'
        }
    }
    return out;
}

// A string value's text: its bytes, or with escapes resolved into `scratch`.
std::string_view contentOf(const Value& value, std::string& scratch) {
    if (!value.escaped) return value.text;
    scratch = decoded(value.text);
    return scratch;
}

bool fitsInt64(const Value& value) {
    if (value.token != Token::integer) return false;
    std::int64_t number = 0;
    const auto result = std::from_chars(value.text.data(), value.text.data() + value.text.size(), number);
    return result.ec == std::errc() && result.ptr == value.text.data() + value.text.size();
}

std::int64_t int64Of(const Value& value) {
    std::int64_t number = 0;
    std::from_chars(value.text.data(), value.text.data() + value.text.size(), number);
    return number;
}

double doubleOf(const Value& value) {
    double number = 0;
    std::from_chars(value.text.data(), value.text.data() + value.text.size(), number);
    return number;
}

bool isNumber(const Value& value) { return value.token == Token::integer || value.token == Token::number; }

class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    std::size_t position() const { return position_; }
    bool atEnd() const { return position_ >= text_.size(); }
    char peek() const { return position_ < text_.size() ? text_[position_] : '\0'; }

    void skipSpace() {
        while (position_ < text_.size()) {
            const char c = text_[position_];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return;
            ++position_;
        }
    }

    // Any value, read and checked whole.
    Value value() {
        skipSpace();
        const std::size_t start = position_;
        switch (peek()) {
        case '{': {
            Members members;
            object(members, [this](Member& member) { member.value = value(); });
            return {Token::object, text_.substr(start, position_ - start)};
        }
        case '[':
            array([this](std::size_t) { value(); });
            return {Token::array, text_.substr(start, position_ - start)};
        case '"': {
            Value text;
            text.token = Token::string;
            text.text = string(text.escaped);
            return text;
        }
        case 't': return literal("true", Token::boolean);
        case 'f': return literal("false", Token::boolean);
        case 'n': return literal("null", Token::null);
        default: return number();
        }
    }

    // The object at the position, its members noted in `members` (whose first elements are
    // reused) and each value read by readValue(member). Returns how many members it has.
    template <typename ReadValue>
    std::size_t object(Members& members, ReadValue readValue) {
        enter();
        ++position_;
        std::size_t count = 0;
        skipSpace();
        if (peek() == '}') {
            ++position_;
            --depth_;
            return 0;
        }
        while (true) {
            skipSpace();
            if (peek() != '"') notJson("a key was expected");
            if (count == members.size()) members.emplace_back();
            Member& member = members[count++];
            member.rawKey = string(member.escaped);
            if (member.escaped) member.decodedKey = decoded(member.rawKey);
            for (std::size_t i = 0; i + 1 < count; ++i) {
                if (members[i].key() == member.key()) throw Refusal{422, "duplicate key " + showText(member.key())};
            }
            skipSpace();
            if (peek() != ':') notJson("':' was expected after a key");
            ++position_;
            skipSpace();
            readValue(member);
            skipSpace();
            if (peek() == ',') {
                ++position_;
                continue;
            }
            if (peek() != '}') notJson("',' or '}' was expected");
            ++position_;
            --depth_;
            return count;
        }
    }

    // The array at the position, each element read by readElement(index).
    template <typename ReadElement>
    void array(ReadElement readElement) {
        enter();
        ++position_;
        skipSpace();
        if (peek() == ']') {
            ++position_;
            --depth_;
            return;
        }
        for (std::size_t index = 0;; ++index) {
            skipSpace();
            readElement(index);
            skipSpace();
            if (peek() == ',') {
                ++position_;
                continue;
            }
            if (peek() != ']') notJson("',' or ']' was expected");
            ++position_;
            --depth_;
            return;
        }
    }

    [[noreturn]] void notJson(const std::string& what) const {
        throw Refusal{400, "the batch document is not JSON: " + what + " at byte " + std::to_string(position_)};
    }

private:
    void enter() {
        if (++depth_ > maxDepth) throw Refusal{422, "the batch document is nested deeper than any event needs"};
    }

    // The string at the position, without its quotes.
    std::string_view string(bool& escaped) {
        const std::size_t start = ++position_;
        escaped = false;
        while (true) {
            while (position_ < text_.size() && plainStringBytes[static_cast<unsigned char>(text_[position_])]) {
                ++position_;
            }
            if (atEnd()) notJson("a string is not closed");
            const auto c = static_cast<unsigned char>(text_[position_]);
            if (c == '"') return text_.substr(start, position_++ - start);
            if (c == '\\') {
                escaped = true;
                escape();
            } else if (c < 0x20) {
                notJson("a control character in a string");
            } else {
                multiByteCharacter();
            }
        }
    }

    void escape() {
        const char c = position_ + 1 < text_.size() ? text_[position_ + 1] : '\0';
        if (c == '"' || c == '\\' || c == '/' || c == 'b' || c == 'f' || c == 'n' || c == 'r' || c == 't') {
            position_ += 2;
            return;
        }
        if (c != 'u') notJson("an invalid escape in a string");
        const std::uint32_t unit = codeUnit();
        if (unit >= 0xDC00 && unit <= 0xDFFF) notJson("a low surrogate without a high one");
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (peek() != '\\' || position_ + 1 >= text_.size() || text_[position_ + 1] != 'u') {
                notJson("a high surrogate without a low one");
            }
            const std::uint32_t low = codeUnit();
            if (low < 0xDC00 || low > 0xDFFF) notJson("a high surrogate without a low one");
        }
    }

    // "\uXXXX" at the position.
    std::uint32_t codeUnit() {
        if (position_ + 6 > text_.size()) notJson("a \\u escape is cut short");
        std::uint32_t code = 0;
        for (std::size_t k = 2; k < 6; ++k) {
            const unsigned digit = hexValue(text_[position_ + k]);
            if (digit > 15) notJson("a \\u escape without four hex digits");
            code = code * 16 + digit;
        }
        position_ += 6;
        return code;
    }

    // Well-formed UTF-8 only: no overlong forms, no surrogates, nothing above U+10FFFF.
    void multiByteCharacter() {
        const auto at = [this](std::size_t k) {
            return position_ + k < text_.size() ? static_cast<unsigned char>(text_[position_ + k]) : 0u;
        };
        const unsigned lead = at(0);
        std::size_t length = 0;
        unsigned low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            notJson("ill-formed UTF-8 in a string");
        }
        if (at(1) < low || at(1) > high) notJson("ill-formed UTF-8 in a string");
        for (std::size_t k = 2; k < length; ++k) {
            if (at(k) < 0x80 || at(k) > 0xBF) notJson("ill-formed UTF-8 in a string");
        }
        position_ += length;
    }

    Value literal(std::string_view word, Token token) {
        if (text_.substr(position_, word.size()) != word) notJson("an unknown literal");
        position_ += word.size();
        return {token, word};
    }

    bool digit() const { return peek() >= '0' && peek() <= '9'; }

    std::size_t digits() {
        const std::size_t start = position_;
        while (digit()) ++position_;
        return position_ - start;
    }

    Value number() {
        const std::size_t start = position_;
        if (peek() == '-') ++position_;
        if (peek() == '0') {
            ++position_;
        } else if (digits() == 0) {
            notJson("a value was expected");
        }
        Token token = Token::integer;
        if (peek() == '.') {
            ++position_;
            if (digits() == 0) notJson("a number without digits after its point");
            token = Token::number;
        }
        std::size_t exponentDigits = 0;
        if (peek() == 'e' || peek() == 'E') {
            ++position_;
            if (peek() == '+' || peek() == '-') ++position_;
            exponentDigits = digits();
            if (exponentDigits == 0) notJson("a number without digits in its exponent");
            token = Token::number;
        }
        const std::string_view text = text_.substr(start, position_ - start);
        // Only a long number or a large exponent can be beyond a double's range, which JSON
        // readers refuse as they do a syntax error.
        if (exponentDigits >= 3 || text.size() > 300) {
            if (std::isinf(std::strtod(std::string(text).c_str(), nullptr))) notJson("a number out of range");
        }
        return {token, text};
    }

    std::string_view text_;
    std::size_t position_ = 0;
    int depth_ = 0;
};

const Member* findMember(const Members& members, std::size_t count, std::string_view key) {
    for (std::size_t i = 0; i < count; ++i) {
        if (members[i].key() == key) return &members[i];
    }
    return nullptr;
}

std::optional<std::string> checkObject(const Members& members, std::size_t count, const Kind*& kind,
                                       std::int64_t& trackedAtMs);

// Empty when the value has the field's shape; otherwise what is wrong with it.
std::optional<std::string> checkValue(const Field& field, const Value& value) {
    const auto key = [&field] { return "key " + showText(field.key); };
    auto wrongType = [&](const char* expected) {
        return key() + " must be " + expected + ", found " + nameOf(value.token);
    };
    std::string scratch;
    switch (field.shape) {
        case Shape::number:
            if (!isNumber(value)) return wrongType("a number");
            return std::nullopt;
        case Shape::integer:
            if (!fitsInt64(value)) return wrongType("an integer");
            return std::nullopt;
        case Shape::boolean:
            if (value.token != Token::boolean) return wrongType("true or false");
            return std::nullopt;
        case Shape::text:
            if (value.token != Token::string) return wrongType("a string");
            return std::nullopt;
        case Shape::oneOf: {
            if (value.token != Token::string) return wrongType("a string");
            const std::string_view text = contentOf(value, scratch);
            if (std::find(field.allowed.begin(), field.allowed.end(), text) == field.allowed.end()) {
                return key() + " must be one of " + listOf(field.allowed) + ", found " + showText(text);
            }
            return std::nullopt;
        }
        case Shape::latitude:
            if (!isNumber(value)) return wrongType("a number");
            if (const double number = doubleOf(value); !(number >= -90 && number <= 90)) {
                return key() + " is outside -90..90: " + std::string(value.text);
            }
            return std::nullopt;
        case Shape::longitude:
            if (!isNumber(value)) return wrongType("a number");
            if (const double number = doubleOf(value); !(number >= -180 && number <= 180)) {
                return key() + " is outside -180..180: " + std::string(value.text);
            }
            return std::nullopt;
        case Shape::accuracy:
            if (!isNumber(value)) return wrongType("a number");
            if (doubleOf(value) < 0) return key() + " is negative: " + std::string(value.text);
            return std::nullopt;
        case Shape::fraction:
            if (!isNumber(value)) return wrongType("a number");
            if (const double number = doubleOf(value); !(number >= 0 && number <= 1)) {
                return key() + " is outside 0..1: " + std::string(value.text);
            }
            return std::nullopt;
        case Shape::confidence:
            if (!fitsInt64(value)) return wrongType("an integer");
            if (const std::int64_t number = int64Of(value); number < 0 || number > 2) {
                return key() + " must be 0, 1 or 2, found " + std::string(value.text);
            }
            return std::nullopt;
        case Shape::activities: {
            if (value.token != Token::array) return wrongType("a list");
            // Read again from its text, which is known to be well formed.
            std::optional<std::string> problem;
            Reader items(value.text);
            items.array([&](std::size_t index) {
                const Value item = items.value();
                if (problem) return;
                const bool known = item.token == Token::string &&
                                   std::find(activityKinds.begin(), activityKinds.end(), contentOf(item, scratch)) !=
                                       activityKinds.end();
                if (!known) {
                    const std::string text = item.token == Token::string ? showText(contentOf(item, scratch))
                                                                         : std::string(item.text);
                    problem = key() + " item " + std::to_string(index) + " must be one of " + listOf(activityKinds) +
                              ", found " + text;
                }
            });
            return problem;
        }
        case Shape::beacons: {
            if (value.token != Token::array) return wrongType("a list");
            std::optional<std::string> problem;
            std::size_t sightings = 0;
            Reader items(value.text);
            items.array([&](std::size_t index) {
                ++sightings;
                const std::string which = "beacon " + std::to_string(index);
                if (items.peek() != '{') {
                    const Value item = items.value();
                    if (!problem) problem = which + " must be an object, found " + nameOf(item.token);
                    return;
                }
                Members members;
                const std::size_t count = items.object(members, [&items](Member& member) { member.value = items.value(); });
                if (problem) return;
                const Kind* kind = nullptr;
                std::int64_t time = 0;
                if (auto wrong = checkObject(members, count, kind, time)) {
                    problem = which + ": " + *wrong;
                } else if (kind->discriminator != "protocol") {
                    problem = which + " has no \"protocol\"";
                }
            });
            if (!problem && sightings == 0) return key() + " is an empty list";
            return problem;
        }
        case Shape::uuid:
            if (value.token != Token::string) return wrongType("a string");
            if (!isUuidText(contentOf(value, scratch))) {
                return key() + " is not a 36-character UUID: " + showText(contentOf(value, scratch));
            }
            return std::nullopt;
    }
    return std::nullopt;
}

// One event or sighting object: its discriminator, "tracked_at_ms", and exactly the keys of
// its kind with their shapes. On success, sets its kind and time.
std::optional<std::string> checkObject(const Members& members, std::size_t count, const Kind*& kind,
                                       std::int64_t& trackedAtMs) {
    const Member* type = findMember(members, count, "type");
    const Member* protocol = findMember(members, count, "protocol");
    if (type && protocol) return std::string("has both \"type\" and \"protocol\"");
    if (!type && !protocol) return std::string("missing key \"type\"");
    const std::string_view discriminator = type ? "type" : "protocol";
    const Value& name = (type ? type : protocol)->value;
    if (name.token != Token::string) {
        return "key " + showText(discriminator) + " must be a string, found " + nameOf(name.token);
    }
    std::string scratch;
    kind = findKind(discriminator, contentOf(name, scratch));
    if (!kind) return "unknown " + std::string(discriminator) + " " + showText(contentOf(name, scratch));

    const auto prefix = [kind] { return "(" + std::string(kind->name) + ") "; };
    const Member* time = findMember(members, count, "tracked_at_ms");
    if (!time) return prefix() + "missing key \"tracked_at_ms\"";
    if (!fitsInt64(time->value)) {
        return prefix() + "key \"tracked_at_ms\" must be an integer, found " +
               (isNumber(time->value) ? std::string(time->value.text) : std::string(nameOf(time->value.token)));
    }
    trackedAtMs = int64Of(time->value);
    for (const auto& field : kind->fields) {
        const Member* member = findMember(members, count, field.key);
        if (!member) return prefix() + "missing key " + showText(field.key);
        if (auto problem = checkValue(field, member->value)) return prefix() + *problem;
    }
    // Every key is the discriminator, the time or a field, and none comes twice: so there are
    // exactly as many as the kind has, and otherwise one is unexpected.
    if (count != kind->fields.size() + 2) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::string_view key = members[i].key();
            if (key == discriminator || key == "tracked_at_ms") continue;
            const bool known = std::any_of(kind->fields.begin(), kind->fields.end(),
                                           [key](const Field& field) { return field.key == key; });
            if (!known) return prefix() + "unexpected key " + showText(key);
        }
    }
    return std::nullopt;
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

    // Inflated straight into `out`, sized at first by the gzip trailer's note of the length
    // (modulo 2^32, and only a hint: the stream decides), one byte more so that the end is
    // seen without another round; a byte past the limit means too much.
    const std::size_t cap = limit == std::numeric_limits<std::size_t>::max() ? limit : limit + 1;
    std::size_t hint = body.size() * 8;
    if (body.size() >= 18) {
        const auto* trailer = reinterpret_cast<const unsigned char*>(body.data() + body.size() - 4);
        hint = (std::size_t{trailer[3]} << 24 | std::size_t{trailer[2]} << 16 | std::size_t{trailer[1]} << 8 |
                std::size_t{trailer[0]}) + 1;
    }
    out.resize(std::min(std::max<std::size_t>(hint, 4096), cap));
    std::size_t size = 0;
    std::size_t offset = 0;
    int status = Z_OK;
    while (status != Z_STREAM_END) {
        if (stream.avail_in == 0 && offset < body.size()) {
            const std::size_t piece = std::min<std::size_t>(body.size() - offset, UINT_MAX);
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data() + offset));
            stream.avail_in = static_cast<uInt>(piece);
            offset += piece;
        }
        if (size == out.size()) out.resize(std::min(out.size() * 2, cap));
        const std::size_t room = std::min<std::size_t>(out.size() - size, UINT_MAX);
        stream.next_out = reinterpret_cast<Bytef*>(out.data() + size);
        stream.avail_out = static_cast<uInt>(room);
        status = inflate(&stream, Z_NO_FLUSH);
        if (status == Z_BUF_ERROR) return reject(400, "the gzip body is cut short");
        if (status != Z_OK && status != Z_STREAM_END) {
            return reject(400, std::string("the body is not a valid gzip stream: ") +
                                   (stream.msg ? stream.msg : "inflate failed"));
        }
        size += room - stream.avail_out;
        if (size > limit) return reject(413, "the inflated body exceeds " + std::to_string(limit) + " bytes");
    }
    out.resize(size);
    const std::size_t rest = stream.avail_in + (body.size() - offset);
    if (rest > 0) return reject(400, std::to_string(rest) + " bytes follow the end of the gzip stream");
    return std::nullopt;
}

std::optional<Rejection> parseBatchDocument(std::string_view text, BatchDocument& out) {
    out = BatchDocument{};
    out.events.reserve(text.size() / 64);
    Reader reader(text);
    Members top;
    std::size_t topCount = 0;
    Token topToken = Token::object;
    std::optional<std::string> eventProblem;  // the first event that does not fit its kind
    try {
        reader.skipSpace();
        if (reader.atEnd()) reader.notJson("the document is empty");
        if (reader.peek() != '{') {
            topToken = reader.value().token;
        } else {
            Members event;
            const auto readEvent = [&](std::size_t index) {
                if (reader.peek() != '{') {
                    const Value value = reader.value();
                    if (!eventProblem) eventProblem = "event " + std::to_string(index) + " must be an object, found " +
                                                      nameOf(value.token);
                    return;
                }
                const std::size_t start = reader.position();
                const std::size_t count =
                    reader.object(event, [&reader](Member& member) { member.value = reader.value(); });
                if (eventProblem) return;  // the document is refused; only its syntax matters now
                const Kind* kind = nullptr;
                std::int64_t time = 0;
                if (auto problem = checkObject(event, count, kind, time)) {
                    eventProblem = "event " + std::to_string(index) + " " + *problem;
                    return;
                }
                out.events.push_back(BatchEvent{kind->name, time, text.substr(start, reader.position() - start)});
            };
            topCount = reader.object(top, [&](Member& member) {
                if (member.key() == "events" && reader.peek() == '[') {
                    const std::size_t start = reader.position();
                    reader.array(readEvent);
                    member.value = {Token::array, text.substr(start, reader.position() - start)};
                } else {
                    member.value = reader.value();
                }
            });
        }
        reader.skipSpace();
        if (!reader.atEnd()) reader.notJson("more text follows the document");
    } catch (const Refusal& refusal) {
        out = BatchDocument{};
        return reject(refusal.status, refusal.message);
    }

    auto refuse = [&out](std::string message) {
        out = BatchDocument{};
        return reject(422, std::move(message));
    };
    if (topToken != Token::object) return refuse(std::string("the batch document must be an object, found ") + nameOf(topToken));
    const Member* id = findMember(top, topCount, "id");
    if (!id) return refuse("the batch document lacks \"id\"");
    if (id->value.token != Token::string) return refuse(std::string("\"id\" must be a string, found ") + nameOf(id->value.token));
    if (id->value.text.empty()) return refuse("\"id\" is empty");
    const Member* sequential = findMember(top, topCount, "sequential_id");
    if (!sequential) return refuse("the batch document lacks \"sequential_id\"");
    if (!fitsInt64(sequential->value)) {
        return refuse("\"sequential_id\" must be an integer, found " +
                      (isNumber(sequential->value) ? std::string(sequential->value.text)
                                                   : std::string(nameOf(sequential->value.token))));
    }
    const Member* events = findMember(top, topCount, "events");
    if (!events) return refuse("the batch document lacks \"events\"");
    if (events->value.token != Token::array) {
        return refuse(std::string("\"events\" must be a list, found ") + nameOf(events->value.token));
    }
    for (std::size_t i = 0; i < topCount; ++i) {
        const std::string_view key = top[i].key();
        if (key != "id" && key != "sequential_id" && key != "events") {
            return refuse("the batch document has unexpected key " + showText(key));
        }
    }
    if (eventProblem) return refuse(*eventProblem);
    std::string scratch;
    out.id = std::string(contentOf(id->value, scratch));
    out.sequentialId = int64Of(sequential->value);
    return std::nullopt;
}

}  // namespace rovalis::collector
