// The benchmarks' main: Google Benchmark's, after pinning the allocator.
//
// glibc returns freed memory to the system when the top of the heap grows past a
// threshold that it raises as large blocks come and go. Runs that allocate and free
// megabytes per iteration then pay page faults or not depending on which benchmark ran
// before them (the same fetch measured 34 ms or 57 ms). Fixed, generous thresholds take
// that out, so that each figure depends on the code it measures.

#include <benchmark/benchmark.h>
#include <malloc.h>

int main(int argc, char** argv) {
    constexpr int threshold = 256 << 20;
    mallopt(M_TRIM_THRESHOLD, threshold);
    mallopt(M_MMAP_THRESHOLD, threshold);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
