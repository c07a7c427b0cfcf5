#pragma once

// The five faces of the event store. Components receive only the one they need.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "events/EventRecords.h"
#include "rovalis/Date.h"

namespace rovalis {

// One stored event as the store hands it back.
struct EventPayload {
    std::string type;
    Date trackedAtMs;
    std::string payload;  // the event's JSON object, exactly as stored
    std::string uri;      // the row's permanent identifier

    friend bool operator==(const EventPayload&, const EventPayload&) = default;
};
using RVLEventPayload = EventPayload;

// A batch once built: its identity and exactly the events it holds. It is kept in the event
// store from before its first attempt until the service has accepted it, so that every
// attempt, in this process or a later one, sends the same content under the same id.
struct PendingBatch {
    std::string batchId;
    std::int64_t sequentialId = 0;
    // In the order they are sent: the stored events, oldest first, then the batch's own
    // closing event, if any, which is never stored (its uri is empty).
    std::vector<EventPayload> events;
    // False when some of its stored events have gone since it was recorded (the store was
    // cleared or damaged): the batch can no longer be sent again as it was.
    bool complete = true;

    friend bool operator==(const PendingBatch&, const PendingBatch&) = default;
};

// A pending batch without its events: enough to decide how to send it.
struct PendingBatchOutline {
    std::string batchId;
    std::int64_t sequentialId = 0;
    std::int64_t storedEvents = 0;  // as recorded
    bool hasClosingEvent = false;
    // False when some of its stored events have gone since it was recorded.
    bool complete = true;

    std::int64_t eventCount() const { return storedEvents + (hasClosingEvent ? 1 : 0); }

    friend bool operator==(const PendingBatchOutline&, const PendingBatchOutline&) = default;
};

// What the stored events are, for the event that closes a batch of all of them: how many of
// each type, the payloads of the ToggleTracking ones (a few a day), and the newest time.
struct StoredEventsDigest {
    std::map<std::string, long> countByType;
    std::vector<std::string> toggleTrackingPayloads;
    Date newestTrackedAt;
};

class RVLEventInsertable {
public:
    virtual ~RVLEventInsertable() = default;

    virtual void insertWaypointEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude, double speed,
                                                    double bearing, double accuracy, double altitude,
                                                    const std::string& provider) = 0;
    virtual void insertSignificantLocationEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                               double accuracy) = 0;
    virtual void insertPreSleepEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                    double accuracy, long reasonCode) = 0;
    virtual void insertPreWakeUpEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                     double accuracy, long reasonCode) = 0;
    virtual void insertBatteryEventWithTrackedAtMs(Date trackedAtMs, bool isCharging, float status) = 0;
    virtual void insertConnectivityEventWithTrackedAtMs(Date trackedAtMs, long statusCode) = 0;
    // Synchronous: returns the new row's identifier text, or none if no row was made.
    virtual std::optional<std::string> insertToggleTrackingEventWithTrackedAtMs(Date trackedAtMs, bool state,
                                                                                long reasonCode) = 0;
    virtual void insertToggleStandbyEventWithTrackedAtMs(Date trackedAtMs, bool state,
                                                         const std::string& reasonText) = 0;
    virtual void insertDebugEventWithTrackedAtMs(Date trackedAtMs, long topicCode, const std::string& comment) = 0;
    virtual void insertIOSActivityEventWithTrackedAtMs(Date trackedAtMs, long confidenceCode,
                                                       const std::vector<IOSActivityTypeWrapper>& activityCodes) = 0;
    // Goes into the acceleration buffer; no row is written yet.
    virtual void insertAccelerationEventWithTrackedAtMs(Date trackedAtMs, Decimal magnitude) = 0;
    // The same for samples that arrive together, in one hand-over to the buffer.
    virtual void insertAccelerationEvents(std::vector<Acceleration> records) = 0;
    // Writes every buffered acceleration, one row each, and empties the buffer; then
    // commits every queued row without waiting for the commit delay.
    virtual void insertBuffers() = 0;
};

// For producers that build their records themselves (geofences, beacons, settings).
class EventRecordInsertable {
public:
    virtual ~EventRecordInsertable() = default;
    virtual void insert(EventRecord record) = 0;
};

class RVLEventFetchable {
public:
    virtual ~RVLEventFetchable() = default;
    virtual long eventsCount() = 0;
    // Oldest first, up to and including the row named by uri (all rows when absent or
    // unmatched); limit <= 0 means no limit.
    virtual std::vector<EventPayload> fetchEventsPayloadTo(const std::optional<std::string>& uri,
                                                           std::int64_t limit) = 0;
    // Newest first.
    virtual std::vector<EventPayload> fetchLastEventsPayloadWithLimit(std::int64_t limit) = 0;
    // Of the given payloads, the URI of the one stored last (not the newest by time), or none.
    virtual std::optional<std::string> lastStoredURIAmong(const std::vector<EventPayload>& payloads) = 0;
};

class RVLEventDeletable {
public:
    virtual ~RVLEventDeletable() = default;
    virtual long deleteEventsWithPayload(const std::vector<EventPayload>& payloads) = 0;
    virtual long deleteEventsWithUpTo(Date date) = 0;
    // Deletes the row the URI names and every row stored before it (rows are numbered in the
    // order they were stored). A URI of another store deletes nothing.
    virtual long deleteEventsStoredUpTo(const std::string& uri) = 0;
    // Once the service has accepted the pending batch with this id (see PendingBatch):
    // deletes its events and its record in one transaction and answers how many events went.
    // None when the pending batch has another id, when none is pending, or when the store
    // cannot be written; everything is left as it was then.
    virtual std::optional<long> deleteAcceptedBatch(const std::string& batchId) = 0;
};

// The batch waiting for the service's acceptance. At most one is pending at a time.
class RVLPendingBatchStorable {
public:
    virtual ~RVLPendingBatchStorable() = default;
    // The pending batch with its events, or none.
    virtual std::optional<PendingBatch> pendingBatch() = 0;
    // Records the batch durably before it is first sent. Its stored events are named by their
    // URIs; an event with an empty URI (at most one, the last) travels with the batch without
    // being stored. False, with nothing recorded, when another batch is pending, when one of
    // its events is not in the store, or when the store cannot be written.
    virtual bool recordPendingBatch(const PendingBatch& batch) = 0;
    // Forgets the pending batch with this id and keeps its events, which a later batch takes.
    virtual void abandonPendingBatch(const std::string& batchId) = 0;

    // For batches too large to hold in memory (a background batch of everything stored):
    // The pending batch without its events, or none.
    virtual std::optional<PendingBatchOutline> pendingBatchOutline() = 0;
    // Hands the events of the pending batch with this id to `each` one at a time, in the order
    // pendingBatch() gives them. False when that batch is not pending or not complete, or the
    // store could not be read to the end; `each` may have seen some of them then.
    virtual bool forEachPendingBatchEvent(const std::string& batchId,
                                          const std::function<void(const EventPayload&)>& each) = 0;
    // Records every stored event as the pending batch, closed by the event `closing` makes
    // from what they are, without loading them. None, with nothing recorded, when nothing is
    // stored, another batch is pending, or the store cannot be written.
    virtual std::optional<PendingBatchOutline> recordPendingBatchOfAllEvents(
        const std::string& batchId, std::int64_t sequentialId,
        const std::function<EventPayload(const StoredEventsDigest&)>& closing) = 0;
};

class RVLEventStorable : public RVLEventInsertable,
                         public RVLEventFetchable,
                         public RVLEventDeletable,
                         public RVLPendingBatchStorable {};

}  // namespace rovalis
