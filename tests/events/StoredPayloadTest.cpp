#include "events/StoredPayload.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "events/EventEncoder.h"

namespace rovalis {
namespace {

using stored_payload::kept;
using stored_payload::restored;

TEST(StoredPayload, EveryKindOfEventComesBackByteForByteAndMostAreKeptShorter) {
    const Date t{1700000000.0005};  // rounds half away from zero, as the encoder does
    const IBeacon beacon(t, *Uuid::parse("e2c56db5-dffb-48d2-b060-d0f5a71096e3"), 1, 2, -60);
    const std::vector<EventRecord> records = {
        Waypoint(t, 52.52, 13.4, -1, -1, 4.5, 34.0, "regular"),
        SignificantLocation(Date{-1.5}, -33.8, 151.2, 65),
        PreSleep(t, 48.1, 11.5, 10, PreSleep::Reason::noMovement),
        GeofenceTrigger(t, RegionReason::enter, 0, -90, 180, ""),
        Battery(t, true, 0.8f),
        Connectivity(t, Connectivity::statusFromCode(3)),
        ToggleTracking(t, false, ToggleTracking::reasonFromCode(2)),
        Debug(t, Debug::Topic::applicationState, "ends with \"type\":\"Debug\"}"),
        Acceleration(t, Decimal{123, 4}),
        IOSActivity(t, IOSActivity::Confidence::high, {IOSActivity::Activity::walking}),
        BeaconScan(t, {beacon}),
        // Kept whole: a key after "type", and a time past the exact integers of a double.
        SDKSettings(t, false),
        Acceleration(Date{1e14}, Decimal{1, 0}),
    };
    std::string scratch;
    for (const auto& record : records) {
        const std::string payload = EventEncoder().encode(record);
        SCOPED_TRACE(payload);
        const double time = trackedAtOf(record).secondsSince1970;
        const std::string_view stored = kept(typeOf(record), time, payload, scratch);
        const bool keptWhole = std::holds_alternative<SDKSettings>(record) || time > 1e12;
        EXPECT_EQ(stored.size() == payload.size(), keptWhole);
        EXPECT_EQ(restored(typeOf(record), time, stored), payload);
    }
}

TEST(StoredPayload, AnEndingTheColumnsDoNotGiveBackIsKeptWholeAndWholePayloadsReadAsTheyAre) {
    const std::string payload = R"({"magnitude":1,"tracked_at_ms":2000,"type":"Acceleration"})";
    std::string scratch;
    EXPECT_EQ(kept("Acceleration", 2.001, payload, scratch), payload) << "another time";
    EXPECT_EQ(kept("Debug", 2.0, payload, scratch), payload) << "another type";
    EXPECT_EQ(kept("Acceleration", 2.0, R"({"tracked_at_ms":2000,"type":"Acceleration"})", scratch),
              R"({"tracked_at_ms":2000,"type":"Acceleration"})")
        << "nothing before the ending: what is left would not end in a comma";
    EXPECT_EQ(kept("Acceleration", 2.0, payload, scratch), R"({"magnitude":1,)");

    // Rows of earlier stores, and rows kept whole, are read as they are.
    EXPECT_EQ(restored("Acceleration", 9.0, payload), payload);
    // A cut row whose time column was damaged beyond any text still reads as JSON.
    EXPECT_EQ(restored("Debug", NAN, R"({"comment":"x",)"), R"({"comment":"x","tracked_at_ms":null,"type":"Debug"})");
}

}  // namespace
}  // namespace rovalis
