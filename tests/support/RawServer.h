#pragma once

// A loopback HTTP/1.1 peer that sees requests byte for byte, for what a structured server
// hides (header order, connection reuse) or will not do (hang, trickle, cut a response
// short, read slowly). One connection at a time; until listen() its port refuses
// connections.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace rovalis::test {

class RawServer {
public:
    static constexpr auto kWait = std::chrono::seconds(20);

    // Writes the response to fd; answers whether to keep reading requests on it.
    using Handler = std::function<bool(int fd, const std::string& request)>;

    explicit RawServer(Handler handler) : handler_(std::move(handler)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        baseURL_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    }
    ~RawServer() {
        ::shutdown(fd_, SHUT_RDWR);
        setConnection(-1);
        if (thread_.joinable()) thread_.join();
        ::close(fd_);
    }

    // Before listen(): takes requests at this average rate through a small receive buffer,
    // like a peer at the end of a modest link.
    void readSlowly(double bytesPerSecond) {
        readRate_ = bytesPerSecond;
        const int bytes = 64 * 1024;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }

    void listen() {
        ASSERT_EQ(::listen(fd_, 16), 0);
        thread_ = std::thread([this] {
            for (int connection; (connection = ::accept(fd_, nullptr, nullptr)) >= 0; ::close(connection)) {
                ++accepted_;
                setConnection(connection);
                for (std::string request; !(request = readRequest(connection)).empty();) {
                    if (!handler_(connection, request)) break;
                }
                setConnection(-1);
            }
        });
    }
    const std::string& baseURL() const { return baseURL_; }
    std::string url() const { return baseURL_ + "api/event_batches"; }
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
    // The next whole request, recorded; empty once the peer has gone.
    std::string readRequest(int fd) {
        std::string data;
        const auto start = std::chrono::steady_clock::now();
        for (char buffer[4096];;) {
            const auto end = data.find("\r\n\r\n");
            const auto at = data.find("Content-Length: ");
            if (end != std::string::npos &&
                data.size() >= end + 4 + (at < end ? std::stoul(data.substr(at + 16, 20)) : 0)) {
                break;
            }
            const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
            if (got <= 0) return {};
            data.append(buffer, static_cast<std::size_t>(got));
            if (readRate_ > 0) {
                const std::chrono::duration<double> due(static_cast<double>(data.size()) / readRate_);
                std::this_thread::sleep_until(start + std::chrono::duration_cast<std::chrono::microseconds>(due));
            }
        }
        std::lock_guard lock(mutex_);
        requests_.push_back(data);
        changed_.notify_all();
        return data;
    }
    // Shuts the connection being replaced, so that a hanging handler ends with the server.
    void setConnection(int connection) {
        std::lock_guard lock(mutex_);
        if (connection < 0 && connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
        connection_ = connection;
    }

    Handler handler_;
    int fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    std::string baseURL_;
    double readRate_ = 0;
    std::atomic<int> accepted_{0};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> requests_;
    int connection_ = -1;
};

}  // namespace rovalis::test
