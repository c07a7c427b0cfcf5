#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "rovalis/platform/NetworkMonitor.h"

namespace rovalis {

enum class SimulatedConnection { wifi, cellular, offline };

// The simulated device's network, set by its owner. Targets report flags for the current
// connection and are told, on their queues, each time it changes.
//
// Offline means the device has no network at all: every target, loopback host names
// included, reports no flags set.
class SimulatedNetwork final : public NetworkMonitor {
public:
    explicit SimulatedNetwork(SimulatedConnection initial = SimulatedConnection::wifi);

    SimulatedNetwork(const SimulatedNetwork&) = delete;
    SimulatedNetwork& operator=(const SimulatedNetwork&) = delete;

    // Tells every registered target when the connection actually changes.
    void setConnection(SimulatedConnection connection);
    SimulatedConnection connection() const;

    // The flags every target reports for a connection.
    static std::uint32_t flagsFor(SimulatedConnection connection);

    std::unique_ptr<NetworkReachabilityTarget> reachabilityForHost(const std::string& host) override;
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForZeroAddress() override;

private:
    class Target;
    // Shared with the targets, which may outlive the network.
    struct State {
        std::mutex mutex;
        SimulatedConnection connection;
        std::set<Target*> targets;
    };

    std::unique_ptr<NetworkReachabilityTarget> makeTarget();

    const std::shared_ptr<State> state_;
};

}  // namespace rovalis
