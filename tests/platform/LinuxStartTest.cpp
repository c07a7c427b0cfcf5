// The host's start on Linux, where permission is known only once gpsd has answered: the SDK
// on the real Linux platform, against a gpsd on loopback that answers at once, late, after
// starting late, or never.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "core/RVLGeneralLocationManager.h"
#include "support/ScriptedGpsd.h"
#include "support/TestSupport.h"
#include "support/UploadStack.h"

namespace rovalis {
namespace {

using namespace std::chrono_literals;

// Hears the tracking state: once at initialisation (the stored state, off here), then at
// every start and refusal.
class TrackingHost final : public RovalisDelegate {
public:
    void trackingStatusChanged(bool isTracking) override {
        std::lock_guard lock(mutex_);
        reports_.push_back(isTracking);
        changed_.notify_all();
    }
    void locationAuthorizationStatusDidChange(std::int32_t, bool) override {}

    // Waits up to `limit` for the `count`th report.
    bool waitForReports(std::size_t count, std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return reports_.size() >= count; });
    }
    std::vector<bool> reports() {
        std::lock_guard lock(mutex_);
        return reports_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<bool> reports_;
};

class LinuxStart : public ::testing::Test {
protected:
    // The README's host sequence on the Linux platform with its gpsd at `port`.
    std::shared_ptr<RVLGeneralLocationManager> launch(std::uint16_t port, const std::filesystem::path& root,
                                                      std::optional<Platform> platform = std::nullopt) {
        RovalisConfiguration configuration;
        configuration.host = {"Trips", "2.1", "40", "com.example.trips", {}};
        configuration.dataRoot = root;
        configuration.platform = std::move(platform);
        configuration.serviceBaseURL = "http://127.0.0.1:9/";
        configuration.linuxPlatform.gpsdPort = port;
        auto sdk = std::make_shared<RVLGeneralLocationManager>(configuration);
        sdk->initializeUsing(host, std::nullopt);
        sdk->setUserToken(test::sampleAccessToken());
        sdk->start();
        return sdk;
    }

    test::ConsoleCapture console;
    test::TempDir dir;
    std::shared_ptr<TrackingHost> host = std::make_shared<TrackingHost>();
};

TEST_F(LinuxStart, AStartBeforeGpsdAnswersIsCarriedOutOnceItDoes) {
    for (const auto delay : {0ms, 500ms}) {
        SCOPED_TRACE(delay.count());
        host = std::make_shared<TrackingHost>();
        ScriptedGpsd gpsd({.answerDelay = delay});
        const auto sdk = launch(gpsd.port(), dir / std::to_string(delay.count()));
        ASSERT_TRUE(host->waitForReports(2));
        EXPECT_TRUE(sdk->hasRequiredPermissions());
        EXPECT_TRUE(sdk->isTrackingActive());
        EXPECT_EQ(host->reports().back(), true);
        // gpsd at once may answer before the host's start, and its answer then finds tracking
        // off by the host, as any permission change would.
        if (delay > 0ms) {
            EXPECT_EQ(host->reports(), (std::vector<bool>{false, true})) << "no refusal before the answer";
        }
    }
}

TEST_F(LinuxStart, AStartWaitsForAGpsdThatNeverAnswersAndTheHostsStopWithdrawsIt) {
    ScriptedGpsd gpsd({.answerDelay = 1h});
    const auto sdk = launch(gpsd.port(), dir.path());
    std::this_thread::sleep_for(300ms);  // connected, and nothing said
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_FALSE(sdk->hasRequiredPermissions());
    EXPECT_EQ(host->reports(), std::vector<bool>{false}) << "nothing has been denied";

    sdk->stop();
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_EQ(sdk->localTrackingState(), 0);
}

TEST_F(LinuxStart, AStartIsRefusedWhenGpsdAnswersWithoutAReceiver) {
    ScriptedGpsd gpsd({.answerDelay = 200ms, .hasDevice = false});
    const auto sdk = launch(gpsd.port(), dir.path());
    ASSERT_TRUE(host->waitForReports(2));
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_EQ(host->reports(), (std::vector<bool>{false, false})) << "the launch's report, then the refusal";
    EXPECT_EQ(sdk->localTrackingState(), 0);
}

// Boot order: the agent starts, gpsd 15 s later. The SDK's clock is a settable one, so that
// the client's retries (after 1, 3, 7, 15 and 31 s) come without 15 s of waiting.
TEST_F(LinuxStart, AGpsdThatStartsLaterStartsTracking) {
    const auto clock = std::make_shared<SettableDateSource>();
    const auto loop = std::make_shared<ThreadRunLoop>(clock, "test.main");
    const auto advance = [&](double seconds) { advanceAndRunDueTimers(*clock, *loop, seconds); };
    ScriptedGpsd gpsd({.listening = false});
    Platform platform;
    platform.dateSource = clock;
    platform.mainRunLoop = loop;
    auto sdk = launch(gpsd.port(), dir.path(), platform);
    for (int second = 0; second < 15; ++second) advance(1.0);
    EXPECT_FALSE(sdk->isTrackingActive());
    EXPECT_EQ(host->reports(), std::vector<bool>{false});

    gpsd.listen();
    for (int second = 0; second < 40 && gpsd.answeredClients() == 0; ++second) advance(1.0);
    ASSERT_TRUE(host->waitForReports(2));
    EXPECT_TRUE(sdk->hasRequiredPermissions());
    EXPECT_TRUE(sdk->isTrackingActive());
    EXPECT_EQ(host->reports(), (std::vector<bool>{false, true}));
    sdk.reset();
    loop->sync([] {});
}

// The README's host sequence, launch after launch against a gpsd that answers late.
TEST_F(LinuxStart, EveryLaunchAgainstALateGpsdStartsTracking) {
    ScriptedGpsd gpsd({.answerDelay = 40ms});
    constexpr int launches = 50;
    int started = 0;
    for (int launchNumber = 0; launchNumber < launches; ++launchNumber) {
        host = std::make_shared<TrackingHost>();
        const auto sdk = launch(gpsd.port(), dir / std::to_string(launchNumber));
        // The report comes just before the state is set; a call that waits for the main run
        // loop sees it set.
        if (host->waitForReports(2, 5s) && sdk->hasRequiredPermissions() && sdk->isTrackingActive()) {
            ++started;
        } else {
            ADD_FAILURE() << "launch " << launchNumber << " reports " << ::testing::PrintToString(host->reports());
        }
    }
    EXPECT_EQ(started, launches);
}

}  // namespace
}  // namespace rovalis
