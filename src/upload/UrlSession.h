#pragma once

// HTTP transfers in the shape of the platform's URL sessions: a session has a
// configuration and a delegate, makes upload tasks, and reports each task's body bytes and
// completion to its delegate on its own delegate thread. A background session's tasks
// upload from files and survive the process: a restarted process that makes the session
// again gets the outcome of the tasks the old one left pending.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/Error.h"

namespace rovalis {

// Transport errors carry the platform's URL error domain and codes.
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";
namespace URLError {
inline constexpr long unknown = -1;
inline constexpr long cancelled = -999;
inline constexpr long badURL = -1000;
inline constexpr long timedOut = -1001;
inline constexpr long unsupportedURL = -1002;
inline constexpr long cannotFindHost = -1003;
inline constexpr long cannotConnectToHost = -1004;
inline constexpr long networkConnectionLost = -1005;
inline constexpr long httpTooManyRedirects = -1007;
inline constexpr long badServerResponse = -1011;
inline constexpr long notConnectedToInternet = -1009;
inline constexpr long fileDoesNotExist = -1100;
inline constexpr long secureConnectionFailed = -1200;
inline constexpr long serverCertificateUntrusted = -1202;
inline constexpr long cannotOpenFile = -3000;
}  // namespace URLError

struct UrlRequest {
    std::string url;
    std::string httpMethod = "GET";
    // In the order they are sent.
    std::vector<std::pair<std::string, std::string>> headers;
    // Travel with the task and come back with it (a background task's survive a relaunch);
    // never sent.
    std::map<std::string, Date> properties;
    std::map<std::string, std::string> textProperties;

    // The first header of that name, compared without regard to case.
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
    // Replaces every header of that name, or adds it at the end.
    void setValueForHTTPHeaderField(std::string value, std::string_view name);
};

struct UrlSessionConfiguration {
    // Set exactly for a background session.
    std::optional<std::string> identifier;
    bool allowsCellularAccess = true;
    bool discretionary = false;
    bool sessionSendsLaunchEvents = false;
    // A request that makes no progress for this long fails with a time-out.
    double timeoutIntervalForRequest = 60.0;
    // A request whose bytes, up and down together, average fewer than minimumBytesPerSecond
    // over the last lowSpeedWindow seconds fails with a time-out too: a server that trickles
    // a byte now and then never trips the idle time-out, yet must not hold an upload (and
    // the queue waiting on it) for long. A minimum of zero turns the floor off.
    double minimumBytesPerSecond = 1024.0;
    double lowSpeedWindow = 60.0;
    // A background task that has not completed within this long fails with a time-out.
    double timeoutIntervalForResource = 7 * 24 * 3600.0;

    static UrlSessionConfiguration defaultSessionConfiguration() { return {}; }
    static UrlSessionConfiguration backgroundSessionConfigurationWithIdentifier(std::string identifier) {
        UrlSessionConfiguration configuration;
        configuration.identifier = std::move(identifier);
        return configuration;
    }
    bool isBackground() const { return identifier.has_value(); }
};

class UrlSessionTask {
public:
    virtual ~UrlSessionTask() = default;
    virtual std::uint64_t taskIdentifier() const = 0;
    virtual const UrlRequest& originalRequest() const = 0;
    // The HTTP status of the response; 0 while there is none.
    virtual long statusCode() const = 0;
    virtual void resume() = 0;
    // Ends the task with a cancelled error (a task that has completed is left alone).
    virtual void cancel() = 0;

    // Where the delegate gathers the task's response body as it arrives. It belongs to the
    // task, so the bodies of two tasks never mix and every task starts with none; the
    // session never touches it. Used on the session's delegate thread only.
    std::string& delegateResponseBody() { return delegateResponseBody_; }

private:
    std::string delegateResponseBody_;
};

class UrlSession;

// Called on the session's own delegate thread, one call at a time.
class UrlSessionDelegate {
public:
    virtual ~UrlSessionDelegate() = default;
    virtual void didReceiveData(UrlSession& session, UrlSessionTask& task, std::string_view data) = 0;
    // error: the transport error, or none when a response arrived (whatever its status).
    virtual void didCompleteWithError(UrlSession& session, UrlSessionTask& task,
                                      const std::optional<Error>& error) = 0;
    // A background session has delivered every event it had for this process.
    virtual void didFinishEventsForBackgroundURLSession(UrlSession& session) = 0;
    virtual void didBecomeInvalidWithError(UrlSession& session, const std::optional<Error>& error) = 0;
    // A background task left by an earlier process is about to be sent again. Its request
    // was kept without credentials; the delegate puts them back.
    virtual void willResendRestoredTask(UrlSession& /*session*/, UrlRequest& /*request*/) {}
};

class UrlSession {
public:
    virtual ~UrlSession() = default;
    virtual const UrlSessionConfiguration& configuration() const = 0;
    // Foreground sessions: the body is in memory.
    virtual std::shared_ptr<UrlSessionTask> uploadTaskWithRequest(const UrlRequest& request, std::string body) = 0;
    // The body is read from the file when the task runs.
    virtual std::shared_ptr<UrlSessionTask> uploadTaskWithRequestFromFile(const UrlRequest& request,
                                                                          const std::filesystem::path& file) = 0;
    // Tasks that have not completed yet.
    virtual std::vector<std::shared_ptr<UrlSessionTask>> allTasks() = 0;
    // Cancels every task, then tells the delegate that the session became invalid. The
    // session makes no task afterwards, and lives on until it has told its delegate, so the
    // caller may let go of it right after this call.
    virtual void invalidateAndCancel() = 0;
};

class UrlSessionFactory {
public:
    virtual ~UrlSessionFactory() = default;
    // The delegate is held weakly; one that has gone is not called.
    virtual std::shared_ptr<UrlSession> makeSession(const UrlSessionConfiguration& configuration,
                                                    std::weak_ptr<UrlSessionDelegate> delegate) = 0;
};

}  // namespace rovalis
