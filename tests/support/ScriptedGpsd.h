#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "util/SettableDateSource.h"
#include "util/ThreadRunLoop.h"

namespace rovalis {

// A gpsd on the loopback interface that serves every client by itself, on a thread of its
// own: it keeps silent for answerDelay after a client connects (a gpsd still starting, or
// slow), then answers the way gpsd does: its device list (one receiver, or none) for a
// watch or a device request. It may start without listening, so that a client finds the
// port closed until listen() (gpsd started after the program that uses it).
class ScriptedGpsd {
public:
    struct Options {
        std::chrono::milliseconds answerDelay{0};
        bool hasDevice = true;
        bool listening = true;
    };

    explicit ScriptedGpsd(Options options) : options_(options) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        // Bound at once, so that the port is ours; closed to clients until it listens.
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (options_.listening) listen();
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedGpsd() {
        stopping_ = true;
        thread_.join();
        for (const Client& client : clients_) ::close(client.fd);
        ::close(listener_);
    }
    ScriptedGpsd(const ScriptedGpsd&) = delete;
    ScriptedGpsd& operator=(const ScriptedGpsd&) = delete;

    std::uint16_t port() const { return port_; }
    void listen() {
        ::listen(listener_, 16);
        listening_ = true;
    }
    // Clients that have had their answer.
    int answeredClients() const { return answered_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Client {
        int fd;
        Clock::time_point connectedAt;
        std::string received;
        bool greeted = false;
    };

    void serve() {
        while (!stopping_) {
            // A socket that does not listen yet is left out (poll ignores a negative descriptor).
            std::vector<pollfd> fds{{listening_ ? listener_ : -1, POLLIN, 0}};
            for (const Client& client : clients_) fds.push_back({client.fd, POLLIN, 0});
            ::poll(fds.data(), fds.size(), 10);
            if (listening_ && (fds[0].revents & POLLIN)) {
                const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (fd >= 0) clients_.push_back({fd, Clock::now(), {}, false});
            }
            for (std::size_t i = 0; i < clients_.size();) {
                if (serveClient(clients_[i])) {
                    ++i;
                } else {
                    ::close(clients_[i].fd);
                    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
        }
    }

    // False once the client has gone.
    bool serveClient(Client& client) {
        char buffer[1024];
        for (;;) {
            const ssize_t received = ::recv(client.fd, buffer, sizeof(buffer), 0);
            if (received == 0) return false;
            if (received < 0) break;
            client.received.append(buffer, static_cast<std::size_t>(received));
        }
        if (Clock::now() - client.connectedAt < options_.answerDelay) return true;
        std::string reply;
        if (!client.greeted) {
            reply += R"({"class":"VERSION","release":"3.22","rev":"3.22","proto_major":3,"proto_minor":14})"
                     "\r\n";
            client.greeted = true;
            ++answered_;
        }
        for (std::size_t end; (end = client.received.find(';')) != std::string::npos;) {
            const std::string request = client.received.substr(0, end);
            client.received.erase(0, end + 1);
            if (request.find("?WATCH") != std::string::npos || request.find("?DEVICES") != std::string::npos) {
                reply += devices();
            }
        }
        if (!reply.empty()) ::send(client.fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        return true;
    }

    std::string devices() const {
        if (!options_.hasDevice) return "{\"class\":\"DEVICES\",\"devices\":[]}\r\n";
        return R"({"class":"DEVICES","devices":[{"path":"/dev/ttyACM0","activated":"2024-05-01T12:30:00Z"}]})"
               "\r\n";
    }

    const Options options_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> listening_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<int> answered_{0};
    std::vector<Client> clients_;  // the serving thread's
    std::thread thread_;
};

// Moves the clock on and returns once every timer due by then has run on the loop: a probe
// timer due just after them has fired. A gpsd client's retries come without the wait.
inline void advanceAndRunDueTimers(SettableDateSource& clock, ThreadRunLoop& loop, double seconds) {
    clock.advance(seconds);
    const auto fired = std::make_shared<std::promise<void>>();
    auto done = fired->get_future();
    loop.scheduleTimer(0.0, false, [fired] { fired->set_value(); });
    clock.advance(0.001);
    ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

}  // namespace rovalis
