#pragma once

// The crash test's own process: keeps a local collection service up, starts the upload path
// as a child process on one data root again and again and kills it (SIGKILL) at a random
// moment each time, lets a last child send everything, and compares what the children's
// store acknowledged with what the service stored.

#include <cstdint>
#include <filesystem>
#include <optional>

namespace rovalis::crashtest {

struct RunOptions {
    int kills = 100;
    std::uint64_t seed = 0;
    // Keep the run's files here (a new or empty directory); otherwise a temporary one is removed.
    std::optional<std::filesystem::path> keep;
    // The program started as the child, with --child.
    std::filesystem::path program;
};

// Prints the figures and a verdict on standard output, progress on standard error. 0 when
// nothing acknowledged was lost, nothing was stored twice, no sequential id stepped back,
// every child ran until it was killed and the last one emptied the store.
int runCrashTest(const RunOptions& options);

}  // namespace rovalis::crashtest
