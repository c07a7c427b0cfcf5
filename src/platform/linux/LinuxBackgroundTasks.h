#pragma once

#include <atomic>

#include "rovalis/platform/BackgroundTasks.h"

namespace rovalis {

// A Linux process is not suspended by the system, so background time is granted at once
// and never taken back: the expiration handler is never called.
class LinuxBackgroundTasks final : public BackgroundTaskScheduler {
public:
    BackgroundTaskIdentifier beginBackgroundTask(std::function<void()> expirationHandler) override;
    void endBackgroundTask(BackgroundTaskIdentifier identifier) override;

private:
    std::atomic<BackgroundTaskIdentifier> next_{UIBackgroundTaskInvalid + 1};
};

}  // namespace rovalis
