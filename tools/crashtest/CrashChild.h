#pragma once

// The processes the crash test kills: the SDK's real upload path on the shared data root,
// wired as the end-to-end tests wire it, recording marked events and sending them.

#include <cstdint>
#include <filesystem>
#include <string>

namespace rovalis::crashtest {

struct ChildOptions {
    std::filesystem::path dataRoot;
    std::string baseURL;
    int round = 0;
    std::uint64_t seed = 0;
    // Written to (one byte) and closed once the upload path is up and holds its token; -1 for none.
    int readyFd = -1;
};

// Records marked events steadily and runs a send group every 100-300 ms, now and then the
// pre-shutdown group instead (which falls back to the background upload), until the process
// is killed. Ends the process with status 3 if nobody kills it within two minutes.
[[noreturn]] void recordAndSendUntilKilled(const ChildOptions& options);

// Records nothing: lets the background session finish what an earlier process left it, then
// sends until the store is empty. 0 when it ends empty, 1 when something is left (said on
// standard error).
int drain(const ChildOptions& options);

}  // namespace rovalis::crashtest
