#include "core/DebugEventsManager.h"

namespace rovalis {

DebugEventsManager::DebugEventsManager(std::weak_ptr<RVLEventInsertable> eventRepository,
                                       std::shared_ptr<RVLDateSource> dateSource)
    : eventRepository_(std::move(eventRepository)), dateSource_(std::move(dateSource)) {}

void DebugEventsManager::insertApplicationNotificationDebugEvent(const std::string& text) {
    record(Debug::Topic::applicationNotification, text);
}

void DebugEventsManager::insertLocationAuthorizationDebugEvent(const std::string& text) {
    record(Debug::Topic::locationAuthorization, text);
}

void DebugEventsManager::insertBeaconRangingDebugEvent(const std::string& text) {
    record(Debug::Topic::beaconRanging, text);
}

void DebugEventsManager::insertLogDebugEvent(const std::string& text) { record(Debug::Topic::log, text); }

void DebugEventsManager::record(Debug::Topic topic, const std::string& text) {
    if (!trackingActive_) return;
    const Date now = dateSource_->now();
    if (auto repository = eventRepository_.lock()) {
        repository->insertDebugEventWithTrackedAtMs(now, static_cast<long>(topic), text);
    }
}

}  // namespace rovalis
