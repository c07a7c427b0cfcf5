#include "platform/linux/GpsdClient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/GpsdLocationService.h"
#include "support/ScriptedGpsd.h"
#include "support/TestSupport.h"

namespace rovalis {
namespace {

using namespace std::chrono_literals;

// A stand-in for gpsd on the loopback interface, driven step by step from the test's
// thread: the test takes each client, reads what it asked for and decides every reply.
// Every wait gives up after ten seconds.
class FakeGpsdServer {
public:
    // Listens on 127.0.0.1 at the port (0: any free port).
    explicit FakeGpsdServer(std::uint16_t port = 0) : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        const int on = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener_, 4) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            ADD_FAILURE() << "fake gpsd cannot listen: " << errno;
        }
        port_ = ntohs(address.sin_port);
    }
    ~FakeGpsdServer() {
        dropClient();
        ::close(listener_);
    }

    std::uint16_t port() const { return port_; }

    // Takes the next client in place of the current one; false when none came.
    bool accept() {
        dropClient();
        if (readable(listener_)) client_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        return client_ >= 0;
    }

    // The next line the client sent, without its line end; empty when none came.
    std::string readLine() {
        while (received_.find('\n') == std::string::npos) {
            char buffer[4096];
            const ssize_t received = client_ >= 0 && readable(client_) ? ::recv(client_, buffer, sizeof(buffer), 0) : 0;
            if (received < 0 && errno == EINTR) continue;
            if (received <= 0) return {};
            received_.append(buffer, static_cast<std::size_t>(received));
        }
        const std::string line = received_.substr(0, received_.find('\n'));
        received_.erase(0, line.size() + 1);
        return line;
    }

    // Writes the bytes to the client; false when there is none or it has gone.
    bool send(std::string_view bytes) {
        return client_ >= 0 && ::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }
    // A line end (CR-LF, as gpsd writes it) follows the text.
    bool sendLine(std::string_view text) { return send(std::string(text) + "\r\n"); }

    // Closes the client's connection; the client sees gpsd going away.
    void dropClient() {
        if (client_ >= 0) ::close(client_);
        client_ = -1;
        received_.clear();
    }

private:
    static bool readable(int fd) {
        pollfd ready{fd, POLLIN, 0};
        int result = 0;
        while ((result = ::poll(&ready, 1, 10000)) < 0 && errno == EINTR) {
        }
        return result > 0;
    }

    int listener_;
    int client_ = -1;
    std::uint16_t port_ = 0;
    std::string received_;
};

const std::string watchOn = R"(?WATCH={"enable":true,"json":true};)";
const std::string watchOff = R"(?WATCH={"enable":false};)";
const std::string devicesRequest = "?DEVICES;";
const std::string oneDevice =
    R"({"class":"DEVICES","devices":[{"path":"/dev/ttyACM0","activated":"2024-05-01T12:30:00Z"}]})";

// A fix report at the given latitude; its fix is recorded as "fix <latitude>".
std::string tpv(const std::string& latitude) {
    return R"({"class":"TPV","mode":2,"time":"2024-05-01T12:30:45.5Z","lon":11.575,"eph":4.5,"lat":)" + latitude + "}";
}

using Log = std::vector<std::string>;

// What the client (or a location manager) reported on the main run loop, one entry each:
// "up", "device" (up with a device), "down", "end", "fix <latitude>", "enabled", "disabled".
class Recorder final : public GpsdConnectionDelegate, public LocationManagerDelegate {
public:
    void gpsdStatusDidChange(const GpsdStatus& status) override {
        add(!status.connected ? "down" : status.hasDevice ? "device" : "up");
    }
    void gpsdDidReceiveFix(const Location& fix) override {
        std::ostringstream entry;
        entry << "fix " << fix.coordinate.latitude;
        add(entry.str());
    }
    void gpsdConnectionDidEnd() override { add("end"); }
    void locationManagerDidUpdateLocations(LocationManagerType&, const std::vector<Location>& fixes) override {
        for (const Location& fix : fixes) gpsdDidReceiveFix(fix);
    }
    void locationManagerDidChangeAuthorization(LocationManagerType& manager) override {
        add(manager.locationServicesEnabled() ? "enabled" : "disabled");
    }

    // Waits until the entry has come `count` times, then gives every entry so far.
    Log waitFor(const std::string& entry, long count = 1) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 10s, [&] { return std::count(log_.begin(), log_.end(), entry) >= count; });
        return log_;
    }

private:
    void add(std::string entry) {
        std::lock_guard lock(mutex_);
        log_.push_back(std::move(entry));
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Log log_;
};

class GpsdClientTest : public ::testing::Test {
protected:
    // A report still running on the loop may hold the last reference to a client made by
    // the test; it must let go (and join the client's thread) while the loop is still ours.
    ~GpsdClientTest() override { loop->sync([] {}); }

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

    void advance(double seconds) { advanceAndRunDueTimers(*clock, *loop, seconds); }

    std::shared_ptr<SettableDateSource> clock = std::make_shared<SettableDateSource>();
    std::shared_ptr<ThreadRunLoop> loop = std::make_shared<ThreadRunLoop>(clock, "test.gpsd");
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(GpsdClientTest, WatchesGpsdWhileAskedAndPollsItsDevicesOtherwise) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/true);
    ASSERT_TRUE(gpsd.accept());
    EXPECT_EQ(gpsd.readLine(), watchOn);
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    ASSERT_TRUE(gpsd.sendLine(tpv("48.137")));
    EXPECT_EQ(recorder->waitFor("fix 48.137"), (Log{"up", "device", "fix 48.137"}));
    advance(client->options().devicePollIntervalSeconds);  // no device polls while watching

    loop->sync([&] { client->setWatching(false); });
    EXPECT_EQ(gpsd.readLine(), watchOff);
    EXPECT_EQ(gpsd.readLine(), devicesRequest);
    advance(client->options().devicePollIntervalSeconds);
    EXPECT_EQ(gpsd.readLine(), devicesRequest) << "asked for again while nobody watches";
}

TEST_F(GpsdClientTest, DropsWhatItCannotReadAndKeepsReading) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/true);
    ASSERT_TRUE(gpsd.accept());
    const std::size_t limit = client->options().maximumLineBytes;

    // A valid report padded to exactly the limit is read; one byte more and it is dropped.
    const std::string report = tpv("48.2");
    const std::string padded = report.substr(0, report.size() - 1) + std::string(limit - report.size(), ' ') + "}";
    ASSERT_EQ(padded.size(), limit);
    ASSERT_TRUE(gpsd.sendLine(padded));
    ASSERT_TRUE(gpsd.send(" " + padded + "\n"));
    // A line far longer than any buffer, with a report's text inside it.
    ASSERT_TRUE(gpsd.send(std::string(100000, 'x') + tpv("48.9")));
    ASSERT_TRUE(gpsd.sendLine(std::string(100000, 'y')));
    ASSERT_TRUE(gpsd.sendLine("garbage"));
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"TPV","mode":3,"lat":91,"lon":11.5,"eph":3})"));
    ASSERT_TRUE(gpsd.send("\r\n\n"));  // blank lines are nothing at all
    // A report split across writes is whole again.
    const std::string last = tpv("48.4");
    ASSERT_TRUE(gpsd.send(last.substr(0, 20)));
    ASSERT_TRUE(gpsd.send(last.substr(20) + "\n"));

    EXPECT_EQ(recorder->waitFor("fix 48.4"), (Log{"up", "fix 48.2", "fix 48.4"}));
    EXPECT_EQ(client->counters().ignoredLines, 4u);
}

TEST_F(GpsdClientTest, BacksOffWhileGpsdIsAbsentAndStartsAfreshOnceItAnswers) {
    std::uint16_t port = 0;
    {
        FakeGpsdServer probe;  // a port that nothing listens on once it is gone
        port = probe.port();
    }
    test::ConsoleCapture console;
    const auto client = makeClient(port, /*watching=*/true);
    const auto attempts = [&] { return client->counters().connectionAttempts; };
    const double first = client->options().firstRetryDelaySeconds;
    double delay = first;
    for (unsigned failures = 1; failures <= 4; ++failures, delay *= 2.0) {
        recorder->waitFor("end", failures);
        advance(delay - 0.1);
        EXPECT_EQ(attempts(), failures) << "too early after " << delay << " s";
        advance(0.1);
        EXPECT_EQ(attempts(), failures + 1) << "not retried after " << delay << " s";
    }
    recorder->waitFor("end", 5);
    FakeGpsdServer gpsd(port);
    advance(delay);
    ASSERT_TRUE(gpsd.accept());
    EXPECT_EQ(gpsd.readLine(), watchOn);
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    recorder->waitFor("device");

    // gpsd answered: after it goes again, the delays start afresh and the watch is asked again.
    gpsd.dropClient();
    EXPECT_EQ(recorder->waitFor("end", 6), (Log{"end", "end", "end", "end", "end", "up", "device", "down", "end"}));
    const std::string address = "127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(console.lines(), (Log{"gpsd not reachable at " + address + "; retrying", "gpsd connected at " + address,
                                    "gpsd connection to " + address + " lost; reconnecting"}))
        << "one line for the outage, not one per attempt";
    advance(first - 0.1);
    EXPECT_EQ(attempts(), 6u);
    advance(0.1);
    EXPECT_EQ(attempts(), 7u);
    ASSERT_TRUE(gpsd.accept());
    EXPECT_EQ(gpsd.readLine(), watchOn);
}

TEST(GpsdRetryDelay, DoublesUpToTheMaximum) {
    const GpsdOptions options;
    std::vector<double> delays{options.firstRetryDelaySeconds};
    while (delays.size() < 8) delays.push_back(nextGpsdRetryDelay(delays.back(), options));
    EXPECT_EQ(delays, (std::vector<double>{1, 2, 4, 8, 16, 32, 60, 60}));
}

TEST_F(GpsdClientTest, DevicePresenceFollowsGpsdsDeviceReports) {
    FakeGpsdServer gpsd;
    const auto client = makeClient(gpsd.port(), /*watching=*/false);
    ASSERT_TRUE(gpsd.accept());
    EXPECT_EQ(gpsd.readLine(), devicesRequest);
    const std::string closed = R"({"class":"DEVICE","path":"/dev/ttyACM0","activated":0})";
    // Without watchers gpsd closes its devices; that close is not the device going away.
    for (const std::string& line : {oneDevice, closed, tpv("48.1")}) ASSERT_TRUE(gpsd.sendLine(line));
    EXPECT_EQ(recorder->waitFor("fix 48.1"), (Log{"up", "device", "fix 48.1"}));

    // While watching, a device that closes is gone, and one that opens is there.
    loop->sync([&] { client->setWatching(true); });
    EXPECT_EQ(gpsd.readLine(), watchOn);
    ASSERT_TRUE(gpsd.sendLine(closed));
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"DEVICE","path":"/dev/ttyUSB0","activated":"2024-05-01T12:31:00.000Z"})"));
    ASSERT_TRUE(gpsd.sendLine(R"({"class":"DEVICE","path":"/dev/ttyUSB0"})"));
    EXPECT_EQ(recorder->waitFor("up", 3), (Log{"up", "device", "fix 48.1", "up", "device", "up"}));
}

TEST_F(GpsdClientTest, GoesAwayPromptlyWhileConnectedOrConnecting) {
    FakeGpsdServer gpsd;
    auto connected = makeClient(gpsd.port(), /*watching=*/true);
    ASSERT_TRUE(gpsd.accept());
    EXPECT_EQ(gpsd.readLine(), watchOn);
    connected.reset();  // joins; a hang here would show as the test's time-out
    EXPECT_EQ(gpsd.readLine(), "") << "the connection is closed";

    GpsdOptions options;
    options.host = "10.255.255.1";  // not routed anywhere: the attempt hangs until the time-out
    options.connectTimeoutSeconds = 3600.0;
    auto connecting = GpsdClient::create(loop, options);
    connecting->start();
    connecting.reset();
}

TEST_F(GpsdClientTest, ManagersOfTheFactoryShareOneServiceFedByGpsd) {
    FakeGpsdServer gpsd;
    GpsdOptions options;
    options.port = gpsd.port();
    const auto factory = makeGpsdLocationManagerFactory(loop, clock, options);
    const auto idleRecorder = std::make_shared<Recorder>();
    std::shared_ptr<LocationManagerType> updating, idle;
    loop->sync([&] {
        updating = factory();
        idle = factory();
        updating->setDelegate(recorder);
        idle->setDelegate(idleRecorder);
        updating->startUpdatingLocation();
    });
    ASSERT_TRUE(gpsd.accept());
    std::string line = gpsd.readLine();
    if (line == devicesRequest) line = gpsd.readLine();  // asked for before the watch was
    EXPECT_EQ(line, watchOn);
    ASSERT_TRUE(gpsd.sendLine(oneDevice));
    ASSERT_TRUE(gpsd.sendLine(tpv("48.1")));
    EXPECT_EQ(recorder->waitFor("fix 48.1"), (Log{"enabled", "fix 48.1"}));

    loop->sync([&] { updating->stopUpdatingLocation(); });
    EXPECT_EQ(gpsd.readLine(), watchOff);
    // One service, one connection: services came on for every manager, fixes did not.
    EXPECT_EQ(idleRecorder->waitFor("enabled"), Log{"enabled"});
    loop->sync([&] {
        updating.reset();
        idle.reset();
    });
}

}  // namespace
}  // namespace rovalis
