#pragma once

// The local collection service as a child process on a free loopback port, so that its work
// and memory are not counted as the benchmark's own; and plain libcurl uploads to it.

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

namespace rovalis::bench {

class CollectorProcess {
public:
    // Keeps its batches in `database` (an empty path: in memory). The program is the one this
    // build made, or $ROVALIS_COLLECTOR when that is set (to measure another build of it).
    explicit CollectorProcess(const std::filesystem::path& database = {});
    ~CollectorProcess();  // SIGTERM, then waits for it
    CollectorProcess(const CollectorProcess&) = delete;
    CollectorProcess& operator=(const CollectorProcess&) = delete;

    const std::string& baseURL() const { return baseURL_; }
    // A figure of GET /api/stats.
    std::int64_t statistic(const std::string& name) const;
    // User and system CPU time the process has used so far.
    double cpuSeconds() const;

private:
    pid_t pid_ = 0;
    std::FILE* output_ = nullptr;
    std::string baseURL_;
    int port_ = 0;
};

// CPU time of this whole process (every thread) so far.
double processCpuSeconds();

// An upload as the SDK sends it (the same headers, a gzip batch body), over one libcurl
// handle that keeps its connection between requests.
class RawUploader {
public:
    RawUploader(const std::string& baseURL, const std::string& deviceId);
    ~RawUploader();
    RawUploader(const RawUploader&) = delete;
    RawUploader& operator=(const RawUploader&) = delete;

    // The answer's status; 0 when the transfer failed.
    long post(const std::string& gzipBody);

private:
    void* curl_ = nullptr;
    void* headers_ = nullptr;
    std::string answer_;
};

}  // namespace rovalis::bench
