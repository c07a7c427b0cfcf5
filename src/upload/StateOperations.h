#pragma once

// The operations that switch tracking between awake and asleep. Each asks a pause manager
// for a burst of accurate fixes on the main run loop, then calls the sleep or wake-up
// provider, and keeps the operation queue busy until the burst has answered.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/PauseManagerType.h"
#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/Executor.h"
#include "upload/RVLOperationBase.h"

namespace rovalis {

// Makes a new pause manager for one transition, over a new location manager.
using PauseManagerFactory = std::function<std::shared_ptr<PauseManagerType>(
    std::weak_ptr<RVLEventInsertable> eventRepository, std::weak_ptr<RVLPauseRecordModifier> pauseRecordManager)>;

// What speed-up and slow-down share: the work moves to the main queue, and a burst of the
// pause manager keeps the operation executing until it answers.
class RVLTransitionOperation : public RVLOperationBase {
public:
    bool isDependentOnPrevious() const override { return false; }
    void execute() override;

    const std::string& reason() const { return reason_; }

protected:
    RVLTransitionOperation(std::string name, std::weak_ptr<RVLEventInsertable> eventRepository,
                           std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager, std::string reason,
                           std::optional<Location> lastKnownLocation, std::shared_ptr<Executor> mainQueue,
                           PauseManagerFactory pauseManagerFactory);

    // Runs on the main queue.
    virtual void executeOnMainQueue() = 0;
    // A new pause manager for this operation's burst, kept until endBurst().
    PauseManagerType& startBurst();
    // Releases the pause manager (after its callback has returned) and finishes.
    void endBurst();

    const std::optional<Location>& lastKnownLocation() const { return lastKnownLocation_; }

private:
    const std::weak_ptr<RVLEventInsertable> eventRepository_;
    const std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager_;
    const std::string reason_;
    const std::optional<Location> lastKnownLocation_;
    const std::shared_ptr<Executor> mainQueue_;
    const PauseManagerFactory pauseManagerFactory_;
    std::shared_ptr<PauseManagerType> pauseManager_;
};

class RVLSpeedUpOperation final : public RVLTransitionOperation {
public:
    RVLSpeedUpOperation(std::weak_ptr<RVLWakeupable> wakeupProvider, std::weak_ptr<RVLEventInsertable> eventRepository,
                        std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager, std::string reason,
                        std::optional<Location> lastKnownLocation, std::shared_ptr<Executor> mainQueue,
                        PauseManagerFactory pauseManagerFactory);

    // Kept for the record; the wake-up never consults it.
    bool forced() const { return false; }

private:
    void executeOnMainQueue() override;

    const std::weak_ptr<RVLWakeupable> wakeupProvider_;
};

class RVLSlowDownOperation final : public RVLTransitionOperation {
public:
    RVLSlowDownOperation(std::weak_ptr<RVLSleepable> sleepProvider, std::weak_ptr<RVLEventInsertable> eventRepository,
                         std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager, std::string reason,
                         std::optional<Location> lastKnownLocation, std::shared_ptr<Executor> mainQueue,
                         PauseManagerFactory pauseManagerFactory);

private:
    void executeOnMainQueue() override;

    const std::weak_ptr<RVLSleepable> sleepProvider_;
};

}  // namespace rovalis
