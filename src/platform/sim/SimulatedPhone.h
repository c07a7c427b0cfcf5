#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>

#include "platform/sim/Scenario.h"
#include "platform/sim/SimulatedDevice.h"
#include "rovalis/Platform.h"

namespace rovalis::sim {

// The simulated device as a host program sees its phone: it replays a trace and the device's
// steps of a scenario, keeps the app's preferences and keychain under the app's data root
// (they outlive the app's processes, as on a phone), and hands each process of the app its
// platform bundle. The C interface and the example hosts run the SDK on it.
//
// Used from one thread, the one that made it: the device's main run loop, and with it the
// SDK's work and callbacks, runs there inside runUntil (and inside the SDK's own calls).
class SimulatedPhone {
public:
    // Reads the trace and the scenario (throws TraceError or ScenarioError) and places the
    // scenario's beacons; the clock starts at the trace's start.
    SimulatedPhone(const std::filesystem::path& trace, const std::optional<std::filesystem::path>& scenario,
                   std::uint64_t seed, const std::filesystem::path& dataRoot);

    // The platform bundle of a new process of the app; lifecycle steps go to its notification
    // centre from now on.
    Platform launchProcess();

    // Runs the device up to `time`, carrying out the scenario's steps for the device on the way.
    // Stops at the first step for the app itself (tracking, wifi-only, relaunch) and returns it
    // for the caller to carry out; calling again runs on from there.
    std::optional<ScenarioChange> runUntil(Date time);

    Date now() const { return device_.now(); }
    Date traceEnd() const { return path_->end(); }
    SimulatedDevice& device() { return device_; }

private:
    // False for a step that only the app can carry out.
    bool applyToDevice(const ScenarioChange& change);

    const std::shared_ptr<const TruePath> path_;
    const Scenario scenario_;
    SimulatedDevice device_;
    const std::shared_ptr<KeyValueStore> keyValueStore_;
    const std::shared_ptr<KeychainStore> keychain_;
    std::shared_ptr<NotificationCenter> processCentre_;
    std::size_t nextStep_ = 0;
};

}  // namespace rovalis::sim
