#pragma once

#include <memory>
#include <optional>

#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/platform/Device.h"

namespace rovalis {

// Records the Wi-Fi-only transfer setting as an SDKSettings event, followed by the device's
// low-power and background-refresh state as a DeviceSettings event: when tracking starts,
// and whenever the setting changes while tracking is on.
//
// Lives on the main run loop.
class SDKSettingsTracker final : public RVLTracker, public RVLStatePersistable {
public:
    SDKSettingsTracker(std::shared_ptr<EventRecordInsertable> eventRepository,
                       std::shared_ptr<RVLDateSource> dateSource,
                       std::shared_ptr<RVLDataTransferModeRecording> dataTransferModeSource,
                       std::shared_ptr<SystemStateType> systemState);

    // RVLTracker
    void setup() override {}
    // Records both events, changed or not.
    void start() override;
    void stop() override { trackingActive_ = false; }
    void halt() override { trackingActive_ = false; }
    void speedUp() override {}
    void slowDown(const std::optional<Location>&) override {}

    // RVLStatePersistable. Records only while tracking is on; not forced, only when the
    // setting differs from the one recorded last.
    void persistStateWithForced(bool forced) override;

    bool trackingActive() const { return trackingActive_; }

private:
    const std::shared_ptr<EventRecordInsertable> eventRepository_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    const std::shared_ptr<RVLDataTransferModeRecording> dataTransferModeSource_;
    const std::shared_ptr<SystemStateType> systemState_;
    bool trackingActive_ = false;
    // The setting recorded last; kept across a stop.
    bool wifiOnlyDataTransfer_ = false;
};

}  // namespace rovalis
