// rovalis-crashtest: kills the SDK's upload path with SIGKILL at random moments, again and
// again on one data root, and counts what the collection service lost or stored twice.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <random>

#include "crashtest/CrashChild.h"
#include "crashtest/CrashRun.h"

int main(int argc, char** argv) {
    using namespace rovalis::crashtest;

    RunOptions run;
    std::optional<std::uint64_t> seed;
    bool child = false;
    bool drainMode = false;
    ChildOptions childOptions;

    CLI::App app{"Starts the SDK's upload path on one data root again and again, kills it (SIGKILL) at a random "
                 "moment each time, lets a last process send everything, and counts the events the store had "
                 "acknowledged that the collection service lost or stored twice. Exits 0 when there are none."};
    app.add_option("kills", run.kills, "How many times to kill")->check(CLI::NonNegativeNumber)->capture_default_str();
    app.add_option("--seed", seed, "Seed of the kill moments and the children's pace (default: a random one)");
    app.add_option("--keep", run.keep, "Keep the data root, the ledgers and the service's database in this new "
                                       "or empty directory");
    // The side of the processes that are killed; the run starts them itself.
    app.add_flag("--child", child)->group("");
    app.add_flag("--drain", drainMode)->group("");
    app.add_option("--round", childOptions.round)->group("");
    app.add_option("--root", childOptions.dataRoot)->group("");
    app.add_option("--url", childOptions.baseURL)->group("");
    app.add_option("--child-seed", childOptions.seed)->group("");
    app.add_option("--ready-fd", childOptions.readyFd)->group("");
    CLI11_PARSE(app, argc, argv);

    try {
        if (child) {
            if (drainMode) return drain(childOptions);
            recordAndSendUntilKilled(childOptions);
        }
        run.seed = seed ? *seed : std::random_device{}();
        run.program = std::filesystem::read_symlink("/proc/self/exe");
        return runCrashTest(run);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rovalis-crashtest: %s\n", error.what());
        return 2;
    }
}
