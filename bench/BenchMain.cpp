// The benchmarks' main: Google Benchmark's, after pinning the allocator, with a summary at
// the end of the console report: each path of the SDK against its bare baseline.
//
// glibc returns freed memory to the system when the top of the heap grows past a
// threshold that it raises as large blocks come and go. Runs that allocate and free
// megabytes per iteration then pay page faults or not depending on which benchmark ran
// before them (the same fetch measured 34 ms or 57 ms). Fixed, generous thresholds take
// that out, so that each figure depends on the code it measures.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <ostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

// A path of the SDK and the benchmark doing its work with the bare library. Both do the same
// amount of work per iteration, so their times per iteration compare; a path measured by a
// counter (bytes on disk) compares that counter instead.
struct Pairing {
    const char* path;
    const char* sdk;
    const char* baseline;
    const char* counter = nullptr;
};

const Pairing pairings[] = {
    {"insert Waypoints, 1 producer", "BM_StoreInsert/1", "BM_RawInsert"},
    {"insert Waypoints, 4 producers", "BM_StoreInsert/4", "BM_RawInsert"},
    {"insert accelerations", "BM_StoreAcceleration", "BM_RawInsertAcceleration"},
    {"fetch 20000 + document + gzip", "BM_StoreFetchDocumentGzip", "BM_RawFetchConcatDeflate"},
    {"delete an accepted batch", "BM_StoreDeleteByPayload", "BM_RawDeleteByIds"},
    {"bytes on disk per event", "BM_StoreBytesPerEvent", "BM_RawBytesPerEvent", "bytes_per_event"},
    {"encode a Waypoint", "BM_EncodeWaypoint", "BM_EncodeWaypointBare"},
    {"encode an acceleration", "BM_EncodeAcceleration", "BM_EncodeAccelerationBare"},
    {"gzip a batch", "BM_GzipBatch", "BM_GzipBatchRaw"},
    {"deliver 100000, foreground", "BM_DeliverBacklogForeground", "BM_RawDeliverBacklog"},
    {"deliver 100000, background", "BM_DeliverBacklogBackground", "BM_RawDeliverBacklog"},
};

struct Figures {
    double realSeconds = 0;  // per iteration
    double cpuSeconds = 0;
    benchmark::UserCounters counters;
};

std::string timeText(double seconds) {
    char text[32];
    if (seconds >= 1.0) {
        std::snprintf(text, sizeof text, "%.2f s", seconds);
    } else if (seconds >= 1e-3) {
        std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    } else if (seconds >= 1e-6) {
        std::snprintf(text, sizeof text, "%.2f us", seconds * 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.1f ns", seconds * 1e9);
    }
    return text;
}

class SummaryReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal: the library's own choice is not made for a reporter of ours.
    SummaryReporter() : ConsoleReporter(::isatty(STDOUT_FILENO) == 1 ? OO_Color : OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
            const std::string name =
                run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
            const auto iterations = static_cast<double>(run.iterations);
            figures_[name] = {run.real_accumulated_time / iterations, run.cpu_accumulated_time / iterations,
                              run.counters};
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::vector<const Pairing*> measured;
        for (const Pairing& pairing : pairings) {
            if (figures_.contains(pairing.sdk) && figures_.contains(pairing.baseline)) measured.push_back(&pairing);
        }
        if (measured.empty()) return;
        auto& out = GetOutputStream();
        char line[256];
        std::snprintf(line, sizeof line, "\n%-31s %12s %12s %12s %12s %7s %7s\n", "SDK path against its baseline",
                      "SDK", "baseline", "SDK CPU", "base CPU", "x time", "x CPU");
        out << line << std::string(100, '-') << "\n";
        for (const Pairing* pairing : measured) {
            const Figures& sdk = figures_.at(pairing->sdk);
            const Figures& baseline = figures_.at(pairing->baseline);
            if (pairing->counter != nullptr) {
                const double mine = sdk.counters.count(pairing->counter) ? sdk.counters.at(pairing->counter).value : 0;
                const double theirs =
                    baseline.counters.count(pairing->counter) ? baseline.counters.at(pairing->counter).value : 0;
                std::snprintf(line, sizeof line, "%-31s %10.1f B %10.1f B %12s %12s %7.2f %7s\n", pairing->path, mine,
                              theirs, "", "", theirs > 0 ? mine / theirs : 0.0, "");
            } else {
                std::snprintf(line, sizeof line, "%-31s %12s %12s %12s %12s %7.2f %7.2f\n", pairing->path,
                              timeText(sdk.realSeconds).c_str(), timeText(baseline.realSeconds).c_str(),
                              timeText(sdk.cpuSeconds).c_str(), timeText(baseline.cpuSeconds).c_str(),
                              sdk.realSeconds / baseline.realSeconds, sdk.cpuSeconds / baseline.cpuSeconds);
            }
            out << line;
        }
        out << "(per iteration; CPU is this process's, the collection service's is apart; x: SDK / baseline)\n";
    }

private:
    std::map<std::string, Figures> figures_;
};

}  // namespace

int main(int argc, char** argv) {
    constexpr int threshold = 256 << 20;
    mallopt(M_TRIM_THRESHOLD, threshold);
    mallopt(M_MMAP_THRESHOLD, threshold);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
