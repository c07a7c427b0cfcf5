#include "upload/TransferOperations.h"

#include <algorithm>
#include <semaphore>
#include <utility>

#include <nlohmann/json.hpp>

#include "events/EventEncoder.h"
#include "rovalis/Console.h"
#include "upload/Gzip.h"
#include "upload/UrlSession.h"
#include "util/DataRoot.h"

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

std::optional<PendingBatchOutline> resumablePendingBatchOutline(RVLPendingBatchStorable& batches,
                                                                RVLBatchIdModifier& batchIds) {
    auto outline = batches.pendingBatchOutline();
    if (!outline || outline->complete) return outline;
    Console::log("The pending batch " + outline->batchId +
                 " lost some of its events in the store; the rest go out in a new batch");
    batches.abandonPendingBatch(outline->batchId);
    batchIds.renewBatchIdentityAfter(BatchIdentity{outline->batchId, outline->sequentialId});
    return std::nullopt;
}

std::optional<BatchFileContents> writePendingBatchFile(RVLPendingBatchStorable& batches, const BatchIdentity& identity,
                                                       const std::filesystem::path& file,
                                                       const std::optional<std::string>& uri) {
    if (!ensurePrivateDirectory(file.parent_path())) return std::nullopt;
    GzipFileWriter zipped(file);
    EventBatchDocumentWriter document(identity.batchId, identity.sequentialId,
                                      [&](std::string_view piece) { zipped.write(piece); });
    BatchFileContents contents;
    bool first = true;
    const bool whole = batches.forEachPendingBatchEvent(identity.batchId, [&](const EventPayload& event) {
        if (std::exchange(first, false)) contents.from = event.trackedAtMs;
        contents.to = event.trackedAtMs;
        contents.holdsLastEvent = contents.holdsLastEvent || (uri && event.uri == *uri);
        document.add(event.payload);
    });
    // A file left unfinished is removed with its writer.
    if (!whole || first) return std::nullopt;
    document.finish();
    Error error;
    if (!zipped.finish(&error)) {
        Console::log("The batch " + identity.batchId + " could not be written to a file: " + error.localizedDescription);
        return std::nullopt;
    }
    return contents;
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
                                   std::shared_ptr<const RVLCommons> commons, std::shared_ptr<RVLDateSource> dateSource,
                                   std::optional<std::string> lastEventURI)
    : apiManager_(std::move(apiManager)),
      eventRepository_(std::move(eventRepository)),
      eventsDeleter_(std::move(eventsDeleter)),
      pendingBatches_(std::move(pendingBatches)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      eventBatchGenerator_(std::move(eventBatchGenerator)),
      reachabilityManager_(std::move(reachabilityManager)),
      batchIdManager_(std::move(batchIdManager)),
      debugEventsManager_(std::move(debugEventsManager)),
      commons_(std::move(commons)),
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
    const auto batches = pendingBatches_.lock();
    const auto generator = eventBatchGenerator_.lock();
    const auto batchIds = batchIdManager_.lock();
    if (!repository || !batches || !generator || !batchIds || !commons_) {
        return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    }
    for (;;) {
        const auto outline = resumablePendingBatchOutline(*batches, *batchIds);
        const bool resumed = outline.has_value();
        if (resumed && outline->eventCount() > batchLimit) {
            // More than a foreground batch holds: everything stored, left to the background
            // session by an earlier process. It goes from a file, never whole in memory.
            const BatchIdentity identity{outline->batchId, outline->sequentialId};
            const auto file = commons_->largeBatchFile();
            const auto contents = writePendingBatchFile(*batches, identity, file, lastEventURI_);
            if (!contents) return storeError(0, "The pending batch could not be written to a file.");
            auto error = sendZippedEventBatchFile(file, contents->from, contents->to, identity);
            std::error_code ignored;
            std::filesystem::remove(file, ignored);
            if (auto failure = concludeAttempt(error, identity, /*resumed=*/true, contents->to)) return failure;
            if (contents->holdsLastEvent) return std::nullopt;
            continue;
        }

        std::optional<PendingBatch> batch;
        bool reachedStoreEnd = false;
        if (resumed) {
            batch = batches->pendingBatch();
            // Accepted, or found incomplete, since the outline was read: look again.
            if (!batch || batch->batchId != outline->batchId || !batch->complete) continue;
        } else {
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
        const auto error = sendZippedEventBatchData(std::move(*zipped), from, to, identity);
        if (auto failure = concludeAttempt(error, identity, resumed, to)) return failure;
        if (reachesLastEvent || reachedStoreEnd) return std::nullopt;
    }
}

std::optional<Error> RVLSendOperation::concludeAttempt(const std::optional<Error>& error, const BatchIdentity& identity,
                                                       bool resumed, Date trackedTo) {
    const auto deleter = eventsDeleter_.lock();
    const auto batches = pendingBatches_.lock();
    const auto batchIds = batchIdManager_.lock();
    const auto userDefaults = userDefaultsManager_.lock();
    if (!deleter || !batches || !batchIds || !userDefaults) {
        return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    }
    if (error) {
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
    userDefaults->setLastSuccessfulEventUploadDate(trackedTo);
    if (!deleter->deleteAcceptedBatch(identity.batchId)) {
        // Gone already when the background session had it accepted first. Still pending,
        // it would only go out again: stop instead.
        const auto still = batches->pendingBatchOutline();
        if (still && still->batchId == identity.batchId) {
            return storeError(0, "Sent events could not be deleted from the event store.");
        }
    }
    return std::nullopt;
}

namespace {

// Starts an upload through `start`, which hands the client the two callbacks, and waits for
// it; the error when it failed. The outcome is shared with the callbacks, which the client
// may keep after this returns.
std::optional<Error> waitForUpload(
    const std::function<void(RVLAPIClientType::SuccessBlock, RVLAPIClientType::FailureBlock)>& start) {
    struct Outcome {
        std::binary_semaphore done{0};
        std::optional<Error> error;
    };
    const auto outcome = std::make_shared<Outcome>();
    start([outcome](const std::optional<nlohmann::json>&) { outcome->done.release(); },
          [outcome](const Error& error) {
              outcome->error = error;
              outcome->done.release();
          });
    outcome->done.acquire();
    return outcome->error;
}

}  // namespace

std::optional<Error> RVLSendOperation::sendZippedEventBatchData(std::string data, Date trackedFrom, Date trackedTo,
                                                                const BatchIdentity& batch) {
    const auto api = apiManager_.lock();
    if (!api) return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    return waitForUpload([&](auto succeeded, auto failed) {
        api->sendEvents(std::move(data), trackedFrom, trackedTo, batch, std::move(succeeded), std::move(failed));
    });
}

std::optional<Error> RVLSendOperation::sendZippedEventBatchFile(const std::filesystem::path& file, Date trackedFrom,
                                                                Date trackedTo, const BatchIdentity& batch) {
    const auto api = apiManager_.lock();
    if (!api) return Error{NSURLErrorDomain, URLError::cancelled, "The SDK is shutting down."};
    return waitForUpload([&](auto succeeded, auto failed) {
        api->sendEventsFile(file, trackedFrom, trackedTo, batch, std::move(succeeded), std::move(failed));
    });
}

// ---- Background send

RVLSendInBackgroundOperation::RVLSendInBackgroundOperation(
    std::weak_ptr<RVLEventFetchable> eventRepository, std::weak_ptr<RVLPendingBatchStorable> pendingBatches,
    std::weak_ptr<RVLAPIClientType> apiManager,
    std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager, std::weak_ptr<RVLBatchIdModifier> batchIdManager,
    std::shared_ptr<const RVLCommons> commons, std::shared_ptr<RVLDateSource> dateSource)
    : eventRepository_(std::move(eventRepository)),
      pendingBatches_(std::move(pendingBatches)),
      apiManager_(std::move(apiManager)),
      userDefaultsManager_(std::move(userDefaultsManager)),
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
    const auto batchIds = batchIdManager_.lock();
    if (!repository || !batches || !batchIds) {
        finishWithFailure();
        return;
    }
    // However large the backlog, it is never in memory: the batch is recorded in the store by
    // the events' ids, then read back one event at a time into the compressed file.
    auto outline = resumablePendingBatchOutline(*batches, *batchIds);
    if (!outline) {
        if (repository->eventsCount() == 0) {
            finish();
            return;
        }
        outline = batches->recordPendingBatchOfAllEvents(batchIds->batchId(), batchIds->sequentialId(),
                                                         &RVLSendInBackgroundOperation::diagnosticEvent);
        if (!outline) {
            finishWithFailure();
            return;
        }
    }
    const BatchIdentity identity{outline->batchId, outline->sequentialId};

    // Written beside its final name, which is the time of its last event, and renamed once
    // whole: the folder never holds a part of a batch under a batch file's name.
    commons_->removeBackgroundTaskFolder();
    const auto partial = commons_->backgroundTasksFolder() / "partial";
    const auto contents = writePendingBatchFile(*batches, identity, partial, std::nullopt);
    if (!contents) {
        finishWithFailure();
        return;
    }
    const auto file = commons_->backgroundTaskFilePathWithTimestamp(contents->to);
    std::error_code renamed;
    std::filesystem::rename(partial, file, renamed);
    if (renamed) {
        finishWithFailure();
        return;
    }
    api->sendEventsFileInBackground(file, contents->from, contents->to, identity);
    finish();
}

EventPayload RVLSendInBackgroundOperation::diagnosticEvent(const StoredEventsDigest& digest) {
    auto countByType = digest.countByType;
    ++countByType["Debug"];
    bool forcedSwitchOff = false;
    for (const auto& payload : digest.toggleTrackingPayloads) {
        const auto json = nlohmann::json::parse(payload, nullptr, false);
        if (!json.is_object()) continue;
        const auto reason = json.find("toggle_tracking_reason");
        const auto state = json.find("toggle_tracking_state");
        if (reason != json.end() && state != json.end() && *reason == "FORCE" && *state == false) {
            forcedSwitchOff = true;
        }
    }
    std::string counts = nlohmann::json(countByType).dump();
    std::erase(counts, '"');
    const std::string comment = counts + " + " + (forcedSwitchOff ? "TT->OFF present" : "TT->OFF NOT present");

    const Date trackedAt = digest.newestTrackedAt.addingSeconds(0.1);
    const Debug diagnostic(trackedAt, Debug::Topic::log, comment);
    return EventPayload{"Debug", trackedAt, EventEncoder().encode(diagnostic), ""};
}

std::vector<EventPayload> RVLSendInBackgroundOperation::diagnoseEventBatch(std::vector<EventPayload> payloads) {
    if (payloads.empty()) return payloads;
    StoredEventsDigest digest;
    for (const auto& payload : payloads) {
        ++digest.countByType[payload.type];
        if (payload.type == ToggleTracking::typeName) digest.toggleTrackingPayloads.push_back(payload.payload);
    }
    digest.newestTrackedAt = payloads.back().trackedAtMs;
    payloads.push_back(diagnosticEvent(digest));
    return payloads;
}

}  // namespace rovalis
