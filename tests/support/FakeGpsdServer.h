#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace rovalis::test {

// A stand-in for gpsd on the loopback interface: it accepts one client at a time, records
// the lines the client sends and writes whatever the test gives it. It answers nothing by
// itself, so the test decides every reply.
class FakeGpsdServer {
public:
    // Listens on 127.0.0.1 at the port (0: any free port).
    explicit FakeGpsdServer(std::uint16_t port = 0);
    // Closes the connection and the listening socket and joins the thread.
    ~FakeGpsdServer();
    FakeGpsdServer(const FakeGpsdServer&) = delete;
    FakeGpsdServer& operator=(const FakeGpsdServer&) = delete;

    std::uint16_t port() const { return port_; }

    // Clients accepted so far.
    std::size_t connections() const;
    bool clientConnected() const;
    // Every line received so far (on any connection), without its line end.
    std::vector<std::string> lines() const;
    std::size_t count(const std::string& line) const;

    // Waits up to the time-out for the condition, checked again whenever a client comes or
    // goes or a line arrives; false when it did not come true.
    bool waitUntil(const std::function<bool()>& condition,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    bool waitForConnections(std::size_t count) const;
    bool waitForLine(const std::string& line, std::size_t occurrences = 1) const;

    // Writes the bytes to the client; false when there is none or it has gone.
    bool send(std::string_view bytes);
    // A line end (CR-LF, as gpsd writes it) follows the text.
    bool sendLine(std::string_view text) { return send(std::string(text) + "\r\n"); }
    // Closes the current client's connection; the client sees gpsd going away.
    void dropClient();

private:
    void run();
    void closeClientLocked();

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int listener_ = -1;
    int client_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    bool stopping_ = false;
    std::size_t connections_ = 0;
    std::string partial_;
    std::vector<std::string> lines_;
    std::thread thread_;
};

}  // namespace rovalis::test
