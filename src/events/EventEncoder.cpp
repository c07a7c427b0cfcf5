#include "events/EventEncoder.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "util/Fatal.h"

namespace rovalis {

namespace {

[[noreturn]] void encodingFailed() {
    fatalError(std::string("Could not encode ") + EventEncoder::description + " to Data.");
}

// Appends a literal whose length is known at compile time.
template <std::size_t N>
inline void put(std::string& out, const char (&text)[N]) {
    out.append(text, N - 1);
}

inline void putInteger(std::string& out, long long value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

// Shortest text that reads back to the same value; JSON has no text for values that are
// not finite, so such a value cannot be encoded.
inline void putDouble(std::string& out, double value) {
    if (!std::isfinite(value)) encodingFailed();
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

inline void putFloat(std::string& out, float value) {
    if (!std::isfinite(value)) encodingFailed();
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

inline void putBool(std::string& out, bool value) {
    if (value) {
        put(out, "true");
    } else {
        put(out, "false");
    }
}

// Whole milliseconds since 1970, halves away from zero. Written as an integer whenever the
// value fits one exactly (every realistic time); beyond that as the whole double it is.
inline void putTime(std::string& out, Date date) {
    const double ms = std::round(date.secondsSince1970 * 1000.0);
    if (!std::isfinite(ms)) encodingFailed();
    if (ms >= -9223372036854775808.0 && ms < 9223372036854775808.0) {
        putInteger(out, static_cast<long long>(ms));
    } else {
        putDouble(out, ms);
    }
}

// units / 10^scale with exactly its digits: no binary conversion, trailing zeros of the
// fraction dropped, a leading "0." for values below one.
void putDecimal(std::string& out, Decimal decimal) {
    std::uint64_t magnitude = decimal.units < 0 ? 0 - static_cast<std::uint64_t>(decimal.units)
                                                : static_cast<std::uint64_t>(decimal.units);
    std::size_t scale = decimal.scale;
    while (scale > 0 && magnitude % 10 == 0 && magnitude != 0) {
        magnitude /= 10;
        --scale;
    }
    if (magnitude == 0) {
        out.push_back('0');
        return;
    }
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, magnitude);
    const std::size_t count = static_cast<std::size_t>(result.ptr - digits);
    if (decimal.units < 0) out.push_back('-');
    if (scale == 0) {
        out.append(digits, count);
    } else if (scale < count) {
        out.append(digits, count - scale);
        out.push_back('.');
        out.append(digits + (count - scale), scale);
    } else {
        put(out, "0.");
        out.append(scale - count, '0');
        out.append(digits, count);
    }
}

// Bytes that go out as they are: printable ASCII except the quote, the backslash and the
// slash. Everything else takes the slow path.
constexpr auto plainBytes = [] {
    std::array<bool, 256> table{};
    for (int c = 0x20; c < 0x80; ++c) table[static_cast<std::size_t>(c)] = true;
    table['"'] = table['\\'] = table['/'] = false;
    return table;
}();

// Length of the well-formed UTF-8 sequence at p, or, when it is ill-formed, minus the
// length of its maximal subpart (the bytes one replacement character stands for).
int utf8Sequence(const unsigned char* p, const unsigned char* end) {
    const unsigned char lead = *p;
    int length;
    unsigned char secondLow = 0x80, secondHigh = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) secondLow = 0xA0;
        if (lead == 0xED) secondHigh = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) secondLow = 0x90;
        if (lead == 0xF4) secondHigh = 0x8F;
    } else {
        return -1;
    }
    for (int i = 1; i < length; ++i) {
        if (p + i >= end) return -i;
        const unsigned char c = p[i];
        const unsigned char low = i == 1 ? secondLow : 0x80;
        const unsigned char high = i == 1 ? secondHigh : 0xBF;
        if (c < low || c > high) return -i;
    }
    return length;
}

// A JSON string: quote, backslash and slash escaped, the short escapes for the common
// control characters and \u00XX for the rest; ill-formed UTF-8 becomes U+FFFD so the
// output is always valid UTF-8.
void putString(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out.push_back('"');
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    const auto* run = p;
    while (p < end) {
        const unsigned char c = *p;
        if (plainBytes[c]) {
            ++p;
            continue;
        }
        if (c >= 0x80) {
            const int length = utf8Sequence(p, end);
            if (length > 0) {
                p += length;
                continue;
            }
            out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
            put(out, "\xEF\xBF\xBD");
            p += -length;
            run = p;
            continue;
        }
        out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
        switch (c) {
            case '"': put(out, "\\\""); break;
            case '\\': put(out, "\\\\"); break;
            case '/': put(out, "\\/"); break;
            case '\b': put(out, "\\b"); break;
            case '\f': put(out, "\\f"); break;
            case '\n': put(out, "\\n"); break;
            case '\r': put(out, "\\r"); break;
            case '\t': put(out, "\\t"); break;
            default: {
                const char escape[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
                out.append(escape, sizeof escape);
            }
        }
        ++p;
        run = p;
    }
    out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
    out.push_back('"');
}

// The standard 36-character upper-case form (the same text as Uuid::uuidString()), written
// in place.
void putUuid(std::string& out, const Uuid& uuid) {
    static constexpr char digits[] = "0123456789ABCDEF";
    char text[38];
    std::size_t n = 0;
    text[n++] = '"';
    for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text[n++] = '-';
        text[n++] = digits[uuid.bytes[i] >> 4];
        text[n++] = digits[uuid.bytes[i] & 0x0F];
    }
    text[n++] = '"';
    out.append(text, n);
}

// Raw texts of the enumerations hold nothing that needs escaping.
inline void putRaw(std::string& out, std::string_view text) {
    out.push_back('"');
    out.append(text);
    out.push_back('"');
}

// Each writer below lists its keys in ascending byte order.

void write(std::string& out, const Waypoint& r) {
    put(out, "{\"accuracy\":");
    putDouble(out, r.accuracy);
    put(out, ",\"altitude\":");
    putDouble(out, r.altitude);
    put(out, ",\"bearing\":");
    putDouble(out, r.bearing);
    put(out, ",\"latitude\":");
    putDouble(out, r.latitude);
    put(out, ",\"longitude\":");
    putDouble(out, r.longitude);
    put(out, ",\"provider\":");
    putString(out, r.provider);
    put(out, ",\"speed\":");
    putDouble(out, r.speed);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"Waypoint\"}");
}

void write(std::string& out, const SignificantLocation& r) {
    put(out, "{\"accuracy\":");
    putDouble(out, r.accuracy);
    put(out, ",\"latitude\":");
    putDouble(out, r.latitude);
    put(out, ",\"longitude\":");
    putDouble(out, r.longitude);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"SignificantLocation\"}");
}

template <typename SleepOrWake>
void writeSleepWake(std::string& out, const SleepOrWake& r) {
    put(out, "{\"accuracy\":");
    putDouble(out, r.accuracy);
    put(out, ",\"latitude\":");
    putDouble(out, r.latitude);
    put(out, ",\"longitude\":");
    putDouble(out, r.longitude);
    put(out, ",\"reason\":");
    putRaw(out, rawText(r.reason));
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"");
    out.append(SleepOrWake::typeName);
    put(out, "\"}");
}

void write(std::string& out, const PreSleep& r) { writeSleepWake(out, r); }
void write(std::string& out, const PreWakeUp& r) { writeSleepWake(out, r); }

template <typename Geofence>
void writeGeofence(std::string& out, const Geofence& r) {
    put(out, "{\"identifier\":");
    putString(out, r.identifier);
    put(out, ",\"latitude\":");
    putDouble(out, r.latitude);
    put(out, ",\"longitude\":");
    putDouble(out, r.longitude);
    put(out, ",\"radius\":");
    putDouble(out, r.radius);
    put(out, ",\"reason\":");
    putRaw(out, rawText(r.reason));
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"");
    out.append(Geofence::typeName);
    put(out, "\"}");
}

void write(std::string& out, const GeofenceCreate& r) { writeGeofence(out, r); }
void write(std::string& out, const GeofenceTrigger& r) { writeGeofence(out, r); }

void write(std::string& out, const Battery& r) {
    put(out, "{\"battery_status\":");
    putFloat(out, r.status);
    put(out, ",\"is_charging\":");
    putBool(out, r.isCharging);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"Battery\"}");
}

void write(std::string& out, const SDKSettings& r) {
    put(out, "{\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"SDKSettings\",\"wifi_only_data_transfer\":");
    putBool(out, r.wifiOnlyDataTransfer);
    out.push_back('}');
}

void write(std::string& out, const DeviceSettings& r) {
    put(out, "{\"background_app_refresh\":");
    putBool(out, r.backgroundAppRefresh);
    put(out, ",\"power_save_mode\":");
    putBool(out, r.powerSaveMode);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"DeviceSettings\"}");
}

void write(std::string& out, const Connectivity& r) {
    put(out, "{\"status\":");
    putRaw(out, rawText(r.status));
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"Connectivity\"}");
}

void write(std::string& out, const ToggleTracking& r) {
    put(out, "{\"toggle_tracking_reason\":");
    putRaw(out, rawText(r.reason));
    put(out, ",\"toggle_tracking_state\":");
    putBool(out, r.state);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"ToggleTracking\"}");
}

void write(std::string& out, const ToggleStandby& r) {
    put(out, "{\"toggle_standby_reason\":");
    putString(out, r.reason);
    put(out, ",\"toggle_standby_state\":");
    putBool(out, r.state);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"ToggleStandby\"}");
}

void write(std::string& out, const Debug& r) {
    put(out, "{\"comment\":");
    putString(out, r.comment);
    put(out, ",\"topic\":");
    putRaw(out, rawText(r.topic));
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"Debug\"}");
}

void write(std::string& out, const Acceleration& r) {
    put(out, "{\"magnitude\":");
    putDecimal(out, r.magnitude);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"Acceleration\"}");
}

void write(std::string& out, const IOSActivity& r) {
    put(out, "{\"activities\":[");
    bool first = true;
    for (const auto activity : r.activities) {
        if (!first) out.push_back(',');
        first = false;
        putRaw(out, rawText(activity));
    }
    put(out, "],\"confidence\":");
    putInteger(out, static_cast<long long>(r.confidence));
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"IOSActivity\"}");
}

void write(std::string& out, const IBeacon& r) {
    put(out, "{\"major\":");
    putInteger(out, r.major);
    put(out, ",\"minor\":");
    putInteger(out, r.minor);
    put(out, ",\"protocol\":\"IBeacon\",\"rssi\":");
    putInteger(out, r.rssi);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"uuid\":");
    putUuid(out, r.uuid);
    out.push_back('}');
}

void write(std::string& out, const Eddystone& r) {
    put(out, "{\"eid\":");
    putString(out, r.eid);
    put(out, ",\"protocol\":\"Eddystone\",\"rssi\":");
    putInteger(out, r.rssi);
    put(out, ",\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    out.push_back('}');
}

void write(std::string& out, const BeaconScan& r) {
    put(out, "{\"beacons\":[");
    bool first = true;
    for (const auto& sighting : r.beacons) {
        if (!first) out.push_back(',');
        first = false;
        std::visit([&out](const auto& beacon) { write(out, beacon); }, sighting);
    }
    put(out, "],\"tracked_at_ms\":");
    putTime(out, r.trackedAtMs);
    put(out, ",\"type\":\"BeaconScan\"}");
}

}  // namespace

void EventEncoder::encode(const EventRecord& record, std::string& out) const {
    std::visit([&out](const auto& r) { write(out, r); }, record);
}

std::string EventEncoder::encode(const EventRecord& record) const {
    std::string out;
    out.reserve(192);
    encode(record, out);
    return out;
}

}  // namespace rovalis
