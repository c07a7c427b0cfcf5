#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "rovalis/Executor.h"
#include "rovalis/platform/NetworkMonitor.h"

namespace rovalis {

class SerialExecutor;
class WorkTracker;

// Watches one reachability target and reports its status whenever it changes.
class NetworkReachabilityManager final : public std::enable_shared_from_this<NetworkReachabilityManager> {
public:
    enum class ConnectionType { ethernetOrWiFi, cellular };

    struct NetworkReachabilityStatus {
        enum class Kind { unknown, notReachable, reachable };

        Kind kind = Kind::unknown;
        // Meaningful only when reachable.
        ConnectionType connectionType = ConnectionType::ethernetOrWiFi;

        static constexpr NetworkReachabilityStatus unknown() { return {Kind::unknown, ConnectionType::ethernetOrWiFi}; }
        static constexpr NetworkReachabilityStatus notReachable() {
            return {Kind::notReachable, ConnectionType::ethernetOrWiFi};
        }
        static constexpr NetworkReachabilityStatus reachable(ConnectionType type) { return {Kind::reachable, type}; }

        friend constexpr bool operator==(const NetworkReachabilityStatus& a, const NetworkReachabilityStatus& b) {
            return a.kind == b.kind && (a.kind != Kind::reachable || a.connectionType == b.connectionType);
        }
    };

    using Listener = std::function<void(NetworkReachabilityStatus status)>;

    static constexpr const char* queueLabel = "org.rovalis.reachabilityQueue";

    // The status the platform's flags stand for.
    static NetworkReachabilityStatus statusForFlags(std::uint32_t flags);

    // None when the monitor cannot make the target. workTracker, when given, counts the work
    // of the manager's own queue.
    static std::shared_ptr<NetworkReachabilityManager> make(NetworkMonitor& monitor, const std::string& host,
                                                            std::shared_ptr<WorkTracker> workTracker = nullptr);
    static std::shared_ptr<NetworkReachabilityManager> makeForZeroAddress(
        NetworkMonitor& monitor, std::shared_ptr<WorkTracker> workTracker = nullptr);

    ~NetworkReachabilityManager();

    NetworkReachabilityManager(const NetworkReachabilityManager&) = delete;
    NetworkReachabilityManager& operator=(const NetworkReachabilityManager&) = delete;

    // The current values, read from the target's current flags (unknown when there are none).
    std::optional<std::uint32_t> flags() const;
    NetworkReachabilityStatus status() const;
    bool isReachable() const;
    bool isReachableOnCellular() const;
    bool isReachableOnEthernetOrWiFi() const;

    // Stops any earlier listening, then reports each change of status to listener on queue,
    // starting with the current status. Answers whether the target accepted the callback.
    bool startListening(std::shared_ptr<Executor> queue, Listener listener);
    // No report is queued for the listener once this returns.
    void stopListening();

private:
    struct Private {};

public:
    NetworkReachabilityManager(Private, std::unique_ptr<NetworkReachabilityTarget> target,
                               std::shared_ptr<WorkTracker> workTracker);

private:
    static std::shared_ptr<NetworkReachabilityManager> fromTarget(std::unique_ptr<NetworkReachabilityTarget> target,
                                                                  std::shared_ptr<WorkTracker> workTracker);
    void notifyListener(std::uint32_t flags);

    std::unique_ptr<SerialExecutor> reachabilityQueue_;
    std::unique_ptr<NetworkReachabilityTarget> reachability_;

    mutable std::mutex mutex_;
    Listener listener_;
    std::shared_ptr<Executor> listenerQueue_;
    std::optional<NetworkReachabilityStatus> previousStatus_;
};

}  // namespace rovalis
