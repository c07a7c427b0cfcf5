// The C interface's simulated device. It lives in the simulator library, so the production
// SDK carries no simulator code; the shared C library has both.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <type_traits>

#include "capi/CApiHandles.h"
#include "core/RVLGeneralLocationManager.h"
#include "platform/sim/SimulatedPhone.h"
#include "platform/sim/TraceReader.h"

namespace rovalis::capi {

namespace {

// After tracking stops, time goes on in these steps until nothing is left to upload.
constexpr double settleStep = 30.0;
// How often a wait for the SDK's own work runs the device before it gives up.
constexpr int waitRounds = 100;

class SimulatedEnvironment final : public SdkEnvironment {
public:
    SimulatedEnvironment(const std::filesystem::path& trace, const std::optional<std::filesystem::path>& scenario,
                         std::uint64_t seed, const std::filesystem::path& dataRoot)
        : phone(trace, scenario, seed, dataRoot) {}

    std::optional<Platform> launchProcess() override { return phone.launchProcess(); }

    // What a launch started finishes before the host's next call, as on a phone, where that
    // call comes long after in machine time.
    void launched() override { phone.device().runUntil(phone.now()); }

    // The SDK's queues are idle once the device has run what is due now; a task they posted
    // to the main run loop runs in the next round.
    bool waitFor(std::future<void>& done) override {
        for (int round = 0; round < waitRounds; ++round) {
            if (done.wait_for(std::chrono::seconds(0)) == std::future_status::ready) return true;
            phone.device().runUntil(phone.now());
        }
        return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

    sim::SimulatedPhone phone;
};

SimulatedEnvironment& simulatedEnvironment(rovalis_sdk& sdk) {
    auto* environment = dynamic_cast<SimulatedEnvironment*>(sdk.environment.get());
    if (environment == nullptr) {
        throw Failure(ROVALIS_INVALID_ARGUMENT,
                      "the handle does not run on the simulated device (see rovalis_config_use_simulated_device)");
    }
    return *environment;
}

// Time moves only for an initialised SDK, as on a phone, where the app initialises it at launch.
SimulatedEnvironment& initializedSimulation(rovalis_sdk& sdk) {
    auto& environment = simulatedEnvironment(sdk);
    requireInitialized(sdk);
    return environment;
}

// The app's process ends and a new one starts: a new instance on the same handle.
void relaunch(rovalis_sdk& sdk, SimulatedEnvironment& environment, const sim::RelaunchChange& change) {
    environment.phone.device().runUntil(environment.phone.now());
    sdk.instance.reset();
    if (change.build) sdk.configuration.host.build = *change.build;
    if (change.version) sdk.configuration.host.version = *change.version;
    makeInstance(sdk);
    initializeInstance(sdk);
}

// Runs the device to `time`, carrying out the scenario's steps for the app on the way.
void runUntil(rovalis_sdk& sdk, SimulatedEnvironment& environment, Date time) {
    while (const auto step = environment.phone.runUntil(time)) {
        std::visit(
            [&](const auto& change) {
                using Change = std::decay_t<decltype(change)>;
                if constexpr (std::is_same_v<Change, sim::WifiOnlyChange>) {
                    sdk.instance->setWifiOnlyDataTransfer(change.enabled);
                } else if constexpr (std::is_same_v<Change, sim::TrackingChange>) {
                    if (change.started) {
                        sdk.instance->start();
                    } else {
                        sdk.instance->stop();
                    }
                } else if constexpr (std::is_same_v<Change, sim::RelaunchChange>) {
                    relaunch(sdk, environment, change);
                }
            },
            *step);
    }
}

long storedEventCount(rovalis_sdk& sdk) {
    return dynamic_cast<RVLGeneralLocationManager&>(*sdk.instance).eventRepository()->eventsCount();
}

}  // namespace

}  // namespace rovalis::capi

using namespace rovalis;
using rovalis::capi::Failure;

extern "C" {

rovalis_status rovalis_config_use_simulated_device(rovalis_config* config, const char* trace_path,
                                                   const char* scenario_path, uint64_t seed) {
    if (config == nullptr) return ROVALIS_INVALID_ARGUMENT;
    if (trace_path == nullptr) {
        config->lastError = "trace_path is NULL";
        return ROVALIS_INVALID_ARGUMENT;
    }
    try {
        config->lastError.clear();
        std::filesystem::path trace = trace_path;
        std::optional<std::filesystem::path> scenario;
        if (scenario_path != nullptr) scenario = scenario_path;
        config->makeEnvironment = [trace, scenario, seed](const std::filesystem::path& dataRoot) {
            try {
                return std::unique_ptr<capi::SdkEnvironment>(
                    std::make_unique<capi::SimulatedEnvironment>(trace, scenario, seed, dataRoot));
            } catch (const sim::TraceError& error) {
                throw Failure(ROVALIS_IO_ERROR, error.what());
            } catch (const sim::ScenarioError& error) {
                throw Failure(ROVALIS_IO_ERROR, scenario->string() + ": " + error.what());
            }
        };
        return ROVALIS_OK;
    } catch (...) {
        return ROVALIS_OUT_OF_MEMORY;
    }
}

rovalis_status rovalis_simulation_run(rovalis_sdk* sdk) {
    return capi::guarded(sdk, [&] {
        auto& environment = capi::initializedSimulation(*sdk);
        capi::runUntil(*sdk, environment, environment.phone.traceEnd());
    });
}

rovalis_status rovalis_simulation_advance(rovalis_sdk* sdk, double seconds) {
    return capi::guarded(sdk, [&] {
        if (!std::isfinite(seconds) || seconds < 0) {
            throw Failure(ROVALIS_INVALID_ARGUMENT, "seconds must be a finite number, 0 or more");
        }
        auto& environment = capi::initializedSimulation(*sdk);
        capi::runUntil(*sdk, environment, environment.phone.now().addingSeconds(seconds));
    });
}

rovalis_status rovalis_simulation_settle(rovalis_sdk* sdk, double max_seconds, int64_t* events_left) {
    if (events_left != nullptr) *events_left = 0;
    long left = 0;
    const rovalis_status status = capi::guarded(sdk, [&] {
        if (!std::isfinite(max_seconds) || max_seconds < 0) {
            throw Failure(ROVALIS_INVALID_ARGUMENT, "max_seconds must be a finite number, 0 or more");
        }
        auto& environment = capi::initializedSimulation(*sdk);
        const Date end = environment.phone.now().addingSeconds(max_seconds);
        for (;;) {
            left = capi::storedEventCount(*sdk);
            if (left == 0) return;
            if (environment.phone.now() >= end) break;
            capi::runUntil(*sdk, environment, std::min(end, environment.phone.now().addingSeconds(capi::settleStep)));
        }
        throw Failure(ROVALIS_TIMED_OUT, std::to_string(left) + " stored events were still waiting for their upload");
    });
    if (events_left != nullptr) *events_left = left;
    return status;
}

rovalis_status rovalis_simulation_clock(rovalis_sdk* sdk, double* now, double* trace_end) {
    return capi::guarded(sdk, [&] {
        auto& environment = capi::simulatedEnvironment(*sdk);
        if (now != nullptr) *now = environment.phone.now().secondsSince1970;
        if (trace_end != nullptr) *trace_end = environment.phone.traceEnd().secondsSince1970;
    });
}

}  // extern "C"
