#include "platform/linux/GpsdClient.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "platform/linux/GpsdProtocol.h"
#include "rovalis/Console.h"

namespace rovalis {

namespace {

void drain(int fd) {
    char buffer[64];
    while (::read(fd, buffer, sizeof(buffer)) > 0) {
    }
}

int pollMilliseconds(double seconds) {
    if (!(seconds > 0.0)) return 0;
    return static_cast<int>(std::min(std::ceil(seconds * 1000.0), 24.0 * 3600.0 * 1000.0));
}

}  // namespace

double nextGpsdRetryDelay(double previous, const GpsdOptions& options) {
    return std::min(std::max(previous * 2.0, options.firstRetryDelaySeconds), options.maximumRetryDelaySeconds);
}

std::shared_ptr<GpsdClient> GpsdClient::create(std::shared_ptr<RunLoop> mainRunLoop, GpsdOptions options) {
    std::shared_ptr<GpsdClient> client(new GpsdClient(std::move(mainRunLoop), std::move(options)));
    client->self_ = client;
    if (client->wakePipe_[0] >= 0) {
        client->thread_ = std::thread([raw = client.get()] { raw->run(); });
    } else {
        Console::log("gpsd client: no wake-up pipe, location service unavailable");
    }
    return client;
}

GpsdClient::GpsdClient(std::shared_ptr<RunLoop> mainRunLoop, GpsdOptions options)
    : runLoop_(std::move(mainRunLoop)), options_(std::move(options)), retryDelay_(options_.firstRetryDelaySeconds) {
    if (::pipe2(wakePipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        wakePipe_[0] = wakePipe_[1] = -1;
    }
}

GpsdClient::~GpsdClient() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    if (thread_.joinable()) {
        wake();
        thread_.join();
    }
    if (retryTimer_) retryTimer_->invalidate();
    if (devicePollTimer_) devicePollTimer_->invalidate();
    for (const int fd : wakePipe_) {
        if (fd >= 0) ::close(fd);
    }
}

void GpsdClient::setDelegate(std::weak_ptr<GpsdConnectionDelegate> delegate) { delegate_ = std::move(delegate); }

void GpsdClient::start() {
    bool first = false;
    {
        std::lock_guard lock(mutex_);
        if (!started_) first = started_ = true;
    }
    if (first) requestConnection();
}

void GpsdClient::setWatching(bool watching) {
    if (watching == watching_) return;
    watching_ = watching;
    {
        std::lock_guard lock(mutex_);
        watchRequested_ = watching;
    }
    wake();
    updateDevicePolling();
}

GpsdClient::Counters GpsdClient::counters() const {
    return Counters{connectionAttempts_.load(), connections_.load(), fixes_.load(), ignoredLines_.load()};
}

// ---- Main run loop ----

void GpsdClient::requestConnection() {
    {
        std::lock_guard lock(mutex_);
        connectRequested_ = true;
    }
    ++connectionAttempts_;
    wake();
}

std::string GpsdClient::address() const { return options_.host + ":" + std::to_string(options_.port); }

void GpsdClient::connectionEnded() {
    // One line per outage, not one per attempt.
    if (status_.connected) {
        Console::log("gpsd connection to " + address() + " lost; reconnecting");
    } else if (!outageLogged_) {
        Console::log("gpsd not reachable at " + address() + "; retrying");
    }
    outageLogged_ = true;
    applyStatus(GpsdStatus{});
    retryTimer_ = runLoop_->scheduleTimer(retryDelay_, false, [self = self_] {
        if (const auto client = self.lock()) {
            client->retryTimer_.reset();
            client->requestConnection();
        }
    });
    retryDelay_ = nextGpsdRetryDelay(retryDelay_, options_);
    if (const auto delegate = delegate_.lock()) delegate->gpsdConnectionDidEnd();
}

void GpsdClient::connectionAnswered() { retryDelay_ = options_.firstRetryDelaySeconds; }

void GpsdClient::applyStatus(GpsdStatus status) {
    if (status == status_) return;
    if (status.connected && !status_.connected) {
        Console::log("gpsd connected at " + address());
        outageLogged_ = false;
    }
    status_ = status;
    updateDevicePolling();
    if (const auto delegate = delegate_.lock()) delegate->gpsdStatusDidChange(status);
}

void GpsdClient::updateDevicePolling() {
    const bool wanted = status_.connected && !watching_;
    if (wanted && !devicePollTimer_) {
        devicePollTimer_ = runLoop_->scheduleTimer(options_.devicePollIntervalSeconds, true, [self = self_] {
            if (const auto client = self.lock()) {
                {
                    std::lock_guard lock(client->mutex_);
                    client->devicePollRequested_ = true;
                }
                client->wake();
            }
        });
    } else if (!wanted && devicePollTimer_) {
        devicePollTimer_->invalidate();
        devicePollTimer_.reset();
    }
}

// ---- The client's thread ----

void GpsdClient::wake() {
    const char byte = 1;
    // A full pipe already holds a wake-up; nothing is lost.
    while (::write(wakePipe_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

void GpsdClient::run() {
    while (waitForConnectionRequest()) {
        const int socket = connectSocket();
        if (socket >= 0) {
            serve(socket);
            ::close(socket);
        }
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
        }
        runLoop_->async([self = self_] {
            if (const auto client = self.lock()) client->connectionEnded();
        });
    }
}

bool GpsdClient::waitForConnectionRequest() {
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return false;
            if (connectRequested_) {
                connectRequested_ = false;
                return true;
            }
        }
        pollfd wakeFd{wakePipe_[0], POLLIN, 0};
        if (::poll(&wakeFd, 1, -1) < 0 && errno != EINTR) return false;
        drain(wakePipe_[0]);
    }
}

int GpsdClient::connectSocket() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* addresses = nullptr;
    const std::string port = std::to_string(options_.port);
    if (::getaddrinfo(options_.host.c_str(), port.c_str(), &hints, &addresses) != 0) return -1;
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(addresses, &::freeaddrinfo);

    for (const addrinfo* address = addresses; address != nullptr; address = address->ai_next) {
        const int fd = ::socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                                address->ai_protocol);
        if (fd < 0) continue;
        bool connected = ::connect(fd, address->ai_addr, address->ai_addrlen) == 0;
        const bool pending = !connected && (errno == EINPROGRESS || errno == EINTR);
        while (pending) {
            pollfd fds[2] = {{fd, POLLOUT, 0}, {wakePipe_[0], POLLIN, 0}};
            const int ready = ::poll(fds, 2, pollMilliseconds(options_.connectTimeoutSeconds));
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) break;  // failed or timed out
            if (fds[1].revents != 0) {
                drain(wakePipe_[0]);
                std::lock_guard lock(mutex_);
                if (stopping_) break;
                // Other requests are flags the session reads once it runs.
                if (fds[0].revents == 0) continue;
            }
            int error = 0;
            socklen_t length = sizeof(error);
            if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0) connected = true;
            break;
        }
        if (connected) {
            const int on = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            return fd;
        }
        ::close(fd);
        std::lock_guard lock(mutex_);
        if (stopping_) return -1;
    }
    return -1;
}

void GpsdClient::serve(int socket) {
    ++connections_;
    lastReported_ = GpsdStatus{};
    report(GpsdStatus{true, false});

    Session session;
    bool firstRound = true;
    bool sentWatching = false;  // gpsd's default for a new client
    std::string outbox;
    std::string partial;
    bool discarding = false;
    char buffer[8192];

    for (;;) {
        bool wantWatching = false;
        bool pollDevices = false;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            wantWatching = watchRequested_;
            pollDevices = devicePollRequested_;
            devicePollRequested_ = false;
        }
        if (firstRound || wantWatching != sentWatching) {
            if (wantWatching) {
                outbox += gpsd::watchOnCommand;  // the reply lists the devices
            } else {
                if (!firstRound) outbox += gpsd::watchOffCommand;
                pollDevices = true;
            }
            sentWatching = wantWatching;
            firstRound = false;
        }
        if (pollDevices) outbox += gpsd::devicesCommand;

        while (!outbox.empty()) {
            const ssize_t sent = ::send(socket, outbox.data(), outbox.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent > 0) {
                outbox.erase(0, static_cast<std::size_t>(sent));
            } else if (sent < 0 && errno == EINTR) {
                continue;
            } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                break;
            } else {
                return;
            }
        }

        pollfd fds[2] = {{socket, static_cast<short>(POLLIN | (outbox.empty() ? 0 : POLLOUT)), 0},
                         {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) drain(wakePipe_[0]);
        if (fds[0].revents & POLLNVAL) return;
        if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;

        for (;;) {
            const ssize_t received = ::recv(socket, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (received == 0) return;  // gpsd closed the connection
            if (received < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) break;
                return;
            }
            std::string_view chunk(buffer, static_cast<std::size_t>(received));
            while (!chunk.empty()) {
                const std::size_t newline = chunk.find('\n');
                const std::string_view piece = chunk.substr(0, newline);
                chunk = newline == std::string_view::npos ? std::string_view() : chunk.substr(newline + 1);
                if (discarding) {
                    if (newline != std::string_view::npos) discarding = false;
                    continue;
                }
                // One byte more than the limit leaves room for a carriage return.
                if (partial.size() + piece.size() > options_.maximumLineBytes + 1) {
                    ++ignoredLines_;
                    partial.clear();
                    discarding = newline == std::string_view::npos;
                    continue;
                }
                partial.append(piece);
                if (newline == std::string_view::npos) break;
                if (!partial.empty() && partial.back() == '\r') partial.pop_back();
                if (partial.size() > options_.maximumLineBytes) {
                    ++ignoredLines_;
                } else if (!partial.empty()) {
                    handleLine(partial, sentWatching, session);
                }
                partial.clear();
            }
        }
    }
}

void GpsdClient::handleLine(std::string_view line, bool watching, Session& session) {
    gpsd::Message message = gpsd::parseLine(line, runLoop_->now());
    if (std::holds_alternative<gpsd::Invalid>(message)) {
        ++ignoredLines_;
        return;
    }
    auto& devices = session.devices;
    if (!session.answered) {
        session.answered = true;
        runLoop_->async([self = self_] {
            if (const auto client = self.lock()) client->connectionAnswered();
        });
    }
    std::visit(
        [&](auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, gpsd::Fix>) {
                ++fixes_;
                runLoop_->async([self = self_, fix = value.location] {
                    const auto client = self.lock();
                    if (!client) return;
                    if (const auto delegate = client->delegate_.lock()) delegate->gpsdDidReceiveFix(fix);
                });
            } else if constexpr (std::is_same_v<T, gpsd::DeviceList>) {
                devices = std::set<std::string>(value.paths.begin(), value.paths.end());
                session.deviceListKnown = true;
            } else if constexpr (std::is_same_v<T, gpsd::DeviceChange>) {
                if (value.active) {
                    devices.insert(value.path);
                } else if (watching) {
                    // Without watchers gpsd closes its devices; a close seen while not
                    // watching is ours, not a device going away.
                    devices.erase(value.path);
                }
            }
        },
        message);
    report(GpsdStatus{true, !devices.empty(), session.deviceListKnown});
}

void GpsdClient::report(GpsdStatus status) {
    if (status == lastReported_) return;
    lastReported_ = status;
    runLoop_->async([self = self_, status] {
        if (const auto client = self.lock()) client->applyStatus(status);
    });
}

}  // namespace rovalis
