#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <future>

#include "collector/CollectorServer.h"
#include "core/PauseManager.h"
#include "core/RVLGeneralLocationManager.h"
#include "core/UserDefaultsManager.h"
#include "events/SqliteDatabase.h"
#include "events/StoredPayload.h"
#include "platform/linux/FileKeychain.h"
#include "platform/sim/SimulatedDevice.h"
#include "rovalis/Exceptions.h"
#include "sensing/GeofenceTracker.h"
#include "sensing/RegularLocationTracker.h"
#include "sensing/SignificantLocationTracker.h"
#include "support/RawServer.h"
#include "support/TestSupport.h"
#include "upload/AccessTokenDecoder.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis {
namespace {

using json = nlohmann::json;
using sim::SimulatedDevice;
using sim::TracePoint;
using sim::TruePath;

constexpr double start = 1700000000.0;
const LocationCoordinate2D home{51.4555, -0.1075};

// A token whose payload names the user with the given UUID.
std::string tokenFor(const std::string& userId) { return test::tokenWithPayload(R"({"sub":")" + userId + R"("})"); }

// The host: what it is told, in order.
class RecordingHost final : public RovalisDelegate, public RovalisLocationDelegate {
public:
    void trackingStatusChanged(bool isTracking) override { heard.push_back(isTracking ? "tracking" : "not tracking"); }
    void locationAuthorizationStatusDidChange(std::int32_t status, bool) override {
        heard.push_back("authorization " + std::to_string(status));
    }
    void didTrackLocation(const Location&) override { ++trackedLocations; }

    std::vector<std::string> heard;
    int trackedLocations = 0;
};

// A service that accepts every batch, but answers only once released while held: the
// uploads of a switch-off stay open, and with them the moment before their completion.
class HeldService {
public:
    HeldService() { server_.listen(); }
    ~HeldService() { release(); }

    std::string baseURL() const { return server_.baseURL(); }
    void hold() { held_ = std::promise<void>(); holding_ = true; }
    void release() {
        if (holding_.exchange(false)) held_.set_value();
    }
    std::size_t requests() const { return server_.requests().size(); }
    bool waitForRequests(std::size_t count) { return server_.waitForRequests(count); }

private:
    std::promise<void> held_;
    std::atomic<bool> holding_{false};
    test::RawServer server_{[this](int fd, const std::string&) {
        if (holding_) held_.get_future().wait();
        test::RawServer::respond(fd, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
                                     "Connection: close\r\n\r\n{}");
        return false;
    }};
};

// An SDK on a simulated device that stays at home, with no collection service to reach.
class TrackingCore : public ::testing::Test {
protected:
    TrackingCore() { launch(); }

    void launch(const std::string& build = "40") {
        RovalisConfiguration configuration;
        configuration.host.displayName = "Trips";
        configuration.host.version = "2.1";
        configuration.host.build = build;
        configuration.host.identifier = "com.example.trips";
        configuration.dataRoot = dir.path();
        configuration.platform = platform = device.makeProcessPlatform(defaults, keychain);
        configuration.productionBaseURL = serviceURL;
        sdk = std::make_shared<RVLGeneralLocationManager>(configuration);
        sdk->initializeUsing(host, std::nullopt);
        settle();
    }

    // Tracks for 20 s against `service`, then switches off with the service holding the
    // switch-off's first upload unanswered; false when that upload never came.
    bool switchOffWithItsUploadHeld(HeldService& service) {
        serviceURL = service.baseURL();
        relaunch();
        sdk->setUserToken(tokenFor("0f8fad5b-d9cb-469f-a165-70867728950e"));
        sdk->start();
        device.runUntil(device.now().addingSeconds(20));
        const std::size_t requests = service.requests();
        service.hold();
        sdk->stop();
        return service.waitForRequests(requests + 1);
    }

    void relaunch(const std::string& build = "40") {
        settle();
        sdk.reset();
        launch(build);
    }

    // Runs what is due now, and what that starts, on the device.
    void settle() { device.runUntil(device.now()); }

    std::vector<json> stored(const std::string& type) {
        std::vector<json> found;
        for (const auto& event : sdk->eventRepository()->fetchEventsPayloadTo(std::nullopt, 0)) {
            if (event.type == type) found.push_back(json::parse(event.payload));
        }
        return found;
    }

    // "on FORCE", "off DENIED_LOCATION", ...
    std::vector<std::string> toggles() {
        std::vector<std::string> texts;
        for (const auto& event : stored("ToggleTracking")) {
            texts.push_back(std::string(event["toggle_tracking_state"].get<bool>() ? "on " : "off ") +
                            event["toggle_tracking_reason"].get<std::string>());
        }
        return texts;
    }

    std::vector<std::string> debugTexts() {
        std::vector<std::string> texts;
        for (const auto& event : stored("Debug")) texts.push_back(event["comment"].get<std::string>());
        return texts;
    }

    test::ConsoleCapture console;  // the SDK's console lines stay out of the test output
    test::TempDir dir;
    std::shared_ptr<SimulatedDevice> deviceHolder = std::make_shared<SimulatedDevice>(std::make_shared<const TruePath>(
        std::vector<TracePoint>{{Date{start}, home, std::nullopt}, {Date{start + 86400}, home, std::nullopt}}));
    SimulatedDevice& device = *deviceHolder;
    std::shared_ptr<KeyValueStore> defaults = std::make_shared<InMemoryKeyValueStore>();
    std::shared_ptr<KeychainStore> keychain = std::make_shared<FileKeychain>(dir / "Keychain");
    std::shared_ptr<RecordingHost> host = std::make_shared<RecordingHost>();
    Platform platform;
    std::string serviceURL = "http://127.0.0.1:9/";  // nothing listens there
    std::shared_ptr<RVLGeneralLocationManager> sdk;
};

TEST(TrackingCoreBeforeInitialisation, EveryPublicCallButInitialiseRaisesTheFixedMessage) {
    RovalisConfiguration configuration;
    configuration.host.displayName = "Trips";
    const auto sdk = RovalisCore::makeInstance(configuration);
    const std::vector<std::function<void()>> calls = {
        [&] { sdk->start(); },
        [&] { sdk->stop(); },
        [&] { sdk->handleEventsForBackgroundURLSession("id", [] {}); },
        [&] { sdk->clearDataWithCompletionHandler(nullptr); },
        [&] { (void)sdk->isTrackingActive(); },
        [&] { (void)sdk->userToken(); },
        [&] { sdk->setUserToken(std::nullopt); },
        [&] { (void)sdk->wifiOnlyDataTransfer(); },
        [&] { sdk->setWifiOnlyDataTransfer(true); },
        [&] { (void)sdk->hasRequiredPermissions(); },
        [&] { (void)sdk->version(); },
    };
    for (std::size_t i = 0; i < calls.size(); ++i) {
        try {
            calls[i]();
            ADD_FAILURE() << "call " << i << " did not raise";
        } catch (const InternalInconsistencyException& error) {
            EXPECT_EQ(error.reason(),
                      "The SDK must be initialized by calling the initialize function inside the "
                      "didFinishLaunchingWithOptions App delegate.")
                << i;
        }
    }
}

TEST_F(TrackingCore, StartsOffWiresEightTrackersInOrderAndASecondInitialisationKeepsTheFirstDelegate) {
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_EQ(sdk->paused(), true);  // every process starts asleep
    const auto& trackers = sdk->locationManagers();
    ASSERT_EQ(trackers.size(), 8u);
    EXPECT_TRUE(std::dynamic_pointer_cast<RegularLocationTracker>(trackers[0]));
    EXPECT_TRUE(std::dynamic_pointer_cast<SignificantLocationTracker>(trackers[1]));
    EXPECT_TRUE(std::dynamic_pointer_cast<GeofenceTracker>(trackers[3]));
    EXPECT_TRUE(std::dynamic_pointer_cast<DebugEventsManager>(trackers[5]));
    EXPECT_EQ(sdk->debugEventsInsertable(), std::dynamic_pointer_cast<RVLDebugEventsInsertable>(trackers[5]));

    auto other = std::make_shared<RecordingHost>();
    sdk->initializeUsing(other, std::nullopt);
    sdk->start();
    EXPECT_TRUE(other->heard.empty());
    EXPECT_EQ(host->heard.back(), "tracking");
}

TEST_F(TrackingCore, HostStartStopStartRecordsThreeTogglesAndStoresTheState) {
    sdk->start();
    sdk->start();  // already on: nothing
    sdk->stop();
    settle();
    sdk->start();
    settle();
    EXPECT_EQ(toggles(), (std::vector<std::string>{"on FORCE", "off FORCE", "on FORCE"}));
    EXPECT_EQ(defaults->object("IZSettings14"), KeyValue(std::int64_t{1}));
    EXPECT_TRUE(sdk->isTrackingActive());
    EXPECT_EQ(sdk->paused(), false);  // the forced wake-up at start
    EXPECT_TRUE(stored("ToggleStandby").empty());
    const auto debug = debugTexts();
    EXPECT_EQ(std::count(debug.begin(), debug.end(), "started 8 location managers"), 2);
}

TEST_F(TrackingCore, AnInterruptionIsUndoneOnlyByTheSdkAndAHostStopOverridesIt) {
    sdk->start();
    device.setAuthorization(AuthorizationStatus::denied);
    settle();
    EXPECT_EQ(sdk->localTrackingState(), -1);
    EXPECT_EQ(sdk->paused(), true);
    EXPECT_EQ(debugTexts().back(), "halting 8 location managers");

    host->heard.clear();
    sdk->start();  // the host cannot restart what the SDK interrupted
    EXPECT_EQ(host->heard, (std::vector<std::string>{"not tracking"}));
    device.setAuthorization(AuthorizationStatus::authorizedWhenInUse);  // another interruption records nothing
    settle();
    device.setAuthorization(AuthorizationStatus::authorizedAlways);  // the cause is gone: the SDK restarts
    settle();
    EXPECT_TRUE(sdk->isTrackingActive());
    EXPECT_EQ(toggles(), (std::vector<std::string>{"on FORCE", "off DENIED_LOCATION", "on DENIED_LOCATION"}));

    device.setAccuracyAuthorization(AccuracyAuthorization::reducedAccuracy);
    settle();
    sdk->stop();
    settle();
    EXPECT_EQ(sdk->localTrackingState(), 0);
    device.setAccuracyAuthorization(AccuracyAuthorization::fullAccuracy);  // a host stop is not undone by the SDK
    settle();
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_EQ(toggles().back(), "off FORCE");
    EXPECT_EQ(toggles().size(), 5u);
    EXPECT_EQ(toggles()[3], "off IMPRECISE_LOCATION");
}

TEST_F(TrackingCore, SleepAndWakeRecordToggleStandbyAndPostBothNotificationsOnlyOnChange) {
    std::vector<std::string> posted;
    platform.notificationCenter->addObserver(RVLSDKNotification, [&](const Notification& note) {
        ASSERT_TRUE(note.object.has_value());  // the dictionary is the object, not the user info
        posted.push_back("sdk " + std::get<std::string>(note.object->at("message")));
    });
    platform.notificationCenter->addObserver(RVLGeneralNotification, [&](const Notification& note) {
        EXPECT_EQ(note.sender, static_cast<const Rovalis*>(sdk.get())) << "the instance names itself";
        posted.push_back(std::string("paused ") + (std::get<bool>(note.userInfo->at("paused")) ? "yes" : "no"));
    });

    sdk->initiateSleepWithReason("no movement in 10 minutes");  // tracking is off: nothing
    sdk->start();
    settle();
    EXPECT_EQ(posted, (std::vector<std::string>{"sdk Awake", "paused no"}));

    const Location centre{home, 40.0, 8.0, 5.0, 0.0, -1.0, device.now()};
    sdk->sleepWithCenterLocation(centre, "no movement in 10 minutes");
    sdk->sleepWithCenterLocation(centre, "again");
    sdk->wakeUpWithReason("exited geofence RVLSleepRegion_00", false);
    sdk->setPaused(false);
    EXPECT_EQ(posted, (std::vector<std::string>{"sdk Awake", "paused no", "sdk Asleep", "paused yes", "sdk Awake",
                                                "paused no"}));
    const auto standby = stored("ToggleStandby");
    ASSERT_EQ(standby.size(), 2u);
    EXPECT_EQ(standby[0]["toggle_standby_state"], true);
    EXPECT_EQ(standby[0]["toggle_standby_reason"], "no movement in 10 minutes");
    EXPECT_EQ(standby[1]["toggle_standby_state"], false);
    EXPECT_EQ(stored("GeofenceCreate").size(), 7u);  // the sleep laid the regions
}

TEST_F(TrackingCore, ABeaconWakesNoPhoneInsideItsCentreRegionAndOtherwiseGoesToTheBurstLikeAnyWakeUp) {
    // Where the phone fell asleep, recorded so loosely that no burst at home finds it moved.
    defaults->setObject(*PauseRecord{home.latitude, home.longitude, 1000.0, device.now()}.encode(),
                        "RVL_MANAGERS_PAUSED");
    const Location centre{home, 40.0, 8.0, 5.0, 0.0, -1.0, device.now()};
    const std::string beacon = "beacon E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 1.7 ranged in region lobby";
    const auto wakeUpAndWait = [&](const std::string& reason) {
        sdk->initiateWakeUpWithReason(reason, centre);
        device.runUntil(device.now().addingSeconds(60));
    };
    // The bursts of beacon wake-ups; the significant-change service asks for its own after a sleep.
    const auto beaconBursts = [&] {
        const auto bursts = stored("PreWakeUp");
        return std::count_if(bursts.begin(), bursts.end(), [](const json& each) { return each["reason"] == "unknown"; });
    };
    sdk->start();
    settle();

    sdk->sleepWithCenterLocation(centre, "no movement in 10 minutes");
    wakeUpAndWait(beacon);
    EXPECT_EQ(beaconBursts(), 0);
    EXPECT_TRUE(console.contains("stays asleep inside its centre region: " + beacon));

    // A crossing of a sleep region takes the evidence away: the next beacon is put to a burst.
    wakeUpAndWait("entered surrounding geofence RVLSleepRegion_3");
    wakeUpAndWait(beacon);
    EXPECT_EQ(beaconBursts(), 1);
    EXPECT_TRUE(sdk->isAsleep());

    // So is a beacon heard in a sleep without a centre (no regions laid); no record, so moved.
    sdk->wakeUpWithReason("exited geofence RVLSleepRegion_00", false);
    sdk->sleepWithCenterLocation(std::nullopt, "no movement in 10 minutes");
    defaults->removeObject("RVL_MANAGERS_PAUSED");
    wakeUpAndWait(beacon);
    EXPECT_EQ(beaconBursts(), 2);
    EXPECT_FALSE(sdk->isAsleep());
    EXPECT_EQ(stored("ToggleStandby").back()["toggle_standby_reason"], beacon);
}

TEST_F(TrackingCore, ARelaunchResumesTrackingSilentlyAndANewBuildRecordsTheAppUpdatePairInOrder) {
    sdk->start();
    relaunch();
    EXPECT_TRUE(sdk->isTrackingActive());
    EXPECT_EQ(toggles(), (std::vector<std::string>{"on FORCE"}));

    relaunch("41");
    const auto events = stored("ToggleTracking");
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(toggles(), (std::vector<std::string>{"on FORCE", "off APP_UPDATE", "on APP_UPDATE"}));
    EXPECT_GE(events[2]["tracked_at_ms"].get<std::int64_t>() - events[1]["tracked_at_ms"].get<std::int64_t>(), 10);
}

TEST_F(TrackingCore, LifecycleNotificationsAreIgnoredWhileTrackingRuns) {
    sdk->start();
    settle();
    platform.notificationCenter->post(UIApplicationWillTerminateNotification);
    settle();
    EXPECT_EQ(sdk->paused(), false);  // no "application terminates" sleep
    for (const auto& text : debugTexts()) EXPECT_NE(text, UIApplicationWillTerminateNotification);
}

TEST_F(TrackingCore, BackgroundAndTerminateNotificationsCommitWhatIsQueuedWithoutWaitingForTheCommitDelay) {
    // What another connection sees in the store file: the committed Debug comments.
    const auto committedDebugTexts = [&] {
        sqlite::Database db(sdk->eventRepository()->coreDataManager().path().string(), sqlite::Database::Mode::readOnly);
        sqlite::Statement debug(db, "SELECT tracked_at_ms, payload FROM EventEntity WHERE type = 'Debug'");
        std::vector<std::string> texts;
        while (debug.step()) {
            const auto payload = stored_payload::restored("Debug", debug.columnDouble(0), debug.columnBlob(1));
            texts.push_back(json::parse(payload)["comment"].get<std::string>());
        }
        return texts;
    };
    const Date before = device.now();
    for (const char* name : {UIApplicationDidEnterBackgroundNotification, UIApplicationWillTerminateNotification}) {
        sdk->eventRepository()->insertDebugEventWithTrackedAtMs(device.now(), 0, std::string("queued before ") + name);
        settle();
        const auto texts = committedDebugTexts();
        EXPECT_EQ(std::find(texts.begin(), texts.end(), std::string("queued before ") + name), texts.end())
            << "waits for the commit delay";
        platform.notificationCenter->post(name);
        settle();  // what is due now and the work it starts; the clock stands still
        const auto after = committedDebugTexts();
        EXPECT_NE(std::find(after.begin(), after.end(), std::string("queued before ") + name), after.end()) << name;
    }
    EXPECT_EQ(device.now(), before);
}

TEST_F(TrackingCore, AUserTokenRotatesTheDeviceIdOnlyForANewUser) {
    CredentialsManager credentials(keychain, HostInfo{"Trips", "2.1", "40", "com.example.trips", {}});
    const std::string alice = tokenFor("0f8fad5b-d9cb-469f-a165-70867728950e");
    ASSERT_TRUE(AccessTokenDecoder(alice).userId().has_value());
    sdk->setUserToken(alice);
    const std::string first = credentials.deviceId();
    sdk->setUserToken(alice);  // the same token: the device id stays
    EXPECT_EQ(credentials.deviceId(), first);
    sdk->setUserToken(tokenFor("7c9e6679-7425-40de-944b-e07fc1f90ae7"));
    const std::string second = credentials.deviceId();
    EXPECT_NE(second, first);
    sdk->setUserToken("not.a-token");  // no user in it: a device id is made only when there is none
    EXPECT_EQ(credentials.deviceId(), second);
    EXPECT_EQ(sdk->userToken(), "not.a-token");
    sdk->setUserToken(std::nullopt);
    EXPECT_FALSE(sdk->userToken().has_value());
    EXPECT_EQ(credentials.deviceId(), second);
}

TEST_F(TrackingCore, WifiOnlyChangesAreRecordedOnlyWhenTheyChangeAndWhileTracking) {
    sdk->setWifiOnlyDataTransfer(true);  // not tracking: stored, not recorded
    EXPECT_TRUE(sdk->wifiOnlyDataTransfer());
    EXPECT_TRUE(stored("SDKSettings").empty());
    sdk->start();
    ASSERT_EQ(stored("SDKSettings").size(), 1u);  // the start records the setting
    sdk->setWifiOnlyDataTransfer(true);
    EXPECT_EQ(stored("SDKSettings").size(), 1u);
    sdk->setWifiOnlyDataTransfer(false);
    const auto settings = stored("SDKSettings");
    ASSERT_EQ(settings.size(), 2u);
    EXPECT_EQ(settings[1]["wifi_only_data_transfer"], false);
    EXPECT_EQ(stored("DeviceSettings").size(), 2u);
}

TEST_F(TrackingCore, EveryStoredWaypointTheSleepBurstsIncludedIsOneTheHostHearsOf) {
    sdk->start();
    device.runUntil(device.now().addingSeconds(20));
    const auto waypoints = stored("Waypoint");
    ASSERT_FALSE(waypoints.empty());
    EXPECT_EQ(waypoints.front()["provider"], "regular");
    EXPECT_EQ(host->trackedLocations, static_cast<int>(waypoints.size()));
    EXPECT_TRUE(sdk->lastLocation().has_value());

    sdk->initiateSleepWithReason("no movement in 10 minutes");
    device.runUntil(device.now().addingSeconds(60));
    ASSERT_EQ(sdk->paused(), true);
    const auto all = stored("Waypoint");
    const auto fromBurst = std::count_if(all.begin(), all.end(), [](const json& waypoint) {
        return waypoint["provider"] == PauseManager::waypointProvider;
    });
    EXPECT_GT(fromBurst, 0);
    EXPECT_EQ(host->trackedLocations, static_cast<int>(all.size()));
}

TEST_F(TrackingCore, TrackingSwitchedOnAgainWhileTheSwitchOffUploadsRunKeepsItsTrackersRunning) {
    HeldService service;
    ASSERT_TRUE(switchOffWithItsUploadHeld(service));
    sdk->start();  // before the switch-off's uploads have ended
    service.release();
    device.runUntil(device.now().addingSeconds(30));
    EXPECT_TRUE(sdk->isTrackingActive());
    EXPECT_EQ(sdk->paused(), false);
    const auto before = stored("Waypoint").size();
    device.runUntil(device.now().addingSeconds(30));
    EXPECT_GT(stored("Waypoint").size(), before) << "the regular updates were stopped";
}

TEST_F(TrackingCore, AHostStartWithoutAlwaysPermissionIsRefusedAndOnlyAnAcceptedOneIsRemembered) {
    device.setAuthorization(AuthorizationStatus::authorizedWhenInUse);
    settle();
    host->heard.clear();
    sdk->start();
    settle();
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_EQ(host->heard, std::vector<std::string>{"not tracking"});
    EXPECT_TRUE(toggles().empty());
    EXPECT_FALSE(UserDefaultsManager(defaults).userActivatedTrackingOnce());

    device.setAuthorization(AuthorizationStatus::authorizedAlways);
    settle();
    EXPECT_FALSE(sdk->isTrackingActive()) << "the SDK does not start what the host never started";
    sdk->start();
    EXPECT_TRUE(sdk->isTrackingActive());
    EXPECT_TRUE(UserDefaultsManager(defaults).userActivatedTrackingOnce());
}

TEST_F(TrackingCore, WhileTrackingIsOffLifecycleNotificationsAreRecordedUntilTheSwitchOffEndsAndGoingAwayWritesTheBuffer) {
    const char* const observedNames[] = {UIApplicationWillTerminateNotification, UIApplicationDidEnterBackgroundNotification,
                                         UIApplicationWillEnterForegroundNotification,
                                         UIApplicationDidReceiveMemoryWarningNotification};
    std::size_t accelerations = 0;
    for (const char* name : {UIApplicationDidEnterBackgroundNotification, UIApplicationWillTerminateNotification}) {
        sdk->eventRepository()->insertAccelerationEventWithTrackedAtMs(device.now(), Decimal{981, 2});
        device.runUntil(device.now().addingSeconds(5));
        ASSERT_EQ(stored("Acceleration").size(), accelerations) << "waits in the buffer for 300";
        platform.notificationCenter->post(name);
        settle();
        EXPECT_EQ(stored("Acceleration").size(), ++accelerations) << name;
    }

    // The debug record is kept while the debug events are still on: after a switch-off,
    // until its uploads have ended.
    HeldService service;
    ASSERT_TRUE(switchOffWithItsUploadHeld(service));
    for (const char* name : observedNames) platform.notificationCenter->post(name);
    service.release();
    device.runUntil(device.now().addingSeconds(5));
    platform.notificationCenter->post(UIApplicationWillEnterForegroundNotification);  // the switch-off has ended
    settle();
    std::vector<std::string> lifecycle;
    for (const auto& text : debugTexts()) {
        if (text.starts_with("UIApplication")) lifecycle.push_back(text);
    }
    EXPECT_EQ(lifecycle, std::vector<std::string>(std::begin(observedNames), std::end(observedNames)));
}

TEST_F(TrackingCore, ALaunchWithTrackingOffStillSendsWhatEarlierLaunchesLeftStored) {
    sdk->setUserToken(tokenFor("0f8fad5b-d9cb-469f-a165-70867728950e"));
    sdk->eventRepository()->insertDebugEventWithTrackedAtMs(device.now(), 0, "left by an earlier launch");
    collector::CollectorOptions options;
    options.port = 0;
    collector::CollectorServer service(options);
    service.start();
    serviceURL = service.baseURL();
    relaunch();
    ASSERT_EQ(sdk->localTrackingState(), 0);
    service.waitForBatches(1, std::chrono::seconds(10));
    settle();
    std::vector<std::string> delivered;
    service.forEachEvent(std::nullopt, [&](const collector::StoredEventView& event) {
        if (event.type == "Debug") delivered.push_back(json::parse(event.payload)["comment"].get<std::string>());
    });
    EXPECT_NE(std::find(delivered.begin(), delivered.end(), "left by an earlier launch"), delivered.end());
    service.stop();
}

TEST_F(TrackingCore, ClearingDeletesEveryStoredEventAndCompletesOnTheMainLoop) {
    sdk->start();
    settle();
    ASSERT_GT(sdk->eventRepository()->eventsCount(), 0);
    bool onMain = false;
    sdk->clearDataWithCompletionHandler([&] { onMain = platform.mainRunLoop->isCurrent(); });
    settle();
    EXPECT_TRUE(onMain);
    EXPECT_EQ(sdk->eventRepository()->eventsCount(), 0);
}

// The process's one instance, as the README shows a host using it. It is never destroyed, so
// the device it runs on is not either.
TEST(SharedInstance, IsOneObjectThatTakesItsConfigurationUntilInitialisedAndRunsOnIt) {
    static test::TempDir dir;
    static auto* const device = new SimulatedDevice(std::make_shared<const TruePath>(
        std::vector<TracePoint>{{Date{start}, home, std::nullopt}, {Date{start + 86400}, home, std::nullopt}}));
    Rovalis& sdk = RovalisCore::sharedInstance();
    ASSERT_EQ(&sdk, &RovalisCore::sharedInstance());
    EXPECT_THROW(sdk.start(), InternalInconsistencyException);

    RovalisConfiguration configuration;
    configuration.host = {"Trips", "2.1", "40", "com.example.trips", {}};
    configuration.dataRoot = dir.path();
    configuration.platform = device->makeProcessPlatform(std::make_shared<InMemoryKeyValueStore>(),
                                                         std::make_shared<FileKeychain>(dir / "Keychain"));
    configuration.productionBaseURL = "http://127.0.0.1:9/";
    RovalisCore::configureSharedInstance(configuration);
    auto host = std::make_shared<RecordingHost>();
    sdk.initializeUsing(host, std::nullopt);
    EXPECT_THROW(RovalisCore::configureSharedInstance(configuration), InternalInconsistencyException);

    sdk.start();
    device->runUntil(device->now().addingSeconds(20));
    EXPECT_TRUE(sdk.isTrackingActive());
    EXPECT_GT(host->trackedLocations, 0) << "fixes from the configured device";
    EXPECT_TRUE(std::filesystem::exists(dir / "Store")) << "the store under the configured data root";
    sdk.stop();
    device->runUntil(device->now().addingSeconds(5));
}

}  // namespace
}  // namespace rovalis
