#include "core/PauseManager.h"

#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
#include <nlohmann/json.hpp>

#include "events/EventRepository.h"
#include "support/RecordingLocationManager.h"
#include "support/SpoiledFixes.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {
namespace {

using test::ConsoleCapture;
using test::RecordingLocationManager;
using test::TempDir;
using Bytes = std::vector<std::uint8_t>;

constexpr double start = 1700000000.0;
constexpr double timeout = 30.0;
const long long startMs = std::llround(start * 1000.0);

Location fixAt(double latitude, double longitude, double accuracy, Date timestamp) {
    return Location{{latitude, longitude}, 41.5, accuracy, 8.0, 1.25, 270.0, timestamp};
}

// The point `metres` north of `from` along its meridian, on the WGS84 ellipsoid.
Location northOf(const Location& from, double metres, double accuracy) {
    double latitude = 0.0, longitude = 0.0;
    GeographicLib::Geodesic::WGS84().Direct(from.coordinate.latitude, from.coordinate.longitude, 0.0, metres,
                                            latitude, longitude);
    return fixAt(latitude, longitude, accuracy, from.timestamp);
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

// Every key of `want` has its value in `got`; other keys of `got` do not matter.
void expectFields(const nlohmann::json& got, const nlohmann::json& want) {
    for (const auto& [key, value] : want.items()) EXPECT_EQ(got[key], value) << key;
}

class PauseManagerTest : public ::testing::Test {
protected:
    PauseManagerTest() { makeManager(); }

    // A fresh manager and fresh results; the stores and the location manager stay.
    void makeManager() {
        manager = std::make_shared<PauseManager>(locations, repository, defaults, clock, loop, timeout);
        center.reset();
        moved.reset();
        calls = 0;
    }

    // A fix at the test's place, `age` seconds old.
    Location fix(double accuracy, double age = 0.0, double latitude = 52.52) const {
        return fixAt(latitude, 13.405, accuracy, clock->now().addingSeconds(-age));
    }

    void sleep(const std::string& reason = "no movement in 10 minutes",
               const std::optional<Location>& lastKnown = std::nullopt) {
        manager->sleepWithReason(reason, lastKnown, [this](const std::optional<Location>& l) {
            center = l;
            ++calls;
        });
    }
    void wakeup(const std::string& reason = "exited geofence",
                const std::optional<Location>& lastKnown = std::nullopt) {
        manager->wakeupWithReason(reason, lastKnown, [this](bool hasMoved) {
            moved = hasMoved;
            ++calls;
        });
    }

    // The stored events of one type, as JSON, oldest first.
    std::vector<nlohmann::json> events(const std::string& type) {
        std::vector<nlohmann::json> result;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) {
            if (row.type == type) result.push_back(nlohmann::json::parse(row.payload));
        }
        return result;
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{start});
    std::shared_ptr<VirtualRunLoop> loop = std::make_shared<VirtualRunLoop>(clock);
    std::shared_ptr<RecordingLocationManager> locations = std::make_shared<RecordingLocationManager>();
    TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<PauseManager> manager;

    std::optional<Location> center;
    std::optional<bool> moved;
    int calls = 0;
};

TEST_F(PauseManagerTest, ABurstRunsAtBestAccuracyAndRecordsEveryValidFixUntilTheFirstGoodOne) {
    locations->setAllowsBackgroundLocationUpdates(false);
    locations->setPausesLocationUpdatesAutomatically(true);
    locations->setDistanceFilter(50.0);
    locations->setDesiredAccuracy(kCLLocationAccuracyHundredMeters);

    sleep();
    EXPECT_TRUE(locations->allowsBackgroundLocationUpdates());
    EXPECT_FALSE(locations->pausesLocationUpdatesAutomatically());
    EXPECT_EQ(locations->distanceFilter(), kCLDistanceFilterNone);
    EXPECT_EQ(locations->desiredAccuracy(), kCLLocationAccuracyBest);
    EXPECT_EQ(locations->delegate().get(), manager.get());
    EXPECT_EQ(locations->calls().back(), "startUpdatingLocation");  // configured before it starts

    const Location stale = fix(5.0, 3.0, 52.1);
    const Location coarse = fix(80.0, 1.0, 52.2);  // the store hands rows back in time order
    Location good = fix(12.5, 0.5, 52.3);
    good.speed = good.course = -1.0;  // unknown speed and course pass through as they are
    ASSERT_TRUE(locations->deliverLocations({fix(-1.0, 0.0, 52.0), stale, coarse, good, fix(3.0, 0.0, 52.4)}));
    EXPECT_EQ(center, good);
    EXPECT_EQ(locations->delegate(), nullptr);
    EXPECT_FALSE(locations->isUpdatingLocation());
    loop->fastForwardBy(2 * timeout);  // the time-out went with the burst
    EXPECT_EQ(calls, 1);

    const auto waypoints = events("Waypoint");
    ASSERT_EQ(waypoints.size(), 3u);
    const std::vector<Location> expected{stale, coarse, good};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const Location& want = expected[i];
        expectFields(waypoints[i], {{"provider", "PauseManager"},
                                    {"tracked_at_ms", std::llround(want.timestamp.secondsSince1970 * 1000.0)},
                                    {"latitude", want.coordinate.latitude}, {"longitude", want.coordinate.longitude},
                                    {"accuracy", want.horizontalAccuracy}, {"altitude", want.altitude},
                                    {"speed", want.speed}, {"bearing", want.course}});
    }
}

TEST_F(PauseManagerTest, OnlyAFixAtMost63MetresAndAtMost2SecondsOldEndsTheBurstEarlyElseTheTimeOutDoes) {
    struct Case { double accuracy, age; bool ends; };
    // The last known location is the most accurate: the time-out hands over the latest, not the best.
    const Location lastKnown = fix(5.0, 60.0, 48.0);
    for (const Case c : {Case{63.0, 1.0, true}, Case{63.5, 1.0, false}, Case{5.0, 2.0, true}, Case{5.0, 3.0, false},
                         Case{5.0, 2.5, false}, Case{0.0, 0.0, true}, Case{-1.0, 0.0, false}}) {
        SCOPED_TRACE(testing::Message() << "accuracy " << c.accuracy << ", age " << c.age);
        makeManager();
        const Location candidate = fix(c.accuracy, c.age);
        sleep("no movement in 10 minutes", lastKnown);
        locations->deliverLocations({candidate, fix(-1.0, 0.0, 52.3)});  // an invalid fix is passed over
        loop->fastForwardBy(timeout - 0.5);
        EXPECT_EQ(calls, c.ends ? 1 : 0);
        loop->fastForwardBy(0.5);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(center, c.accuracy < 0.0 ? lastKnown : candidate);
    }
}

TEST_F(PauseManagerTest, ASecondCallTakesOverTheCallbackAndTheTimeOutOfTheFirst) {
    int firstCalls = 0;
    manager->sleepWithReason("no movement in 10 minutes", fix(20.0, 100.0),
                             [&](const std::optional<Location>&) { ++firstCalls; });
    loop->fastForwardBy(20.0);
    wakeup("exited geofence", fix(20.0, 100.0));

    loop->fastForwardBy(timeout - 20.0);  // the first call's time-out has passed
    EXPECT_EQ(calls, 0);
    loop->fastForwardBy(20.0);  // the second call's
    EXPECT_EQ(calls, 1);
    loop->fastForwardBy(10 * timeout);
    EXPECT_EQ(firstCalls, 0);
    EXPECT_EQ(calls, 1);
}

TEST_F(PauseManagerTest, TheManagerMayGoWhileBurstingOrFromItsOwnCompletionAndNeedsNoStores) {
    // Gone while bursting: neither the timer nor the location manager keeps it, and the
    // updates it asked for stop with it.
    sleep("no movement in 10 minutes", fix(20.0));
    const std::weak_ptr<PauseManager> weak = manager;
    manager.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_FALSE(locations->isUpdatingLocation());
    EXPECT_FALSE(locations->deliverLocations({fix(5.0)}));
    loop->fastForwardBy(2 * timeout);
    EXPECT_EQ(calls, 0);

    manager = std::make_shared<PauseManager>(locations, std::weak_ptr<RVLEventInsertable>(),
                                             std::weak_ptr<RVLPauseRecordModifier>(), clock, loop, timeout);
    sleep();
    locations->deliverLocations({fix(5.0)});
    manager->wakeupWithReason("exited geofence", std::nullopt, [&](bool hasMoved) {
        moved = hasMoved;
        manager.reset();  // let go of by the completion that it calls
    });
    locations->deliverLocations({fix(5.0)});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(moved, true);
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(repository->eventsCount(), 0);
}

TEST_F(PauseManagerTest, AnUnusableBurstFixIsDroppedWithOneLineAndNeitherRecordedNorDecidesTheTransition) {
    const Location asleep = fix(20.0, 60.0);  // the last known location, where the SDK sleeps
    defaults->setPauseRecord(PauseRecord{52.52, 13.405, 20.0, clock->now()}.encode());
    // Fresh, accurate and 9 km away: usable, it would end the burst and count as moved.
    for (const auto& [spoiled, defect] : test::spoiledFixes(fix(5.0, 0.0, 52.6))) {
        SCOPED_TRACE(defect);
        ConsoleCapture console;
        makeManager();
        sleep("application terminates", asleep);
        locations->deliverLocations({spoiled});
        loop->fastForwardBy(timeout);
        EXPECT_EQ(center, asleep);
        makeManager();
        wakeup("exited geofence", asleep);
        locations->deliverLocations({spoiled});
        loop->fastForwardBy(timeout);
        EXPECT_EQ(moved, false);
        const std::string line = "dropped a location fix from the pause burst: " + defect;
        EXPECT_EQ(console.lines(), (std::vector<std::string>{line, line}));
    }
    EXPECT_TRUE(events("Waypoint").empty());
}

TEST_F(PauseManagerTest, AnUnusableLastKnownLocationIsDroppedAndWithoutAUsableFixSleepHasNoCentreAndWakingCountsAsMoved) {
    for (const auto& [spoiled, defect] : test::spoiledFixes(fix(20.0, 60.0))) {
        SCOPED_TRACE(defect);
        // A record of the very place: taken at its word, the last known location would count as not moved.
        defaults->setPauseRecord(PauseRecord{52.52, 13.405, 20.0, clock->now()}.encode());
        ConsoleCapture console;
        makeManager();
        wakeup("exited geofence", spoiled);
        loop->fastForwardBy(timeout);
        EXPECT_EQ(moved, true);
        makeManager();
        sleep("no movement in 10 minutes", spoiled);
        loop->fastForwardBy(timeout);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(center, std::nullopt);
        EXPECT_FALSE(defaults->pauseRecord().has_value()) << "an earlier sleep's place is no reference any more";
        const std::string line = "dropped a location fix from the last known location of a sleep or wake-up: " + defect;
        const std::string noFix = "the location burst ended without a usable fix";
        EXPECT_EQ(console.lines(), (std::vector<std::string>{line, noFix, line, noFix}));
    }
    EXPECT_TRUE(events("PreSleep").empty());
    EXPECT_TRUE(events("PreWakeUp").empty());

    // A usable fix of the burst still gives the centre.
    ConsoleCapture console;
    makeManager();
    sleep("no movement in 10 minutes", test::spoiledFixes(fix(20.0))[0].fix);
    const Location good = fix(5.0);
    locations->deliverLocations({good});
    EXPECT_EQ(center, good);
    EXPECT_EQ(events("PreSleep").size(), 1u);
}

TEST_F(PauseManagerTest, EachTransitionRecordsItsEventWithTheReasonTheTextNamesAndSleepKeepsThePauseRecord) {
    struct Case { bool sleeps; std::string reason, recorded; };
    const std::vector<Case> cases{
        {false, "exited geofence", "exited geofence"}, {false, "Beacon region entered", "unknown"},
        {false, "entered surrounding geofence 3", "entered surrounding geofence"},
        {false, "new significant location: lat/lon 52.5200, 13.4050, acc: 65.00", "significant location"},
        {true, "application terminates", "unknown"}, {true, "No Movement", "unknown"},
        {true, "no movement in 10 minutes", "no movement"}};
    for (const Case& c : cases) {
        makeManager();
        c.sleeps ? sleep(c.reason) : wakeup(c.reason);
        locations->deliverLocations({fix(7.5, 1.0)});
    }
    const auto presleeps = events("PreSleep"), prewakeups = events("PreWakeUp");
    ASSERT_EQ(presleeps.size() + prewakeups.size(), cases.size());
    std::size_t sleeps = 0, wakeups = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reason);
        // Stamped with the clock's now, not with the fix's time.
        expectFields(c.sleeps ? presleeps.at(sleeps++) : prewakeups.at(wakeups++),
                     {{"reason", c.recorded}, {"tracked_at_ms", startMs}, {"accuracy", 7.5}, {"latitude", 52.52},
                      {"longitude", 13.405}});
    }

    // The record: the fix's position, accuracy and own time, the time as seconds since 2001.
    const auto stored = defaults->pauseRecord();
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(nlohmann::ordered_json::parse(stored->begin(), stored->end()),  // the order of the keys counts
              nlohmann::ordered_json({{"latitude", 52.52}, {"longitude", 13.405}, {"accuracy", 7.5},
                                      {"date", start - 1.0 - 978307200.0}}));
}

TEST_F(PauseManagerTest, WakeUpHasMovedUnlessNearThePlaceOfSleepAndADamagedRecordCountsAsMoved) {
    const auto wakeAt = [this](const Location& there) {
        makeManager();
        wakeup();
        locations->deliverLocations({there});
        return moved;
    };
    const Location asleep = fix(30.0, 1.0);
    EXPECT_EQ(wakeAt(asleep), true);  // no record: nothing to compare with

    sleep();
    locations->deliverLocations({asleep});
    Location near = northOf(asleep, 32.0, 30.0), far = northOf(asleep, 33.0, 30.0);
    near.timestamp = far.timestamp = clock->now();
    EXPECT_EQ(wakeAt(far), true);
    EXPECT_EQ(wakeAt(near), false);  // so the wake-up before kept the record

    ConsoleCapture console;
    for (const std::string& damaged :
         {std::string("not json"), std::string(R"({"latitude":52.52,"longitude":13.405,"accuracy":5})"),
          std::string(R"({"latitude":"52.52","longitude":13.405,"accuracy":5,"date":1})"),
          std::string(R"({"latitude":152.52,"longitude":13.405,"accuracy":5,"date":1})"),
          std::string(R"([52.52,13.405,5,1])")}) {
        SCOPED_TRACE(damaged);
        defaults->setPauseRecord(bytesOf(damaged));
        EXPECT_EQ(wakeAt(asleep), true);  // right where the record would be
    }
    EXPECT_TRUE(console.contains("could not decode PauseRecord"));
}

TEST(PauseManagerMovedTest, TheMarginIsATenthOfTheCombinedAccuracyBelow100MetresAndAFifthFromThere) {
    const Location origin = fixAt(47.0, 8.0, 30.0, Date{start});
    struct Case { double accuracyA, accuracyB, metres; bool moved; };
    // 0/0: the bare 28 m.  80/60: c = 100, margin 20.  79.9/60: c = 99.92, margin 9.99.
    for (const Case c : {Case{0, 0, 28.5, true}, Case{0, 0, 27.9, false}, Case{80, 60, 48.5, true},
                         Case{80, 60, 47.5, false}, Case{79.9, 60, 38.5, true}, Case{79.9, 60, 37.5, false}}) {
        SCOPED_TRACE(testing::Message() << c.accuracyA << "/" << c.accuracyB << " at " << c.metres << " m");
        Location a = origin;
        a.horizontalAccuracy = c.accuracyA;
        const Location b = northOf(origin, c.metres, c.accuracyB);
        EXPECT_EQ(PauseManager::hasMoved(a, b), c.moved);
        EXPECT_EQ(PauseManager::hasMoved(b, a), c.moved);
    }
}

TEST(PauseRecordTest, EncodedRecordsReadBackExactlyAndForeignJsonIsReadByItsKeys) {
    for (const PauseRecord record : {PauseRecord{52.520008, 13.404954, 4.999999999, Date{1700000000.123456}},
                                     PauseRecord{-90.0, -180.0, 0.0, Date::distantPast()}}) {
        const auto bytes = record.encode();
        ASSERT_TRUE(bytes.has_value());
        EXPECT_EQ(PauseRecord::decode(*bytes), record);
    }
    // Key order, whole numbers and keys of no interest do not matter.
    EXPECT_EQ(PauseRecord::decode(bytesOf(R"({"date":0,"extra":[1],"accuracy":5,"longitude":13,"latitude":52})")),
              (PauseRecord{52.0, 13.0, 5.0, Date{978307200.0}}));
    EXPECT_FALSE((PauseRecord{std::nan(""), 0.0, 1.0, Date{0.0}}).encode().has_value());
    EXPECT_FALSE(PauseRecord::decode(bytesOf(R"({"latitude":1,"longitude":2,"accuracy":-1,"date":0})")));
}

}  // namespace
}  // namespace rovalis
