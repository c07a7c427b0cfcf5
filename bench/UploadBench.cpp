// Delivering a backlog end to end: the SDK's upload path (store, operations, API client,
// libcurl) against the local collection service, which runs as its own process on loopback
// so that its memory is not counted as the SDK's.
//
//   BM_DeliverBacklogForeground  100000 stored events sent by one send group (5 batches)
//   BM_DeliverBacklogBackground  the same backlog through the background path, which
//                                fetches everything at once and uploads it from one file
//
// Counters: events per second (items_per_second), bytes per event on the wire (the gzip
// bodies the service received), and the peak resident memory the delivery added
// (peak_rss_MiB: the kernel's high-water mark, reset before each delivery, less the
// resident size at that moment). The backlog is a seeded random walk with GPS-like noise,
// so that it compresses like real fixes rather than like a repeated record.

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <future>
#include <random>
#include <stdexcept>
#include <string>

#include "rovalis/Console.h"
#include "support/TestSupport.h"
#include "support/UploadStack.h"

extern char** environ;

namespace {

using namespace rovalis;
using namespace rovalis::test;

constexpr std::size_t backlog = 100000;

// The collection service as a child process on a free port.
class CollectorProcess {
public:
    CollectorProcess() {
        int out[2];
        if (::pipe(out) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::string program = ROVALIS_COLLECTOR_PROGRAM;
        std::string port = "--port=0";
        char* argv[] = {program.data(), port.data(), nullptr};
        const int spawned = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        if (spawned != 0) throw std::runtime_error("cannot start " + program);
        output_ = ::fdopen(out[0], "r");
        char line[256] = {};
        if (output_ == nullptr || std::fgets(line, sizeof line, output_) == nullptr) {
            throw std::runtime_error("the collector did not start");
        }
        const std::string text = line;
        const auto at = text.find("http://");
        if (at == std::string::npos) throw std::runtime_error("unexpected collector output: " + text);
        baseURL_ = text.substr(at, text.find_last_not_of("\r\n") + 1 - at);
        port_ = std::stoi(baseURL_.substr(baseURL_.rfind(':') + 1));
    }
    ~CollectorProcess() {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        if (output_ != nullptr) std::fclose(output_);
    }

    const std::string& baseURL() const { return baseURL_; }
    std::int64_t statistic(const std::string& name) const {
        httplib::Client client("127.0.0.1", port_);
        const auto answer = client.Get("/api/stats");
        if (!answer || answer->status != 200) throw std::runtime_error("no stats from the collector");
        return nlohmann::json::parse(answer->body).at(name).get<std::int64_t>();
    }

private:
    pid_t pid_ = 0;
    std::FILE* output_ = nullptr;
    std::string baseURL_;
    int port_ = 0;
};

// Resets the process's peak resident size to its current size.
void resetPeakResidentSize() { std::ofstream("/proc/self/clear_refs") << "5"; }

// VmRSS or VmHWM of this process, in KiB.
long residentKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    }
    return 0;
}

// A walk at walking-to-driving speeds, one fix a second, with metre-scale noise.
void storeRandomWalk(EventRepository& events, std::size_t count) {
    std::mt19937_64 random(42);
    std::normal_distribution<double> noise(0.0, 3e-5);
    std::uniform_real_distribution<double> speed(0.5, 15.0), course(0.0, 360.0), accuracy(3.0, 30.0);
    double latitude = 52.52, longitude = 13.40;
    for (std::size_t i = 0; i < count; ++i) {
        latitude += 1e-5 + noise(random);
        longitude += 1e-5 + noise(random);
        events.insertWaypointEventWithTrackedAtMs(Date{1700000000.0 + static_cast<double>(i)}, latitude, longitude,
                                                  speed(random), course(random), accuracy(random),
                                                  34.0 + noise(random) * 1e5, "regular");
    }
    (void)events.eventsCount();  // waits until everything is written
}

template <typename Deliver>
void deliverBacklog(benchmark::State& state, Deliver deliver) {
    const auto previousSink = Console::setSink([](std::string_view) {});
    CollectorProcess collector;
    double peakMiB = 0;
    std::int64_t bodyBytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        TempDir root;
        UploadStackOptions options;
        options.dataRoot = root.path();
        options.baseURL = collector.baseURL();
        auto stack = std::make_unique<UploadStack>(options);
        stack->credentials->setAccessToken(sampleAccessToken());
        storeRandomWalk(*stack->events, backlog);
        const std::int64_t bytesBefore = collector.statistic("body_bytes");
        const long baseline = residentKiB("VmRSS");
        resetPeakResidentSize();
        state.ResumeTiming();

        if (!deliver(*stack)) state.SkipWithError("delivery failed");

        state.PauseTiming();
        peakMiB = std::max(peakMiB, static_cast<double>(residentKiB("VmHWM") - baseline) / 1024.0);
        bodyBytes += collector.statistic("body_bytes") - bytesBefore;
        if (stack->events->eventsCount() != 0) state.SkipWithError("events left in the store");
        stack.reset();
        state.ResumeTiming();
    }
    const auto delivered = static_cast<double>(state.iterations() * backlog);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(backlog));
    state.counters["wire_bytes_per_event"] = static_cast<double>(bodyBytes) / delivered;
    state.counters["peak_rss_MiB"] = peakMiB;
    Console::setSink(previousSink);
}

void BM_DeliverBacklogForeground(benchmark::State& state) {
    deliverBacklog(state, [](UploadStack& stack) { return stack.sendEvents(); });
}
BENCHMARK(BM_DeliverBacklogForeground)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_DeliverBacklogBackground(benchmark::State& state) {
    deliverBacklog(state, [](UploadStack& stack) {
        std::promise<bool> handedOver;
        stack.operationsController->performBGTransmissionOperationWithCompletion(
            [&](bool succeeded) { handedOver.set_value(succeeded); });
        // Delivered once the host is told, which is after the events have been deleted.
        const auto told = stack.observer->waitForUploads(1);
        return handedOver.get_future().get() && told.size() == 1 && !told[0].error;
    });
}
BENCHMARK(BM_DeliverBacklogBackground)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
