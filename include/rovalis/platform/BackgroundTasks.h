#pragma once

#include <cstdint>
#include <functional>

#include "rovalis/Export.h"

namespace rovalis {

using BackgroundTaskIdentifier = std::uint64_t;
inline constexpr BackgroundTaskIdentifier UIBackgroundTaskInvalid = 0;

// Extra running time asked of the system while work that must not be cut short is under
// way. The system may take it back early: the expiration handler then runs, and the caller
// must end the task. On Linux a process is never suspended, so time is never taken back.
class ROVALIS_EXPORT BackgroundTaskScheduler {
public:
    virtual ~BackgroundTaskScheduler() = default;

    // Never returns UIBackgroundTaskInvalid.
    virtual BackgroundTaskIdentifier beginBackgroundTask(std::function<void()> expirationHandler) = 0;
    virtual void endBackgroundTask(BackgroundTaskIdentifier identifier) = 0;
};

}  // namespace rovalis
