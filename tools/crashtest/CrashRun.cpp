#include "crashtest/CrashRun.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "collector/CollectorServer.h"
#include "crashtest/Ledger.h"

extern char** environ;

namespace rovalis::crashtest {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The service's faults for the whole run: answers that fail or never come, so that the kills
// meet retries and the background fallback as well as plain sends.
collector::FaultOptions serviceFaults() {
    collector::FaultOptions faults;
    faults.failEvery = 7;   // a 503: the batch has to go out again
    faults.dropEvery = 11;  // the connection closes in the middle of the body
    faults.closeAfterStoreEvery = 3;  // the batch is kept, its answer never comes
    faults.resetAfterStoreEvery = 5;  // the batch is kept, the connection is reset
    faults.delayMs = 20;    // every answer takes a moment, so kills land with requests in flight
    return faults;
}

// The run's directory: the one to keep, which must be new or empty so that no earlier run's
// ledgers count, or a temporary one removed at the end.
class RunDirectory {
public:
    explicit RunDirectory(const std::optional<std::filesystem::path>& keep) : kept_(keep.has_value()) {
        if (keep) {
            std::filesystem::create_directories(*keep);
            if (!std::filesystem::is_empty(*keep)) throw std::runtime_error(keep->string() + " is not empty");
            path_ = std::filesystem::absolute(*keep);
            return;
        }
        std::string pattern = (std::filesystem::temp_directory_path() / "rovalis-crashtest-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary directory");
        path_ = pattern;
    }
    ~RunDirectory() {
        std::error_code ignored;
        if (!kept_) std::filesystem::remove_all(path_, ignored);
    }
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    bool kept_;
    std::filesystem::path path_;
};

// A started child and the pipe on which it says that it is up.
struct Child {
    pid_t pid = -1;
    int readyFd = -1;

    // Until the child's ready byte arrives; false when it ended or the time ran out first.
    bool waitUntilReady(std::chrono::milliseconds timeout) const {
        pollfd ready{.fd = readyFd, .events = POLLIN, .revents = 0};
        if (::poll(&ready, 1, static_cast<int>(timeout.count())) != 1) return false;
        char byte = 0;
        return ::read(readyFd, &byte, 1) == 1;
    }

    // The child's wait status; a child still running after the timeout is killed first.
    int waitForExit(std::chrono::milliseconds timeout) const {
        const auto giveUp = Clock::now() + timeout;
        int status = 0;
        while (::waitpid(pid, &status, WNOHANG) == 0) {
            if (Clock::now() >= giveUp) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(20ms);
        }
        ::close(readyFd);
        return status;
    }

    int killAndWait() const {
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ::close(readyFd);
        return status;
    }
};

// Starts the program again, as a child of the given round, on the run's data root. The child
// inherits the environment as it is (sanitizer options included) and the write end of its
// ready pipe, which is closed here at once so that its end reads as the pipe's end.
Child spawnChild(const RunOptions& options, const RunFiles& files, const std::string& baseURL, int round,
                 std::uint64_t seed, bool drain) {
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    ::fcntl(pipeEnds[1], F_SETFD, 0);  // the child's end survives exec

    std::vector<std::string> arguments = {options.program.string(),
                                          "--child",
                                          "--round", std::to_string(round),
                                          "--root", files.dataRoot().string(),
                                          "--url", baseURL,
                                          "--child-seed", std::to_string(seed),
                                          "--ready-fd", std::to_string(pipeEnds[1])};
    if (drain) arguments.emplace_back("--drain");
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);

    Child child;
    const int spawned = ::posix_spawn(&child.pid, options.program.c_str(), nullptr, nullptr, argv.data(), environ);
    ::close(pipeEnds[1]);
    if (spawned != 0) {
        ::close(pipeEnds[0]);
        throw std::runtime_error("cannot start " + options.program.string() + ": " + std::strerror(spawned));
    }
    child.readyFd = pipeEnds[0];
    return child;
}

std::string describeStatus(int status) {
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("ended by signal ") + ::strsignal(WTERMSIG(status));
    return "ended with wait status " + std::to_string(status);
}

// How often the service stored each marker.
std::map<Marker, int> deliveries(const collector::CollectorServer& service) {
    std::map<Marker, int> stored;
    for (const auto& event : service.events()) {
        if (event.type != "Debug") continue;
        const auto payload = nlohmann::json::parse(event.payload, nullptr, /*allow_exceptions=*/false);
        if (!payload.is_object() || !payload.contains("comment") || !payload["comment"].is_string()) continue;
        if (const auto marker = parseMarker(payload["comment"].get<std::string>())) ++stored[*marker];
    }
    return stored;
}

}  // namespace

int runCrashTest(const RunOptions& options) {
    std::signal(SIGPIPE, SIG_IGN);
    const RunDirectory directory(options.keep);
    const RunFiles files{directory.path()};
    std::filesystem::create_directories(files.dataRoot());

    collector::CollectorOptions serviceOptions;
    serviceOptions.port = 0;
    serviceOptions.databasePath = files.collectorDatabase();
    serviceOptions.faults = serviceFaults();
    collector::CollectorServer service(serviceOptions);
    service.start();

    std::fprintf(stderr, "crash test: %d kills, seed %llu, files in %s%s\n", options.kills,
                 static_cast<unsigned long long>(options.seed), files.directory.c_str(),
                 options.keep ? "" : " (removed at the end)");

    std::mt19937_64 random(options.seed);
    std::vector<std::string> failures;
    int kills = 0;
    // Spawn to ready, as last measured: the span an early kill falls into.
    auto startup = 100ms;
    for (int round = 0; round < options.kills; ++round) {
        const auto spawnedAt = Clock::now();
        const Child child = spawnChild(options, files, service.baseURL(), round, random(), false);
        // Most kills come 20-600 ms after the child is up: inside inserts and commits, during
        // sends, between an answer and its delete. One in eight comes while it is still
        // starting: opening the store, resuming a background upload an earlier child left.
        const bool early = round > 0 && std::uniform_int_distribution(0, 7)(random) == 0;
        if (early) {
            std::this_thread::sleep_until(spawnedAt + std::chrono::microseconds(std::uniform_int_distribution<long>(
                                                          0, std::chrono::microseconds(startup).count())(random)));
        } else {
            if (child.waitUntilReady(60s)) {
                startup = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - spawnedAt);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution(20, 600)(random)));
        }
        const int status = child.killAndWait();
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
            ++kills;
        } else {
            failures.push_back("the child of round " + std::to_string(round) + " " + describeStatus(status));
        }
        if ((round + 1) % 10 == 0) std::fprintf(stderr, "crash test: %d of %d kills\n", round + 1, options.kills);
    }

    const Child drain = spawnChild(options, files, service.baseURL(), options.kills, random(), true);
    const int drainStatus = drain.waitForExit(180s);
    if (!WIFEXITED(drainStatus) || WEXITSTATUS(drainStatus) != 0) {
        failures.push_back("the drain " + describeStatus(drainStatus) + " (1: it left events in the store)");
    }
    service.stop();

    const Tally figures = tally(readLedger(files.recordedLedger()), readLedger(files.acknowledgedLedger()),
                                deliveries(service));
    const collector::Stats stats = service.stats();
    const std::int64_t stepBacks = stats.sequentialIdStepBacks;
    std::string faultsHit;
    for (const auto& [fault, count] : stats.faultsInjected) faultsHit += " " + fault + " " + std::to_string(count);
    std::fprintf(stderr, "crash test: the service had %lld batch requests, stored %lld batches, refused %lld as "
                 "duplicates; faults:%s\n", static_cast<long long>(stats.batchRequests),
                 static_cast<long long>(stats.batches), static_cast<long long>(stats.duplicatesRefused),
                 faultsHit.c_str());
    std::printf("kills: %d\n", kills);
    std::printf("recorded: %lld\n", static_cast<long long>(figures.recorded));
    std::printf("acknowledged: %lld\n", static_cast<long long>(figures.acknowledged));
    std::printf("delivered: %lld\n", static_cast<long long>(figures.delivered));
    std::printf("lost: %lld\n", static_cast<long long>(figures.lost));
    std::printf("twice: %lld\n", static_cast<long long>(figures.twice));
    std::printf("sequential id step-backs: %lld\n", static_cast<long long>(stepBacks));

    if (figures.lost > 0) failures.push_back("lost " + std::to_string(figures.lost));
    if (figures.twice > 0) failures.push_back("twice " + std::to_string(figures.twice));
    if (stepBacks > 0) failures.push_back("sequential id step-backs " + std::to_string(stepBacks));
    if (failures.empty()) {
        std::printf("verdict: PASS\n");
        return 0;
    }
    std::string reasons;
    for (const auto& failure : failures) reasons += (reasons.empty() ? "" : "; ") + failure;
    std::printf("verdict: FAIL (%s)\n", reasons.c_str());
    return 1;
}

}  // namespace rovalis::crashtest
