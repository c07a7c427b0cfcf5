#include "events/EventRepository.h"

#include <algorithm>
#include <cctype>

#include "rovalis/Console.h"
#include "util/Fatal.h"

namespace rovalis {

namespace {

// The shape every URI has: a scheme (a letter, then letters, digits, "+", "-" or ".")
// followed by ":", and no white space or control characters anywhere.
bool isValidURI(std::string_view text) {
    if (text.empty()) return false;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7f) return false;
    }
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    if (!std::isalpha(static_cast<unsigned char>(text.front()))) return false;
    return std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(colon), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
    });
}

}  // namespace

EventRepository::EventRepository(const std::filesystem::path& databasePath, std::shared_ptr<WorkTracker> tracker,
                                 CommitDelay commitDelay)
    : coreDataManager_(databasePath, tracker, std::move(commitDelay)),
      accelerationBuffer_(accelerationBufferSize, tracker) {}

EventRepository::~EventRepository() {
    // Buffered samples are written rather than lost when the store is closed in order;
    // the manager then writes everything queued before it closes the connection.
    insertBuffers();
    accelerationBuffer_.waitUntilDrained();
}

PendingRow EventRepository::encode(const EventRecord& record) const {
    return PendingRow{typeOf(record), trackedAtOf(record).secondsSince1970, eventEncoder_.encode(record)};
}

// ---- Inserts ----
// Each record is built (and so validated) here, on the caller's thread: an invalid value
// stops the process before anything is queued.

void EventRepository::insertWaypointEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                         double speed, double bearing, double accuracy,
                                                         double altitude, const std::string& provider) {
    insert(Waypoint(trackedAtMs, latitude, longitude, speed, bearing, accuracy, altitude, provider));
}

void EventRepository::insertSignificantLocationEventWithTrackedAtMs(Date trackedAtMs, double latitude,
                                                                    double longitude, double accuracy) {
    insert(SignificantLocation(trackedAtMs, latitude, longitude, accuracy));
}

void EventRepository::insertPreSleepEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                         double accuracy, long reasonCode) {
    insert(PreSleep(trackedAtMs, latitude, longitude, accuracy, PreSleep::reasonFromCode(reasonCode)));
}

void EventRepository::insertPreWakeUpEventWithTrackedAtMs(Date trackedAtMs, double latitude, double longitude,
                                                          double accuracy, long reasonCode) {
    insert(PreWakeUp(trackedAtMs, latitude, longitude, accuracy, PreWakeUp::reasonFromCode(reasonCode)));
}

void EventRepository::insertBatteryEventWithTrackedAtMs(Date trackedAtMs, bool isCharging, float status) {
    insert(Battery(trackedAtMs, isCharging, status));
}

void EventRepository::insertConnectivityEventWithTrackedAtMs(Date trackedAtMs, long statusCode) {
    insert(Connectivity(trackedAtMs, Connectivity::statusFromCode(statusCode)));
}

std::optional<std::string> EventRepository::insertToggleTrackingEventWithTrackedAtMs(Date trackedAtMs, bool state,
                                                                                     long reasonCode) {
    const ToggleTracking record(trackedAtMs, state, ToggleTracking::reasonFromCode(reasonCode));
    const auto id = coreDataManager_.insertAndWait(encode(record));
    if (!id) return std::nullopt;
    return coreDataManager_.uriRepresentation(*id);
}

void EventRepository::insertToggleStandbyEventWithTrackedAtMs(Date trackedAtMs, bool state,
                                                              const std::string& reasonText) {
    insert(ToggleStandby(trackedAtMs, state, reasonText));
}

void EventRepository::insertDebugEventWithTrackedAtMs(Date trackedAtMs, long topicCode, const std::string& comment) {
    insert(Debug(trackedAtMs, Debug::topicFromCode(topicCode), comment));
}

void EventRepository::insertIOSActivityEventWithTrackedAtMs(Date trackedAtMs, long confidenceCode,
                                                            const std::vector<IOSActivityTypeWrapper>& activityCodes) {
    std::vector<IOSActivity::Activity> activities;
    activities.reserve(activityCodes.size());
    for (const auto& code : activityCodes) activities.push_back(IOSActivity::activityFromCode(code.type));
    insert(IOSActivity(trackedAtMs, IOSActivity::confidenceFromCode(confidenceCode), std::move(activities)));
}

void EventRepository::insertAccelerationEventWithTrackedAtMs(Date trackedAtMs, Decimal magnitude) {
    accelerationBuffer_.append(Acceleration(trackedAtMs, magnitude),
                               [this](std::vector<Acceleration> records) { handOverAccelerations(std::move(records)); });
}

void EventRepository::insertAccelerationEvents(std::vector<Acceleration> records) {
    if (records.empty()) return;
    accelerationBuffer_.append(std::move(records),
                               [this](std::vector<Acceleration> taken) { handOverAccelerations(std::move(taken)); });
}

// Everything recorded so far is committed without waiting for the commit delay: the
// buffered samples join the queued rows, then the save starts.
void EventRepository::insertBuffers() {
    accelerationBuffer_.flush([this](std::vector<Acceleration> records) {
        handOverAccelerations(std::move(records));
        coreDataManager_.saveSoon();
    });
}

// On the buffer's queue: the group is encoded here and queued as one, so it is written in
// one transaction.
void EventRepository::handOverAccelerations(std::vector<Acceleration> records) {
    if (records.empty()) return;
    std::vector<PendingRow> rows;
    rows.reserve(records.size());
    for (const auto& record : records) {
        rows.push_back(PendingRow{Acceleration::typeName, record.trackedAtMs.secondsSince1970,
                                  eventEncoder_.encode(EventRecord(record))});
    }
    coreDataManager_.enqueue(std::move(rows));
}

void EventRepository::insert(EventRecord record) { coreDataManager_.enqueue(encode(record)); }

void EventRepository::drainBuffer() { accelerationBuffer_.waitUntilDrained(); }

// ---- Fetching ----

long EventRepository::eventsCount() {
    drainBuffer();
    return coreDataManager_.count();
}

std::vector<EventPayload> EventRepository::fetchEventsPayloadTo(const std::optional<std::string>& uri,
                                                                std::int64_t limit) {
    drainBuffer();
    auto payloads = coreDataManager_.fetch(Date::distantPast(), Date::distantFuture(), true, limit);
    if (uri) {
        const auto match = std::find_if(payloads.begin(), payloads.end(),
                                        [&](const EventPayload& payload) { return payload.uri == *uri; });
        if (match != payloads.end()) payloads.erase(match + 1, payloads.end());
    }
    return payloads;
}

std::vector<EventPayload> EventRepository::fetchLastEventsPayloadWithLimit(std::int64_t limit) {
    drainBuffer();
    return coreDataManager_.fetch(Date::distantPast(), Date::distantFuture(), false, limit);
}

// ---- Deleting ----

long EventRepository::deleteEventsWithPayload(const std::vector<EventPayload>& payloads) {
    std::vector<std::int64_t> ids;
    ids.reserve(payloads.size());
    for (const auto& payload : payloads) {
        if (!isValidURI(payload.uri)) fatalError("Invalid URI: " + payload.uri);
        // URIs of another store or entity name no row here and are skipped.
        if (const auto id = coreDataManager_.objectIDForURIRepresentation(payload.uri)) ids.push_back(*id);
    }
    if (!coreDataManager_.isLoaded()) return 0;
    if (ids.empty()) {
        Console::log("No valid object IDs found");
        return 0;
    }
    drainBuffer();
    return coreDataManager_.deleteObjects(ids);
}

long EventRepository::deleteEventsWithUpTo(Date date) {
    drainBuffer();
    return coreDataManager_.deleteUpTo(date);
}

long EventRepository::deleteEventsStoredUpTo(const std::string& uri) {
    drainBuffer();
    const auto id = coreDataManager_.objectIDForURIRepresentation(uri);
    return id ? coreDataManager_.deleteUpToId(*id) : 0;
}

// ---- The pending batch ----

std::optional<PendingBatch> EventRepository::pendingBatch() {
    drainBuffer();
    return coreDataManager_.pendingBatch();
}

bool EventRepository::recordPendingBatch(const PendingBatch& batch) {
    std::vector<std::int64_t> ids;
    ids.reserve(batch.events.size());
    std::optional<EventPayload> closing;
    for (std::size_t index = 0; index < batch.events.size(); ++index) {
        const auto& event = batch.events[index];
        if (event.uri.empty()) {
            // Only the last event may travel unstored: it closes the batch.
            if (index + 1 != batch.events.size()) fatalError("Only a batch's last event may be unstored");
            closing = event;
            continue;
        }
        const auto id = coreDataManager_.objectIDForURIRepresentation(event.uri);
        if (!id) return false;  // not an event of this store
        ids.push_back(*id);
    }
    drainBuffer();
    const auto outcome = coreDataManager_.recordPendingBatch(batch.batchId, batch.sequentialId, ids, closing);
    switch (outcome) {
    case CoreDataManager::BatchRecording::recorded: return true;
    case CoreDataManager::BatchRecording::anotherPending:
        Console::log("The batch " + batch.batchId + " was not recorded: another batch is pending");
        return false;
    case CoreDataManager::BatchRecording::eventsMissing:
        Console::log("The batch " + batch.batchId + " was not recorded: some of its events are no longer stored");
        return false;
    case CoreDataManager::BatchRecording::notWritten: return false;
    }
    return false;
}

std::optional<long> EventRepository::deleteAcceptedBatch(const std::string& batchId) {
    drainBuffer();
    return coreDataManager_.deleteAcceptedBatch(batchId);
}

void EventRepository::abandonPendingBatch(const std::string& batchId) {
    drainBuffer();
    coreDataManager_.abandonPendingBatch(batchId);
}

std::optional<PendingBatchOutline> EventRepository::pendingBatchOutline() {
    drainBuffer();
    return coreDataManager_.pendingBatchOutline();
}

bool EventRepository::forEachPendingBatchEvent(const std::string& batchId,
                                               const std::function<void(const EventPayload&)>& each) {
    drainBuffer();
    return coreDataManager_.forEachPendingBatchEvent(batchId, each);
}

std::optional<PendingBatchOutline> EventRepository::recordPendingBatchOfAllEvents(
    const std::string& batchId, std::int64_t sequentialId,
    const std::function<EventPayload(const StoredEventsDigest&)>& closing) {
    drainBuffer();
    const auto outline = coreDataManager_.recordPendingBatchOfAllEvents(batchId, sequentialId, closing);
    if (!outline) Console::log("The batch " + batchId + " of every stored event was not recorded");
    return outline;
}

std::optional<std::string> EventRepository::lastStoredURIAmong(const std::vector<EventPayload>& payloads) {
    std::optional<std::int64_t> last;
    std::optional<std::string> uri;
    for (const auto& payload : payloads) {
        const auto id = coreDataManager_.objectIDForURIRepresentation(payload.uri);
        if (id && (!last || *id > *last)) {
            last = id;
            uri = payload.uri;
        }
    }
    return uri;
}

}  // namespace rovalis
