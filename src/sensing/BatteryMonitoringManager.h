#pragma once

#include <memory>
#include <optional>

#include "core/TrackingInterfaces.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/platform/Device.h"

namespace rovalis {

// Records a Battery event when the battery level (at two decimals) or the charging state
// changes, and at every sleep and wake-up whatever the level.
//
// Lives on the main run loop; the device's battery notifications are posted there too.
class BatteryMonitoringManager final : public RVLTracker, public RVLStatePersistable {
public:
    // eventRepository must outlive the manager; notificationCenter is where the device
    // posts its battery notifications.
    BatteryMonitoringManager(std::weak_ptr<RVLEventInsertable> eventRepository,
                             std::shared_ptr<RVLDeviceInfoType> deviceInfo, std::shared_ptr<RVLDateSource> dateSource,
                             std::shared_ptr<NotificationCenter> notificationCenter);
    ~BatteryMonitoringManager() override;
    BatteryMonitoringManager(const BatteryMonitoringManager&) = delete;
    BatteryMonitoringManager& operator=(const BatteryMonitoringManager&) = delete;

    // RVLTracker
    void setup() override {}
    // Switches battery monitoring on and records on every battery notification from now on.
    void start() override;
    // Records on notifications no more.
    void stop() override;
    void halt() override { stop(); }
    void speedUp() override { persistStateWithForced(true); }
    void slowDown(const std::optional<Location>&) override { persistStateWithForced(true); }

    // RVLStatePersistable. Not forced, nothing is written while the level reads the same at
    // two decimals as the last one recorded (the charging state alone does not count).
    void persistStateWithForced(bool forced) override;

    // The last level recorded; 0 before the first.
    float batteryLevel() const { return batteryLevel_; }

private:
    void removeObservers();

    const std::weak_ptr<RVLEventInsertable> eventRepository_;
    const std::shared_ptr<RVLDeviceInfoType> deviceInfo_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    const std::shared_ptr<NotificationCenter> notificationCenter_;
    float batteryLevel_ = 0.0f;
    std::optional<NotificationCenter::ObserverToken> levelObserver_;
    std::optional<NotificationCenter::ObserverToken> stateObserver_;
};

}  // namespace rovalis
