#include "core/PauseManager.h"

#include <gtest/gtest.h>

#include <GeographicLib/Geodesic.hpp>
#include <nlohmann/json.hpp>

#include "events/EventRepository.h"
#include "support/RecordingLocationManager.h"
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

Location fixAt(double latitude, double longitude, double accuracy, Date timestamp) {
    Location fix;
    fix.coordinate = {latitude, longitude};
    fix.horizontalAccuracy = accuracy;
    fix.verticalAccuracy = 8.0;
    fix.altitude = 41.5;
    fix.speed = 1.25;
    fix.course = 270.0;
    fix.timestamp = timestamp;
    return fix;
}

// The point `metres` north of `from` along its meridian, on the WGS84 ellipsoid.
Location northOf(const Location& from, double metres, double accuracy) {
    double latitude = 0.0, longitude = 0.0;
    GeographicLib::Geodesic::WGS84().Direct(from.coordinate.latitude, from.coordinate.longitude, 0.0, metres,
                                            latitude, longitude);
    return fixAt(latitude, longitude, accuracy, from.timestamp);
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

class PauseManagerTest : public ::testing::Test {
protected:
    PauseManagerTest() { makeManager(); }

    void makeManager() {
        manager = std::make_shared<PauseManager>(locations, repository, defaults, clock, loop, timeout);
    }

    // A fix at the test's place, `age` seconds old.
    Location fix(double accuracy, double age = 0.0, double latitude = 52.52) const {
        return fixAt(latitude, 13.405, accuracy, clock->now().addingSeconds(-age));
    }

    // Starts a sleep burst that writes what it is handed into `center` / `calls`.
    void sleep(const std::string& reason = "no movement in 10 minutes",
               const std::optional<Location>& lastKnown = std::nullopt) {
        manager->sleepWithReason(reason, lastKnown, [this](const std::optional<Location>& location) {
            center = location;
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

// ---- The burst ----

TEST_F(PauseManagerTest, ABurstRunsAtBestAccuracyInTheBackgroundAndTearsDownWhenItEnds) {
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
    EXPECT_TRUE(locations->isUpdatingLocation());
    EXPECT_EQ(locations->calls().back(), "startUpdatingLocation");  // configured before it starts
    EXPECT_EQ(calls, 0);

    const Location good = fix(10.0, 1.0);
    ASSERT_TRUE(locations->deliverLocations({good}));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(center, good);
    EXPECT_FALSE(locations->hasDelegate());
    EXPECT_FALSE(locations->isUpdatingLocation());

    // The time-out went with the burst.
    loop->fastForwardBy(2 * timeout);
    EXPECT_EQ(calls, 1);
}

TEST_F(PauseManagerTest, OnlyAFixAtMost63MetresAndAtMost2SecondsOldEndsTheBurstEarly) {
    struct Case {
        double accuracy, age;
        bool ends;
    };
    for (const Case c : {Case{63.0, 1.0, true}, Case{63.5, 1.0, false}, Case{5.0, 3.0, false},
                         Case{5.0, 2.0, true}, Case{0.0, 0.0, true}, Case{5.0, 2.5, false}}) {
        SCOPED_TRACE(testing::Message() << "accuracy " << c.accuracy << ", age " << c.age);
        makeManager();
        calls = 0;
        center.reset();
        const Location candidate = fix(c.accuracy, c.age);
        sleep("no movement in 10 minutes", fix(200.0, 60.0, 48.0));
        locations->deliverLocations({candidate});
        EXPECT_EQ(calls, c.ends ? 1 : 0);
        EXPECT_EQ(locations->isUpdatingLocation(), !c.ends);
        // A fix that does not end the burst still is the one handed over at the time-out.
        loop->fastForwardBy(timeout);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(center, candidate);
    }
}

TEST_F(PauseManagerTest, EveryValidFixOfTheBurstBecomesAWaypointUntilTheFirstGoodOne) {
    const Location invalid = fix(-1.0, 0.0, 52.0);
    const Location stale = fix(5.0, 3.0, 52.1);
    const Location coarse = fix(80.0, 1.0, 52.2);  // the store hands rows back in time order
    Location good = fix(12.5, 0.5, 52.3);
    good.speed = -1.0;  // unknown speed and course pass through as they are
    good.course = -1.0;
    const Location ignored = fix(3.0, 0.0, 52.4);

    sleep();
    locations->deliverLocations({invalid, stale, coarse, good, ignored});
    EXPECT_EQ(center, good);

    const auto waypoints = events("Waypoint");
    ASSERT_EQ(waypoints.size(), 3u);
    const std::vector<Location> expected{stale, coarse, good};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const Location& want = expected[i];
        const auto& got = waypoints[i];
        EXPECT_EQ(got["provider"], "PauseManager");
        EXPECT_EQ(got["tracked_at_ms"], std::llround(want.timestamp.secondsSince1970 * 1000.0));
        EXPECT_EQ(got["latitude"], want.coordinate.latitude);
        EXPECT_EQ(got["longitude"], want.coordinate.longitude);
        EXPECT_EQ(got["accuracy"], want.horizontalAccuracy);
        EXPECT_EQ(got["altitude"], want.altitude);
        EXPECT_EQ(got["speed"], want.speed);
        EXPECT_EQ(got["bearing"], want.course);
    }
}

TEST_F(PauseManagerTest, AtTheTimeOutTheLatestValidFixOrElseTheLastKnownLocationIsHandedOver) {
    const Location lastKnown = fix(150.0, 120.0, 48.1);
    sleep("no movement in 10 minutes", lastKnown);
    loop->fastForwardBy(timeout - 0.5);
    EXPECT_EQ(calls, 0);
    loop->fastForwardBy(0.5);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(center, lastKnown);
    EXPECT_FALSE(locations->hasDelegate());
    EXPECT_FALSE(locations->isUpdatingLocation());

    makeManager();
    const Location first = fix(100.0, 0.0, 52.1);
    const Location latest = fix(90.0, 0.0, 52.2);  // not better than the first, but newer
    sleep("no movement in 10 minutes", lastKnown);
    locations->deliverLocations({first});
    locations->deliverLocations({latest, fix(-1.0, 0.0, 52.3)});
    loop->fastForwardBy(timeout);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(center, latest);
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
    EXPECT_TRUE(moved.has_value());
    loop->fastForwardBy(10 * timeout);
    EXPECT_EQ(firstCalls, 0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(events("PreSleep").empty());
    EXPECT_EQ(events("PreWakeUp").size(), 1u);
}

TEST_F(PauseManagerTest, TheManagerMayGoWhileBurstingOrFromItsOwnCompletion) {
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

    // Let go of by the completion that it calls.
    makeManager();
    manager->wakeupWithReason("exited geofence", std::nullopt, [&](bool) {
        manager.reset();
        ++calls;
    });
    locations->deliverLocations({fix(5.0)});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(events("PreWakeUp").size(), 1u);
}

TEST(PauseManagerDeathTest, ABurstWithoutAnyLocationIsAProgrammingError) {
    EXPECT_DEATH(
        {
            auto clock = std::make_shared<SettableDateSource>(Date{start});
            auto loop = std::make_shared<VirtualRunLoop>(clock);
            auto locations = std::make_shared<RecordingLocationManager>();
            auto manager = std::make_shared<PauseManager>(locations, std::weak_ptr<RVLEventInsertable>(),
                                                          std::weak_ptr<RVLPauseRecordModifier>(), clock, loop,
                                                          timeout);
            manager->sleepWithReason("no movement in 10 minutes", std::nullopt, [](const std::optional<Location>&) {});
            locations->deliverLocations({fixAt(52.0, 13.0, -1.0, clock->now())});
            loop->fastForwardBy(timeout);
        },
        "Fatal error: PauseManager finished a burst without any location");
}

// ---- Going to sleep ----

TEST_F(PauseManagerTest, SleepRecordsPreSleepWithItsReasonAndKeepsThePauseRecord) {
    struct Case {
        std::string reason;
        std::string recorded;
    };
    for (const Case& c : {Case{"no movement in 10 minutes", "no movement"}, Case{"no movement in 0 minutes", "no movement"},
                          Case{"application terminates", "unknown"}, Case{"No Movement", "unknown"}}) {
        makeManager();
        sleep(c.reason);
        locations->deliverLocations({fix(7.5, 1.0)});
    }
    const auto presleeps = events("PreSleep");
    ASSERT_EQ(presleeps.size(), 4u);
    const std::vector<std::string> reasons{"no movement", "no movement", "unknown", "unknown"};
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        EXPECT_EQ(presleeps[i]["reason"], reasons[i]);
        // Stamped with the clock's now, not with the fix's time.
        EXPECT_EQ(presleeps[i]["tracked_at_ms"], std::llround(start * 1000.0));
        EXPECT_EQ(presleeps[i]["accuracy"], 7.5);
        EXPECT_EQ(presleeps[i]["latitude"], 52.52);
        EXPECT_EQ(presleeps[i]["longitude"], 13.405);
    }

    // The record: the fix's position, accuracy and own time, the time as seconds since 2001.
    const auto stored = defaults->pauseRecord();
    ASSERT_TRUE(stored.has_value());
    const auto json = nlohmann::ordered_json::parse(stored->begin(), stored->end());
    EXPECT_EQ(json.dump(),
              nlohmann::ordered_json({{"latitude", 52.52},
                                      {"longitude", 13.405},
                                      {"accuracy", 7.5},
                                      {"date", start - 1.0 - 978307200.0}})
                  .dump());
    EXPECT_EQ(PauseRecord::decode(*stored), (PauseRecord{52.52, 13.405, 7.5, Date{start - 1.0}}));
}

TEST_F(PauseManagerTest, WithoutTheStoresTheTransitionsStillComplete) {
    manager = std::make_shared<PauseManager>(locations, std::weak_ptr<RVLEventInsertable>(),
                                             std::weak_ptr<RVLPauseRecordModifier>(), clock, loop, timeout);
    sleep();
    locations->deliverLocations({fix(5.0)});
    EXPECT_EQ(calls, 1);
    wakeup();
    locations->deliverLocations({fix(5.0)});
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(moved, true);
    EXPECT_EQ(repository->eventsCount(), 0);
}

// ---- Waking up ----

TEST_F(PauseManagerTest, WakeUpRecordsPreWakeUpWithTheReasonTheTextNames) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"exited geofence", "exited geofence"},
        {"entered surrounding geofence 3", "entered surrounding geofence"},
        {"new significant location: lat/lon 52.5200, 13.4050, acc: 65.00, time: 2023-11-14", "significant location"},
        {"Beacon region entered", "unknown"},
        {"", "unknown"},
    };
    for (const auto& [reason, recorded] : cases) {
        makeManager();
        wakeup(reason);
        locations->deliverLocations({fix(9.0, 0.0)});
    }
    const auto wakeups = events("PreWakeUp");
    ASSERT_EQ(wakeups.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(wakeups[i]["reason"], cases[i].second) << cases[i].first;
        EXPECT_EQ(wakeups[i]["accuracy"], 9.0);
        EXPECT_EQ(wakeups[i]["tracked_at_ms"], std::llround(start * 1000.0));
    }
}

TEST_F(PauseManagerTest, WakeUpComparesTheFixWithThePlaceWhereTheSdkWentToSleep) {
    wakeup();
    locations->deliverLocations({fix(30.0)});
    EXPECT_EQ(moved, true);  // no record: nothing to compare with

    const Location asleep = fix(30.0, 1.0);
    makeManager();
    sleep("no movement in 10 minutes");
    locations->deliverLocations({asleep});
    ASSERT_TRUE(defaults->pauseRecord().has_value());

    for (const auto& [metres, expected] : {std::pair{33.0, true}, std::pair{32.0, false}, std::pair{0.0, false}}) {
        SCOPED_TRACE(metres);
        makeManager();
        moved.reset();
        Location there = northOf(asleep, metres, 30.0);
        there.timestamp = clock->now();
        wakeup("exited geofence");
        locations->deliverLocations({there});
        EXPECT_EQ(moved, expected);
    }
    EXPECT_TRUE(defaults->pauseRecord().has_value());  // waking up keeps the record
}

TEST_F(PauseManagerTest, ADamagedPauseRecordCountsAsMovedAndIsReported) {
    ConsoleCapture console;
    for (const std::string& damaged :
         {std::string("not json"), std::string(R"({"latitude":52.52,"longitude":13.405,"accuracy":5})"),
          std::string(R"({"latitude":"52.52","longitude":13.405,"accuracy":5,"date":1})"),
          std::string(R"({"latitude":152.52,"longitude":13.405,"accuracy":5,"date":1})"),
          std::string(R"([52.52,13.405,5,1])"), std::string()}) {
        SCOPED_TRACE(damaged);
        defaults->setPauseRecord(bytesOf(damaged));
        makeManager();
        moved.reset();
        wakeup();
        locations->deliverLocations({fix(5.0)});  // right where the record would be
        EXPECT_EQ(moved, true);
    }
    EXPECT_TRUE(console.contains("could not decode PauseRecord"));
}

// ---- The pieces ----

TEST(PauseManagerMovedTest, TheMarginIsATenthOfTheCombinedAccuracyBelow100MetresAndAFifthFromThere) {
    const Location origin = fixAt(47.0, 8.0, 30.0, Date{start});
    struct Case {
        double accuracyA, accuracyB, metres;
        bool moved;
    };
    // 30/30: c = 42.43, margin 4.24.  80/60: c = 100, margin 20.  79.9/60: c = 99.92, margin 9.99.
    for (const Case c : {Case{30, 30, 33, true}, Case{30, 30, 32, false}, Case{80, 60, 48.5, true},
                         Case{80, 60, 47.5, false}, Case{79.9, 60, 38.5, true}, Case{79.9, 60, 37.5, false},
                         Case{0, 0, 28.5, true}, Case{0, 0, 27.9, false}}) {
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
                                     PauseRecord{-90.0, -180.0, 0.0, Date{0.0}},
                                     PauseRecord{0.1, 0.2, 1e-3, Date::distantPast()}}) {
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
