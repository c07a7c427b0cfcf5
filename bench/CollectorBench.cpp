// The collection service under a fleet's load: N connections, each a device, post
// pre-built gzip batches of 20000 events in a real day's mix (see DayMix.h) to the service
// running as its own process on loopback with its database in a file, as rovalis-sim and a
// developer run it.
//
//   BM_CollectorIntake/connections:N  120 batches (2.4 million events) over N connections
//
// Counters: batches_per_s and events_per_s over the wall time, the service's CPU time per
// batch (collector_cpu_ms_per_batch) and on average (collector_cores: 1.0 is one core kept
// busy), and the load generator's own CPU (client_cpu_ms_per_batch), which shares the
// machine's cores with the service.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "CollectorProcess.h"
#include "DayMix.h"
#include "events/EventBatchGenerator.h"
#include "events/EventEncoder.h"
#include "support/TestSupport.h"
#include "upload/Gzip.h"

namespace {

using namespace rovalis;
using namespace rovalis::bench;

constexpr std::size_t eventsPerBatch = 20000;
constexpr std::size_t batchesPerRun = 120;

// The bodies, each with its own batch id and sequential id, over a few distinct stretches
// of the day (gzip costs 30 ms a batch; building all of them from distinct events would
// take longer than the run).
const std::vector<std::string>& batchBodies() {
    static const std::vector<std::string> bodies = [] {
        constexpr std::size_t stretches = 6;
        const auto events = dayMixEvents(eventsPerBatch * stretches, Date{1705363200.0});
        const EventEncoder encoder;
        std::vector<std::vector<EventPayload>> payloads(stretches);
        for (std::size_t i = 0; i < events.size(); ++i) {
            payloads[i / eventsPerBatch].push_back(
                EventPayload{std::string(typeOf(events[i])), trackedAtOf(events[i]), encoder.encode(events[i]), ""});
        }
        EventBatchGenerator generator;
        std::vector<std::string> built;
        for (std::size_t i = 0; i < batchesPerRun; ++i) {
            const std::string id = "5E1F0000-0000-4000-8000-" + std::string(12 - std::to_string(i).size(), '0') +
                                   std::to_string(i);
            const auto document =
                generator.generateEventBatchFrom(payloads[i % stretches], id, static_cast<std::int64_t>(i));
            built.push_back(dataByGZipCompressingWithError(document, nullptr).value_or(""));
        }
        return built;
    }();
    return bodies;
}

void BM_CollectorIntake(benchmark::State& state) {
    const auto connections = static_cast<std::size_t>(state.range(0));
    const auto& bodies = batchBodies();
    double collectorCpu = 0, clientCpu = 0, wall = 0;
    std::size_t posted = 0;
    for (auto _ : state) {
        state.PauseTiming();
        test::TempDir dir;
        CollectorProcess collector(dir.path() / "collector.sqlite");
        std::vector<std::unique_ptr<RawUploader>> uploaders;
        for (std::size_t c = 0; c < connections; ++c) {
            uploaders.push_back(std::make_unique<RawUploader>(collector.baseURL(), "device-" + std::to_string(c)));
        }
        std::atomic<std::size_t> next{0};
        std::atomic<bool> failed{false};
        const double collectorBefore = collector.cpuSeconds();
        const double clientBefore = processCpuSeconds();
        const auto started = std::chrono::steady_clock::now();
        state.ResumeTiming();

        std::vector<std::thread> threads;
        for (std::size_t c = 0; c < connections; ++c) {
            threads.emplace_back([&, c] {
                for (std::size_t i = next++; i < bodies.size(); i = next++) {
                    if (uploaders[c]->post(bodies[i]) != 200) failed = true;
                }
            });
        }
        for (auto& thread : threads) thread.join();

        state.PauseTiming();
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        collectorCpu += collector.cpuSeconds() - collectorBefore;
        clientCpu += processCpuSeconds() - clientBefore;
        posted += bodies.size();
        if (failed || collector.statistic("batches") != static_cast<std::int64_t>(bodies.size())) {
            state.SkipWithError("a batch was not stored");
        }
        uploaders.clear();
        state.ResumeTiming();
    }
    state.counters["batches_per_s"] = static_cast<double>(posted) / wall;
    state.counters["events_per_s"] = static_cast<double>(posted * eventsPerBatch) / wall;
    state.counters["collector_cpu_ms_per_batch"] = collectorCpu * 1000.0 / static_cast<double>(posted);
    state.counters["collector_cores"] = collectorCpu / wall;
    state.counters["client_cpu_ms_per_batch"] = clientCpu * 1000.0 / static_cast<double>(posted);
    std::size_t bytes = 0;
    for (const auto& body : bodies) bytes += body.size();
    state.counters["wire_bytes_per_event"] =
        static_cast<double>(bytes) / static_cast<double>(bodies.size() * eventsPerBatch);
}
BENCHMARK(BM_CollectorIntake)
    ->ArgName("connections")
    ->Arg(1)
    ->Arg(4)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
