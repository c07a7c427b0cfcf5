#include "support/FakeGpsdServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace rovalis::test {

FakeGpsdServer::FakeGpsdServer(std::uint16_t port) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0) throw std::runtime_error("fake gpsd: no socket");
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener_, 4) != 0 || ::pipe2(wakePipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        ::close(listener_);
        throw std::runtime_error("fake gpsd: cannot listen");
    }
    socklen_t length = sizeof(address);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

FakeGpsdServer::~FakeGpsdServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    const char byte = 1;
    while (::write(wakePipe_[1], &byte, 1) < 0 && errno == EINTR) {
    }
    thread_.join();
    closeClientLocked();
    for (const int fd : {listener_, wakePipe_[0], wakePipe_[1]}) ::close(fd);
}

void FakeGpsdServer::closeClientLocked() {
    if (client_ >= 0) ::close(client_);
    client_ = -1;
    partial_.clear();
}

void FakeGpsdServer::run() {
    for (;;) {
        int client = -1;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            client = client_;
        }
        pollfd fds[3] = {{listener_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}, {client, POLLIN, 0}};
        if (::poll(fds, client >= 0 ? 3 : 2, -1) < 0 && errno != EINTR) return;
        if (fds[1].revents != 0) {
            char buffer[64];
            while (::read(wakePipe_[0], buffer, sizeof(buffer)) > 0) {
            }
        }
        if (client >= 0 && fds[2].revents != 0) {
            char buffer[4096];
            const ssize_t received = ::recv(client, buffer, sizeof(buffer), MSG_DONTWAIT);
            std::lock_guard lock(mutex_);
            if (received == 0 || (received < 0 && errno != EAGAIN && errno != EINTR)) {
                if (client_ == client) closeClientLocked();
            } else if (received > 0) {
                partial_.append(buffer, static_cast<std::size_t>(received));
                for (std::size_t end; (end = partial_.find('\n')) != std::string::npos;) {
                    std::string line = partial_.substr(0, end);
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    lines_.push_back(std::move(line));
                    partial_.erase(0, end + 1);
                }
            }
            changed_.notify_all();
        }
        if (fds[0].revents & POLLIN) {
            const int accepted = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (accepted >= 0) {
                std::lock_guard lock(mutex_);
                closeClientLocked();  // one client at a time, as the tests need
                client_ = accepted;
                ++connections_;
                changed_.notify_all();
            }
        }
    }
}

std::size_t FakeGpsdServer::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}

bool FakeGpsdServer::clientConnected() const {
    std::lock_guard lock(mutex_);
    return client_ >= 0;
}

std::vector<std::string> FakeGpsdServer::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t FakeGpsdServer::count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
}

bool FakeGpsdServer::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    for (;;) {
        const std::size_t seenLines = lines_.size();
        const std::size_t seenConnections = connections_;
        const int seenClient = client_;
        lock.unlock();
        if (condition()) return true;
        lock.lock();
        const bool changed = changed_.wait_until(lock, deadline, [&] {
            return lines_.size() != seenLines || connections_ != seenConnections || client_ != seenClient;
        });
        if (!changed) {
            lock.unlock();
            return condition();
        }
    }
}

bool FakeGpsdServer::waitForConnections(std::size_t count) const {
    return waitUntil([&] { return connections() >= count && clientConnected(); });
}

bool FakeGpsdServer::waitForLine(const std::string& line, std::size_t occurrences) const {
    return waitUntil([&] { return this->count(line) >= occurrences; });
}

bool FakeGpsdServer::send(std::string_view bytes) {
    std::lock_guard lock(mutex_);
    if (client_ < 0) return false;
    while (!bytes.empty()) {
        const ssize_t sent = ::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void FakeGpsdServer::dropClient() {
    std::lock_guard lock(mutex_);
    // The server's thread notices the end and closes the socket.
    if (client_ >= 0) ::shutdown(client_, SHUT_RDWR);
}

}  // namespace rovalis::test
