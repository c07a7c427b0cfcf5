#include "platform/linux/GpsdClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/linux/GpsdLocationService.h"
#include "support/FakeGpsdServer.h"
#include "support/TestSupport.h"
#include "util/ThreadRunLoop.h"

namespace rovalis {
namespace {

using test::FakeGpsdServer;
using namespace std::chrono_literals;

const std::string watchOn = R"(?WATCH={"enable":true,"json":true};)";
const std::string watchOff = R"(?WATCH={"enable":false};)";
const std::string devicesRequest = "?DEVICES;";

const std::string version = R"({"class":"VERSION","release":"3.25","rev":"3.25","proto_major":3,"proto_minor":15})";
const std::string oneDevice =
    R"({"class":"DEVICES","devices":[{"class":"DEVICE","path":"/dev/ttyACM0","driver":"u-blox",)"
    R"("activated":"2024-05-01T12:30:00.000Z","native":1,"bps":9600}]})";
const std::string noDevice = R"({"class":"DEVICES","devices":[]})";
const std::string watchReply = R"({"class":"WATCH","enable":true,"json":true,"nmea":false})";
const std::string sky = R"({"class":"SKY","device":"/dev/ttyACM0","satellites":[{"PRN":7,"el":45,"used":true}]})";

// A fix report at the given latitude (1e-4 degrees is about 11 m).
std::string tpv(double latitude, double eph = 4.5) {
    return R"({"class":"TPV","device":"/dev/ttyACM0","mode":3,"time":"2024-05-01T12:30:45.500Z","lat":)" +
           std::to_string(latitude) + R"(,"lon":11.575,"altMSL":519.5,"eph":)" + std::to_string(eph) +
           R"(,"epv":7.25,"speed":1.5,"track":90.0})";
}

// What the client reported on the main run loop, for the test's thread to wait on.
class Recorder final : public GpsdConnectionDelegate {
public:
    struct State {
        std::vector<GpsdStatus> statuses;
        std::vector<Location> fixes;
        int ends = 0;
    };

    void gpsdStatusDidChange(const GpsdStatus& status) override {
        update([&](State& s) { s.statuses.push_back(status); });
    }
    void gpsdDidReceiveFix(const Location& fix) override {
        update([&](State& s) { s.fixes.push_back(fix); });
    }
    void gpsdConnectionDidEnd() override {
        update([](State& s) { ++s.ends; });
    }

    bool waitUntil(const std::function<bool(const State&)>& condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return condition(state_); });
    }
    State state() {
        std::lock_guard lock(mutex_);
        return state_;
    }

private:
    void update(const std::function<void(State&)>& change) {
        std::lock_guard lock(mutex_);
        change(state_);
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_;
};

class GpsdClientTest : public ::testing::Test {
protected:
    // A report still running on the loop may hold the last reference to a client made by
    // the test; it must let go (and join the client's thread) while the loop is still ours.
    ~GpsdClientTest() override {
        loop->sync([] {});
    }

    std::shared_ptr<GpsdClient> makeClient(std::uint16_t port, bool watching) {
        GpsdOptions options;
        options.port = port;
        options.maximumLineBytes = 1024;
        auto client = GpsdClient::create(loop, options);
        loop->sync([&] {
            client->setDelegate(recorder);
            client->setWatching(watching);
        });
        client->start();
        return client;
    }

    // Moves the clock on and returns once every timer due by then has run on the loop: a
    // probe timer due just after them has fired.
    void advance(double seconds) {
        clock->advance(seconds);
        std::mutex mutex;
        std::condition_variable fired;
        bool done = false;
        loop->scheduleTimer(0.0, false, [&] {
            std::lock_guard lock(mutex);
            done = true;
            fired.notify_all();
        });
        clock->advance(0.001);
        std::unique_lock lock(mutex);
        ASSERT_TRUE(fired.wait_for(lock, 10s, [&] { return done; }));
    }

    std::uint64_t attempts(const GpsdClient& client) { return client.counters().connectionAttempts; }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::shared_ptr<ThreadRunLoop> loop = std::make_shared<ThreadRunLoop>(clock, "test.gpsd");
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(GpsdClientTest, WatchesGpsdAndTurnsItsReportsIntoFixes) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/true);
    ASSERT_TRUE(gpsd.waitForConnections(1));
    ASSERT_TRUE(gpsd.waitForLine(watchOn));
    EXPECT_EQ(gpsd.lines(), std::vector<std::string>{watchOn});

    for (const std::string& line : {version, oneDevice, watchReply, sky, tpv(48.1371)}) ASSERT_TRUE(gpsd.sendLine(line));
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return !s.fixes.empty(); }));
    const Location fix = recorder->state().fixes.front();
    EXPECT_DOUBLE_EQ(fix.coordinate.latitude, 48.1371);
    EXPECT_DOUBLE_EQ(fix.coordinate.longitude, 11.575);
    EXPECT_EQ(fix.altitude, 519.5);
    EXPECT_EQ(fix.horizontalAccuracy, 4.5);
    EXPECT_EQ(fix.verticalAccuracy, 7.25);
    EXPECT_EQ(fix.speed, 1.5);
    EXPECT_EQ(fix.course, 90.0);
    // 2024-01-01 plus Jan 31 + Feb 29 + Mar 31 + Apr 30 days, then 12:30:45.5.
    EXPECT_DOUBLE_EQ(fix.timestamp.secondsSince1970, 1704067200.0 + 121 * 86400.0 + 12 * 3600 + 30 * 60 + 45.5);
    EXPECT_EQ(recorder->state().statuses, (std::vector<GpsdStatus>{{true, false}, {true, true}}));
    loop->sync([&] { EXPECT_EQ(client->status(), (GpsdStatus{true, true})); });

    // Nobody needs fixes: the watch ends, and the device list is asked for instead.
    loop->sync([&] { client->setWatching(false); });
    ASSERT_TRUE(gpsd.waitForLine(devicesRequest));
    EXPECT_EQ(gpsd.lines(), (std::vector<std::string>{watchOn, watchOff, devicesRequest}));
    // ... and again while nobody watches.
    advance(client->options().devicePollIntervalSeconds);
    ASSERT_TRUE(gpsd.waitForLine(devicesRequest, 2));

    const auto counters = client->counters();
    EXPECT_EQ(counters.connectionAttempts, 1u);
    EXPECT_EQ(counters.connections, 1u);
    EXPECT_EQ(counters.fixes, 1u);
    EXPECT_EQ(counters.ignoredLines, 0u);
}

TEST_F(GpsdClientTest, DropsWhatItCannotReadAndKeepsReading) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/true);
    ASSERT_TRUE(gpsd.waitForLine(watchOn));
    const std::size_t limit = client->options().maximumLineBytes;

    // A valid report padded to exactly the limit is read; one byte more and it is dropped.
    const std::string report = tpv(48.2);
    const std::string atLimit = report.substr(0, report.size() - 1) + std::string(limit - report.size(), ' ') + "}";
    ASSERT_EQ(atLimit.size(), limit);
    const std::string overLimit = report.substr(0, report.size() - 1) + std::string(limit - report.size() + 1, ' ') + "}";
    ASSERT_TRUE(gpsd.sendLine(atLimit));
    ASSERT_TRUE(gpsd.sendLine(overLimit));
    // A line far longer than any buffer, in pieces, with a report's text inside it.
    ASSERT_TRUE(gpsd.send(std::string(100000, 'x')));
    ASSERT_TRUE(gpsd.send(tpv(48.9)));
    ASSERT_TRUE(gpsd.sendLine(std::string(100000, 'y')));
    for (const std::string& line : {
             std::string("garbage"),
             std::string(R"({"class":"TPV","mode":3,"lat":"48.3","lon":11.5,"eph":3})"),
             std::string(R"({"class":"TPV","mode":3,"lat":48.3,"lon":11.5,"eph":3,"speed":-4})"),
             std::string(R"({"class":"TPV","mode":3,"lat":91,"lon":11.5,"eph":3})"),
             std::string("\x01\x02\xff"),
         }) {
        ASSERT_TRUE(gpsd.sendLine(line));
    }
    // Blank lines and bare line ends are nothing at all.
    ASSERT_TRUE(gpsd.send("\r\n\n"));
    // A report split across writes is whole again.
    const std::string last = tpv(48.4);
    ASSERT_TRUE(gpsd.send(last.substr(0, 20)));
    ASSERT_TRUE(gpsd.send(last.substr(20) + "\n"));

    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.fixes.size() >= 2; }));
    const auto fixes = recorder->state().fixes;
    ASSERT_EQ(fixes.size(), 2u);
    EXPECT_DOUBLE_EQ(fixes[0].coordinate.latitude, 48.2);
    EXPECT_DOUBLE_EQ(fixes[1].coordinate.latitude, 48.4);
    const auto counters = client->counters();
    EXPECT_EQ(counters.ignoredLines, 7u);
    EXPECT_EQ(counters.fixes, 2u);
    EXPECT_EQ(counters.connections, 1u);
    EXPECT_TRUE(gpsd.clientConnected());
}

TEST_F(GpsdClientTest, ReconnectsAfterGpsdDropsTheConnection) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/true);
    ASSERT_TRUE(gpsd.waitForLine(watchOn));
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.statuses.size() == 2; }));

    gpsd.dropClient();
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.ends == 1; }));
    EXPECT_EQ(recorder->state().statuses.back(), (GpsdStatus{false, false}));

    // gpsd had answered, so the first retry comes after the first delay.
    advance(client->options().firstRetryDelaySeconds - 0.1);
    EXPECT_EQ(attempts(*client), 1u);
    advance(0.1);
    EXPECT_EQ(attempts(*client), 2u);
    ASSERT_TRUE(gpsd.waitForConnections(2));
    // The watch is asked for again on the new connection.
    ASSERT_TRUE(gpsd.waitForLine(watchOn, 2));
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    ASSERT_TRUE(gpsd.sendLine(tpv(48.5)));
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.fixes.size() == 1; }));
    EXPECT_EQ(recorder->state().statuses,
              (std::vector<GpsdStatus>{{true, false}, {true, true}, {false, false}, {true, false}, {true, true}}));
}

TEST_F(GpsdClientTest, BacksOffWhileGpsdIsAbsentAndConnectsOnceItIsBack) {
    std::uint16_t port = 0;
    {
        FakeGpsdServer probe;  // a port that nothing listens on once it is gone
        port = probe.port();
    }
    test::ConsoleCapture console;
    const auto client = makeClient(port, /*watching=*/false);
    const double first = client->options().firstRetryDelaySeconds;
    double delay = first;
    for (int failures = 1; failures <= 4; ++failures) {
        ASSERT_TRUE(recorder->waitUntil([&](const Recorder::State& s) { return s.ends == failures; }));
        advance(delay - 0.1);
        EXPECT_EQ(attempts(*client), static_cast<std::uint64_t>(failures)) << "too early after " << delay << " s";
        advance(0.1);
        EXPECT_EQ(attempts(*client), static_cast<std::uint64_t>(failures + 1)) << "not retried after " << delay << " s";
        delay *= 2.0;
    }
    EXPECT_TRUE(recorder->state().statuses.empty());

    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.ends == 5; }));
    const std::string address = "127.0.0.1:" + std::to_string(port);
    // One line for the outage, not one per attempt.
    EXPECT_EQ(console.lines(), std::vector<std::string>{"gpsd not reachable at " + address + "; retrying"});
    FakeGpsdServer gpsd(port);
    advance(delay);
    ASSERT_TRUE(gpsd.waitForConnections(1));
    // Not watching: the client only asks which devices there are.
    ASSERT_TRUE(gpsd.waitForLine(devicesRequest));
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.statuses.size() == 2; }));
    EXPECT_EQ(recorder->state().statuses.back(), (GpsdStatus{true, true}));

    // gpsd answered: after it goes again, the delays start afresh.
    gpsd.dropClient();
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.ends == 6; }));
    advance(first - 0.1);
    EXPECT_EQ(attempts(*client), 6u);
    advance(0.1);
    EXPECT_EQ(attempts(*client), 7u);
    ASSERT_TRUE(gpsd.waitForConnections(2));
    EXPECT_TRUE(console.contains("gpsd connected at " + address));
    EXPECT_TRUE(console.contains("gpsd connection to " + address + " lost; reconnecting"));
}

TEST(GpsdRetryDelay, DoublesUpToTheMaximum) {
    const GpsdOptions options;
    std::vector<double> delays{options.firstRetryDelaySeconds};
    while (delays.size() < 9) delays.push_back(nextGpsdRetryDelay(delays.back(), options));
    EXPECT_EQ(delays, (std::vector<double>{1, 2, 4, 8, 16, 32, 60, 60, 60}));
}

TEST_F(GpsdClientTest, DevicePresenceFollowsGpsdsDeviceReports) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/false);
    ASSERT_TRUE(gpsd.waitForLine(devicesRequest));
    ASSERT_TRUE(gpsd.sendLine(noDevice));
    ASSERT_TRUE(gpsd.sendLine(tpv(48.1)));  // a marker: everything before it has been read
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.fixes.size() == 1; }));
    EXPECT_EQ(recorder->state().statuses, (std::vector<GpsdStatus>{{true, false}}));

    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    // Without watchers gpsd closes its devices; that close is not the device going away.
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":0})"));
    ASSERT_TRUE(gpsd.sendLine(tpv(48.1)));
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.fixes.size() == 2; }));
    EXPECT_EQ(recorder->state().statuses, (std::vector<GpsdStatus>{{true, false}, {true, true}}));

    // While watching, a device that closes is gone, and one that opens is there.
    loop->sync([&] { client->setWatching(true); });
    ASSERT_TRUE(gpsd.waitForLine(watchOn));
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":0})"));
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"DEVICE","path":"/dev/ttyUSB0","activated":"2024-05-01T12:31:00.000Z"})"));
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"DEVICE","path":"/dev/ttyUSB0"})"));
    ASSERT_TRUE(recorder->waitUntil([](const Recorder::State& s) { return s.statuses.size() == 5; }));
    EXPECT_EQ(recorder->state().statuses, (std::vector<GpsdStatus>{
                                              {true, false}, {true, true}, {true, false}, {true, true}, {true, false}}));
}

TEST_F(GpsdClientTest, GoesAwayPromptlyWhileAConnectionIsPending) {
    GpsdOptions options;
    options.host = "10.255.255.1";  // not routed anywhere: the attempt hangs until the time-out
    options.connectTimeoutSeconds = 3600.0;
    auto client = GpsdClient::create(loop, options);
    client->start();
    client.reset();  // joins; a hang here would show as the test's time-out
    SUCCEED();
}

// ---- The service and its managers against gpsd ----

class WaitingDelegate final : public LocationManagerDelegate {
public:
    void locationManagerDidUpdateLocations(LocationManagerType&, const std::vector<Location>& locations) override {
        std::lock_guard lock(mutex_);
        fixes_ += static_cast<int>(locations.size());
        changed_.notify_all();
    }
    void locationManagerDidChangeAuthorization(LocationManagerType& manager) override {
        std::lock_guard lock(mutex_);
        authorizationChanges_.push_back(manager.locationServicesEnabled());
        changed_.notify_all();
    }
    bool waitUntil(const std::function<bool(int fixes, const std::vector<bool>& changes)>& condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return condition(fixes_, authorizationChanges_); });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int fixes_ = 0;
    std::vector<bool> authorizationChanges_;
};

TEST_F(GpsdClientTest, ManagersOfTheFactoryGetFixesFromGpsdWhileTheyUpdate) {
    FakeGpsdServer gpsd;
    GpsdOptions options;
    options.port = gpsd.port();
    const auto factory = makeGpsdLocationManagerFactory(loop, clock, options);
    std::shared_ptr<LocationManagerType> updating, idle;
    const auto updatingDelegate = std::make_shared<WaitingDelegate>();
    const auto idleDelegate = std::make_shared<WaitingDelegate>();
    loop->sync([&] {
        updating = factory();
        idle = factory();
        updating->setDelegate(updatingDelegate);
        idle->setDelegate(idleDelegate);
        updating->setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
        updating->startUpdatingLocation();
    });
    ASSERT_NE(updating, idle);
    loop->sync([&] {
        // Monitored regions belong to the process, whichever manager added them.
        idle->startMonitoring(CircularRegion{"r", {48.1, 11.575}, 100.0, true, true});
        EXPECT_EQ(updating->monitoredRegions().size(), 1u);
        idle->stopMonitoring(CircularRegion{"r", {48.1, 11.575}, 100.0, true, true});
    });
    ASSERT_TRUE(gpsd.waitForLine(watchOn));
    ASSERT_TRUE(gpsd.sendLine(version));
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    ASSERT_TRUE(gpsd.sendLine(tpv(48.1)));
    ASSERT_TRUE(gpsd.sendLine(tpv(48.1001)));
    ASSERT_TRUE(updatingDelegate->waitUntil([](int fixes, const auto&) { return fixes == 2; }));
    // Services came on for every manager; only the updating one got fixes.
    ASSERT_TRUE(idleDelegate->waitUntil([](int, const auto& changes) { return changes.size() == 1; }));
    EXPECT_TRUE(updatingDelegate->waitUntil([](int fixes, const auto& changes) {
        return fixes == 2 && changes == std::vector<bool>{true};
    }));
    EXPECT_TRUE(idleDelegate->waitUntil([](int fixes, const auto& changes) {
        return fixes == 0 && changes == std::vector<bool>{true};
    }));

    loop->sync([&] { updating->stopUpdatingLocation(); });
    ASSERT_TRUE(gpsd.waitForLine(watchOff));

    // gpsd going away turns services off for everybody.
    gpsd.dropClient();
    ASSERT_TRUE(idleDelegate->waitUntil([](int, const auto& changes) { return changes.size() == 2; }));
    EXPECT_TRUE(idleDelegate->waitUntil([](int, const auto& changes) { return changes.back() == false; }));
    loop->sync([&] {
        updating.reset();
        idle.reset();
    });
}

}  // namespace
}  // namespace rovalis
