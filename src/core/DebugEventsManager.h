#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "core/TrackingInterfaces.h"
#include "events/EventRecords.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"

namespace rovalis {

// Diagnostic texts recorded as Debug events in the event stream.
class RVLDebugEventsInsertable {
public:
    virtual ~RVLDebugEventsInsertable() = default;
    virtual void insertApplicationNotificationDebugEvent(const std::string& text) = 0;
    virtual void insertLocationAuthorizationDebugEvent(const std::string& text) = 0;
    virtual void insertBeaconRangingDebugEvent(const std::string& text) = 0;
    virtual void insertLogDebugEvent(const std::string& text) = 0;
};

// The one writer of Debug events. It is a tracker so that it records only while tracking
// runs: before the first start and after a stop or halt, texts are dropped. Callable from
// any thread.
class DebugEventsManager final : public RVLDebugEventsInsertable, public RVLTracker {
public:
    DebugEventsManager(std::weak_ptr<RVLEventInsertable> eventRepository, std::shared_ptr<RVLDateSource> dateSource);

    void insertApplicationNotificationDebugEvent(const std::string& text) override;
    void insertLocationAuthorizationDebugEvent(const std::string& text) override;
    void insertBeaconRangingDebugEvent(const std::string& text) override;
    void insertLogDebugEvent(const std::string& text) override;

    void setup() override {}
    void start() override { trackingActive_ = true; }
    void stop() override { trackingActive_ = false; }
    void halt() override { trackingActive_ = false; }
    void speedUp() override {}
    void slowDown(const std::optional<Location>&) override {}

    bool trackingActive() const { return trackingActive_; }

private:
    void record(Debug::Topic topic, const std::string& text);

    const std::weak_ptr<RVLEventInsertable> eventRepository_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    std::atomic<bool> trackingActive_{false};
};

}  // namespace rovalis
