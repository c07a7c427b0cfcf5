#include "upload/TransferOperations.h"

#include <algorithm>
#include <limits>
#include <map>
#include <semaphore>

#include <nlohmann/json.hpp>

#include "events/EventEncoder.h"
#include "rovalis/Console.h"
#include "upload/Gzip.h"
#include "upload/UrlSession.h"

namespace rovalis {

Error userTokenIsNilError() {
    return Error{NSURLErrorDomain, 401, "Data transmission error: user token is nil"};
}

namespace {

Error storeError(long code, std::string description) {
    return Error{"com.rovalis.error.store", code, std::move(description)};
}

bool holdsEvent(const PendingBatch& batch, const std::optional<std::string>& uri) {
    return uri && std::any_of(batch.events.begin(), batch.events.end(),
                              [&](const EventPayload& event) { return event.uri == *uri; });
}

// Whether a failed upload certainly left nothing at the service: it was refused before a
// connection was made (no network, no such host, nobody listening, an untrusted certificate).
bool neverReachedTheService(const Error& error) {
    if (error.domain != NSURLErrorDomain) return false;
    switch (error.code) {
    case URLError::badURL:
    case URLError::unsupportedURL:
    case URLError::cannotFindHost:
    case URLError::cannotConnectToHost:
    case URLError::notConnectedToInternet:
    case URLError::serverCertificateUntrusted: return true;
    default: return false;
    }
}

}  // namespace

std::optional<PendingBatch> resumablePendingBatch(RVLPendingBatchStorable& batches, RVLBatchIdModifier& batchIds) {
    auto batch = batches.pendingBatch();
    if (!batch || batch->complete) return batch;
    Console::log("The pending batch " + batch->batchId +
                 " lost some of its events in the store; the rest go out in a new batch");
    batches.abandonPendingBatch(batch->batchId);
    batchIds.renewBatchIdentityAfter(BatchIdentity{batch->batchId, batch->sequentialId});
    return std::nullopt;
}

// ---- Persist data

RVLPersistDataOperation::RVLPersistDataOperation(std::weak_ptr<RVLEventInsertable> eventRepository)
    : eventRepository_(std::move(eventRepository)) {
    setName("RVLPersistDataOperation");
}

void RVLPersistDataOperation::execute() {
    if (auto repository = eventRepository_.lock()) repository->insertBuffers();
    finish();
}

// ---- Cancel background send

RVLCancelBackgroundSendOperation::RVLCancelBackgroundSendOperation(std::weak_ptr<RVLAPIClientType> apiManager)
    : apiManager_(std::move(apiManager)) {
    setName("RVLCancelBackgroundSendOperation");
}

void RVLCancelBackgroundSendOperation::execute() {
    if (auto api = apiManager_.lock()) api->cancelPendingBackgroundTasks();
    finish();
}

// ---- Foreground send

RVLSendOperation::RVLSendOperation(std::weak_ptr<RVLAPIClientType> apiManager,
                                   std::weak_ptr<RVLEventFetchable> eventRepository,
                                   std::weak_ptr<RVLEventDeletable> eventsDeleter,
                                   std::weak_ptr<RVLPendingBatchStorable> pendingBatches,
                                   std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                   std::weak_ptr<RVLEventBatchGeneratable> eventBatchGenerator,
                                   std::weak_ptr<RVLReachabilityType> reachabilityManager,
                                   std::weak_ptr<RVLBatchIdModifier> batchIdManager,
                                   std::weak_ptr<RVLDebugEventsInsertable> debugEventsManager,
                                   std::shared_ptr<RVLDateSource> dateSource, std::optional<std::string> lastEventURI)
    : apiManager_(std::move(apiManager)),
      eventRepository_(std::move(eventRepository)),
      eventsDeleter_(std::move(eventsDeleter)),
      pendingBatches_(std::move(pendingBatches)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      eventBatchGenerator_(std::move(eventBatchGenerator)),
      reachabilityManager_(std::move(reachabilityManager)),
      batchIdManager_(std::move(batchIdManager)),
      debugEventsManager_(std::move(debugEventsManager)),
      dateSource_(std::move(dateSource)),
      lastEventURI_(std::move(lastEventURI)) {
    setName("RVLSendOperation");
}

void RVLSendOperation::execute() {
    const auto userDefaults = userDefaultsManager_.lock();
    const Date lastUpload = userDefaults ? userDefaults->lastSuccessfulEventUploadDate() : Date::distantPast();
    const auto api = apiManager_.lock();
    const auto reachability = reachabilityManager_.lock();
    const auto repository = eventRepository_.lock();
    const bool reachable = reachability && reachability->canSendDataNow();
    const bool hasToken = api && api->canSendEvents();

    const auto debug = debugEventsManager_.lock();
    if (!reachable && debug) debug->insertLogDebugEvent("RVLSendOperation::not reachable");
    if (!hasToken && debug) debug->insertLogDebugEvent("RVLSendOperation::user token is null");

    if (reachable && hasToken && repository) {
        if (!lastEventURI_) {
            const auto newest = repository->fetchLastEventsPayloadWithLimit(100);
            if (!newest.empty()) lastEventURI_ = newest.front().uri;
        }
        if (repository->eventsCount() == 0) {
            finish();
            return;
        }
        if (prepareAndSendData()) {
            finishWithFailure();
        } else {
            finish();
        }
        return;
    }
    // Unreachability alone is not the host's concern; a missing token is.
    if (!hasToken && api) api->updateTransmitDataDelegateWithTrackedFrom(lastUpload, dateSource_->now(), userTokenIsNilError());
    finishWithFailure();
}

std::optional<Error> RVLSendOperation::prepareAndSendData() {
    const auto repository = eventRepository_.lock();
    const auto deleter = eventsDeleter_.lock();
    const auto batches = pendingBatches_.lock();
    const auto generator = eventBatchGenerator_.lock();
    const auto batchIds = batchIdManager_.lock();
    const auto userDefaults = userDefaultsManager_.lock();
    if (!repository || !deleter || !batches || !generator || !batchIds || !userDefaults) {
        return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    }
    for (;;) {
        auto batch = resumablePendingBatch(*batches, *batchIds);
        const bool resumed = batch.has_value();
        bool reachedStoreEnd = false;
        if (!resumed) {
            auto payloads = repository->fetchEventsPayloadTo(lastEventURI_, batchLimit);
            // The last event URI may name an event that has gone (cleared meanwhile): then the
            // store's end is the end of this send.
            if (payloads.empty()) return std::nullopt;
            reachedStoreEnd = static_cast<std::int64_t>(payloads.size()) < batchLimit;
            batch = PendingBatch{batchIds->batchId(), batchIds->sequentialId(), std::move(payloads)};
            // Recorded before the first byte goes out: whatever happens to this attempt, the
            // next one sends the same events under the same identity. A record that does not
            // fit (a full disk) is tried with half as many events, since sending is what
            // frees the space.
            while (!batches->recordPendingBatch(*batch)) {
                if (batch->events.size() <= 1) {
                    return storeError(0, "The batch could not be recorded in the event store.");
                }
                batch->events.resize(batch->events.size() / 2);
                reachedStoreEnd = false;
            }
        }
        const BatchIdentity identity{batch->batchId, batch->sequentialId};
        const Date from = batch->events.front().trackedAtMs;
        const Date to = batch->events.back().trackedAtMs;
        const bool reachesLastEvent = holdsEvent(*batch, lastEventURI_);

        const std::string document = generator->generateEventBatchFrom(batch->events, identity.batchId,
                                                                       identity.sequentialId);
        batch.reset();
        Error compressionError;
        auto zipped = dataByGZipCompressingWithError(document, &compressionError);
        if (!zipped) return compressionError;
        if (auto error = sendZippedEventBatchData(std::move(*zipped), from, to, identity)) {
            // A batch that was never let out can be given up: its events go in the next batch
            // made, which may then take more of them (a background upload takes them all).
            if (!resumed && neverReachedTheService(*error)) batches->abandonPendingBatch(identity.batchId);
            // The service holds other content under this id (it can only come from a damaged
            // store): sending it again would never end. Its events go in a new batch instead.
            if (error->domain == kRVLServerErrorDomain && error->code == 409) {
                Console::log("The service holds other content under batch " + identity.batchId +
                             "; its events go out again under a new batch id");
                batches->abandonPendingBatch(identity.batchId);
                batchIds->renewBatchIdentityAfter(identity);
            }
            return error;
        }

        userDefaults->setLastSuccessfulEventUploadDate(to);
        if (!deleter->deleteAcceptedBatch(identity.batchId)) {
            // Gone already when the background session had it accepted first. Still pending,
            // it would only go out again: stop instead.
            const auto still = batches->pendingBatch();
            if (still && still->batchId == identity.batchId) {
                return storeError(0, "Sent events could not be deleted from the event store.");
            }
        }
        if (reachesLastEvent || reachedStoreEnd) return std::nullopt;
    }
}

std::optional<Error> RVLSendOperation::sendZippedEventBatchData(std::string data, Date trackedFrom, Date trackedTo,
                                                                const BatchIdentity& batch) {
    const auto api = apiManager_.lock();
    if (!api) return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    // Shared with the callbacks, which the client may keep after this returns.
    struct Outcome {
        std::binary_semaphore done{0};
        std::optional<Error> error;
    };
    const auto outcome = std::make_shared<Outcome>();
    api->sendEvents(
        std::move(data), trackedFrom, trackedTo, batch,
        [outcome](const std::optional<nlohmann::json>&) { outcome->done.release(); },
        [outcome](const Error& error) {
            outcome->error = error;
            outcome->done.release();
        });
    outcome->done.acquire();
    return outcome->error;
}

// ---- Background send

RVLSendInBackgroundOperation::RVLSendInBackgroundOperation(
    std::weak_ptr<RVLEventFetchable> eventRepository, std::weak_ptr<RVLPendingBatchStorable> pendingBatches,
    std::weak_ptr<RVLAPIClientType> apiManager,
    std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
    std::weak_ptr<RVLEventBatchGeneratable> eventBatchGenerator, std::weak_ptr<RVLBatchIdModifier> batchIdManager,
    std::shared_ptr<const RVLCommons> commons, std::shared_ptr<RVLDateSource> dateSource)
    : eventRepository_(std::move(eventRepository)),
      pendingBatches_(std::move(pendingBatches)),
      apiManager_(std::move(apiManager)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      eventBatchGenerator_(std::move(eventBatchGenerator)),
      batchIdManager_(std::move(batchIdManager)),
      commons_(std::move(commons)),
      dateSource_(std::move(dateSource)) {
    setName("RVLSendInBackgroundOperation");
}

void RVLSendInBackgroundOperation::execute() {
    const auto userDefaults = userDefaultsManager_.lock();
    const Date lastUpload = userDefaults ? userDefaults->lastSuccessfulEventUploadDate() : Date::distantPast();
    const auto api = apiManager_.lock();
    if (!api || !api->canSendEvents()) {
        if (api) api->updateTransmitDataDelegateWithTrackedFrom(lastUpload, dateSource_->now(), userTokenIsNilError());
        finishWithFailure();
        return;
    }
    const auto repository = eventRepository_.lock();
    const auto batches = pendingBatches_.lock();
    const auto generator = eventBatchGenerator_.lock();
    const auto batchIds = batchIdManager_.lock();
    if (!repository || !batches || !generator || !batchIds) {
        finishWithFailure();
        return;
    }
    auto batch = resumablePendingBatch(*batches, *batchIds);
    if (!batch) {
        auto stored = repository->fetchEventsPayloadTo(std::nullopt, std::numeric_limits<std::int64_t>::max());
        if (stored.empty()) {
            finish();
            return;
        }
        batch = PendingBatch{batchIds->batchId(), batchIds->sequentialId(), diagnoseEventBatch(std::move(stored))};
        if (!batches->recordPendingBatch(*batch)) {
            finishWithFailure();
            return;
        }
    }
    const BatchIdentity identity{batch->batchId, batch->sequentialId};
    const Date from = batch->events.front().trackedAtMs;
    const Date to = batch->events.back().trackedAtMs;

    // The whole store is in memory here: each stage's input goes as soon as the next exists.
    std::string document = generator->generateEventBatchFrom(batch->events, identity.batchId, identity.sequentialId);
    batch.reset();
    Error compressionError;
    const auto zipped = dataByGZipCompressingWithError(document, &compressionError);
    std::string().swap(document);
    if (!zipped) {
        finishWithFailure();
        return;
    }
    commons_->removeBackgroundTaskFolder();
    const auto file = commons_->writeBackgroundTaskFileWithData(*zipped, to);
    if (file && RVLCommons::fileExistsAt(*file)) {
        api->sendEventsFileInBackground(*file, from, to, identity);
        finish();
    } else {
        finishWithFailure();
    }
}

std::vector<EventPayload> RVLSendInBackgroundOperation::diagnoseEventBatch(std::vector<EventPayload> payloads) {
    if (payloads.empty()) return payloads;

    std::map<std::string, long> countByType;
    bool forcedSwitchOff = false;
    for (const auto& payload : payloads) {
        ++countByType[payload.type];
        if (payload.type != "ToggleTracking") continue;
        const auto json = nlohmann::json::parse(payload.payload, nullptr, false);
        if (!json.is_object()) continue;
        const auto reason = json.find("toggle_tracking_reason");
        const auto state = json.find("toggle_tracking_state");
        if (reason != json.end() && state != json.end() && *reason == "FORCE" && *state == false) {
            forcedSwitchOff = true;
        }
    }
    ++countByType["Debug"];

    std::string counts = nlohmann::json(countByType).dump();
    std::erase(counts, '"');
    const std::string comment = counts + " + " + (forcedSwitchOff ? "TT->OFF present" : "TT->OFF NOT present");

    const Date trackedAt = payloads.back().trackedAtMs.addingSeconds(0.1);
    const Debug diagnostic(trackedAt, Debug::Topic::log, comment);
    payloads.push_back(EventPayload{"Debug", trackedAt, EventEncoder().encode(diagnostic), ""});
    return payloads;
}

}  // namespace rovalis
