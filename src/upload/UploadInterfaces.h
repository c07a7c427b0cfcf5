#pragma once

// The narrow interfaces between the upload components: the API client as the operations
// see it, the reachability answer, and the operations controller as its callers see it.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "rovalis/Date.h"
#include "rovalis/Error.h"
#include "rovalis/platform/Location.h"
#include "upload/CredentialsManager.h"

namespace rovalis {

// The domain of errors made from the service's answer: the code is the HTTP status.
inline constexpr const char* kRVLServerErrorDomain = "com.rovalis.error.server";

class RVLAPIClientType {
public:
    // The server's "message" (none when absent or the body is not JSON).
    using SuccessBlock = std::function<void(const std::optional<nlohmann::json>& message)>;
    using FailureBlock = std::function<void(const Error& error)>;

    virtual ~RVLAPIClientType() = default;

    // True exactly when an access token is stored.
    virtual bool canSendEvents() = 0;
    // Uploads the gzip-compressed pending batch sent under `batch` in the foreground. On
    // acceptance the stored batch identity is renewed (RVLBatchIdModifier) before the
    // success callback runs; exactly one of the callbacks runs, on the session's delegate
    // thread.
    virtual void sendEvents(std::string zippedData, Date trackedFrom, Date trackedTo, const BatchIdentity& batch,
                            SuccessBlock success, FailureBlock failure) = 0;
    // The same with the compressed batch in a file, read as it is sent: for a batch too large
    // to hold in memory. The file is left where it is.
    virtual void sendEventsFile(const std::filesystem::path& file, Date trackedFrom, Date trackedTo,
                                const BatchIdentity& batch, SuccessBlock success, FailureBlock failure) = 0;
    // Hands the compressed file of the pending batch sent under `batch` to the background
    // session; the outcome is handled by the client itself, in this process or a later one:
    // on acceptance the identity renewed, the upload date stored and the batch's events
    // deleted (deleteAcceptedBatch).
    virtual void sendEventsFileInBackground(const std::filesystem::path& file, Date trackedFrom, Date trackedTo,
                                            const BatchIdentity& batch) = 0;
    virtual void cancelPendingBackgroundTasks() = 0;
    // Tells the host's delegate, on the main run loop, how an upload ended.
    virtual void updateTransmitDataDelegateWithTrackedFrom(Date trackedFrom, Date trackedTo,
                                                           const std::optional<Error>& error) = 0;
};

// Whether an upload may start now under the user's wifi-only choice.
class RVLReachabilityType {
public:
    virtual ~RVLReachabilityType() = default;
    virtual bool canSendDataNow() const = 0;
    // Called with "sending is possible now" after each recorded change of the network.
    virtual void setChangeListener(std::function<void(bool canSendNow)> listener) = 0;
};

class RVLOperationsControllerType {
public:
    using Completion = std::function<void(bool succeeded)>;

    virtual ~RVLOperationsControllerType() = default;

    virtual void performSpeedUpOperationsWithReason(const std::string& reason,
                                                    const std::optional<Location>& lastKnownLocation) = 0;
    virtual void performSlowDownOperationsWithReason(const std::string& reason,
                                                     const std::optional<Location>& lastKnownLocation) = 0;
    virtual void performSendEventsOperationsWithToggleTrackingOffEventURI(const std::optional<std::string>& uri,
                                                                          Completion completion) = 0;
    virtual void performPreShutDownOperationsWithTtOffEventURI(const std::optional<std::string>& uri,
                                                               Completion completion) = 0;
    virtual void performPostStartOperationsWithCompletion(Completion completion) = 0;
    virtual void performBGTransmissionOperationWithCompletion(Completion completion) = 0;
    virtual void cancelAllOperations() = 0;
    virtual void cancelAnyPendingSlowDownOperations() = 0;
};

}  // namespace rovalis
