#include "upload/TransferOperations.h"

#include <limits>
#include <map>
#include <semaphore>

#include <nlohmann/json.hpp>

#include "events/EventEncoder.h"
#include "upload/Gzip.h"
#include "upload/UrlSession.h"

namespace rovalis {

Error userTokenIsNilError() {
    return Error{NSURLErrorDomain, 401, "Data transmission error: user token is nil"};
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
                                   std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                   std::weak_ptr<RVLEventBatchGeneratable> eventBatchGenerator,
                                   std::weak_ptr<RVLReachabilityType> reachabilityManager,
                                   std::weak_ptr<RVLBatchIdModifier> batchIdManager,
                                   std::weak_ptr<RVLDebugEventsInsertable> debugEventsManager,
                                   std::shared_ptr<RVLDateSource> dateSource, std::optional<std::string> lastEventURI)
    : apiManager_(std::move(apiManager)),
      eventRepository_(std::move(eventRepository)),
      eventsDeleter_(std::move(eventsDeleter)),
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
    const auto generator = eventBatchGenerator_.lock();
    const auto batchIds = batchIdManager_.lock();
    const auto userDefaults = userDefaultsManager_.lock();
    if (!repository || !deleter || !generator || !batchIds || !userDefaults) {
        return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    }
    for (;;) {
        const auto payloads = repository->fetchEventsPayloadTo(lastEventURI_, batchLimit);
        // The last event URI may name an event that has gone (cleared meanwhile): then the
        // store's end is the end of this send.
        if (payloads.empty()) return std::nullopt;
        const Date from = payloads.front().trackedAtMs;
        const Date to = payloads.back().trackedAtMs;

        const std::string batch =
            generator->generateEventBatchFrom(payloads, batchIds->batchId(), batchIds->sequentialId());
        Error compressionError;
        auto zipped = dataByGZipCompressingWithError(batch, &compressionError);
        if (!zipped) return compressionError;
        if (auto error = sendZippedEventBatchData(std::move(*zipped), from, to)) return error;

        userDefaults->setLastSuccessfulEventUploadDate(to);
        const long deleted = deleter->deleteEventsWithPayload(payloads);
        if (payloads.back().uri == lastEventURI_) return std::nullopt;
        if (static_cast<std::int64_t>(payloads.size()) < batchLimit) return std::nullopt;
        // Accepted events that stay in the store would go out again under a new batch id:
        // stop rather than send them twice.
        if (deleted < static_cast<long>(payloads.size())) {
            return Error{"com.rovalis.error.store", deleted,
                         "Sent events could not be deleted from the event store."};
        }
    }
}

std::optional<Error> RVLSendOperation::sendZippedEventBatchData(std::string data, Date trackedFrom, Date trackedTo) {
    const auto api = apiManager_.lock();
    if (!api) return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    // Shared with the callbacks, which the client may keep after this returns.
    struct Outcome {
        std::binary_semaphore done{0};
        std::optional<Error> error;
    };
    const auto outcome = std::make_shared<Outcome>();
    api->sendEvents(
        std::move(data), trackedFrom, trackedTo,
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
    std::weak_ptr<RVLEventFetchable> eventRepository, std::weak_ptr<RVLAPIClientType> apiManager,
    std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
    std::weak_ptr<RVLEventBatchGeneratable> eventBatchGenerator, std::weak_ptr<RVLBatchIdModifier> batchIdManager,
    std::shared_ptr<const RVLCommons> commons, std::shared_ptr<RVLDateSource> dateSource)
    : eventRepository_(std::move(eventRepository)),
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
    const auto generator = eventBatchGenerator_.lock();
    const auto batchIds = batchIdManager_.lock();
    if (!repository || !generator || !batchIds) {
        finishWithFailure();
        return;
    }
    auto stored = repository->fetchEventsPayloadTo(std::nullopt, std::numeric_limits<std::int64_t>::max());
    if (stored.empty()) {
        finish();
        return;
    }
    const auto lastStoredURI = repository->lastStoredURIAmong(stored);
    auto payloads = diagnoseEventBatch(std::move(stored));
    const Date from = payloads.front().trackedAtMs;
    const Date to = payloads.back().trackedAtMs;

    // The whole store is in memory here: each stage's input goes as soon as the next exists.
    std::string batch = generator->generateEventBatchFrom(payloads, batchIds->batchId(), batchIds->sequentialId());
    std::vector<EventPayload>().swap(payloads);
    Error compressionError;
    const auto zipped = dataByGZipCompressingWithError(batch, &compressionError);
    std::string().swap(batch);
    if (!zipped) {
        finishWithFailure();
        return;
    }
    commons_->removeBackgroundTaskFolder();
    const auto file = commons_->writeBackgroundTaskFileWithData(*zipped, to);
    if (file && RVLCommons::fileExistsAt(*file)) {
        api->sendEventsFileInBackground(*file, from, to, lastStoredURI);
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
