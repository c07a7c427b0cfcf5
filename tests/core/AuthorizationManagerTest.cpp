#include <gtest/gtest.h>

#include "core/AuthorizationManager.h"
#include "core/RVLUpdateDetector.h"
#include "support/RecordingLocationManager.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis {
namespace {

using test::RecordingLocationManager;
using Decision = AuthorizationStatusProcessor::Decision;
using enum AuthorizationStatus;

class FixedMotionActivityManager final : public MotionActivityManagerType {
public:
    bool isActivityAvailable() const override { return true; }
    MotionAuthorizationStatus authorizationStatus() const override { return status; }
    void startActivityUpdates(std::shared_ptr<Executor>, ActivityHandler) override {}
    void stopActivityUpdates() override {}

    MotionAuthorizationStatus status = MotionAuthorizationStatus::authorized;
};

// Records the tracking requests as "start" or "stop <reason>".
class RecordingStateChanger final : public RVLTrackingStateChangeable {
public:
    void initializeTracking() override {}
    void startTrackingWithForced(bool forced) override { calls.push_back(forced ? "forced start" : "start"); }
    void stopTrackingWithReason(std::int64_t reason) override { calls.push_back("stop " + std::to_string(reason)); }

    std::vector<std::string> calls;
};

class RecordingDebugEvents final : public RVLDebugEventsInsertable {
public:
    void insertApplicationNotificationDebugEvent(const std::string&) override {}
    void insertLocationAuthorizationDebugEvent(const std::string& text) override { texts.push_back(text); }
    void insertBeaconRangingDebugEvent(const std::string&) override {}
    void insertLogDebugEvent(const std::string&) override {}

    std::vector<std::string> texts;
};

class PlainHost : public RovalisDelegate {
public:
    void trackingStatusChanged(bool) override {}
    void locationAuthorizationStatusDidChange(std::int32_t status, bool precise) override {
        heard.push_back(std::to_string(status) + (precise ? " precise" : " reduced"));
    }

    std::vector<std::string> heard;
};

class MotionAwareHost final : public PlainHost, public RovalisMotionActivityDelegate {
public:
    void motionActivityAuthorized(bool authorized) override { heard.push_back(authorized ? "motion yes" : "motion no"); }
};

TEST(AuthorizationStatusProcessor, ServicesOffWinsThenDeniedThenOnlyPreciseAlwaysStarts) {
    const Decision start{true, 0};
    EXPECT_EQ(AuthorizationStatusProcessor::decide(false, authorizedAlways, true), (Decision{false, 1}));
    EXPECT_EQ(AuthorizationStatusProcessor::decide(false, denied, true), (Decision{false, 1}));
    EXPECT_EQ(AuthorizationStatusProcessor::decide(true, denied, true), (Decision{false, 2}));
    EXPECT_EQ(AuthorizationStatusProcessor::decide(true, authorizedAlways, true), start);
    EXPECT_EQ(AuthorizationStatusProcessor::decide(true, authorizedAlways, false), (Decision{false, 4}));
    for (const auto status : {notDetermined, restricted, authorizedWhenInUse}) {
        EXPECT_EQ(AuthorizationStatusProcessor::decide(true, status, true), (Decision{false, 3}))
            << static_cast<int>(status);
    }
}

struct AuthorizationManagerTest : ::testing::Test {
    std::shared_ptr<RecordingLocationManager> locations = std::make_shared<RecordingLocationManager>();
    std::shared_ptr<FixedMotionActivityManager> motion = std::make_shared<FixedMotionActivityManager>();
    std::shared_ptr<RecordingStateChanger> changer = std::make_shared<RecordingStateChanger>();
    std::shared_ptr<UserDefaultsManager> defaults =
        std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    std::shared_ptr<RecordingDebugEvents> debug = std::make_shared<RecordingDebugEvents>();
    std::shared_ptr<AuthorizationManager> manager = AuthorizationManager::create(
        locations, std::make_shared<AuthorizationManagerForwarder>(), motion, changer, defaults, debug);

    void change(AuthorizationStatus status, AccuracyAuthorization accuracy = AccuracyAuthorization::fullAccuracy) {
        locations->setAuthorizationStatus(status);
        locations->setAccuracyAuthorization(accuracy);
        ASSERT_TRUE(locations->deliverAuthorizationChange());
    }
};

TEST_F(AuthorizationManagerTest, FullyAuthorizedOnlyWithServicesOnAlwaysAndFullAccuracy) {
    EXPECT_TRUE(manager->fullyAuthorizedAlready());
    locations->setAccuracyAuthorization(AccuracyAuthorization::reducedAccuracy);
    EXPECT_FALSE(manager->fullyAuthorizedAlready());
    locations->setAccuracyAuthorization(AccuracyAuthorization::fullAccuracy);
    locations->setAuthorizationStatus(authorizedWhenInUse);
    EXPECT_FALSE(manager->fullyAuthorizedAlready());
    locations->setAuthorizationStatus(authorizedAlways);
    locations->setLocationServicesEnabled(false);
    EXPECT_FALSE(manager->fullyAuthorizedAlready());
}

TEST_F(AuthorizationManagerTest, EachChangeIsRecordedAndBecomesOneUnforcedTrackingRequest) {
    change(authorizedAlways);
    change(authorizedAlways, AccuracyAuthorization::reducedAccuracy);
    change(authorizedWhenInUse);
    change(denied);
    locations->setLocationServicesEnabled(false);
    change(authorizedAlways);
    EXPECT_EQ(changer->calls, (std::vector<std::string>{"start", "stop 4", "stop 3", "stop 2", "stop 1"}));
    ASSERT_EQ(debug->texts.size(), 5u);
    EXPECT_EQ(debug->texts[0], "locationManager:didChangeAuthorizationStatus: 3");
    EXPECT_EQ(debug->texts[3], "locationManager:didChangeAuthorizationStatus: 2");
}

TEST_F(AuthorizationManagerTest, TheHostHearsTheStatusAndMotionOnlyOnceTrackingWasActivatedAndOnlyIfItListens) {
    auto plain = std::make_shared<PlainHost>();
    manager->setSdkDelegate(plain);
    change(authorizedAlways, AccuracyAuthorization::reducedAccuracy);
    EXPECT_EQ(plain->heard, (std::vector<std::string>{"3 reduced"}));

    auto aware = std::make_shared<MotionAwareHost>();
    manager->setSdkDelegate(aware);
    change(authorizedWhenInUse);
    EXPECT_EQ(aware->heard, (std::vector<std::string>{"4 precise"}));  // tracking was never activated

    defaults->setUserActivatedTrackingOnce(true);
    motion->status = MotionAuthorizationStatus::denied;
    change(authorizedAlways);
    EXPECT_EQ(aware->heard, (std::vector<std::string>{"4 precise", "3 precise", "motion no"}));

    aware.reset();  // held weakly: a host that has gone is not called
    change(denied);
    EXPECT_EQ(changer->calls.back(), "stop 2");
}

TEST(RVLUpdateDetector, TheFirstRunRecordsTheDescriptionAndEachLaterChangeCountsOnce) {
    auto defaults = std::make_shared<UserDefaultsManager>(std::make_shared<InMemoryKeyValueStore>());
    EXPECT_FALSE(RVLUpdateDetector(defaults, "Trips 2.1 (40)iOS 17.4").hasAppUpdated());
    EXPECT_EQ(defaults->appInfo(), "Trips 2.1 (40)iOS 17.4");
    EXPECT_FALSE(RVLUpdateDetector(defaults, "Trips 2.1 (40)iOS 17.4").hasAppUpdated());

    RVLUpdateDetector newBuild(defaults, "Trips 2.1 (41)iOS 17.4");
    EXPECT_TRUE(newBuild.hasAppUpdated());
    EXPECT_FALSE(newBuild.hasAppUpdated());
    EXPECT_TRUE(RVLUpdateDetector(defaults, "Trips 2.1 (41)iOS 17.5").hasAppUpdated());  // a system update too
}

}  // namespace
}  // namespace rovalis
