#include "events/EventRecords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace rovalis {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double inf = std::numeric_limits<double>::infinity();
const Date t{1700000000.0};

// Matches the output of a death that ends a line with exactly this fatal message.
::testing::Matcher<const std::string&> fatal(const std::string& message) {
    return ::testing::HasSubstr("Fatal error: " + message + "\n");
}

// ---- Validation ----

TEST(EventRecordValidation, BoundsAreInclusive) {
    for (const double latitude : {-90.0, 90.0}) {
        for (const double longitude : {-180.0, 180.0}) {
            Waypoint(t, latitude, longitude, -1, -1, 0, 0, "regular");
            SignificantLocation(t, latitude, longitude, 0);
            PreSleep(t, latitude, longitude, 0, PreSleep::Reason::noMovement);
            PreWakeUp(t, latitude, longitude, 0, PreWakeUp::Reason::unknown);
            GeofenceCreate(t, RegionReason::exit, -5, latitude, longitude, "");
            GeofenceTrigger(t, RegionReason::enter, 0, latitude, longitude, "");
        }
    }
    Battery(t, true, 0.0f);
    Battery(t, false, 1.0f);
}

TEST(EventRecordValidationDeathTest, OutOfRangeValuesStopWithTheFieldAndValue) {
    EXPECT_DEATH(Waypoint(t, 90.000001, 0, 0, 0, 0, 0, ""), fatal("Invalid Waypoint.latitude: 90.000001"));
    EXPECT_DEATH(Waypoint(t, -90.5, 0, 0, 0, 0, 0, ""), fatal("Invalid Waypoint.latitude: -90.5"));
    EXPECT_DEATH(Waypoint(t, 0, 180.25, 0, 0, 0, 0, ""), fatal("Invalid Waypoint.longitude: 180.25"));
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, -1, 0, ""), fatal("Invalid Waypoint.accuracy: -1.0"));
    EXPECT_DEATH(SignificantLocation(t, 0, 0, -1), fatal("Invalid SignificantLocation.accuracy: -1.0"));
    EXPECT_DEATH(SignificantLocation(t, 100, 0, 0), fatal("Invalid SignificantLocation.latitude: 100.0"));
    EXPECT_DEATH(PreSleep(t, 0, -181, 0, PreSleep::Reason::unknown), fatal("Invalid PreSleep.longitude: -181.0"));
    EXPECT_DEATH(PreWakeUp(t, 0, 0, -0.5, PreWakeUp::Reason::unknown), fatal("Invalid PreWakeUp.accuracy: -0.5"));
    EXPECT_DEATH(GeofenceCreate(t, RegionReason::enter, 1, -91, 0, ""), fatal("Invalid GeofenceCreate.latitude: -91.0"));
    EXPECT_DEATH(GeofenceTrigger(t, RegionReason::exit, 1, 0, 200, ""), fatal("Invalid GeofenceTrigger.longitude: 200.0"));
    EXPECT_DEATH(Battery(t, true, 1.01f), fatal("Invalid Battery.status: 1.01"));
    EXPECT_DEATH(Battery(t, true, -0.01f), fatal("Invalid Battery.status: -0.01"));
    EXPECT_DEATH(BeaconScan(t, {}), fatal("Empty beacons array"));
}

TEST(EventRecordValidationDeathTest, ValuesThatAreNotNumbersFailEveryBound) {
    EXPECT_DEATH(Waypoint(t, nan, 0, 0, 0, 0, 0, ""), fatal("Invalid Waypoint.latitude: nan"));
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, nan, 0, ""), fatal("Invalid Waypoint.accuracy: nan"));
    EXPECT_DEATH(GeofenceTrigger(t, RegionReason::exit, 1, inf, 0, ""), fatal("Invalid GeofenceTrigger.latitude: inf"));
    EXPECT_DEATH(PreSleep(t, 0, -inf, 0, PreSleep::Reason::unknown), fatal("Invalid PreSleep.longitude: -inf"));
    EXPECT_DEATH(Battery(t, true, std::numeric_limits<float>::quiet_NaN()), fatal("Invalid Battery.status: nan"));
    // Infinite accuracy is not below zero: it passes.
    EXPECT_EQ(Waypoint(t, 0, 0, 0, 0, inf, 0, "").accuracy, inf);
}

TEST(EventRecordValidationDeathTest, TheFirstFailingCheckDecides) {
    EXPECT_DEATH(Waypoint(t, 91, 181, 0, 0, -1, 0, ""), fatal("Invalid Waypoint.latitude: 91.0"));
    EXPECT_DEATH(Waypoint(t, 0, 181, 0, 0, -1, 0, ""), fatal("Invalid Waypoint.longitude: 181.0"));
    EXPECT_DEATH(PreWakeUp(t, 0, nan, -1, PreWakeUp::Reason::unknown), fatal("Invalid PreWakeUp.longitude: nan"));
}

TEST(EventRecordValidationDeathTest, OffendingValuesUseThePlatformsDoubleText) {
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, -1e-05, 0, ""), fatal("Invalid Waypoint.accuracy: -1e-05"));
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, -0.0001, 0, ""), fatal("Invalid Waypoint.accuracy: -0.0001"));
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, -1e16, 0, ""), fatal("Invalid Waypoint.accuracy: -1e+16"));
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, -0x1p53, 0, ""), fatal("Invalid Waypoint.accuracy: -9007199254740992.0"));
    EXPECT_DEATH(Waypoint(t, 0, 0, 0, 0, -1.5e300, 0, ""), fatal("Invalid Waypoint.accuracy: -1.5e+300"));
    EXPECT_DEATH(Battery(t, true, 2e7f), fatal("Invalid Battery.status: 2e+07"));
}

// ---- Codes and raw texts ----

TEST(EventRecordCodes, CodesSelectTheCaseAtTheirPosition) {
    EXPECT_EQ(rawText(PreSleep::reasonFromCode(0)), "no movement");
    EXPECT_EQ(rawText(PreSleep::reasonFromCode(1)), "unknown");
    const char* wake[] = {"exited geofence", "entered surrounding geofence", "significant location", "unknown"};
    for (long code = 0; code < 4; ++code) EXPECT_EQ(rawText(PreWakeUp::reasonFromCode(code)), wake[code]);
    const char* status[] = {"MOBILE", "DISCONNECTED", "OTHER", "WIFI"};
    for (long code = 0; code < 4; ++code) EXPECT_EQ(rawText(Connectivity::statusFromCode(code)), status[code]);
    const char* toggle[] = {"FORCE", "LOCATION_SERVICE", "DENIED_LOCATION", "INSUFFICIENT_LOCATION",
                            "IMPRECISE_LOCATION", "APP_UPDATE"};
    for (long code = 0; code < 6; ++code) EXPECT_EQ(rawText(ToggleTracking::reasonFromCode(code)), toggle[code]);
    const char* topic[] = {"Application Notification", "Application State", "Location Authorization",
                           "Background Task", "Beacon Ranging", "Log"};
    for (long code = 0; code < 6; ++code) EXPECT_EQ(rawText(Debug::topicFromCode(code)), topic[code]);
    const char* activity[] = {"stationary", "walking", "running", "automotive", "cycling", "unknown"};
    for (long code = 0; code < 6; ++code) EXPECT_EQ(rawText(IOSActivity::activityFromCode(code)), activity[code]);
    for (long code = 0; code < 3; ++code) EXPECT_EQ(static_cast<long>(IOSActivity::confidenceFromCode(code)), code);
    EXPECT_EQ(rawText(RegionReason::enter), "ENTER");
    EXPECT_EQ(rawText(RegionReason::exit), "EXIT");
}

TEST(EventRecordCodesDeathTest, CodesOutOfRangeAreFatal) {
    EXPECT_DEATH(PreSleep::reasonFromCode(2), fatal("Invalid PreSleep.Reason code: 2"));
    EXPECT_DEATH(PreSleep::reasonFromCode(-1), fatal("Invalid PreSleep.Reason code: -1"));
    EXPECT_DEATH(PreWakeUp::reasonFromCode(4), fatal("Invalid PreWakeUp.Reason code: 4"));
    EXPECT_DEATH(Connectivity::statusFromCode(4), fatal("Invalid Connectivity.Status code: 4"));
    EXPECT_DEATH(ToggleTracking::reasonFromCode(6), fatal("Invalid ToggleTracking.Reason code: 6"));
    EXPECT_DEATH(Debug::topicFromCode(6), fatal("Invalid Debug.Topic code: 6"));
    EXPECT_DEATH(IOSActivity::confidenceFromCode(3), fatal("Invalid IOSActivity.Confidence code: 3"));
    EXPECT_DEATH(IOSActivity::activityFromCode(6), fatal("Invalid IOSActivity.Activity code: 6"));
}

}  // namespace
}  // namespace rovalis
