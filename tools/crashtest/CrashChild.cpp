#include "crashtest/CrashChild.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "crashtest/Ledger.h"
#include "events/EventRecords.h"
#include "rovalis/Console.h"
#include "support/UploadStack.h"
#include "upload/BackgroundTaskJournal.h"
#include "upload/RVLAPIClient.h"

namespace rovalis::crashtest {

namespace {

using namespace std::chrono_literals;
using test::UploadStack;
using test::UploadStackOptions;

// The SDK's console lines of every process go to one file of the run, a write(2) a line.
class ConsoleToFile {
public:
    explicit ConsoleToFile(const std::filesystem::path& file)
        : fd_(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
        previous_ = Console::setSink([fd = fd_](std::string_view text) {
            std::string line(text);
            line += '\n';
            if (fd >= 0) (void)::write(fd, line.data(), line.size());
        });
    }
    ~ConsoleToFile() {
        Console::setSink(previous_);
        if (fd_ >= 0) ::close(fd_);
    }
    ConsoleToFile(const ConsoleToFile&) = delete;
    ConsoleToFile& operator=(const ConsoleToFile&) = delete;

private:
    int fd_;
    Console::Sink previous_;
};

UploadStackOptions stackOptions(const ChildOptions& options) {
    UploadStackOptions stack;
    stack.dataRoot = options.dataRoot;
    stack.baseURL = options.baseURL;
    return stack;
}

void signalReady(int fd) {
    if (fd < 0) return;
    const char ready = 1;
    (void)::write(fd, &ready, 1);
    ::close(fd);
}

int uniform(std::mt19937_64& random, int low, int high) { return std::uniform_int_distribution(low, high)(random); }

// Foreground send groups 100-300 ms apart, the first one sooner, so that even a short-lived
// process sends; every third or so the pre-shutdown group, whose failure hands everything
// stored to the background session.
[[noreturn]] void sendForever(UploadStack& stack, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    int pause = uniform(random, 0, 300);
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        pause = uniform(random, 100, 300);
        if (uniform(random, 0, 2) == 0) {
            (void)stack.preShutDown();
        } else {
            (void)stack.sendEvents();
        }
    }
}

}  // namespace

void recordAndSendUntilKilled(const ChildOptions& options) {
    // A child left behind by a parent that died is of no use to anyone.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const RunFiles files = RunFiles::aroundDataRoot(options.dataRoot);
    ConsoleToFile console(files.consoleLog());
    Console::log("crash test: round " + std::to_string(options.round) + " starts");
    LedgerWriter recorded(files.recordedLedger());
    LedgerWriter acknowledged(files.acknowledgedLedger());

    UploadStack stack(stackOptions(options));
    stack.credentials->setAccessToken(test::sampleAccessToken());
    signalReady(options.readyFd);

    // Runs until the kill; the process never unwinds.
    std::thread(sendForever, std::ref(stack), options.seed + 1).detach();

    std::mt19937_64 random(options.seed);
    const long logTopic = static_cast<long>(Debug::Topic::log);
    std::int64_t next = 0;
    const auto giveUp = std::chrono::steady_clock::now() + 2min;
    while (std::chrono::steady_clock::now() < giveUp) {
        const std::int64_t last = next + uniform(random, 1, 20) - 1;
        recorded.append(options.round, last);
        for (; next <= last; ++next) {
            stack.events->insertDebugEventWithTrackedAtMs(stack.dateSource->now(), logTopic,
                                                          markerText({options.round, next}));
        }
        // Returns once everything queued before it is committed: only then are the events
        // acknowledged. A kill before this line may lose them, which is allowed.
        (void)stack.events->eventsCount();
        acknowledged.append(options.round, last);
        std::this_thread::sleep_for(std::chrono::milliseconds(uniform(random, 2, 20)));
    }
    std::fprintf(stderr, "crash test: round %d was never killed\n", options.round);
    std::_Exit(3);
}

int drain(const ChildOptions& options) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const RunFiles files = RunFiles::aroundDataRoot(options.dataRoot);
    ConsoleToFile console(files.consoleLog());
    Console::log("crash test: the drain starts");

    long left = 0;
    bool backgroundPending = false;
    {
        UploadStack stack(stackOptions(options));
        stack.credentials->setAccessToken(test::sampleAccessToken());
        signalReady(options.readyFd);

        // Making the stack resumed any upload an earlier process left to the background
        // session; it goes out again until the service answers, and its journal goes with it.
        const BackgroundTaskJournal journal(stack.dataRoot.privateDirectory("BackgroundSessions"),
                                            kRVLBackgroundSessionIdentifier);
        const auto waitUntil = std::chrono::steady_clock::now() + 60s;
        while (std::filesystem::exists(journal.file()) && std::chrono::steady_clock::now() < waitUntil) {
            std::this_thread::sleep_for(20ms);
        }

        // A failed send records a Debug event of its own, which the next one takes along.
        for (int attempt = 0; attempt < 30; ++attempt) {
            if (stack.sendEvents() && stack.events->eventsCount() == 0) break;
        }
        left = stack.events->eventsCount();
        backgroundPending = std::filesystem::exists(journal.file());
    }
    if (left == 0 && !backgroundPending) return 0;
    std::fprintf(stderr, "crash test: the drain left %ld events in the store%s\n", left,
                 backgroundPending ? " and a background upload pending" : "");
    return 1;
}

}  // namespace rovalis::crashtest
