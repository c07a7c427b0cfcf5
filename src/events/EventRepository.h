#pragma once

// The event store: typed inserts, fetch in time order, count, and deletes by time or by
// the rows' identifiers. Records are built, validated and encoded on the caller's thread;
// the rows are written in groups on the persistence manager's background executor, at the
// latest when the commit delay has passed, and at once when the buffers are written
// (insertBuffers: a sleep, a stop, the app going to the background or ending).

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "events/CoreDataManager.h"
#include "events/EventBuffer.h"
#include "events/EventEncoder.h"
#include "events/EventStoreInterfaces.h"

namespace rovalis {

class WorkTracker;

class EventRepository final : public RVLEventStorable, public EventRecordInsertable {
public:
    static constexpr std::int64_t accelerationBufferSize = 300;

    // The delay the SDK gives rows to share a commit: a process killed outright loses at
    // most the rows of this last second (and the acceleration buffer), never a committed one.
    static constexpr double commitDelaySeconds = 2.0;

    explicit EventRepository(const std::filesystem::path& databasePath,
                             std::shared_ptr<WorkTracker> tracker = nullptr, CommitDelay commitDelay = {});
    // Writes what is buffered and queued before the store closes.
    ~EventRepository() override;

    EventRepository(const EventRepository&) = delete;
    EventRepository& operator=(const EventRepository&) = delete;

    // RVLEventInsertable
    void insertWaypointEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude, double speed,
                                            double bearing, double accuracy, double altitude,
                                            const std::string& provider) override;
    void insertSignificantLocationEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                       double accuracy) override;
    void insertPreSleepEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude, double accuracy,
                                            long reasonCode) override;
    void insertPreWakeUpEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude, double accuracy,
                                             long reasonCode) override;
    void insertBatteryEventWithTrackedAtMs(Date trackedAtMs, bool isCharging, float status) override;
    void insertConnectivityEventWithTrackedAtMs(Date trackedAtMs, long statusCode) override;
    std::optional<std::string> insertToggleTrackingEventWithTrackedAtMs(Date trackedAtMs, bool state,
                                                                        long reasonCode) override;
    void insertToggleStandbyEventWithTrackedAtMs(Date trackedAtMs, bool state, const std::string& reasonText) override;
    void insertDebugEventWithTrackedAtMs(Date trackedAtMs, long topicCode, const std::string& comment) override;
    void insertIOSActivityEventWithTrackedAtMs(Date trackedAtMs, long confidenceCode,
                                               const std::vector<IOSActivityTypeWrapper>& activityCodes) override;
    void insertAccelerationEventWithTrackedAtMs(Date trackedAtMs, Decimal magnitude) override;
    void insertAccelerationEvents(std::vector<Acceleration> records) override;
    void insertBuffers() override;

    // EventRecordInsertable
    void insert(EventRecord record) override;

    // RVLEventFetchable
    long eventsCount() override;
    std::vector<EventPayload> fetchEventsPayloadTo(const std::optional<std::string>& uri,
                                                   std::int64_t limit) override;
    std::vector<EventPayload> fetchLastEventsPayloadWithLimit(std::int64_t limit) override;
    std::optional<std::string> lastStoredURIAmong(const std::vector<EventPayload>& payloads) override;

    // RVLEventDeletable
    long deleteEventsWithPayload(const std::vector<EventPayload>& payloads) override;
    long deleteEventsWithUpTo(Date date) override;
    long deleteEventsStoredUpTo(const std::string& uri) override;
    std::optional<long> deleteAcceptedBatch(const std::string& batchId) override;

    // RVLPendingBatchStorable
    std::optional<PendingBatch> pendingBatch() override;
    bool recordPendingBatch(const PendingBatch& batch) override;
    void abandonPendingBatch(const std::string& batchId) override;
    std::optional<PendingBatchOutline> pendingBatchOutline() override;
    bool forEachPendingBatchEvent(const std::string& batchId,
                                  const std::function<void(const EventPayload&)>& each) override;
    std::optional<PendingBatchOutline> recordPendingBatchOfAllEvents(
        const std::string& batchId, std::int64_t sequentialId,
        const std::function<EventPayload(const StoredEventsDigest&)>& closing) override;

    CoreDataManager& coreDataManager() { return coreDataManager_; }

private:
    PendingRow encode(const EventRecord& record) const;
    void handOverAccelerations(std::vector<Acceleration> records);
    // Makes sure rows handed over by the acceleration buffer before now are queued.
    void drainBuffer();

    CoreDataManager coreDataManager_;
    const EventEncoder eventEncoder_;
    // Last member: destroyed first, so no hand-over reaches a closed store.
    EventBuffer<Acceleration> accelerationBuffer_;
};

}  // namespace rovalis
