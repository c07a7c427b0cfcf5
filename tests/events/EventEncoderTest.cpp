#include "events/EventEncoder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace rovalis {
namespace {

const Date t{1700000000.0};
const EventEncoder encoder;

std::string json(const EventRecord& record) { return encoder.encode(record); }

// The text of the value under key in an encoded record, up to `until`.
std::string valueOf(const std::string& text, const std::string& key, const std::string& until = ",") {
    const auto start = text.find("\"" + key + "\":") + key.size() + 3;
    return text.substr(start, text.find(until, start) - start);
}

// Its UUID holds every hexadecimal digit.
IBeacon beacon(Date when) {
    return IBeacon(when, *Uuid::parse("e2c56db5-dffb-48d2-b060-d0f5a71096e3"), 1, 2, -60);
}

// ---- Every record kind, byte for byte ----

TEST(EventEncoder, LocationBearingRecords) {
    EXPECT_EQ(json(Waypoint(Date{1700000000.25}, 52.520008, 13.404954, -1, -1, 4.5, 34.0, "regular")),
              R"({"accuracy":4.5,"altitude":34,"bearing":-1,"latitude":52.520008,"longitude":13.404954,)"
              R"("provider":"regular","speed":-1,"tracked_at_ms":1700000000250,"type":"Waypoint"})");
    EXPECT_EQ(json(SignificantLocation(Date{1.5}, -33.8688, 151.2093, 65)),
              R"({"accuracy":65,"latitude":-33.8688,"longitude":151.2093,"tracked_at_ms":1500,)"
              R"("type":"SignificantLocation"})");
    EXPECT_EQ(json(PreSleep(t, 48.1, 11.5, 10, PreSleep::Reason::noMovement)),
              R"({"accuracy":10,"latitude":48.1,"longitude":11.5,"reason":"no movement",)"
              R"("tracked_at_ms":1700000000000,"type":"PreSleep"})");
    EXPECT_EQ(json(PreWakeUp(t, 48.1, 11.5, 0, PreWakeUp::reasonFromCode(1))),
              R"({"accuracy":0,"latitude":48.1,"longitude":11.5,"reason":"entered surrounding geofence",)"
              R"("tracked_at_ms":1700000000000,"type":"PreWakeUp"})");
    EXPECT_EQ(json(GeofenceCreate(t, RegionReason::exit, -150.5, 48.1, 11.5, "rvl-center")),
              R"({"identifier":"rvl-center","latitude":48.1,"longitude":11.5,"radius":-150.5,"reason":"EXIT",)"
              R"("tracked_at_ms":1700000000000,"type":"GeofenceCreate"})");
    EXPECT_EQ(json(GeofenceTrigger(t, RegionReason::enter, 0, -90, 180, "")),
              R"({"identifier":"","latitude":-90,"longitude":180,"radius":0,"reason":"ENTER",)"
              R"("tracked_at_ms":1700000000000,"type":"GeofenceTrigger"})");
}

TEST(EventEncoder, StateAndDeviceRecords) {
    EXPECT_EQ(json(Battery(t, true, 0.8f)),
              R"({"battery_status":0.8,"is_charging":true,"tracked_at_ms":1700000000000,"type":"Battery"})");
    EXPECT_EQ(json(SDKSettings(t, false)),
              R"({"tracked_at_ms":1700000000000,"type":"SDKSettings","wifi_only_data_transfer":false})");
    EXPECT_EQ(json(DeviceSettings(t, true, false)),
              R"({"background_app_refresh":false,"power_save_mode":true,"tracked_at_ms":1700000000000,)"
              R"("type":"DeviceSettings"})");
    EXPECT_EQ(json(Connectivity(t, Connectivity::statusFromCode(3))),
              R"({"status":"WIFI","tracked_at_ms":1700000000000,"type":"Connectivity"})");
    EXPECT_EQ(json(ToggleTracking(t, false, ToggleTracking::reasonFromCode(2))),
              R"({"toggle_tracking_reason":"DENIED_LOCATION","toggle_tracking_state":false,)"
              R"("tracked_at_ms":1700000000000,"type":"ToggleTracking"})");
    EXPECT_EQ(json(ToggleStandby(t, true, "")),
              R"({"toggle_standby_reason":"","toggle_standby_state":true,"tracked_at_ms":1700000000000,)"
              R"("type":"ToggleStandby"})");
    EXPECT_EQ(json(Debug(t, Debug::Topic::applicationState, "went to background")),
              R"({"comment":"went to background","topic":"Application State","tracked_at_ms":1700000000000,)"
              R"("type":"Debug"})");
}

TEST(EventEncoder, SensorRecords) {
    EXPECT_EQ(json(Acceleration(t, Decimal{123, 4})),
              R"({"magnitude":0.0123,"tracked_at_ms":1700000000000,"type":"Acceleration"})");
    EXPECT_EQ(json(IOSActivity(t, IOSActivity::Confidence::high,
                               {IOSActivity::Activity::stationary, IOSActivity::Activity::walking})),
              R"({"activities":["stationary","walking"],"confidence":2,"tracked_at_ms":1700000000000,)"
              R"("type":"IOSActivity"})");
    EXPECT_EQ(json(IOSActivity(t, IOSActivity::Confidence::low, {})),
              R"({"activities":[],"confidence":0,"tracked_at_ms":1700000000000,"type":"IOSActivity"})");
    const std::string iBeacon = R"({"major":1,"minor":2,"protocol":"IBeacon","rssi":-60,"tracked_at_ms":1000,)"
                                R"("uuid":"E2C56DB5-DFFB-48D2-B060-D0F5A71096E3"})";
    const std::string eddystone = R"({"eid":"a\/b","protocol":"Eddystone","rssi":-70,"tracked_at_ms":2000})";
    EXPECT_EQ(json(beacon(Date{1.0})), iBeacon);
    EXPECT_EQ(json(Eddystone(Date{2.0}, "a/b", -70)), eddystone);
    EXPECT_EQ(json(BeaconScan(t, {beacon(Date{1.0}), Eddystone(Date{2.0}, "a/b", -70)})),
              R"({"beacons":[)" + iBeacon + "," + eddystone +
                  R"(],"tracked_at_ms":1700000000000,"type":"BeaconScan"})");
}

// ---- Numbers ----

TEST(EventEncoder, TimeIsWholeMillisecondsRoundedHalfAwayFromZero) {
    auto time = [](double seconds) { return valueOf(json(SDKSettings(Date{seconds}, true)), "tracked_at_ms"); };
    EXPECT_EQ(time(1700000000.0625), "1700000000063");  // exactly .5 ms
    EXPECT_EQ(time(-1700000000.0625), "-1700000000063");
    EXPECT_EQ(time(0.0005), "1");
    EXPECT_EQ(time(-0.0001), "0");
    EXPECT_EQ(time(1700000000.1234), "1700000000123");
    EXPECT_EQ(time(1e300), "1e+303");
}

TEST(EventEncoder, DoublesAreShortestRoundTripText) {
    auto longitude = [](double value) { return valueOf(json(SignificantLocation(t, 0, value, 0)), "longitude"); };
    EXPECT_EQ(longitude(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(longitude(1e-7), "1e-07");
    EXPECT_EQ(longitude(-0.0), "-0");
    EXPECT_EQ(longitude(std::numeric_limits<double>::denorm_min()), "5e-324");
}

TEST(EventEncoder, DecimalsKeepExactlyTheirDigits) {
    auto magnitude = [](Decimal value) { return valueOf(json(Acceleration(t, value)), "magnitude"); };
    EXPECT_EQ(magnitude({-5, 2}), "-0.05");
    EXPECT_EQ(magnitude({150, 2}), "1.5");
    EXPECT_EQ(magnitude({100, 2}), "1");
    EXPECT_EQ(magnitude({-1200, 1}), "-120");
    EXPECT_EQ(magnitude({0, 3}), "0");
    EXPECT_EQ(magnitude({1, 20}), "0.00000000000000000001");
    EXPECT_EQ(magnitude({std::numeric_limits<std::int64_t>::min(), 0}), "-9223372036854775808");
    EXPECT_EQ(magnitude({std::numeric_limits<std::int64_t>::max(), 18}), "9.223372036854775807");
}

TEST(EventEncoderDeathTest, ValuesWithoutJsonTextAreFatal) {
    const char* message = "Fatal error: Could not encode RovalisSDK\\.EventEncoder to Data\\.\n";
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_DEATH(json(Waypoint(t, 0, 0, nan, 0, 0, 0, "")), message);
    EXPECT_DEATH(json(Waypoint(t, 0, 0, 0, 0, std::numeric_limits<double>::infinity(), 0, "")), message);
    EXPECT_DEATH(json(SDKSettings(Date{nan}, true)), message);
}

// ---- Strings ----

TEST(EventEncoder, StringsAreEscapedLikeThePlatformEncoder) {
    auto reason = [](const std::string& text) {
        return valueOf(json(ToggleStandby(t, false, text)), "toggle_standby_reason", ",\"toggle_standby_state\"");
    };
    EXPECT_EQ(reason("a\"b\\c/d"), R"("a\"b\\c\/d")");
    EXPECT_EQ(reason("\b\f\n\r\t"), R"("\b\f\n\r\t")");
    EXPECT_EQ(reason(std::string("\x00\x01\x1f\x7f", 4)), "\"\\u0000\\u0001\\u001f\x7f\"");
    EXPECT_EQ(reason("Zürich → 😀"), "\"Zürich → 😀\"");
    // Ill-formed UTF-8: each maximal ill-formed part becomes one U+FFFD.
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(reason("a\xFF" "b"), "\"a" + fffd + "b\"");
    EXPECT_EQ(reason("x\xE2\x82"), "\"x" + fffd + "\"");
    EXPECT_EQ(reason("\xF0\x9F\x98" "x"), "\"" + fffd + "x\"");
    EXPECT_EQ(reason("\xC0\xAF"), "\"" + fffd + fffd + "\"");
    EXPECT_EQ(reason("\xED\xA0\x80"), "\"" + fffd + fffd + fffd + "\"");
    EXPECT_EQ(reason("\xF4\x90\x80\x80"), "\"" + fffd + fffd + fffd + fffd + "\"");
    // Whatever the bytes, the output parses as JSON (which requires valid UTF-8) and
    // reads back to the well-formed text.
    std::string bytes;
    for (int c = 0; c < 256; ++c) bytes.push_back(static_cast<char>(c));
    const std::string comment = nlohmann::json::parse(json(Debug(t, Debug::Topic::log, bytes)))["comment"];
    std::string expected = bytes.substr(0, 128);
    for (int i = 128; i < 256; ++i) expected += fffd;
    EXPECT_EQ(comment, expected);
}

// ---- Output ----

TEST(EventEncoder, OutputIsAppendedToTheCallersBuffer) {
    const Waypoint first(t, 1, 2, 3, 4, 5, 6, "regular");
    std::string out = "[";
    encoder.encode(first, out);
    out += ',';
    encoder.encode(Acceleration(t, Decimal{5, 1}), out);
    EXPECT_EQ(out, "[" + json(first) + "," + json(Acceleration(t, Decimal{5, 1})));
}

}  // namespace
}  // namespace rovalis
