#pragma once

// The thin libcurl layer under the URL sessions: one HTTP request at a time over an easy
// handle that is kept (with its connections) between requests. Bounded by a connect and an
// idle time-out and by a floor on its average rate, and interruptible from any thread.

#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rovalis/Error.h"
#include "upload/UrlSession.h"

namespace rovalis {

// Where a request goes, as far as the refusal rules care.
struct RequestTarget {
    std::string scheme;  // lower case
    std::string host;    // as written in the URL, IPv6 addresses in brackets
    bool loopback = false;
};

// The request's target, or the error that refuses it: a URL that cannot be parsed, a scheme
// other than http and https, plain http to a host that is not loopback, or a header whose
// name or value could break the request's framing.
std::optional<Error> checkRequest(const UrlRequest& request, RequestTarget* target);

// localhost, 127.0.0.0/8 and ::1 (with or without brackets).
bool isLoopbackHost(std::string_view host);

Error urlError(long code, std::string description);

// What a transfer may take before it fails with a time-out.
struct CurlTransferLimits {
    // No byte moves in either direction for this long.
    double idleTimeoutSeconds = 60.0;
    // Fewer bytes than this a second, up and down together, on average over the last
    // lowSpeedWindowSeconds (judged once the transfer is that old). Zero turns it off.
    double minimumBytesPerSecond = 1024.0;
    double lowSpeedWindowSeconds = 60.0;
    // A response body longer than this ends the transfer with a bad-server-response error: a
    // service answers an upload in a few hundred bytes, and a body that goes on for ever
    // would hold the upload however fast it came.
    std::size_t maxResponseBytes = 1u << 20;
};

struct CurlTransferResult {
    // The HTTP status of the response; 0 when none arrived.
    long statusCode = 0;
    // None exactly when a response arrived.
    std::optional<Error> error;
    // Whether sending the same request again may succeed (a transport failure, not a
    // refused request or a missing body file).
    bool transient = false;
};

class CurlTransfer {
public:
    CurlTransfer();
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    struct Body {
        // Sent when file is not set.
        std::string_view data;
        std::optional<std::filesystem::path> file;
    };

    // Sends the request and waits for the whole response, handing the body's bytes to
    // onData as they arrive. Fails with a time-out when it breaks the limits, and with a
    // cancellation as soon as stop() is true (checked whenever the transfer wakes, which
    // wakeUp() forces). Called from one thread at a time.
    CurlTransferResult perform(const UrlRequest& request, const Body& body, const CurlTransferLimits& limits,
                               const std::function<void(std::string_view)>& onData,
                               const std::function<bool()>& stop);
    // The same with the given idle time-out and the default floor.
    CurlTransferResult perform(const UrlRequest& request, const Body& body, double idleTimeoutSeconds,
                               const std::function<void(std::string_view)>& onData,
                               const std::function<bool()>& stop) {
        return perform(request, body, CurlTransferLimits{.idleTimeoutSeconds = idleTimeoutSeconds}, onData, stop);
    }

    // Makes a running perform() look at stop() at once. Safe from any thread.
    void wakeUp();

private:
    // The libcurl multi and easy handles (kept opaque here).
    void* multi_;
    void* easy_;
    // The sockets of the connections open on them, for what their send queues still hold.
    std::vector<int> openSockets_;
};

}  // namespace rovalis
