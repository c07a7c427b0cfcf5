#include "upload/CurlUrlSession.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <map>
#include <thread>

#include "support/TestSupport.h"
#include "upload/BackgroundTaskJournal.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

constexpr auto kWait = 20s;

// A loopback HTTP/1.1 peer that sees requests byte for byte, for what a structured server
// hides (header order, connection reuse) or will not do (hang, cut a response short). One
// connection at a time; until listen() its port refuses connections.
class RawServer {
public:
    // Writes the response to fd; answers whether to keep reading requests on it.
    using Handler = std::function<bool(int fd, const std::string& request)>;

    explicit RawServer(Handler handler) : handler_(std::move(handler)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~RawServer() {
        ::shutdown(fd_, SHUT_RDWR);
        {
            std::lock_guard lock(mutex_);
            if (connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
        }
        if (thread_.joinable()) thread_.join();
        ::close(fd_);
    }

    void listen() {
        ASSERT_EQ(::listen(fd_, 16), 0);
        thread_ = std::thread([this] { serve(); });
    }
    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/api/event_batches"; }
    int accepted() const { return accepted_.load(); }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    bool waitForRequests(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return requests_.size() >= count; });
    }

    static void respond(int fd, const std::string& bytes) { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    // Holds the connection without answering until the client gives up on it.
    static bool hang(int fd, const std::string&) {
        for (char byte; ::recv(fd, &byte, 1, 0) > 0;) {
        }
        return false;
    }

private:
    // Empty once the peer has gone.
    static std::string readRequest(int fd) {
        std::string data;
        const auto complete = [&] {
            const auto end = data.find("\r\n\r\n");
            const auto at = data.find("Content-Length: ");
            return end != std::string::npos &&
                   data.size() >= end + 4 + (at < end ? std::stoul(data.substr(at + 16)) : 0);
        };
        for (char buffer[4096]; !complete();) {
            const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
            if (got <= 0) return {};
            data.append(buffer, static_cast<std::size_t>(got));
        }
        return data;
    }

    void serve() {
        for (int connection; (connection = ::accept(fd_, nullptr, nullptr)) >= 0; ::close(connection)) {
            ++accepted_;
            setConnection(connection);
            for (std::string request; !(request = readRequest(connection)).empty();) {
                {
                    std::lock_guard lock(mutex_);
                    requests_.push_back(request);
                }
                changed_.notify_all();
                if (!handler_(connection, request)) break;
            }
            setConnection(-1);
        }
    }
    void setConnection(int connection) {
        std::lock_guard lock(mutex_);
        connection_ = connection;
    }

    Handler handler_;
    int fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int port_ = 0;
    std::atomic<int> accepted_{0};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> requests_;
    int connection_ = -1;
};

const std::string kCreated = "HTTP/1.1 201 Created\r\nContent-Length: 13\r\n\r\n{\"message\":1}";

bool answerCreated(int fd, const std::string&) {
    RawServer::respond(fd, kCreated);
    return false;
}

// The network as the sessions see it, settable by the test.
class TestNetwork final : public NetworkMonitor {
public:
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForHost(const std::string&) override {
        return std::make_unique<Target>(*this);
    }
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForZeroAddress() override {
        return std::make_unique<Target>(*this);
    }
    void setFlags(std::uint32_t flags) {
        flags_ = flags;
        std::lock_guard lock(mutex_);
        for (auto& [target, watcher] : watchers_) {
            if (watcher.second) watcher.second->async([callback = watcher.first, flags] { callback(flags); });
        }
    }

private:
    struct Target final : NetworkReachabilityTarget {
        explicit Target(TestNetwork& network) : network(network) {}
        std::optional<std::uint32_t> flags() const override { return network.flags_.load(); }
        bool setCallback(std::function<void(std::uint32_t)> callback, Executor* queue) override {
            std::lock_guard lock(network.mutex_);
            network.watchers_[this] = {std::move(callback), queue};  // a null queue stops the calls
            return true;
        }
        TestNetwork& network;
    };

    std::atomic<std::uint32_t> flags_{ReachabilityFlags::reachable};
    std::mutex mutex_;
    std::map<Target*, std::pair<std::function<void(std::uint32_t)>, Executor*>> watchers_;
};

// Records what a session tells its delegate, in order.
class Recorder final : public UrlSessionDelegate {
public:
    struct Completion {
        long status = 0;
        std::optional<Error> error;
        std::string body;
        std::uint64_t task = 0;
        std::map<std::string, Date> properties;
        bool journalPresent = false;
    };

    void didReceiveData(UrlSession&, UrlSessionTask& task, std::string_view data) override {
        std::lock_guard lock(mutex_);
        if (bodies_[task.taskIdentifier()].empty()) events_.push_back("data");
        bodies_[task.taskIdentifier()].append(data);
    }
    void didCompleteWithError(UrlSession&, UrlSessionTask& task, const std::optional<Error>& error) override {
        const bool journalPresent = journal_ && std::filesystem::exists(*journal_);
        std::lock_guard lock(mutex_);
        completions_.push_back({task.statusCode(), error, bodies_[task.taskIdentifier()], task.taskIdentifier(),
                                task.originalRequest().properties, journalPresent});
        noteLocked("complete");
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
    // Waits until the event has happened count times.
    bool waitFor(const std::string& event, std::size_t count = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] {
            return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event)) >= count;
        });
    }
    std::vector<std::string> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<Completion> completions() const {
        std::lock_guard lock(mutex_);
        return completions_;
    }

private:
    void note(std::string event) {
        std::lock_guard lock(mutex_);
        noteLocked(std::move(event));
    }
    void noteLocked(std::string event) {
        events_.push_back(std::move(event));
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
    std::map<std::uint64_t, std::string> bodies_;
    std::vector<Completion> completions_;
};

UrlRequest uploadRequest(const std::string& url, std::size_t length) {
    UrlRequest request;
    request.url = url;
    request.httpMethod = "POST";
    request.headers = {{"Content-Type", "application/octet-stream"},
                       {"X-Content-Encoding", "gzip"},
                       {"Accept", "application/json"},
                       {"User-Agent", "{\"app_name\":\"Demo\"}"},
                       {"Accept-Language", "en"},
                       {"Authorization", "Bearer secret-token"},
                       {"Content-Length", std::to_string(length)}};
    request.properties = {{"timestampFrom", Date{1700000000.0}}, {"timestamp", Date{1700000100.5}}};
    return request;
}

// The request head exactly as it must go out: the caller's headers in the caller's order,
// nothing added but Host (no "Expect: 100-continue" however long the body).
std::vector<std::string> expectedHead(const RawServer& server, std::size_t length) {
    return {"POST /api/event_batches HTTP/1.1", "Host: 127.0.0.1:" + std::to_string(server.port()),
            "Content-Type: application/octet-stream", "X-Content-Encoding: gzip", "Accept: application/json",
            "User-Agent: {\"app_name\":\"Demo\"}", "Accept-Language: en", "Authorization: Bearer secret-token",
            "Content-Length: " + std::to_string(length)};
}

std::vector<std::string> headOf(const std::string& request) {
    std::vector<std::string> lines;
    const auto end = request.find("\r\n\r\n");
    for (std::size_t at = 0; at < end;) {
        const auto next = request.find("\r\n", at);
        lines.push_back(request.substr(at, next - at));
        at = next + 2;
    }
    return lines;
}

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
    std::shared_ptr<TestNetwork> network_ = std::make_shared<TestNetwork>();
    std::shared_ptr<SettableDateSource> clock_ = std::make_shared<SettableDateSource>();
    std::shared_ptr<WorkTracker> tracker_ = std::make_shared<WorkTracker>();
    std::shared_ptr<VirtualRunLoop> runLoop_ = std::make_shared<VirtualRunLoop>(clock_, tracker_);
    std::shared_ptr<Recorder> delegate_ = std::make_shared<Recorder>();
};

TEST_F(CurlUrlSessionTest, SendsExactlyTheRequestFromMemoryAndFileOverOneConnection) {
    RawServer server([](int fd, const std::string&) {
        RawServer::respond(fd, kCreated);
        return true;  // keeps the connection open for the next request
    });
    server.listen();
    auto factory = makeFactory();
    auto session = factory->makeSession(UrlSessionConfiguration::defaultSessionConfiguration(), delegate_);

    const std::string memoryBody = binaryBody(3000);
    const std::string fileBody = binaryBody(70000);
    session->uploadTaskWithRequest(uploadRequest(server.url(), memoryBody.size()), memoryBody)->resume();
    ASSERT_TRUE(delegate_->waitFor("complete"));
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), fileBody.size()),
                                           bodyFile("batch", fileBody))->resume();
    ASSERT_TRUE(delegate_->waitFor("complete", 2));

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(headOf(requests[0]), expectedHead(server, memoryBody.size()));
    EXPECT_EQ(bodyOf(requests[0]), memoryBody);
    EXPECT_EQ(headOf(requests[1]), expectedHead(server, fileBody.size()));
    EXPECT_EQ(bodyOf(requests[1]), fileBody);
    EXPECT_EQ(server.accepted(), 1);
    // Body before completion, for each task.
    EXPECT_EQ(delegate_->events(), (std::vector<std::string>{"data", "complete", "data", "complete"}));
    for (const auto& completion : delegate_->completions()) {
        EXPECT_EQ(completion.status, 201);
        EXPECT_FALSE(completion.error);
        EXPECT_EQ(completion.body, "{\"message\":1}");
    }
}

TEST_F(CurlUrlSessionTest, FailuresBecomeUrlErrorsAndRefusedRequestsNeverConnect) {
    RawServer hung(RawServer::hang);
    RawServer cutShort([](int fd, const std::string&) {
        RawServer::respond(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"mess");
        return false;
    });
    RawServer refusing(RawServer::hang);  // bound, never listening
    RawServer server(answerCreated);
    hung.listen();
    cutShort.listen();
    server.listen();
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
        // Refused before connecting.
        {uploadRequest("http://collector.invalid/api/event_batches", 3), URLError::unsupportedURL},
        {uploadRequest("ftp://127.0.0.1:" + std::to_string(server.port()) + "/x", 3), URLError::unsupportedURL},
        {uploadRequest("not a url", 3), URLError::badURL},
        {injected, URLError::badURL},
        {controlCharacter, URLError::badURL},
        {uploadRequest(server.url(), 4), URLError::badURL},  // Content-Length disagrees with the body
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].first.url);
        session->uploadTaskWithRequest(cases[i].first, "abc")->resume();
        ASSERT_TRUE(delegate_->waitFor("complete", i + 1));
        const auto error = delegate_->completions()[i].error;
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain, NSURLErrorDomain);
        EXPECT_EQ(error->code, cases[i].second);
        EXPECT_FALSE(error->localizedDescription.empty());
        EXPECT_EQ(error->localizedDescription.find("Bearer"), std::string::npos);
    }
    EXPECT_EQ(server.accepted(), 0);

    // A cancel ends a hung request long before its time-out would.
    auto wifiOnly = UrlSessionConfiguration::defaultSessionConfiguration();
    wifiOnly.allowsCellularAccess = false;
    auto wifiDelegate = std::make_shared<Recorder>();
    auto wifiSession = factory->makeSession(wifiOnly, wifiDelegate);
    auto task = wifiSession->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc");
    task->resume();
    ASSERT_TRUE(hung.waitForRequests(2));
    EXPECT_EQ(wifiSession->allTasks().size(), 1u);
    task->cancel();
    ASSERT_TRUE(wifiDelegate->waitFor("complete"));
    EXPECT_EQ(wifiDelegate->completions()[0].error->code, URLError::cancelled);
    EXPECT_TRUE(wifiSession->allTasks().empty());

    // Offline, or cellular only for a session that may not use it: refused at once.
    network_->setFlags(0);
    session->uploadTaskWithRequest(uploadRequest(server.url(), 3), "abc")->resume();
    ASSERT_TRUE(delegate_->waitFor("complete", cases.size() + 1));
    network_->setFlags(ReachabilityFlags::reachable | ReachabilityFlags::isWWAN);
    wifiSession->uploadTaskWithRequest(uploadRequest("https://collector.invalid/api/event_batches", 3), "abc")
        ->resume();
    ASSERT_TRUE(wifiDelegate->waitFor("complete", 2));
    for (const auto& error : {delegate_->completions().back().error, wifiDelegate->completions()[1].error}) {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, URLError::notConnectedToInternet);
        EXPECT_EQ(error->localizedDescription, "The Internet connection appears to be offline.");
    }
    EXPECT_EQ(server.accepted(), 0);

    // Over the same cellular route, a session that allows it sends.
    session->uploadTaskWithRequest(uploadRequest(server.url(), 3), "abc")->resume();
    ASSERT_TRUE(delegate_->waitFor("complete", cases.size() + 2));
    EXPECT_EQ(delegate_->completions().back().status, 201);
}

TEST_F(CurlUrlSessionTest, BackgroundTaskIsJournaledWithoutCredentialsUntilDelivered) {
    const BackgroundTaskJournal journal(dir_ / "BackgroundSessions", "bg");
    std::string journalAtSend;
    unsigned journalMode = 0;
    RawServer server([&](int fd, const std::string& request) {
        journalAtSend = test::readFile(journal.file());
        journalMode = test::fileMode(journal.file());
        return answerCreated(fd, request);
    });
    server.listen();
    delegate_->journal_ = journal.file();
    auto factory = makeFactory();
    auto session = backgroundSession(factory, "bg");
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch", "abc"))->resume();
    ASSERT_TRUE(delegate_->waitFor("finish"));

    EXPECT_NE(journalAtSend.find(server.url()), std::string::npos);
    EXPECT_EQ(journalAtSend.find("secret-token"), std::string::npos);
    EXPECT_EQ(journalMode, 0600u);
    // The token still went over the wire.
    EXPECT_NE(server.requests()[0].find("Authorization: Bearer secret-token\r\n"), std::string::npos);

    EXPECT_EQ(delegate_->events(), (std::vector<std::string>{"data", "complete", "finish"}));
    EXPECT_EQ(delegate_->completions()[0].status, 201);
    EXPECT_TRUE(delegate_->completions()[0].journalPresent);  // removed only after the delegate had it
    EXPECT_FALSE(std::filesystem::exists(journal.file()));
}

TEST_F(CurlUrlSessionTest, BackgroundTaskIsRetriedUntilTheServiceAndNetworkAreBack) {
    CurlUrlSessionOptions options;
    options.backgroundRetryDelay = 10;
    options.backgroundRetryMaxDelay = 15;
    RawServer server(answerCreated);  // refuses until it listens
    auto factory = makeFactory(options);
    auto session = backgroundSession(factory, "retry");
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch", "abc"))->resume();

    runLoop_->runUntilIdle();
    EXPECT_EQ(runLoop_->nextPendingDelay(), 10.0);
    runLoop_->fastForwardBy(10);
    EXPECT_EQ(runLoop_->nextPendingDelay(), 15.0);  // doubled, up to the maximum
    EXPECT_TRUE(delegate_->completions().empty());
    server.listen();
    runLoop_->fastForwardBy(15);
    ASSERT_TRUE(delegate_->waitFor("finish"));
    EXPECT_EQ(delegate_->completions()[0].status, 201);
    EXPECT_EQ(server.requests().size(), 1u);

    // Offline: the task waits, and goes as soon as the network reports itself back.
    network_->setFlags(0);
    session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch2", "abc"))->resume();
    runLoop_->runUntilIdle();
    EXPECT_EQ(delegate_->completions().size(), 1u);
    network_->setFlags(ReachabilityFlags::reachable);
    ASSERT_TRUE(delegate_->waitFor("complete", 2));
    EXPECT_EQ(delegate_->completions()[1].status, 201);

    // Past the resource time-out a waiting task gives up.
    auto shortLived = UrlSessionConfiguration::backgroundSessionConfigurationWithIdentifier("short");
    shortLived.timeoutIntervalForResource = 25;
    auto shortDelegate = std::make_shared<Recorder>();
    auto shortSession = factory->makeSession(shortLived, shortDelegate);
    RawServer closed(answerCreated);
    shortSession->uploadTaskWithRequestFromFile(uploadRequest(closed.url(), 3), bodyFile("batch3", "abc"))->resume();
    runLoop_->fastForwardBy(100);
    ASSERT_TRUE(shortDelegate->waitFor("complete"));
    EXPECT_EQ(shortDelegate->completions()[0].error->code, URLError::timedOut);
}

TEST_F(CurlUrlSessionTest, RelaunchedSessionResendsPendingTaskWithRestoredCredentials) {
    std::atomic<int> seen{0};
    RawServer server([&](int fd, const std::string& request) {
        if (seen++ == 0) return RawServer::hang(fd, request);  // the first process dies meanwhile
        return answerCreated(fd, request);
    });
    server.listen();
    const auto file = bodyFile("batch", binaryBody(5000));
    {
        auto session = backgroundSession(makeFactory(), "bg");
        session->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 5000), file)->resume();
        ASSERT_TRUE(server.waitForRequests(1));
    }
    EXPECT_TRUE(delegate_->events().empty());

    auto relaunched = std::make_shared<Recorder>();
    auto session = backgroundSession(makeFactory(), "bg", relaunched);
    EXPECT_EQ(session->allTasks().size(), 1u);
    ASSERT_TRUE(relaunched->waitFor("finish"));
    EXPECT_EQ(relaunched->events(), (std::vector<std::string>{"resend", "data", "complete", "finish"}));
    EXPECT_EQ(relaunched->completions()[0].status, 201);
    EXPECT_EQ(relaunched->completions()[0].properties, uploadRequest("", 0).properties);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[1].find("X-Content-Encoding: gzip\r\n"), std::string::npos);
    EXPECT_NE(requests[1].find("Authorization: Bearer restored-token\r\n"), std::string::npos);
    EXPECT_EQ(requests[1].find("secret-token"), std::string::npos);
    EXPECT_EQ(bodyOf(requests[1]), binaryBody(5000));
    EXPECT_FALSE(std::filesystem::exists(BackgroundTaskJournal(dir_ / "BackgroundSessions", "bg").file()));
}

TEST_F(CurlUrlSessionTest, NewerBackgroundSessionTakesOverFromOneStillHeld) {
    std::atomic<int> seen{0};
    RawServer server([&](int fd, const std::string& request) {
        if (seen++ == 0) return RawServer::hang(fd, request);
        return answerCreated(fd, request);
    });
    server.listen();
    auto factory = makeFactory();
    auto older = backgroundSession(factory, "shared");
    older->uploadTaskWithRequestFromFile(uploadRequest(server.url(), 3), bodyFile("batch", "abc"))->resume();
    ASSERT_TRUE(server.waitForRequests(1));

    auto newerDelegate = std::make_shared<Recorder>();
    auto newer = backgroundSession(factory, "shared", newerDelegate);
    ASSERT_TRUE(newerDelegate->waitFor("finish"));
    EXPECT_EQ(newerDelegate->completions()[0].status, 201);
    // The older session neither delivers nor sends again, even once its transfer is gone.
    older->invalidateAndCancel();
    older.reset();
    EXPECT_TRUE(delegate_->events().empty());
    EXPECT_EQ(server.requests().size(), 2u);
}

TEST_F(CurlUrlSessionTest, DamagedJournalsAndMissingBodyFilesDoNotBlockTheSession) {
    test::ConsoleCapture console;
    const auto directory = dir_ / "BackgroundSessions";
    std::filesystem::create_directories(directory);
    const BackgroundTaskJournal garbage(directory, "garbage");
    test::writeFile(garbage.file(), "{\"version\":1,\"tasks\":[{\"url\":");
    auto factory = makeFactory();
    auto first = backgroundSession(factory, "garbage");
    EXPECT_TRUE(first->allTasks().empty());
    EXPECT_FALSE(std::filesystem::exists(garbage.file()));
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("Dropped the background session journal"), std::string::npos);

    // One good entry whose body file has gone, one entry of the wrong shape.
    const BackgroundTaskJournal mixed(directory, "mixed");
    ASSERT_TRUE(mixed.store({JournaledTask{7, uploadRequest("http://127.0.0.1:9/x", 3), dir_ / "gone", clock_->now()}}));
    auto text = test::readFile(mixed.file());
    text.insert(text.find("[") + 1, "{\"taskIdentifier\":\"eight\"},");
    test::writeFile(mixed.file(), text);
    auto delegate = std::make_shared<Recorder>();
    auto second = backgroundSession(factory, "mixed", delegate);
    ASSERT_TRUE(delegate->waitFor("finish"));
    ASSERT_EQ(delegate->completions().size(), 1u);
    EXPECT_EQ(delegate->completions()[0].task, 7u);
    EXPECT_EQ(delegate->completions()[0].error->code, URLError::fileDoesNotExist);
    EXPECT_TRUE(console.contains("Dropped an unreadable task from the background session journal " +
                                 mixed.file().string()));
    EXPECT_FALSE(std::filesystem::exists(mixed.file()));
    // New tasks do not reuse a restored task's identifier.
    EXPECT_GT(second->uploadTaskWithRequestFromFile(uploadRequest("http://127.0.0.1:9/x", 3), dir_ / "f")
                  ->taskIdentifier(),
              7u);
}

TEST_F(CurlUrlSessionTest, InvalidateAndCancelEndsEverythingThenRefusesTasks) {
    RawServer hung(RawServer::hang);
    hung.listen();
    auto factory = makeFactory();
    auto session = factory->makeSession(UrlSessionConfiguration::defaultSessionConfiguration(), delegate_);
    session->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc")->resume();
    auto notStarted = session->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc");
    ASSERT_TRUE(hung.waitForRequests(1));
    session->invalidateAndCancel();
    ASSERT_TRUE(delegate_->waitFor("invalid"));
    EXPECT_EQ(delegate_->events(), (std::vector<std::string>{"complete", "complete", "invalid"}));
    for (const auto& completion : delegate_->completions()) EXPECT_EQ(completion.error->code, URLError::cancelled);

    test::ConsoleCapture console;
    session->uploadTaskWithRequest(uploadRequest(hung.url(), 3), "abc")->resume();
    EXPECT_TRUE(session->allTasks().empty());
    EXPECT_EQ(console.lines().size(), 1u);
    EXPECT_EQ(hung.accepted(), 1);
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
