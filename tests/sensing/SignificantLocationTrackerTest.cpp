#include "sensing/SignificantLocationTracker.h"

#include <gtest/gtest.h>

#include "sensing/SensingFakes.h"
#include "support/RecordingLocationManager.h"
#include "support/SpoiledFixes.h"
#include "support/TestSupport.h"
#include "util/SettableDateSource.h"

namespace rovalis {
namespace {

class SignificantLocationTrackerTest : public ::testing::Test {
protected:
    Location fix(double accuracy, double age, double latitude) const {
        return test::fixAt(latitude, -13.40496, accuracy, clock->now().addingSeconds(-age));
    }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>(Date{1700000000.0});
    std::shared_ptr<test::RecordingLocationManager> locations = std::make_shared<test::RecordingLocationManager>();
    std::shared_ptr<test::RecordingWakeUpInitiator> waker = std::make_shared<test::RecordingWakeUpInitiator>();
    test::TempDir dir;
    std::shared_ptr<EventRepository> repository = std::make_shared<EventRepository>(dir / "events.sqlite");
    std::shared_ptr<SignificantLocationTracker> tracker = SignificantLocationTracker::create(
        locations, std::make_shared<LocationManagerForwarder>(), waker, repository, clock);
};

TEST_F(SignificantLocationTrackerTest, WhileStartedFixesUpTo10000MetresAndUpTo300SecondsOldAreRecordedAndWakeTheSdk) {
    tracker->start();
    tracker->speedUp();
    tracker->slowDown(std::nullopt);
    tracker->halt();
    EXPECT_TRUE(locations->isMonitoringSignificantLocationChanges()) << "only a stop switches them off";
    const Location limitAccuracy = fix(10000.0, 0.0, 1.0), recent = fix(65.0, 299.25, 52.520049),
                   limitAge = fix(5.0, 300.0, 3.0);
    locations->deliverLocations({fix(10000.5, 0.0, 4.0), limitAccuracy, fix(5.0, 301.0, 5.0), recent,
                                 fix(-1.0, 0.0, 6.0), limitAge});
    ASSERT_EQ(waker->requests.size(), 3u);
    EXPECT_EQ(waker->requests[0].second, limitAccuracy);
    EXPECT_EQ(waker->requests[1],
              std::make_pair(std::string("new significant location: lat/lon 52.5200, -13.4050, acc: 65.00, time: "
                                         "2023-11-14 22:08:20 +0000"),
                             std::optional<Location>(recent)));
    EXPECT_EQ(waker->requests[2].second, limitAge);

    const auto stored = test::storedEvents(*repository);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(stored[1], (nlohmann::json{{"type", "SignificantLocation"}, {"tracked_at_ms", 1699999700750},
                                         {"latitude", 52.520049}, {"longitude", -13.40496}, {"accuracy", 65.0}}));
    EXPECT_EQ(stored[2]["latitude"], 1.0);
    tracker->stop();
    EXPECT_FALSE(locations->isMonitoringSignificantLocationChanges());
}

TEST_F(SignificantLocationTrackerTest, AFixThatIsNotUsableIsDroppedWithOneLineNeitherRecordedNorWakingTheSdk) {
    tracker->start();
    for (const auto& [spoiled, defect] : test::spoiledFixes(fix(65.0, 0.0, 52.52))) {
        SCOPED_TRACE(defect);
        test::ConsoleCapture console;
        locations->deliverLocations({spoiled});
        EXPECT_EQ(console.lines(),
                  std::vector<std::string>{"dropped a location fix from significant-change updates: " + defect});
    }
    EXPECT_TRUE(waker->requests.empty());
    EXPECT_EQ(repository->eventsCount(), 0);
}

}  // namespace
}  // namespace rovalis
