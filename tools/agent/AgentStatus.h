#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace rovalis::agent {

// What the running agent keeps beside the SDK's files for `rovalis-agent status`: the sleep
// state and the last fix, which the SDK's own files do not hold once the fix is uploaded.
struct AgentState {
    std::optional<bool> asleep;
    std::optional<double> lastFixTime;  // seconds since 1970
    double lastFixLatitude = 0.0;
    double lastFixLongitude = 0.0;
    double lastFixAccuracy = 0.0;
    long processId = 0;
};

std::filesystem::path agentStateFile(const std::filesystem::path& dataRoot);
// Written whole to a temporary file and renamed over the old one (mode 0600).
void writeAgentState(const std::filesystem::path& dataRoot, const AgentState& state);
std::optional<AgentState> readAgentState(const std::filesystem::path& dataRoot);

// The status report of the data root, read without changing anything: the tracking state and
// the last upload from the key-value state, the events waiting and the newest recorded fix
// from the event store (both opened read-only), the sleep state and the last fix from the
// agent's state file. Empty when the data root holds no SDK state.
std::optional<std::string> statusReport(const std::filesystem::path& dataRoot);

}  // namespace rovalis::agent
