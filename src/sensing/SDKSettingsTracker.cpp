#include "sensing/SDKSettingsTracker.h"

#include <utility>

namespace rovalis {

SDKSettingsTracker::SDKSettingsTracker(std::shared_ptr<EventRecordInsertable> eventRepository,
                                       std::shared_ptr<RVLDateSource> dateSource,
                                       std::shared_ptr<RVLDataTransferModeRecording> dataTransferModeSource,
                                       std::shared_ptr<SystemStateType> systemState)
    : eventRepository_(std::move(eventRepository)),
      dateSource_(std::move(dateSource)),
      dataTransferModeSource_(std::move(dataTransferModeSource)),
      systemState_(std::move(systemState)) {}

void SDKSettingsTracker::start() {
    trackingActive_ = true;
    persistStateWithForced(true);
}

void SDKSettingsTracker::persistStateWithForced(bool forced) {
    if (!trackingActive_) return;
    const bool wifiOnly = dataTransferModeSource_->wifiOnlyDataTransfer();
    if (wifiOnly == wifiOnlyDataTransfer_ && !forced) return;
    wifiOnlyDataTransfer_ = wifiOnly;

    eventRepository_->insert(SDKSettings(dateSource_->now(), wifiOnly));
    eventRepository_->insert(DeviceSettings(dateSource_->now(), systemState_->isLowPowerModeEnabled(),
                                            systemState_->backgroundRefreshStatus() ==
                                                BackgroundRefreshStatus::available));
}

}  // namespace rovalis
