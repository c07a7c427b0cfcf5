#include "upload/CurlUrlSession.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "platform/sim/SimulatedNetwork.h"
#include "support/RawServer.h"
#include "support/TestSupport.h"
#include "upload/BackgroundTaskJournal.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

using namespace std::chrono_literals;
using test::RawServer;
using test::TempDir;

constexpr auto kWait = RawServer::kWait;

bool answerCreated(int fd, const std::string&) {
    RawServer::respond(fd, "HTTP/1.1 201 Created\r\nContent-Length: 13\r\n\r\n{\"message\":1}");
    return false;
}

// Records what a session tells its delegate, one line per call: "resend", "finish",
// "invalid", and for a completion "<status> <body>" or, for a URL error, "error <code>
// <description>"; marked " (journaled)" while the journal named by journal_ is on disk.
class Recorder final : public UrlSessionDelegate {
public:
    void didReceiveData(UrlSession&, UrlSessionTask& task, std::string_view data) override {
        std::lock_guard lock(mutex_);
        bodies_[task.taskIdentifier()].append(data);
    }
    void didCompleteWithError(UrlSession&, UrlSessionTask& task, const std::optional<Error>& error) override {
        std::string line = error && error->domain == NSURLErrorDomain
                               ? "error " + std::to_string(error->code) + " " + error->localizedDescription
                               : std::to_string(task.statusCode()) + " " + body(task.taskIdentifier());
        if (journal_ && std::filesystem::exists(*journal_)) line += " (journaled)";
        note(line);
    }
    void didFinishEventsForBackgroundURLSession(UrlSession&) override { note("finish"); }
    void didBecomeInvalidWithError(UrlSession&, const std::optional<Error>& error) override {
        note(error ? "invalid with error" : "invalid");
    }
    void willResendRestoredTask(UrlSession&, UrlRequest& request) override {
        note("resend");
        request.setValueForHTTPHeaderField("Bearer restored-token", "Authorization");
    }

    std::optional<std::filesystem::path> journal_;  // set before the session starts
    // Waits until this many lines are in.
    bool waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return lines_.size() >= count; });
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    std::string body(std::uint64_t task) {
        std::lock_guard lock(mutex_);
        return bodies_[task];
    }
    void note(std::string line) {
        std::lock_guard lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::map<std::uint64_t, std::string> bodies_;
};

const std::string kDelivered = "201 {\"message\":1}";
const std::string kOffline = "error -1009 The Internet connection appears to be offline.";

UrlRequest uploadRequest(const std::string& url, std::size_t length) {
    UrlRequest request;
    request.url = url;
    request.httpMethod = "POST";
    request.headers = {{"Content-Type", "application/octet-stream"}, {"X-Content-Encoding", "gzip"},
                       {"Accept", "application/json"},           {"User-Agent", "{\"app_name\":\"Demo\"}"},
                       {"Accept-Language", "en"},                {"Authorization", "Bearer secret-token"},
                       {"Content-Length", std::to_string(length)}};
    request.properties = {{"timestampFrom", Date{1700000000.0}}, {"timestamp", Date{1700000100.5}}};
    return request;
}

// The request head exactly as it must go out: the caller's headers in the caller's order,
// nothing added but Host (no "Expect: 100-continue" however long the body).
std::string expectedHead(const std::string& url, std::size_t length) {
    std::string head = "POST /api/event_batches HTTP/1.1\r\nHost: " + url.substr(7, url.find('/', 7) - 7) + "\r\n";
    for (const auto& [name, value] : uploadRequest(url, length).headers) head += name + ": " + value + "\r\n";
    return head + "\r\n";
}

std::string headOf(const std::string& request) { return request.substr(0, request.find("\r\n\r\n") + 4); }
std::string bodyOf(const std::string& request) { return request.substr(request.find("\r\n\r\n") + 4); }

// Bytes that a text-minded layer would mangle.
std::string binaryBody(std::size_t size) {
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>((i * 131 + 7) & 0xFF);
    return body;
}

class CurlUrlSessionTest : public ::testing::Test {
protected:
    std::shared_ptr<CurlUrlSessionFactory> makeFactory(CurlUrlSessionOptions options = {}) {
        return std::make_shared<CurlUrlSessionFactory>(dir_ / "BackgroundSessions", network_, runLoop_, clock_,
                                                       tracker_, options);
    }
    std::shared_ptr<UrlSession> backgroundSession(std::shared_ptr<CurlUrlSessionFactory> factory,
                                                  const std::string& identifier,
                                                  std::shared_ptr<Recorder> delegate = nullptr) {
        return factory->makeSession(UrlSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier),
                                    delegate ? delegate : delegate_);
    }
    std::filesystem::path bodyFile(const std::string& name, const std::string& bytes) {
        test::writeFile(dir_ / name, bytes);
        return dir_ / name;
    }

    TempDir dir_;
    std::shared_ptr<SimulatedNetwork> network_ = std::make_shared<SimulatedNetwork>();
    std::shared_ptr<SettableDateSource> clock_ = std::make_shared<SettableDateSource>();
    std::shared_ptr<WorkTracker> tracker_ = std::make_shared<WorkTracker>();
    std::shared_ptr<VirtualRunLoop> runLoop_ = std::make_shared<VirtualRunLoop>(clock_, tracker_);
    std::shared_ptr<Recorder> delegate_ = std::make_shared<Recorder>();
};

TEST_F(CurlUrlSessionTest, SendsExactlyTheRequestFromMemoryAndFileOverOneConnection) {
    RawServer server([](int fd, const std::string& request) {
        answerCreated(fd, request);
        return true;  // keeps the connection open for the next request
    });
    server.listen();
    auto session = makeFactory()->makeSession(UrlSessionConfiguration::defaultSessionConfiguration(), delegate_);
    const std::string bodies[] = {binaryBody(3000), binaryBody(70000)};
    session->uploadTaskWithRequest(uploadRequest(server.url(), bodies[0].size()), bodies[0])->resume();
    ASSERT_TRUE(delegate_->waitFor(1));
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), bodies[1].size()), bodyFile("batch", bodies[1]))
        ->resume();
    ASSERT_TRUE(delegate_->waitFor(2));

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(headOf(requests[i]), expectedHead(server.url(), bodies[i].size()));
        EXPECT_TRUE(bodyOf(requests[i]) == bodies[i]) << "body " << i << " was altered on the way";
    }
    EXPECT_EQ(server.accepted(), 1) << "the connection is reused";
    EXPECT_EQ(delegate_->lines(), std::vector<std::string>(2, kDelivered)) << "the whole body, before the completion";
    EXPECT_TRUE(session->allTasks().empty());
}

TEST_F(CurlUrlSessionTest, FailuresBecomeUrlErrorsAndRefusedRequestsNeverConnect) {
    RawServer hung(RawServer::hang);
    RawServer cutShort([](int fd, const std::string&) {
        RawServer::respond(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"mess");
        return false;
    });
    RawServer endless([](int fd, const std::string&) {
        // An answer that would go on far longer than any service's.
        RawServer::respond(fd, "HTTP/1.1 200 OK\r\nContent-Length: 4000000\r\n\r\n" + std::string(2000000, 'x'));
        return false;
    });
    RawServer refusing(RawServer::hang);  // bound, never listening
    RawServer server(answerCreated);
    for (RawServer* listening : {&hung, &cutShort, &endless, &server}) listening->listen();
    auto factory = makeFactory();
    auto configuration = UrlSessionConfiguration::defaultSessionConfiguration();
    configuration.timeoutIntervalForRequest = 1.0;
    auto session = factory->makeSession(configuration, delegate_);

    auto injected = uploadRequest(server.url(), 3);
    injected.setValueForHTTPHeaderField("Bearer x\r\nX-Evil: 1", "Authorization");
    auto controlCharacter = uploadRequest(server.url(), 3);
    controlCharacter.setValueForHTTPHeaderField(std::string("a\0b", 3), "Accept-Language");
    const std::vector<std::pair<UrlRequest, long>> cases = {
        {uploadRequest(hung.url(), 3), URLError::timedOut},
        {uploadRequest(refusing.url(), 3), URLError::cannotConnectToHost},
        {uploadRequest(cutShort.url(), 3), URLError::networkConnectionLost},
        {uploadRequest(endless.url(), 3), URLError::badServerResponse},
        // Refused before connecting.
        {uploadRequest("http://collector.invalid/api/event_batches", 3), URLError::unsupportedURL},
        {uploadRequest("ftp://127.0.0.1:9/x", 3), URLError::unsupportedURL},
        {uploadRequest("not a url", 3), URLError::badURL},
        {injected, URLError::badURL},
        {controlCharacter, URLError::badURL},
        {uploadRequest(server.url(), 4), URLError::badURL},  // Content-Length disagrees with the body
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        session->uploadTaskWithRequest(cases[i].first, "abc")->resume();
        ASSERT_TRUE(delegate_->waitFor(i + 1));
        const std::string line = delegate_->lines()[i];
        const std::string expected = "error " + std::to_string(cases[i].second) + " ";
        EXPECT_EQ(line.substr(0, expected.size()), expected) << cases[i].first.url;
        EXPECT_GT(line.size(), expected.size()) << "a description";
        EXPECT_EQ(line.find("Bearer"), std::string::npos) << "a credential in the message: " << line;
    }

    // Offline, or cellular only for a session that may not use it: refused at once.
    auto wifiOnly = UrlSessionConfiguration::defaultSessionConfiguration();
    wifiOnly.allowsCellularAccess = false;
    auto wifiDelegate = std::make_shared<Recorder>();
    auto wifiSession = factory->makeSession(wifiOnly, wifiDelegate);
    network_->setConnection(SimulatedConnection::offline);
    session->uploadTaskWithRequest(uploadRequest(server.url(), 3), "abc")->resume();
    ASSERT_TRUE(delegate_->waitFor(cases.size() + 1));
    EXPECT_EQ(delegate_->lines().back(), kOffline);
    network_->setConnection(SimulatedConnection::cellular);
    wifiSession->uploadTaskWithRequest(uploadRequest("https://collector.invalid/api/event_batches", 3), "abc")
        ->resume();
    ASSERT_TRUE(wifiDelegate->waitFor(1));
    EXPECT_EQ(wifiDelegate->lines()[0], kOffline);
    EXPECT_EQ(server.accepted(), 0);

    // Over the same cellular route, a session that allows it sends.
    session->uploadTaskWithRequest(uploadRequest(server.url(), 3), "abc")->resume();
    ASSERT_TRUE(delegate_->waitFor(cases.size() + 2));
    EXPECT_EQ(delegate_->lines().back(), kDelivered);
}

// A server that keeps the connection alive with a byte now and then never trips the idle
// time-out; the floor on the average rate fails it like a hung one (a background task waits
// for its retry), while a large body taken at a modest, steady rate for longer than the
// window goes through.
TEST_F(CurlUrlSessionTest, TransferBelowTheProgressFloorTimesOutButASteadyLargeUploadDoesNot) {
    const auto trickle = [](int fd, const std::string&) {
        RawServer::respond(fd, "HTTP/1.1 201 Created\r\nContent-Length: 1000\r\n\r\n");
        for (int sent = 0; sent < 1000 && ::send(fd, "x", 1, MSG_NOSIGNAL) == 1; ++sent) {
            std::this_thread::sleep_for(200ms);
        }
        return false;
    };
    RawServer foregroundTrickle(trickle), backgroundTrickle(trickle), slowReader(answerCreated);
    // Twice as long as the window, and the sender's socket buffer alone holds more than the
    // window's worth: progress is what the peer has taken, not what the kernel has queued.
    slowReader.readSlowly(2 << 20);
    for (RawServer* server : {&foregroundTrickle, &backgroundTrickle, &slowReader}) server->listen();
    auto factory = makeFactory();
    const auto withShortWindow = [](UrlSessionConfiguration configuration) {
        configuration.lowSpeedWindow = 1.0;  // the idle time-out stays at 60 s
        return configuration;
    };
    auto backgroundDelegate = std::make_shared<Recorder>();
    auto background = factory->makeSession(
        withShortWindow(UrlSessionConfiguration::backgroundSessionConfigurationWithIdentifier("slow")),
        backgroundDelegate);
    background->uploadTaskWithRequestFromFile(uploadRequest(backgroundTrickle.url(), 3), bodyFile("batch", "abc"))
        ->resume();
    auto session = factory->makeSession(withShortWindow(UrlSessionConfiguration::defaultSessionConfiguration()),
                                        delegate_);
    session->uploadTaskWithRequest(uploadRequest(foregroundTrickle.url(), 3), "abc")->resume();
    auto largeDelegate = std::make_shared<Recorder>();
    auto largeSession = factory->makeSession(
        withShortWindow(UrlSessionConfiguration::defaultSessionConfiguration()), largeDelegate);
    const std::string large = binaryBody(4 << 20);
    largeSession->uploadTaskWithRequest(uploadRequest(slowReader.url(), large.size()), large)->resume();

    ASSERT_TRUE(delegate_->waitFor(1));
    EXPECT_EQ(delegate_->lines()[0], "error -1001 The request timed out.");
    ASSERT_TRUE(largeDelegate->waitFor(1));
    EXPECT_EQ(largeDelegate->lines()[0], kDelivered);
    EXPECT_TRUE(bodyOf(slowReader.requests().at(0)) == large);
    runLoop_->runUntilIdle();  // until the background transfer has failed as well
    EXPECT_EQ(runLoop_->nextPendingDelay(), CurlUrlSessionOptions{}.backgroundRetryDelay) << "a retry is due";
    EXPECT_TRUE(backgroundDelegate->lines().empty());
}

TEST_F(CurlUrlSessionTest, BackgroundTaskIsRetriedUntilTheServiceAndNetworkAreBack) {
    RawServer server(answerCreated);  // refuses until it listens
    auto factory = makeFactory({.backgroundRetryDelay = 10, .backgroundRetryMaxDelay = 15});
    auto session = backgroundSession(factory, "retry");
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch", "abc"))->resume();
    runLoop_->runUntilIdle();
    EXPECT_EQ(runLoop_->nextPendingDelay(), 10.0);
    runLoop_->fastForwardBy(10);
    EXPECT_EQ(runLoop_->nextPendingDelay(), 15.0) << "doubled, up to the maximum";
    EXPECT_TRUE(delegate_->lines().empty());
    server.listen();
    runLoop_->fastForwardBy(15);
    ASSERT_TRUE(delegate_->waitFor(2));
    EXPECT_EQ(server.requests().size(), 1u);

    // Offline: the task waits, and goes as soon as the network reports itself back.
    network_->setConnection(SimulatedConnection::offline);
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch2", "abc"))->resume();
    runLoop_->runUntilIdle();
    EXPECT_EQ(delegate_->lines().size(), 2u);
    network_->setConnection(SimulatedConnection::wifi);
    ASSERT_TRUE(delegate_->waitFor(4));
    EXPECT_EQ(delegate_->lines(), (std::vector<std::string>{kDelivered, "finish", kDelivered, "finish"}));

    // Past the resource time-out a waiting task gives up.
    auto shortLived = UrlSessionConfiguration::backgroundSessionConfigurationWithIdentifier("short");
    shortLived.timeoutIntervalForResource = 25;
    auto shortDelegate = std::make_shared<Recorder>();
    auto shortSession = factory->makeSession(shortLived, shortDelegate);
    RawServer closed(answerCreated);
    shortSession->uploadTaskWithRequestFromFile(uploadRequest(closed.url(), 3), bodyFile("batch3", "abc"))->resume();
    runLoop_->fastForwardBy(100);
    ASSERT_TRUE(shortDelegate->waitFor(1));
    EXPECT_EQ(shortDelegate->lines()[0], "error -1001 The request timed out.");
}

// A background task is on disk, without credentials, from before its first byte goes out until
// its outcome has been delivered. A process that dies mid-upload leaves it to the next; a
// session replaced while still held hands it over the same way and then stays silent.
TEST_F(CurlUrlSessionTest, BackgroundTaskIsJournaledUntilDeliveredAndResentAfterARelaunchOrATakeOver) {
    std::atomic<int> seen{0};
    std::promise<void> restoredSeen;  // the resent request waits until the test has looked
    const auto looked = restoredSeen.get_future().share();
    RawServer server([&seen, looked](int fd, const std::string& request) {
        const int number = seen++;
        if (number == 0) return RawServer::hang(fd, request);
        if (number == 1) looked.wait_for(kWait);
        return answerCreated(fd, request);
    });
    server.listen();
    const BackgroundTaskJournal journal(dir_ / "BackgroundSessions", "bg");
    {
        auto session = backgroundSession(makeFactory(), "bg");
        session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 5000), bodyFile("batch", binaryBody(5000)))
            ->resume();
        ASSERT_TRUE(server.waitForRequests(1));
        const std::string written = test::readFile(journal.file());
        EXPECT_NE(written.find(server.url()), std::string::npos);
        EXPECT_EQ(written.find("secret-token"), std::string::npos);
        EXPECT_EQ(test::fileMode(journal.file()), 0600u);
        EXPECT_NE(server.requests()[0].find("Authorization: Bearer secret-token\r\n"), std::string::npos);
    }
    EXPECT_TRUE(delegate_->lines().empty()) << "a session that goes tells nothing";

    auto factory = makeFactory();
    auto relaunched = std::make_shared<Recorder>();
    relaunched->journal_ = journal.file();
    auto session = backgroundSession(factory, "bg", relaunched);
    EXPECT_EQ(session->allTasks().size(), 1u);
    restoredSeen.set_value();
    ASSERT_TRUE(relaunched->waitFor(3));
    // Removed from the disk only after the delegate had the outcome.
    EXPECT_EQ(relaunched->lines(), (std::vector<std::string>{"resend", kDelivered + " (journaled)", "finish"}));
    EXPECT_FALSE(std::filesystem::exists(journal.file()));
    const std::string resent = server.requests().at(1);
    EXPECT_NE(resent.find("Authorization: Bearer restored-token\r\n"), std::string::npos);
    EXPECT_EQ(resent.find("secret-token"), std::string::npos);
    EXPECT_TRUE(bodyOf(resent) == binaryBody(5000));

    seen = 0;
    auto older = backgroundSession(factory, "shared");
    older->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch2", "abc"))->resume();
    ASSERT_TRUE(server.waitForRequests(3));
    auto newerDelegate = std::make_shared<Recorder>();
    auto newer = backgroundSession(factory, "shared", newerDelegate);
    ASSERT_TRUE(newerDelegate->waitFor(3));
    EXPECT_EQ(newerDelegate->lines()[1], kDelivered);
    // The older session neither delivers nor sends again, even once its transfer is gone.
    older->invalidateAndCancel();
    older.reset();
    EXPECT_TRUE(delegate_->lines().empty());
    EXPECT_EQ(server.requests().size(), 4u);
}

TEST_F(CurlUrlSessionTest, DamagedJournalsAndMissingBodyFilesDoNotBlockTheSession) {
    test::ConsoleCapture console;
    const auto directory = dir_ / "BackgroundSessions";
    std::filesystem::create_directories(directory);
    const BackgroundTaskJournal garbage(directory, "garbage");
    test::writeFile(garbage.file(), "{\"version\":1,\"tasks\":[{\"url\":");
    auto factory = makeFactory();
    EXPECT_TRUE(backgroundSession(factory, "garbage")->allTasks().empty());
    EXPECT_FALSE(std::filesystem::exists(garbage.file()));
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("Dropped the background session journal"), std::string::npos);

    // One good entry whose body file has gone, one entry of the wrong shape.
    const BackgroundTaskJournal mixed(directory, "mixed");
    ASSERT_TRUE(
        mixed.store({JournaledTask{7, uploadRequest("http://127.0.0.1:9/x", 3), dir_ / "gone", clock_->now()}}));
    auto text = test::readFile(mixed.file());
    text.insert(text.find("[") + 1, "{\"taskIdentifier\":\"eight\"},");
    test::writeFile(mixed.file(), text);
    auto second = backgroundSession(factory, "mixed");
    ASSERT_TRUE(delegate_->waitFor(3));
    const auto lines = delegate_->lines();
    EXPECT_EQ(lines[0], "resend");
    EXPECT_EQ(lines[1].substr(0, 11), "error -1100") << lines[1];
    EXPECT_EQ(lines[2], "finish");
    EXPECT_TRUE(console.contains("Dropped an unreadable task from the background session journal " +
                                 mixed.file().string()));
    EXPECT_FALSE(std::filesystem::exists(mixed.file()));
    EXPECT_GT(second->uploadTaskWithRequestFromFile(uploadRequest("http://127.0.0.1:9/x", 3), dir_ / "f")
                  ->taskIdentifier(),
              7u)
        << "a new task reuses a restored task's identifier";
}

// Inputs found by fuzzing: numbers that no journal holds, and a version of another type.
TEST(BackgroundTaskJournal, ValuesOutOfRangeDropTheirEntryAndAVersionOfAnotherTypeTheFile) {
    test::TempDir dir;
    test::ConsoleCapture console;
    const BackgroundTaskJournal journal(dir.path(), "damaged");
    const std::string task = R"("url":"u","httpMethod":"POST","headers":[],"properties":{},"bodyFile":"/b","created":1.0})";
    for (const char* identifier : {"1e30", "-1", "2.5"}) {
        test::writeFile(journal.file(), std::string(R"({"version":1,"tasks":[{"taskIdentifier":)") + identifier + "," +
                                            task + R"(,{"taskIdentifier":9,)" + task + "]}");
        const auto tasks = journal.load();
        ASSERT_EQ(tasks.size(), 1u) << identifier;
        EXPECT_EQ(tasks[0].taskIdentifier, 9u);
    }
    for (const char* version : {R"("1")", "1e30", "null"}) {
        test::writeFile(journal.file(), std::string(R"({"version":)") + version + R"(,"tasks":[]})");
        EXPECT_TRUE(journal.load().empty()) << version;
        EXPECT_FALSE(std::filesystem::exists(journal.file())) << version;
    }
}

TEST_F(CurlUrlSessionTest, InvalidateAndCancelEndsEverythingThenRefusesTasks) {
    RawServer hung(RawServer::hang);
    hung.listen();
    auto session = makeFactory()->makeSession(UrlSessionConfiguration::defaultSessionConfiguration(), delegate_);
    session->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc")->resume();
    auto notStarted = session->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc");
    ASSERT_TRUE(hung.waitForRequests(1));
    session->invalidateAndCancel();  // long before the running request's time-out
    ASSERT_TRUE(delegate_->waitFor(3));
    const std::string cancelled = "error -999 cancelled";
    EXPECT_EQ(delegate_->lines(), (std::vector<std::string>{cancelled, cancelled, "invalid"}));

    test::ConsoleCapture console;
    session->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc")->resume();
    EXPECT_TRUE(session->allTasks().empty());
    EXPECT_EQ(console.lines().size(), 1u);
    EXPECT_EQ(hung.accepted(), 1);
}

// The caller may let the session go right after invalidating it, as the API client does: the
// session still ends its running and its waiting task, tells its delegate, and has already
// forgotten them on disk, so that no later process sends them.
TEST_F(CurlUrlSessionTest, InvalidatedBackgroundSessionCancelsEveryTaskAndForgetsThemAtOnce) {
    RawServer refusing(answerCreated);  // never listening: its task waits for a retry
    RawServer holding(RawServer::hang);
    holding.listen();
    const BackgroundTaskJournal journal(dir_ / "BackgroundSessions", "bg");
    delegate_->journal_ = journal.file();
    auto session = backgroundSession(makeFactory(), "bg");
    session->uploadTaskWithRequestFromFile(uploadRequest(refusing.url(), 3), bodyFile("waiting", "abc"))->resume();
    session->uploadTaskWithRequestFromFile(uploadRequest(holding.url(), 3), bodyFile("running", "abc"))->resume();
    ASSERT_TRUE(holding.waitForRequests(1));
    ASSERT_EQ(BackgroundTaskJournal(dir_ / "BackgroundSessions", "bg").load().size(), 2u);

    session->invalidateAndCancel();
    EXPECT_FALSE(std::filesystem::exists(journal.file())) << "forgotten before the call returns";
    session.reset();
    ASSERT_TRUE(delegate_->waitFor(3));  // long before the held request's time-out
    const std::string cancelled = "error -999 cancelled";
    EXPECT_EQ(delegate_->lines(), (std::vector<std::string>{cancelled, cancelled, "invalid"}));

    auto relaunched = std::make_shared<Recorder>();
    EXPECT_TRUE(backgroundSession(makeFactory(), "bg", relaunched)->allTasks().empty());
    runLoop_->fastForwardBy(3600);  // past every retry the old session had planned
    EXPECT_EQ(holding.accepted(), 1);
    EXPECT_TRUE(relaunched->lines().empty());
    EXPECT_EQ(delegate_->lines().size(), 3u);
}

using CurlUrlSessionDeathTest = CurlUrlSessionTest;

TEST_F(CurlUrlSessionDeathTest, BackgroundSessionRefusesUploadsFromMemory) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto session = backgroundSession(makeFactory(), "bg");
    EXPECT_DEATH(session->uploadTaskWithRequest(uploadRequest("https://127.0.0.1/x", 3), "abc"),
                 "Fatal error: Upload tasks from NSData are not supported in background sessions.");
}

}  // namespace
}  // namespace rovalis
