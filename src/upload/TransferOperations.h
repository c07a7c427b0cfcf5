#pragma once

// The operations that move events: flush the acceleration buffer into the store, send the
// store's events in the foreground, send them all in the background from a file, and
// cancel pending background uploads.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/DebugEventsManager.h"
#include "core/UserDefaultsManager.h"
#include "events/EventBatchGenerator.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/Error.h"
#include "upload/CredentialsManager.h"
#include "upload/RVLCommons.h"
#include "upload/RVLOperationBase.h"
#include "upload/UploadInterfaces.h"

namespace rovalis {

// The error the host is told of when an upload is due and no token is stored.
Error userTokenIsNilError();

class RVLPersistDataOperation final : public RVLOperationBase {
public:
    explicit RVLPersistDataOperation(std::weak_ptr<RVLEventInsertable> eventRepository);

    void execute() override;
    bool isDependentOnPrevious() const override { return false; }

private:
    const std::weak_ptr<RVLEventInsertable> eventRepository_;
};

class RVLCancelBackgroundSendOperation final : public RVLOperationBase {
public:
    explicit RVLCancelBackgroundSendOperation(std::weak_ptr<RVLAPIClientType> apiManager);

    void execute() override;
    bool isDependentOnPrevious() const override { return false; }

private:
    const std::weak_ptr<RVLAPIClientType> apiManager_;
};

// The pending batch's outline, if it can still be sent as it was recorded. One whose events
// have partly gone (the store was cleared or damaged) is given up, and its identity renewed,
// since the service may hold it: what is left of it goes out in a new batch under a new
// identity.
std::optional<PendingBatchOutline> resumablePendingBatchOutline(RVLPendingBatchStorable& batches,
                                                                RVLBatchIdModifier& batchIds);

// What a batch file holds: the times of its first and last events, and whether the event a
// send goes up to is among them.
struct BatchFileContents {
    Date from;
    Date to;
    bool holdsLastEvent = false;
};

// Writes the pending batch, exactly as recorded, as its compressed batch document into the
// file, one event at a time, so that its size never matters. None, with no file left, when
// the batch pending is not this one or could not be read or written whole.
std::optional<BatchFileContents> writePendingBatchFile(RVLPendingBatchStorable& batches, const BatchIdentity& identity,
                                                       const std::filesystem::path& file,
                                                       const std::optional<std::string>& lastEventURI);

// Sends the stored events, oldest first, in batches of at most batchLimit, up to and
// including the event at the last event URI (the newest stored event when none is given).
// A batch left pending by an earlier attempt goes first, exactly as it was (one larger than
// batchLimit, left to the background session, from a file). Each new batch is recorded in
// the store before it is first sent; each blocks the operation's thread until its upload has
// ended, and its events are deleted only after the service accepted it.
class RVLSendOperation final : public RVLOperationBase {
public:
    static constexpr std::int64_t batchLimit = 20000;

    RVLSendOperation(std::weak_ptr<RVLAPIClientType> apiManager, std::weak_ptr<RVLEventFetchable> eventRepository,
                     std::weak_ptr<RVLEventDeletable> eventsDeleter,
                     std::weak_ptr<RVLPendingBatchStorable> pendingBatches,
                     std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                     std::weak_ptr<RVLEventBatchGeneratable> eventBatchGenerator,
                     std::weak_ptr<RVLReachabilityType> reachabilityManager,
                     std::weak_ptr<RVLBatchIdModifier> batchIdManager,
                     std::weak_ptr<RVLDebugEventsInsertable> debugEventsManager,
                     std::shared_ptr<const RVLCommons> commons, std::shared_ptr<RVLDateSource> dateSource,
                     std::optional<std::string> lastEventURI);

    void execute() override;
    bool isDependentOnPrevious() const override { return true; }

    // Sends batches until the last event URI has been sent; the first upload error, if any.
    std::optional<Error> prepareAndSendData();
    // Blocks until the upload of one compressed batch has ended; its error, if any.
    std::optional<Error> sendZippedEventBatchData(std::string data, Date trackedFrom, Date trackedTo,
                                                  const BatchIdentity& batch);
    std::optional<Error> sendZippedEventBatchFile(const std::filesystem::path& file, Date trackedFrom, Date trackedTo,
                                                  const BatchIdentity& batch);

    const std::optional<std::string>& lastEventURI() const { return lastEventURI_; }

private:
    // After one attempt at a recorded batch: a failed one is given up when that is safe (see
    // prepareAndSendData), an accepted one has its events deleted. The error that ends the
    // send, if any.
    std::optional<Error> concludeAttempt(const std::optional<Error>& error, const BatchIdentity& identity, bool resumed,
                                         Date trackedTo);

    const std::weak_ptr<RVLAPIClientType> apiManager_;
    const std::weak_ptr<RVLEventFetchable> eventRepository_;
    const std::weak_ptr<RVLEventDeletable> eventsDeleter_;
    const std::weak_ptr<RVLPendingBatchStorable> pendingBatches_;
    const std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager_;
    const std::weak_ptr<RVLEventBatchGeneratable> eventBatchGenerator_;
    const std::weak_ptr<RVLReachabilityType> reachabilityManager_;
    const std::weak_ptr<RVLBatchIdModifier> batchIdManager_;
    const std::weak_ptr<RVLDebugEventsInsertable> debugEventsManager_;
    const std::shared_ptr<const RVLCommons> commons_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    std::optional<std::string> lastEventURI_;
};

// Writes every stored event, plus one diagnostic event, as one compressed batch file and
// hands it to the background session; a batch left pending by an earlier attempt goes
// instead, exactly as it was. The batch is recorded in the store first, and neither step
// holds the events in memory. The operation finishes as soon as the upload is handed over;
// the API client deletes the events when the service accepts the batch.
class RVLSendInBackgroundOperation final : public RVLOperationBase {
public:
    RVLSendInBackgroundOperation(std::weak_ptr<RVLEventFetchable> eventRepository,
                                 std::weak_ptr<RVLPendingBatchStorable> pendingBatches,
                                 std::weak_ptr<RVLAPIClientType> apiManager,
                                 std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager,
                                 std::weak_ptr<RVLBatchIdModifier> batchIdManager,
                                 std::shared_ptr<const RVLCommons> commons, std::shared_ptr<RVLDateSource> dateSource);

    void execute() override;
    bool isDependentOnPrevious() const override { return true; }

    // The Debug event that closes a batch of all stored events: the count of each type (the
    // diagnostic itself counted under "Debug") and whether a switch-off by the host is among
    // them, tracked 100 ms after the newest. It travels only in the batch.
    static EventPayload diagnosticEvent(const StoredEventsDigest& digest);
    // The payloads, oldest first, with that event appended.
    static std::vector<EventPayload> diagnoseEventBatch(std::vector<EventPayload> payloads);

private:
    const std::weak_ptr<RVLEventFetchable> eventRepository_;
    const std::weak_ptr<RVLPendingBatchStorable> pendingBatches_;
    const std::weak_ptr<RVLAPIClientType> apiManager_;
    const std::weak_ptr<RVLUserDefaultsModifier> userDefaultsManager_;
    const std::weak_ptr<RVLBatchIdModifier> batchIdManager_;
    const std::shared_ptr<const RVLCommons> commons_;
    const std::shared_ptr<RVLDateSource> dateSource_;
};

}  // namespace rovalis
