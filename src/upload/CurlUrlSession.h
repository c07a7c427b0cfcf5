#pragma once

// URL sessions over libcurl. Each session has its own delegate thread, on which its tasks
// run one at a time and its delegate is called. A background session journals its pending
// tasks on disk before they start, retries transport failures until the task completes,
// and when made again by a later process resumes the tasks an earlier one left. A task
// that is cancelled, or whose session is invalidated, leaves the journal at once.

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "rovalis/DateSource.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/NetworkMonitor.h"
#include "upload/UrlSession.h"

namespace rovalis {

class WorkTracker;

struct CurlUrlSessionOptions {
    // A background task whose transfer failed is sent again after this delay, doubled after
    // every further failure up to the maximum (and sooner when the network comes back).
    double backgroundRetryDelay = 10.0;
    double backgroundRetryMaxDelay = 300.0;
};

class CurlUrlSessionFactory final : public UrlSessionFactory {
public:
    // journalDirectory: a private directory for background sessions' journals.
    // network: consulted before each transfer; null means the network is taken as reachable.
    // runLoop: carries background retry timers. dateSource: task creation times and
    // resource time-outs. workTracker (optional): counts the delegate threads' work, transfers
    // included, so that a virtual clock does not move during a transfer.
    CurlUrlSessionFactory(std::filesystem::path journalDirectory, std::shared_ptr<NetworkMonitor> network,
                          std::shared_ptr<RunLoop> runLoop, std::shared_ptr<const RVLDateSource> dateSource,
                          std::shared_ptr<WorkTracker> workTracker = nullptr, CurlUrlSessionOptions options = {});

    // A background session made while an older one of the same identifier is still held
    // takes over its pending tasks; the older one stops and tells its delegate nothing more
    // (unless it was invalidated: then it has no tasks left to give, and finishes telling
    // its delegate of their cancellation).
    std::shared_ptr<UrlSession> makeSession(const UrlSessionConfiguration& configuration,
                                            std::weak_ptr<UrlSessionDelegate> delegate) override;

private:
    const std::filesystem::path journalDirectory_;
    const std::shared_ptr<NetworkMonitor> network_;
    const std::shared_ptr<RunLoop> runLoop_;
    const std::shared_ptr<const RVLDateSource> dateSource_;
    const std::shared_ptr<WorkTracker> workTracker_;
    const CurlUrlSessionOptions options_;
    std::mutex mutex_;
    // The latest background session made for each identifier.
    std::map<std::string, std::weak_ptr<UrlSession>> backgroundSessions_;
};

}  // namespace rovalis
