#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "rovalis/RunLoop.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

// Where gpsd listens and how the client treats it.
struct GpsdOptions {
    std::string host = "127.0.0.1";
    std::uint16_t port = 2947;
    // A reply line longer than this (without its line end) is dropped unread. gpsd's own
    // limit is about 10 KB.
    std::size_t maximumLineBytes = 64 * 1024;
    // After a failed or lost connection the next attempt waits this long, doubling after
    // every further failure up to the maximum; a connection that answers starts afresh.
    double firstRetryDelaySeconds = 1.0;
    double maximumRetryDelaySeconds = 60.0;
    // An attempt to connect that has not completed by then fails.
    double connectTimeoutSeconds = 10.0;
    // While not watching, gpsd reports no device changes; its device list is asked for this
    // often instead.
    double devicePollIntervalSeconds = 30.0;
};

// The delay before the next attempt after one that waited `previous` seconds.
double nextGpsdRetryDelay(double previous, const GpsdOptions& options);

// Whether gpsd can be reached and knows a device to take fixes from. Until gpsd has sent
// its device list on a connection, hasDevice says nothing yet: deviceListKnown tells.
struct GpsdStatus {
    bool connected = false;
    bool hasDevice = false;
    bool deviceListKnown = false;

    friend bool operator==(const GpsdStatus&, const GpsdStatus&) = default;
};

// What a connection to gpsd reports, always on the main run loop.
class GpsdConnectionDelegate {
public:
    virtual ~GpsdConnectionDelegate() = default;
    virtual void gpsdStatusDidChange(const GpsdStatus& status) = 0;
    virtual void gpsdDidReceiveFix(const Location& fix) = 0;
    // An attempt to connect failed or a connection ended; another attempt is scheduled.
    virtual void gpsdConnectionDidEnd() {}
};

// A connection to gpsd as the location service drives it. Used from the main run loop.
class GpsdConnection {
public:
    virtual ~GpsdConnection() = default;
    // Held weakly; set it before start().
    virtual void setDelegate(std::weak_ptr<GpsdConnectionDelegate> delegate) = 0;
    virtual void start() = 0;
    // Whether gpsd should stream its reports (and keep its receivers powered). Kept across
    // reconnections.
    virtual void setWatching(bool watching) = 0;
    virtual GpsdStatus status() const = 0;
};

// A client of gpsd's JSON protocol over TCP. A thread of its own connects, sends the watch
// requests and reads the newline-delimited replies; it reports only by posting to the main
// run loop. Retries and device polls are timers on the main run loop, so they follow its
// clock. Every reply is outside input: what cannot be read is counted and dropped.
class GpsdClient final : public GpsdConnection, public std::enable_shared_from_this<GpsdClient> {
public:
    // What the client has seen so far. Safe to read from any thread.
    struct Counters {
        std::uint64_t connectionAttempts = 0;
        std::uint64_t connections = 0;
        std::uint64_t fixes = 0;
        // Over-long lines, lines that are not gpsd objects, reports with wrong values.
        std::uint64_t ignoredLines = 0;
    };

    static std::shared_ptr<GpsdClient> create(std::shared_ptr<RunLoop> mainRunLoop, GpsdOptions options);
    // Closes the connection and joins the thread; nothing more is reported.
    ~GpsdClient() override;
    GpsdClient(const GpsdClient&) = delete;
    GpsdClient& operator=(const GpsdClient&) = delete;

    void setDelegate(std::weak_ptr<GpsdConnectionDelegate> delegate) override;
    // Safe from any thread.
    void start() override;
    void setWatching(bool watching) override;
    GpsdStatus status() const override { return status_; }

    Counters counters() const;
    const GpsdOptions& options() const { return options_; }

private:
    GpsdClient(std::shared_ptr<RunLoop> mainRunLoop, GpsdOptions options);

    // On the main run loop.
    void requestConnection();
    void connectionEnded();
    void connectionAnswered();
    void applyStatus(GpsdStatus status);
    void updateDevicePolling();
    std::string address() const;

    // On the client's thread.
    void run();
    bool waitForConnectionRequest();
    int connectSocket();
    void serve(int socket);
    struct Session {
        std::set<std::string> devices;
        bool deviceListKnown = false;
        bool answered = false;
    };
    void handleLine(std::string_view line, bool watching, Session& session);
    void report(GpsdStatus status);
    void wake();

    const std::shared_ptr<RunLoop> runLoop_;
    const GpsdOptions options_;
    std::weak_ptr<GpsdClient> self_;

    // Main run loop state.
    std::weak_ptr<GpsdConnectionDelegate> delegate_;
    GpsdStatus status_;
    bool outageLogged_ = false;
    bool watching_ = false;
    double retryDelay_;
    std::shared_ptr<RunLoopTimer> retryTimer_;
    std::shared_ptr<RunLoopTimer> devicePollTimer_;

    // Requests from the main run loop to the thread.
    std::mutex mutex_;
    bool started_ = false;
    bool stopping_ = false;
    bool connectRequested_ = false;
    bool watchRequested_ = false;
    bool devicePollRequested_ = false;

    std::atomic<std::uint64_t> connectionAttempts_{0};
    std::atomic<std::uint64_t> connections_{0};
    std::atomic<std::uint64_t> fixes_{0};
    std::atomic<std::uint64_t> ignoredLines_{0};

    // The client's thread: the status it last posted.
    GpsdStatus lastReported_;

    int wakePipe_[2] = {-1, -1};
    std::thread thread_;
};

}  // namespace rovalis
