#include "upload/StateOperations.h"

namespace rovalis {

namespace {

// Runs work on the main queue: in place when already there.
void onMainQueue(Executor& mainQueue, std::function<void()> work) {
    if (mainQueue.isCurrent()) {
        work();
    } else {
        mainQueue.async(std::move(work));
    }
}

}  // namespace

RVLTransitionOperation::RVLTransitionOperation(std::string name, std::weak_ptr<RVLEventInsertable> eventRepository,
                                               std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                               std::string reason, std::optional<Location> lastKnownLocation,
                                               std::shared_ptr<Executor> mainQueue,
                                               PauseManagerFactory pauseManagerFactory)
    : eventRepository_(std::move(eventRepository)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      reason_(std::move(reason)),
      lastKnownLocation_(std::move(lastKnownLocation)),
      mainQueue_(std::move(mainQueue)),
      pauseManagerFactory_(std::move(pauseManagerFactory)) {
    setName(std::move(name));
}

// The work holds the operation: a cancel finishes it and lets the queue drop it while a
// burst is still running.
void RVLTransitionOperation::execute() {
    auto self = std::static_pointer_cast<RVLTransitionOperation>(shared_from_this());
    onMainQueue(*mainQueue_, [self] { self->executeOnMainQueue(); });
}

PauseManagerType& RVLTransitionOperation::startBurst() {
    pauseManager_ = pauseManagerFactory_(eventRepository_, userDefaultsManager_);
    return *pauseManager_;
}

void RVLTransitionOperation::endBurst() {
    // Called from the pause manager's own callback: released on the next turn of the queue.
    mainQueue_->async([keep = std::move(pauseManager_)] {});
    finish();
}

RVLSpeedUpOperation::RVLSpeedUpOperation(std::weak_ptr<RVLWakeupable> wakeupProvider,
                                         std::weak_ptr<RVLEventInsertable> eventRepository,
                                         std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                         std::string reason, std::optional<Location> lastKnownLocation,
                                         std::shared_ptr<Executor> mainQueue, PauseManagerFactory pauseManagerFactory)
    : RVLTransitionOperation("RVLSpeedUpOperation", std::move(eventRepository), std::move(userDefaultsManager),
                             std::move(reason), std::move(lastKnownLocation), std::move(mainQueue),
                             std::move(pauseManagerFactory)),
      wakeupProvider_(std::move(wakeupProvider)) {}

// Every reason, a beacon's too, is put to the burst: a beacon at the edge of its range is heard
// now and then by a phone that never moves, and waking it for that kept it awake.
void RVLSpeedUpOperation::executeOnMainQueue() {
    auto self = std::static_pointer_cast<RVLSpeedUpOperation>(shared_from_this());
    startBurst().wakeupWithReason(reason(), lastKnownLocation(), [self](bool moved) {
        if (moved) {
            if (auto provider = self->wakeupProvider_.lock()) provider->wakeUpWithReason(self->reason(), false);
        }
        self->endBurst();
    });
}

RVLSlowDownOperation::RVLSlowDownOperation(std::weak_ptr<RVLSleepable> sleepProvider,
                                           std::weak_ptr<RVLEventInsertable> eventRepository,
                                           std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                           std::string reason, std::optional<Location> lastKnownLocation,
                                           std::shared_ptr<Executor> mainQueue, PauseManagerFactory pauseManagerFactory)
    : RVLTransitionOperation("RVLSlowDownOperation", std::move(eventRepository), std::move(userDefaultsManager),
                             std::move(reason), std::move(lastKnownLocation), std::move(mainQueue),
                             std::move(pauseManagerFactory)),
      sleepProvider_(std::move(sleepProvider)) {}

void RVLSlowDownOperation::executeOnMainQueue() {
    auto self = std::static_pointer_cast<RVLSlowDownOperation>(shared_from_this());
    startBurst().sleepWithReason(reason(), lastKnownLocation(), [self](const std::optional<Location>& center) {
        if (auto provider = self->sleepProvider_.lock()) provider->sleepWithCenterLocation(center, self->reason());
        self->endBurst();
    });
}

}  // namespace rovalis
