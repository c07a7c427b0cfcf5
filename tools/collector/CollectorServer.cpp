#include "collector/CollectorServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace rovalis::collector {

namespace {

using nlohmann::json;

constexpr const char* batchPath = "/api/event_batches";
// Marks answers that the fault injection made, so they are not counted as refusals.
constexpr const char* faultHeader = "X-Collector-Fault";

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void answerText(httplib::Response& res, int status, const std::string& text) {
    res.status = status;
    res.set_content(text + "\n", "text/plain; charset=utf-8");
}

void answerJson(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_content(body.dump(), "application/json");
}

int portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return -1;
}

std::string hostOf(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
    } else if (address.ss_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text, sizeof text);
    }
    return text;
}

// The server's side of the connections that reached localPort: cpp-httplib does not hand
// its sockets to handlers, so they are found among the process's descriptors by their two
// addresses. Calls visit(fd, peer host, peer port) for each.
template <typename Visit>
void forEachServerConnection(int localPort, Visit visit) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const std::string name = entry.path().filename().string();
        int fd = -1;
        if (std::from_chars(name.data(), name.data() + name.size(), fd).ec != std::errc()) continue;
        sockaddr_storage local{}, peer{};
        socklen_t length = sizeof local;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) continue;
        if (portOf(local) != localPort) continue;
        length = sizeof peer;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) continue;
        visit(fd, hostOf(peer), portOf(peer));
    }
}

// Resets the connection (the client sees ECONNRESET) while its descriptor number stays open
// for cpp-httplib, which owns it and closes it later: closing the number outright would let
// another thread's new socket take it before the library closes it again. Closing a socket
// whose linger time is zero sends a reset; dup3 closes the connection's socket and puts an
// unconnected one, on which the library's own answer fails, under the same number in one step.
void resetConnection(int fd) {
    const linger abortive{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    const int placeholder = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (placeholder < 0 || ::dup3(placeholder, fd, O_CLOEXEC) < 0) {
        ::shutdown(fd, SHUT_RDWR);  // no answer at least, if no reset
    }
    if (placeholder >= 0) ::close(placeholder);
}

// A whole 200 answer as it goes on the wire, for the trickle, which writes it itself.
std::string rawAnswer(const std::string& body) {
    return std::string("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ") +
           std::to_string(body.size()) + "\r\nConnection: close\r\n" + faultHeader + ": trickle\r\n\r\n" + body;
}

// The faults that act after a batch is stored, in precedence order.
enum class AfterStore { none, close, reset, lateAnswer, trickle, garbage };

std::optional<std::string> faultsFromJson(const std::string& text, FaultOptions& out) {
    json body;
    try {
        body = json::parse(text);
    } catch (const json::exception& error) {
        return std::string("the fault settings are not JSON: ") + error.what();
    }
    if (!body.is_object()) return std::string("the fault settings must be a JSON object");
    FaultOptions faults;
    const std::pair<const char*, int FaultOptions::*> counts[] = {
        {"fail_every", &FaultOptions::failEvery},
        {"fail_status", &FaultOptions::failStatus},
        {"delay_ms", &FaultOptions::delayMs},
        {"drop_every", &FaultOptions::dropEvery},
        {"garbage_every", &FaultOptions::garbageEvery},
        {"close_after_store_every", &FaultOptions::closeAfterStoreEvery},
        {"reset_after_store_every", &FaultOptions::resetAfterStoreEvery},
        {"late_answer_every", &FaultOptions::lateAnswerEvery},
        {"late_answer_ms", &FaultOptions::lateAnswerMs},
        {"trickle_every", &FaultOptions::trickleEvery},
        {"trickle_interval_ms", &FaultOptions::trickleIntervalMs}};
    for (const auto& [key, value] : body.items()) {
        if (key == "fail_body") {
            if (!value.is_string()) return std::string("\"fail_body\" must be a string");
            faults.failBody = value.get<std::string>();
            continue;
        }
        bool known = false;
        for (const auto& [name, member] : counts) {
            if (key != name) continue;
            known = true;
            if (!value.is_number_integer() || value.get<std::int64_t>() < 0 ||
                value.get<std::int64_t>() > 24 * 3600 * 1000) {
                return "\"" + key + "\" must be a non-negative integer";
            }
            faults.*member = value.get<int>();
        }
        if (!known) return "unknown fault setting \"" + key + "\"";
    }
    if (faults.failStatus < 200 || faults.failStatus > 599) return std::string("\"fail_status\" must be 200..599");
    out = faults;
    return std::nullopt;
}

json faultsToJson(const FaultOptions& faults) {
    return json{{"fail_every", faults.failEvery},
                {"fail_status", faults.failStatus},
                {"fail_body", faults.failBody},
                {"delay_ms", faults.delayMs},
                {"drop_every", faults.dropEvery},
                {"garbage_every", faults.garbageEvery},
                {"close_after_store_every", faults.closeAfterStoreEvery},
                {"reset_after_store_every", faults.resetAfterStoreEvery},
                {"late_answer_every", faults.lateAnswerEvery},
                {"late_answer_ms", faults.lateAnswerMs},
                {"trickle_every", faults.trickleEvery},
                {"trickle_interval_ms", faults.trickleIntervalMs}};
}

}  // namespace

std::string statsJson(const Stats& stats) {
    json rejected = json::object();
    for (const auto& [status, count] : stats.requestsRejected) rejected[std::to_string(status)] = count;
    return json{{"batches", stats.batches},
                {"events", stats.events},
                {"events_by_type", stats.eventsByType},
                {"devices", stats.devices},
                {"sequential_id_gaps", stats.sequentialIdGaps},
                {"sequential_id_step_backs", stats.sequentialIdStepBacks},
                {"batch_requests", stats.batchRequests},
                {"duplicates_refused", stats.duplicatesRefused},
                {"conflicts", stats.conflicts},
                {"body_bytes", stats.bodyBytes},
                {"document_bytes", stats.documentBytes},
                {"requests_rejected", rejected},
                {"faults_injected", stats.faultsInjected}}
        .dump();
}

namespace {

// A JSON string: the text is valid UTF-8 (the validator saw to that), so only quotes,
// backslashes and control characters need escapes.
void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out.push_back('"');
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (byte < 0x20) {
            out += "\\u00";
            out.push_back(hex[byte >> 4]);
            out.push_back(hex[byte & 0xF]);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
}

void appendEventJson(std::string& out, const StoredEventView& event) {
    out += out.empty() ? "[" : ",";
    out += "{\"batch_id\":";
    appendJsonString(out, event.batchId);
    out += ",\"payload\":";
    appendJsonString(out, event.payload);
    out += ",\"tracked_at_ms\":" + std::to_string(event.trackedAtMs) + ",\"type\":";
    appendJsonString(out, event.type);
    out += "}";
}

// A non-negative whole number of a query parameter; none when it is absent.
std::optional<std::int64_t> countParameter(const httplib::Request& req, const char* name, std::string& problem) {
    if (!req.has_param(name)) return std::nullopt;
    const std::string text = req.get_param_value(name);
    std::int64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size() || value < 0) {
        problem = std::string("\"") + name + "\" must be a non-negative whole number";
    }
    return value;
}

}  // namespace

std::string eventsJson(const std::vector<StoredEvent>& events) {
    std::string out;
    for (const auto& event : events) {
        appendEventJson(out, StoredEventView{event.batchId, event.type, event.trackedAtMs, event.payload});
    }
    return out.empty() ? "[]" : out + "]";
}

struct CollectorServer::Impl {
    explicit Impl(CollectorOptions opts) : options(std::move(opts)), store(options.databasePath) {
        faults = options.faults;
        storedBatches = static_cast<std::size_t>(store.totals().batches);
    }

    CollectorOptions options;
    CollectorStore store;
    httplib::Server server;
    std::thread listener;
    int boundPort = 0;
    bool started = false;
    bool stopped = false;
    std::atomic<bool> listenerEnded{false};

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    FaultOptions faults;
    std::uint64_t requestNumber = 0;  // batch requests since the faults were set
    std::size_t storedBatches = 0;
    std::size_t handledRequests = 0;
    bool stopping = false;
    // Connections whose upload is being handled or answered: from the handler's start until
    // the answer is written (the logger runs then).
    std::multiset<int> activePeerPorts;
    Stats counters;                      // the run's request figures

    void routes();
    void handleBatch(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader);
    void refuse(httplib::Response& res, const Rejection& rejection);
    // Writes the answer one byte per interval, so the client sees a transfer that makes
    // almost no progress, then ends the connection so that the library's own answer never
    // follows. Stops when a write fails (the client has gone); once the service is stopping,
    // the rest goes out at once.
    void trickle(int fd, std::string_view answer, std::chrono::milliseconds interval);

    // The server's socket of the request's connection, or -1.
    int connectionOf(const httplib::Request& req) const {
        int found = -1;
        forEachServerConnection(boundPort, [&](int fd, const std::string& host, int peerPort) {
            if (found < 0 && peerPort == req.remote_port && host == req.remote_addr) found = fd;
        });
        return found;
    }
    // Waits up to the duration; true when the service is stopping (at once if it is).
    bool waitUnlessStopping(std::chrono::milliseconds duration) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, duration, [this] { return stopping; });
    }
    Stats snapshot() const {
        std::lock_guard lock(mutex);
        return snapshotLocked();
    }
    // The store has a lock of its own, taken only ever after this one.
    Stats snapshotLocked() const {
        const StoreTotals totals = store.totals();
        Stats stats = counters;
        stats.batches = totals.batches;
        stats.events = totals.events;
        stats.eventsByType = totals.eventsByType;
        stats.devices = totals.devices;
        stats.sequentialIdGaps = totals.sequentialIdGaps;
        stats.sequentialIdStepBacks = totals.sequentialIdStepBacks;
        return stats;
    }
    void countFault(const char* name) {
        std::lock_guard lock(mutex);
        ++counters.faultsInjected[name];
        changed.notify_all();
    }
};

void CollectorServer::Impl::refuse(httplib::Response& res, const Rejection& rejection) {
    answerText(res, rejection.status, rejection.message);
}

void CollectorServer::Impl::routes() {
    server.Post(batchPath, [this](const httplib::Request& req, httplib::Response& res,
                                  const httplib::ContentReader& reader) { handleBatch(req, res, reader); });
    const auto wrongMethod = [](const httplib::Request& req, httplib::Response& res) {
        res.set_header("Allow", "POST");
        answerText(res, 405, "method " + req.method + " is not allowed on " + batchPath + "; use POST");
    };
    server.Get(batchPath, wrongMethod);
    server.Put(batchPath, wrongMethod);
    server.Patch(batchPath, wrongMethod);
    server.Delete(batchPath, wrongMethod);

    server.Get("/api/stats", [this](const httplib::Request&, httplib::Response& res) {
        res.set_content(statsJson(snapshot()), "application/json");
    });
    server.Get("/api/events", [this](const httplib::Request& req, httplib::Response& res) {
        std::string problem;
        const auto offset = countParameter(req, "offset", problem);
        const auto limit = countParameter(req, "limit", problem);
        if (!problem.empty()) return answerText(res, 400, problem);
        std::optional<std::string> device;
        if (req.has_param("device_id")) device = req.get_param_value("device_id");
        std::string out;
        try {
            store.forEachEvent(
                device, [&out](const StoredEventView& event) { appendEventJson(out, event); }, offset.value_or(0),
                limit.value_or(std::numeric_limits<std::int64_t>::max()));
        } catch (const std::exception& error) {
            return answerText(res, 500, error.what());
        }
        res.set_content(out.empty() ? "[]" : out + "]", "application/json");
    });
    server.Get("/control/faults", [this](const httplib::Request&, httplib::Response& res) {
        std::lock_guard lock(mutex);
        answerJson(res, 200, faultsToJson(faults));
    });
    server.Post("/control/faults", [this](const httplib::Request& req, httplib::Response& res) {
        FaultOptions parsed;
        if (auto problem = faultsFromJson(req.body, parsed)) {
            answerText(res, 400, *problem);
            return;
        }
        std::lock_guard lock(mutex);
        faults = parsed;
        requestNumber = 0;
        answerJson(res, 200, faultsToJson(faults));
    });

    server.set_logger([this](const httplib::Request& req, const httplib::Response&) {
        if (req.method != "POST" || req.path != batchPath) return;
        std::lock_guard lock(mutex);
        const auto entry = activePeerPorts.find(req.remote_port);
        if (entry != activePeerPorts.end()) activePeerPorts.erase(entry);
    });

    // Answers that cpp-httplib makes itself (no route, a broken request line) get a text
    // too; every refusal is counted here, just before it is written.
    server.set_error_handler(httplib::Server::HandlerWithResponse([this](const httplib::Request& req,
                                                                          httplib::Response& res) {
        if (res.has_header(faultHeader)) return httplib::Server::HandlerResponse::Unhandled;
        {
            std::lock_guard lock(mutex);
            ++counters.requestsRejected[res.status];
        }
        if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        if (res.status == 404) {
            answerText(res, 404, "no such endpoint: " + req.method + " " + req.path);
        } else if (res.status == 413) {
            answerText(res, 413, "the request body exceeds " + std::to_string(options.maxBodyBytes) + " bytes");
        } else {
            answerText(res, res.status, "the request was refused (status " + std::to_string(res.status) + ")");
        }
        return httplib::Server::HandlerResponse::Handled;
    }));
}

void CollectorServer::Impl::handleBatch(const httplib::Request& req, httplib::Response& res,
                                        const httplib::ContentReader& reader) {
    FaultOptions active;
    std::uint64_t number = 0;
    {
        std::lock_guard lock(mutex);
        number = ++requestNumber;
        ++counters.batchRequests;
        active = faults;
        activePeerPorts.insert(req.remote_port);
    }
    struct Handled {
        Impl& impl;
        ~Handled() {
            std::lock_guard lock(impl.mutex);
            ++impl.handledRequests;
            impl.changed.notify_all();
        }
    } handled{*this};

    const auto hits = [number](int every) { return every > 0 && number % static_cast<std::uint64_t>(every) == 0; };
    const bool drop = hits(active.dropEvery);
    const bool fail = !drop && hits(active.failEvery);
    AfterStore afterStore = AfterStore::none;
    if (!drop && !fail) {
        const std::pair<int, AfterStore> inPrecedence[] = {{active.closeAfterStoreEvery, AfterStore::close},
                                                           {active.resetAfterStoreEvery, AfterStore::reset},
                                                           {active.lateAnswerEvery, AfterStore::lateAnswer},
                                                           {active.trickleEvery, AfterStore::trickle},
                                                           {active.garbageEvery, AfterStore::garbage}};
        for (const auto& [every, fault] : inPrecedence) {
            if (hits(every)) {
                afterStore = fault;
                break;
            }
        }
    }
    // A client that reuses a connection sends a request again on a fresh one when the old
    // one closes without an answer, which would hide the fault. So while a fault that ends
    // connections is on, no connection is offered for reuse.
    if (active.dropEvery > 0 || active.closeAfterStoreEvery > 0 || active.resetAfterStoreEvery > 0) {
        res.set_header("Connection", "close");
    }

    std::string body;
    bool tooLarge = false;
    const bool complete = reader([&](const char* data, std::size_t length) {
        if (drop) return false;
        if (body.size() + length > options.maxBodyBytes) {
            tooLarge = true;
            return false;
        }
        body.append(data, length);
        return true;
    });

    if (drop) {
        res.set_header(faultHeader, "drop");
        res.status = 500;
        if (const int fd = connectionOf(req); fd >= 0) ::shutdown(fd, SHUT_RDWR);
        countFault("drop");
        return;
    }
    if (tooLarge || res.status == 413) {
        refuse(res, {413, "the request body exceeds " + std::to_string(options.maxBodyBytes) + " bytes"});
        return;
    }
    if (!complete) {
        refuse(res, {400, "the request body ended before all of it arrived"});
        return;
    }
    {
        std::lock_guard lock(mutex);
        counters.bodyBytes += static_cast<std::int64_t>(body.size());
    }

    if (active.delayMs > 0) {
        countFault("delay");
        waitUnlessStopping(std::chrono::milliseconds(active.delayMs));
    }
    if (fail) {
        countFault("fail");
        res.status = active.failStatus;
        res.set_header(faultHeader, "fail");
        res.set_content(active.failBody, "text/plain; charset=utf-8");
        return;
    }

    UserAgent agent;
    if (auto rejection = checkUploadHeaders(req.headers, body.size(), agent)) return refuse(res, *rejection);
    std::string document;
    if (auto rejection = gunzipBounded(body, options.maxInflatedBytes, document)) return refuse(res, *rejection);
    BatchDocument batch;
    if (auto rejection = parseBatchDocument(document, batch)) return refuse(res, *rejection);
    const auto documentBytes = static_cast<std::int64_t>(document.size());

    CollectorStore::Outcome outcome;
    try {
        outcome = store.store(batch, body, agent.deviceId, req.get_header_value("User-Agent"), nowMs());
    } catch (const std::exception& error) {
        return refuse(res, {500, error.what()});
    }
    std::string message;
    {
        std::lock_guard lock(mutex);
        if (outcome.conflict) {
            ++counters.conflicts;
        } else if (outcome.duplicate) {
            counters.documentBytes += documentBytes;
            ++counters.duplicatesRefused;
            message = "batch " + batch.id + " was received before; not stored again";
        } else {
            counters.documentBytes += documentBytes;
            ++storedBatches;
            message = "stored batch " + batch.id + " with " + std::to_string(batch.events.size()) + " events";
        }
    }
    if (outcome.conflict) {
        return refuse(res, {409, "batch " + batch.id + " was received before with other content; not stored"});
    }

    const std::string answer = json{{"message", message}}.dump();
    switch (afterStore) {
    case AfterStore::none:
        break;
    case AfterStore::close:
    case AfterStore::reset: {
        const char* name = afterStore == AfterStore::close ? "close_after_store" : "reset_after_store";
        countFault(name);
        res.status = 500;
        res.set_header(faultHeader, name);
        if (const int fd = connectionOf(req); fd >= 0) {
            if (afterStore == AfterStore::close) {
                ::shutdown(fd, SHUT_RDWR);
            } else {
                resetConnection(fd);
            }
        }
        return;
    }
    case AfterStore::lateAnswer:
        countFault("late_answer");
        // Then answered as usual, most often to a client that has given up and gone.
        waitUnlessStopping(std::chrono::milliseconds(active.lateAnswerMs));
        break;
    case AfterStore::trickle:
        countFault("trickle");
        res.status = 200;
        res.set_header(faultHeader, "trickle");
        if (const int fd = connectionOf(req); fd >= 0) {
            trickle(fd, rawAnswer(answer), std::chrono::milliseconds(active.trickleIntervalMs));
            return;
        }
        break;
    case AfterStore::garbage:
        countFault("garbage");
        res.status = 200;
        res.set_header(faultHeader, "garbage");
        res.set_content("}{ this answer is not JSON", "application/json");
        return;
    }
    res.status = 200;
    res.set_content(answer, "application/json");
}

void CollectorServer::Impl::trickle(int fd, std::string_view answer, std::chrono::milliseconds interval) {
    std::size_t sent = 0;
    while (sent < answer.size()) {
        const bool cutShort = waitUnlessStopping(sent == 0 ? std::chrono::milliseconds(0) : interval);
        const std::size_t length = cutShort ? answer.size() - sent : 1;
        const ssize_t written = ::send(fd, answer.data() + sent, length, MSG_NOSIGNAL);
        if (written <= 0) break;  // the client has gone
        sent += static_cast<std::size_t>(written);
    }
    ::shutdown(fd, SHUT_RDWR);
}

CollectorServer::CollectorServer(CollectorOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

CollectorServer::~CollectorServer() { stop(); }

void CollectorServer::start() {
    Impl& impl = *impl_;
    if (impl.started) throw std::logic_error("the collector was started already");
    impl.server.set_tcp_nodelay(true);
    impl.server.set_keep_alive_max_count(1000);
    impl.server.set_keep_alive_timeout(5);
    impl.server.set_payload_max_length(impl.options.maxBodyBytes);
    // Address reuse for quick restarts, but not port sharing: a second service on a port in
    // use must fail rather than split the uploads with the first.
    impl.server.set_socket_options([](int sock) {
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    impl.routes();

    const std::string& host = impl.options.host;
    int port = impl.options.port;
    if (port == 0) {
        port = impl.server.bind_to_any_port(host);
    } else if (!impl.server.bind_to_port(host, port)) {
        port = -1;
    }
    if (port <= 0) {
        throw std::runtime_error("rovalis-collector cannot listen on " + host + ":" +
                                 std::to_string(impl.options.port) +
                                 " (the address is not local or the port is in use)");
    }
    impl.boundPort = port;
    impl.started = true;
    impl.listener = std::thread([&impl] {
        impl.server.listen_after_bind();
        impl.listenerEnded = true;
    });
    // The server ignores a stop that comes before its accept loop runs, and the loop starts
    // on the thread just made: wait for it (a matter of microseconds) so stop always works.
    while (!impl.server.is_running() && !impl.listenerEnded) std::this_thread::yield();
}

void CollectorServer::stop() {
    Impl& impl = *impl_;
    if (!impl.started || impl.stopped) return;
    impl.stopped = true;
    {
        std::lock_guard lock(impl.mutex);
        impl.stopping = true;
        impl.changed.notify_all();
    }
    impl.server.stop();
    // Idle keep-alive connections would hold their worker until the keep-alive time-out;
    // closing their read side ends them now. Uploads in progress are left to finish: a
    // connection whose read side is closed counts as gone and would get no answer.
    std::multiset<int> active;
    {
        std::lock_guard lock(impl.mutex);
        active = impl.activePeerPorts;
    }
    forEachServerConnection(impl.boundPort, [&active](int fd, const std::string&, int peerPort) {
        if (active.count(peerPort) == 0) ::shutdown(fd, SHUT_RD);
    });
    if (impl.listener.joinable()) impl.listener.join();
}

int CollectorServer::port() const { return impl_->boundPort; }

std::string CollectorServer::baseURL() const {
    return "http://" + impl_->options.host + ":" + std::to_string(impl_->boundPort) + "/";
}

Stats CollectorServer::stats() const { return impl_->snapshot(); }

void CollectorServer::setFaults(FaultOptions faults) {
    std::lock_guard lock(impl_->mutex);
    impl_->faults = std::move(faults);
    impl_->requestNumber = 0;
}

FaultOptions CollectorServer::faults() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->faults;
}

std::vector<StoredBatch> CollectorServer::batches() const { return impl_->store.batches(); }

std::vector<StoredEvent> CollectorServer::events() const { return impl_->store.events(); }

void CollectorServer::forEachEvent(const std::optional<std::string>& deviceId,
                                   const std::function<void(const StoredEventView&)>& visit) const {
    impl_->store.forEachEvent(deviceId, visit);
}

bool CollectorServer::waitForBatches(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->storedBatches >= count; });
}

bool CollectorServer::waitForBatchRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->handledRequests >= count; });
}

}  // namespace rovalis::collector

namespace rovalis::collector {

bool CollectorServer::waitForStats(const std::function<bool(const Stats&)>& condition,
                                   std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return condition(impl_->snapshotLocked()); });
}

}  // namespace rovalis::collector
