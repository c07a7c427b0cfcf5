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

class RVLSpeedUpOperation final : public RVLOperationBase {
public:
    RVLSpeedUpOperation(std::weak_ptr<RVLWakeupable> wakeupProvider, std::weak_ptr<RVLEventInsertable> eventRepository,
                        std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager, std::string reason,
                        std::optional<Location> lastKnownLocation, std::shared_ptr<Executor> mainQueue,
                        PauseManagerFactory pauseManagerFactory);

    void execute() override;
    bool isDependentOnPrevious() const override { return false; }

    const std::string& reason() const { return reason_; }
    // Kept for the record; the wake-up never consults it.
    bool forced() const { return forced_; }

private:
    void executeOnMainQueue();

    const std::weak_ptr<RVLWakeupable> wakeupProvider_;
    const std::weak_ptr<RVLEventInsertable> eventRepository_;
    const std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager_;
    const std::string reason_;
    const std::optional<Location> lastKnownLocation_;
    const bool forced_ = false;
    const std::shared_ptr<Executor> mainQueue_;
    const PauseManagerFactory pauseManagerFactory_;
    // The burst in progress; released when it answers.
    std::shared_ptr<PauseManagerType> pauseManager_;
};

class RVLSlowDownOperation final : public RVLOperationBase {
public:
    RVLSlowDownOperation(std::weak_ptr<RVLSleepable> sleepProvider, std::weak_ptr<RVLEventInsertable> eventRepository,
                         std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager, std::string reason,
                         std::optional<Location> lastKnownLocation, std::shared_ptr<Executor> mainQueue,
                         PauseManagerFactory pauseManagerFactory);

    void execute() override;
    bool isDependentOnPrevious() const override { return false; }

    const std::string& reason() const { return reason_; }

private:
    void executeOnMainQueue();

    const std::weak_ptr<RVLSleepable> sleepProvider_;
    const std::weak_ptr<RVLEventInsertable> eventRepository_;
    const std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager_;
    const std::string reason_;
    const std::optional<Location> lastKnownLocation_;
    const std::shared_ptr<Executor> mainQueue_;
    const PauseManagerFactory pauseManagerFactory_;
    std::shared_ptr<PauseManagerType> pauseManager_;
};

}  // namespace rovalis
