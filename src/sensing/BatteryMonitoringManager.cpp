#include "sensing/BatteryMonitoringManager.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "util/Fatal.h"

namespace rovalis {

namespace {

std::string twoDecimals(float level) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(level));
    return text;
}

}  // namespace

BatteryMonitoringManager::BatteryMonitoringManager(std::weak_ptr<RVLEventInsertable> eventRepository,
                                                   std::shared_ptr<RVLDeviceInfoType> deviceInfo,
                                                   std::shared_ptr<RVLDateSource> dateSource,
                                                   std::shared_ptr<NotificationCenter> notificationCenter)
    : eventRepository_(std::move(eventRepository)),
      deviceInfo_(std::move(deviceInfo)),
      dateSource_(std::move(dateSource)),
      notificationCenter_(std::move(notificationCenter)) {}

BatteryMonitoringManager::~BatteryMonitoringManager() { removeObservers(); }

void BatteryMonitoringManager::start() {
    deviceInfo_->enableBatteryMonitoring();
    // A second start must not double the observers.
    removeObservers();
    // Whatever a notification carries, it asks for an unforced record.
    const auto record = [this](const Notification&) { persistStateWithForced(false); };
    levelObserver_ = notificationCenter_->addObserver(UIDeviceBatteryLevelDidChangeNotification, record);
    stateObserver_ = notificationCenter_->addObserver(UIDeviceBatteryStateDidChangeNotification, record);
}

void BatteryMonitoringManager::stop() { removeObservers(); }

void BatteryMonitoringManager::removeObservers() {
    for (auto* token : {&levelObserver_, &stateObserver_}) {
        if (*token) notificationCenter_->removeObserver(**token);
        token->reset();
    }
}

void BatteryMonitoringManager::persistStateWithForced(bool forced) {
    const float reading = deviceInfo_->batteryLevel();
    // The platform reads a negative level when it does not know; a full battery is assumed.
    // The test is written so that a level that is not a number counts as unknown too.
    const float level = reading >= 0.0f ? std::min(reading, 1.0f) : 1.0f;
    if (!forced && twoDecimals(batteryLevel_) == twoDecimals(level)) return;
    batteryLevel_ = level;

    const bool isCharging = deviceInfo_->batteryState() == BatteryState::charging;
    const auto repository = eventRepository_.lock();
    if (!repository) fatalError("BatteryMonitoringManager: the event repository is gone");
    repository->insertBatteryEventWithTrackedAtMs(dateSource_->now(), isCharging, level);
}

}  // namespace rovalis
