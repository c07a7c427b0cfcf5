#include "sensing/SignificantLocationTracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "core/PauseManager.h"
#include "events/EventRepository.h"
#include "sensing/SensingFakes.h"
#include "support/RecordingLocationManager.h"
#include "support/TestSupport.h"

namespace rovalis {
namespace {

constexpr double start = 1700000000.0;

class SignificantLocationTrackerTest : public ::testing::Test {
protected:
    Location fix(double accuracy, double age, double latitude) const {
        return test::fixAt(latitude, 13.405, accuracy, clock->now().addingSeconds(-age));
    }
    std::vector<nlohmann::json> events() {
        std::vector<nlohmann::json> result;
        for (const auto& row : repository->fetchEventsPayloadTo(std::nullopt, 0)) {
            result.push_back(nlohmann::json::parse(row.payload));
        }
        return result;
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{start});
    std::shared_ptr<test::RecordingLocationManager> locations = std::make_shared<test::RecordingLocationManager>();
    std::shared_ptr<LocationManagerForwarder> forwarder = std::make_shared<LocationManagerForwarder>();
    std::shared_ptr<test::RecordingWakeUpInitiator> waker = std::make_shared<test::RecordingWakeUpInitiator>();
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<SignificantLocationTracker> tracker =
        SignificantLocationTracker::create(locations, forwarder, waker, repository, clock);
};

TEST_F(SignificantLocationTrackerTest, StartAndStopSwitchSignificantChangesOnAndOff) {
    EXPECT_TRUE(locations->allowsBackgroundLocationUpdates());
    EXPECT_FALSE(locations->pausesLocationUpdatesAutomatically());
    EXPECT_EQ(forwarder->delegate(), tracker);
    tracker->start();
    EXPECT_TRUE(locations->isMonitoringSignificantLocationChanges());
    tracker->speedUp();
    tracker->slowDown(std::nullopt);
    tracker->halt();
    EXPECT_TRUE(locations->isMonitoringSignificantLocationChanges());
    EXPECT_FALSE(locations->isUpdatingLocation());
    tracker->stop();
    EXPECT_FALSE(locations->isMonitoringSignificantLocationChanges());
}

TEST_F(SignificantLocationTrackerTest, FixesUpTo10000MetresAndUpTo300SecondsOldAreRecordedAndWakeTheSdk) {
    const Location limitAccuracy = fix(10000.0, 0.0, 1.0), recent = fix(5.0, 299.0, 2.0),
                   limitAge = fix(5.0, 300.0, 3.0);
    locations->deliverLocations({fix(10000.5, 0.0, 4.0), limitAccuracy, fix(5.0, 301.0, 5.0), recent,
                                 fix(-1.0, 0.0, 6.0), limitAge});
    ASSERT_EQ(waker->requests.size(), 3u);
    EXPECT_EQ(waker->requests[0].lastKnownLocation, limitAccuracy);
    EXPECT_EQ(waker->requests[1].lastKnownLocation, recent);
    EXPECT_EQ(waker->requests[2].lastKnownLocation, limitAge);
    const auto stored = events();  // oldest first
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(stored[0]["latitude"], 3.0);
    EXPECT_EQ(stored[2]["latitude"], 1.0);
}

TEST_F(SignificantLocationTrackerTest, TheEventAndTheWakeUpReasonDescribeTheFix) {
    const Location location = test::fixAt(52.520049, -13.40496, 65.0, clock->now().addingSeconds(-120.25));
    locations->deliverLocations({location});
    const auto stored = events();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0], (nlohmann::json{{"type", "SignificantLocation"},
                                         {"tracked_at_ms", std::llround((start - 120.25) * 1000.0)},
                                         {"latitude", 52.520049},
                                         {"longitude", -13.40496},
                                         {"accuracy", 65.0}}));
    ASSERT_EQ(waker->requests.size(), 1u);
    EXPECT_EQ(waker->requests[0].reason,
              "new significant location: lat/lon 52.5200, -13.4050, acc: 65.00, time: 2023-11-14 22:11:19 +0000");
    EXPECT_EQ(preWakeUpReasonCode(waker->requests[0].reason), 2);
}

}  // namespace
}  // namespace rovalis
