#include "platform/sim/SimulatedNetwork.h"

#include <functional>

#include "rovalis/Executor.h"

namespace rovalis {

class SimulatedNetwork::Target final : public NetworkReachabilityTarget {
public:
    explicit Target(std::shared_ptr<State> state) : state_(std::move(state)) {
        std::lock_guard lock(state_->mutex);
        state_->targets.insert(this);
    }
    ~Target() override {
        std::lock_guard lock(state_->mutex);
        state_->targets.erase(this);
    }

    std::optional<std::uint32_t> flags() const override {
        std::lock_guard lock(state_->mutex);
        return flagsFor(state_->connection);
    }

    bool setCallback(std::function<void(std::uint32_t)> callback, Executor* queue) override {
        std::lock_guard lock(state_->mutex);
        if (callback && queue) {
            callback_ = std::move(callback);
            queue_ = queue;
        } else {
            callback_ = nullptr;
            queue_ = nullptr;
        }
        return true;
    }

    // Called with the state's mutex held: once setCallback has cleared the callback, the
    // old queue is never touched again.
    void deliverLocked(std::uint32_t flags) {
        if (callback_ && queue_) queue_->async([callback = callback_, flags] { callback(flags); });
    }

private:
    const std::shared_ptr<State> state_;
    std::function<void(std::uint32_t)> callback_;
    Executor* queue_ = nullptr;
};

SimulatedNetwork::SimulatedNetwork(SimulatedConnection initial) : state_(std::make_shared<State>()) {
    state_->connection = initial;
}

std::uint32_t SimulatedNetwork::flagsFor(SimulatedConnection connection) {
    switch (connection) {
        case SimulatedConnection::wifi:
            return ReachabilityFlags::reachable;
        case SimulatedConnection::cellular:
            return ReachabilityFlags::reachable | ReachabilityFlags::isWWAN;
        case SimulatedConnection::offline:
            break;
    }
    return 0;
}

void SimulatedNetwork::setConnection(SimulatedConnection connection) {
    std::lock_guard lock(state_->mutex);
    if (connection == state_->connection) return;
    state_->connection = connection;
    const std::uint32_t flags = flagsFor(connection);
    for (Target* target : state_->targets) target->deliverLocked(flags);
}

SimulatedConnection SimulatedNetwork::connection() const {
    std::lock_guard lock(state_->mutex);
    return state_->connection;
}

std::unique_ptr<NetworkReachabilityTarget> SimulatedNetwork::makeTarget() { return std::make_unique<Target>(state_); }

// Every host, loopback or not, shares the device's one connection.
std::unique_ptr<NetworkReachabilityTarget> SimulatedNetwork::reachabilityForHost(const std::string&) {
    return makeTarget();
}

std::unique_ptr<NetworkReachabilityTarget> SimulatedNetwork::reachabilityForZeroAddress() { return makeTarget(); }

}  // namespace rovalis
