#include "platform/linux/LinuxBackgroundTasks.h"

namespace rovalis {

BackgroundTaskIdentifier LinuxBackgroundTasks::beginBackgroundTask(std::function<void()> /*expirationHandler*/) {
    return next_++;
}

void LinuxBackgroundTasks::endBackgroundTask(BackgroundTaskIdentifier /*identifier*/) {}

}  // namespace rovalis
