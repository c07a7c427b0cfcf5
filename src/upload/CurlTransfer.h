#pragma once

// The thin libcurl layer under the URL sessions: one HTTP request at a time over an easy
// handle that is kept (with its connections) between requests. Bounded by a connect and an
// idle time-out, and interruptible from any thread.

#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

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
    // onData as they arrive. Fails with a time-out when no byte moves in either direction
    // for idleTimeoutSeconds, and with a cancellation as soon as stop() is true (checked
    // whenever the transfer wakes, which wakeUp() forces). Called from one thread at a time.
    CurlTransferResult perform(const UrlRequest& request, const Body& body, double idleTimeoutSeconds,
                               const std::function<void(std::string_view)>& onData,
                               const std::function<bool()>& stop);

    // Makes a running perform() look at stop() at once. Safe from any thread.
    void wakeUp();

private:
    // The libcurl multi and easy handles (kept opaque here).
    void* multi_;
    void* easy_;
};

}  // namespace rovalis
