#include "upload/StateOperations.h"

#include <algorithm>
#include <cctype>

namespace rovalis {

namespace {

bool containsBeacon(const std::string& reason) {
    std::string lower = reason;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.find("beacon") != std::string::npos;
}

// Runs work on the main queue: in place when already there.
void onMainQueue(Executor& mainQueue, std::function<void()> work) {
    if (mainQueue.isCurrent()) {
        work();
    } else {
        mainQueue.async(std::move(work));
    }
}

}  // namespace

RVLSpeedUpOperation::RVLSpeedUpOperation(std::weak_ptr<RVLWakeupable> wakeupProvider,
                                         std::weak_ptr<RVLEventInsertable> eventRepository,
                                         std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                         std::string reason, std::optional<Location> lastKnownLocation,
                                         std::shared_ptr<Executor> mainQueue, PauseManagerFactory pauseManagerFactory)
    : wakeupProvider_(std::move(wakeupProvider)),
      eventRepository_(std::move(eventRepository)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      reason_(std::move(reason)),
      lastKnownLocation_(std::move(lastKnownLocation)),
      mainQueue_(std::move(mainQueue)),
      pauseManagerFactory_(std::move(pauseManagerFactory)) {
    setName("RVLSpeedUpOperation");
}

// The work holds the operation: a cancel finishes it and lets the queue drop it while a
// burst is still running.
void RVLSpeedUpOperation::execute() {
    auto self = std::static_pointer_cast<RVLSpeedUpOperation>(shared_from_this());
    onMainQueue(*mainQueue_, [self] { self->executeOnMainQueue(); });
}

void RVLSpeedUpOperation::executeOnMainQueue() {
    if (containsBeacon(reason_)) {
        // A beacon is proof enough of movement: no burst.
        if (auto provider = wakeupProvider_.lock()) provider->wakeUpWithReason(reason_, false);
        finish();
        return;
    }
    pauseManager_ = pauseManagerFactory_(eventRepository_, userDefaultsManager_);
    auto self = std::static_pointer_cast<RVLSpeedUpOperation>(shared_from_this());
    pauseManager_->wakeupWithReason(reason_, lastKnownLocation_, [self, this](bool moved) {
        if (moved) {
            if (auto provider = wakeupProvider_.lock()) provider->wakeUpWithReason(reason_, false);
        }
        // Released after the callback has returned, on the next turn of the main queue.
        mainQueue_->async([keep = std::move(pauseManager_)] {});
        finish();
    });
}

RVLSlowDownOperation::RVLSlowDownOperation(std::weak_ptr<RVLSleepable> sleepProvider,
                                           std::weak_ptr<RVLEventInsertable> eventRepository,
                                           std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                           std::string reason, std::optional<Location> lastKnownLocation,
                                           std::shared_ptr<Executor> mainQueue, PauseManagerFactory pauseManagerFactory)
    : sleepProvider_(std::move(sleepProvider)),
      eventRepository_(std::move(eventRepository)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      reason_(std::move(reason)),
      lastKnownLocation_(std::move(lastKnownLocation)),
      mainQueue_(std::move(mainQueue)),
      pauseManagerFactory_(std::move(pauseManagerFactory)) {
    setName("RVLSlowDownOperation");
}

void RVLSlowDownOperation::execute() {
    auto self = std::static_pointer_cast<RVLSlowDownOperation>(shared_from_this());
    onMainQueue(*mainQueue_, [self] { self->executeOnMainQueue(); });
}

void RVLSlowDownOperation::executeOnMainQueue() {
    pauseManager_ = pauseManagerFactory_(eventRepository_, userDefaultsManager_);
    auto self = std::static_pointer_cast<RVLSlowDownOperation>(shared_from_this());
    pauseManager_->sleepWithReason(reason_, lastKnownLocation_, [self, this](const std::optional<Location>& center) {
        if (auto provider = sleepProvider_.lock()) provider->sleepWithCenterLocation(center, reason_);
        mainQueue_->async([keep = std::move(pauseManager_)] {});
        finish();
    });
}

}  // namespace rovalis
