#pragma once

// The one place where the SDK talks to the collection service: posts one gzip-compressed
// event batch per request, from memory in a foreground session or from a file in a
// background session, turns the outcome into success or an error, rotates the batch
// identity after each accepted batch, and tells the host's delegate.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/DebugEventsManager.h"
#include "core/UserDefaultsManager.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/Executor.h"
#include "rovalis/Rovalis.h"
#include "rovalis/RovalisDelegate.h"
#include "upload/CredentialsManager.h"
#include "upload/RVLCommons.h"
#include "upload/UploadInterfaces.h"
#include "upload/UrlSession.h"
#include "util/DateDescription.h"

namespace rovalis {

inline constexpr const char* kRVLBackgroundSessionIdentifier = "com.rovalis.rovalisBackgroundSessionIdentifier";
inline constexpr const char* kRVLEventBatchesPath = "api/event_batches";

// Resolves a relative path against a base URL whose path is kept whether or not it ends in
// "/": "http://h:8080" and "http://h:8080/" give "http://h:8080/api/event_batches",
// "https://h/v1" gives "https://h/v1/api/event_batches". A query or fragment of the base is
// dropped.
std::string resolveURL(std::string_view base, std::string_view relative);

// The header value with every control character (CR, LF, others below 0x20, DEL) replaced
// by a space, so that no value can end its header line early.
std::string headerSafe(std::string_view value);

// The text as ASCII: each other character in its transliteration ("é" becomes "e", "ß"
// becomes "ss"), "?" where there is none and for every byte that is not UTF-8.
std::string lossyASCII(std::string_view utf8);

// The upload request: URL, "POST" and the headers in the order they are sent. With no
// access token the request goes without "Authorization" (the service refuses it).
UrlRequest makeEventBatchRequest(std::string_view baseURL, const std::optional<std::string>& accessToken,
                                 std::string_view userAgent, std::uint64_t contentLength);

// The values of the user-agent text.
struct UserAgentValues {
    std::string displayName;  // empty: "Rovalis SDK"
    std::string systemVersion;
    std::string sdkVersion;
    std::string handset;
    std::string sdkBuildNumber;
    std::string deviceId;
    std::optional<std::string> appId;
    std::string appVersion;
    std::string appBuildNumber;
};

// The user-agent JSON text, inserted without escaping (an empty or missing value reads
// "(null)"), in ASCII and free of control characters.
std::string makeUserAgent(const UserAgentValues& values);

// "Error Domain=<domain> Code=<code> \"<description>\"", like the platform's description
// of an error object.
std::string errorDebugDescription(const Error& error);

struct RVLAPIClientOptions {
    // When both sessions give a slow upload up.
    TransferLimits transferLimits;
    // The foreground session's idle time-out, in place of the limits' one.
    std::optional<double> foregroundTimeoutIntervalForRequest;
    // The most of each response body that is kept (the rest is dropped as it arrives).
    std::size_t maxResponseBytes = 64 * 1024;
};

class RVLAPIClient final : public RVLAPIClientType,
                           public UrlSessionDelegate,
                           public std::enable_shared_from_this<RVLAPIClient> {
public:
    using CompletionHandler = std::function<void()>;
    using InvalidationBlock = std::function<void()>;

    using Options = RVLAPIClientOptions;

    // Makes the client and, at once, its background session, so that the outcome of uploads
    // left pending by an earlier process is delivered to it.
    static std::shared_ptr<RVLAPIClient> create(
        std::string baseURL, std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> eventUploadDateManager,
        std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager,
        std::shared_ptr<RVLEventDeletable> eventDeletable, std::shared_ptr<RVLDeviceIdAccessible> deviceIdAccess,
        std::shared_ptr<RVLAccessTokenModifier> accessTokenManager, std::shared_ptr<RVLBatchIdModifier> batchIdManager,
        std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager, std::shared_ptr<UrlSessionFactory> sessionFactory,
        std::shared_ptr<const RVLCommons> commons, std::shared_ptr<Executor> mainExecutor, Options options = {});

    RVLAPIClient(const RVLAPIClient&) = delete;
    RVLAPIClient& operator=(const RVLAPIClient&) = delete;

    // RVLAPIClientType
    bool canSendEvents() override;
    void sendEvents(std::string zippedData, Date trackedFrom, Date trackedTo, const BatchIdentity& batch,
                    SuccessBlock success, FailureBlock failure) override;
    void sendEventsFile(const std::filesystem::path& file, Date trackedFrom, Date trackedTo, const BatchIdentity& batch,
                        SuccessBlock success, FailureBlock failure) override;
    void sendEventsFileInBackground(const std::filesystem::path& file, Date trackedFrom, Date trackedTo,
                                    const BatchIdentity& batch) override;
    void cancelPendingBackgroundTasks() override;
    void updateTransmitDataDelegateWithTrackedFrom(Date trackedFrom, Date trackedTo,
                                                   const std::optional<Error>& error) override;

    UrlRequest requestWithContentLength(std::uint64_t length);
    // The foreground upload of a batch whose body makeTask attaches.
    void startForegroundUpload(
        std::size_t bodySize, Date trackedFrom, Date trackedTo, const BatchIdentity& batch, SuccessBlock success,
        FailureBlock failure,
        const std::function<std::shared_ptr<UrlSessionTask>(UrlSession&, const UrlRequest&)>& makeTask);
    std::string userAgent();

    // The session, made again when the wifi-only choice no longer matches its cellular
    // permission (the old one is left to finish on its own).
    std::shared_ptr<UrlSession> foregroundURLSession();
    std::shared_ptr<UrlSession> backgroundURLSession();

    // The system's handler for the background session's events; the identifier is not
    // examined.
    void registerCallback(CompletionHandler completionHandler, const std::string& identifier);
    // Calls the stored handler once on the main executor and forgets it.
    void callCompletionHandlerForSession(UrlSession& session);
    void invalidateAndCancelBackgroundSession(InvalidationBlock block);
    void invalidateAndCancelForegroundSession(InvalidationBlock block);
    // After the batch sent under `sent` was accepted: see RVLBatchIdModifier.
    void updateBatchIdContents(const BatchIdentity& sent);

    void setSdkDelegate(std::weak_ptr<RovalisDelegate> delegate);

    const std::string& baseURL() const { return baseURL_; }

    // UrlSessionDelegate
    void didReceiveData(UrlSession& session, UrlSessionTask& task, std::string_view data) override;
    void didCompleteWithError(UrlSession& session, UrlSessionTask& task, const std::optional<Error>& error) override;
    void didFinishEventsForBackgroundURLSession(UrlSession& session) override;
    void didBecomeInvalidWithError(UrlSession& session, const std::optional<Error>& error) override;
    void willResendRestoredTask(UrlSession& session, UrlRequest& request) override;

    // The server's message on success (statuses 200 to 298), with processedError cleared;
    // otherwise none, with processedError set to the transport error or to a server error
    // carrying the status and the body as text.
    static std::optional<nlohmann::json> processResponseDataFrom(std::string_view responseData, long responseCode,
                                                                 const std::optional<Error>& error,
                                                                 std::optional<Error>& processedError);

    static bool isBackgroundSession(const UrlSession& session);

private:
    RVLAPIClient(std::string baseURL, std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> eventUploadDateManager,
                 std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager,
                 std::shared_ptr<RVLEventDeletable> eventDeletable,
                 std::shared_ptr<RVLDeviceIdAccessible> deviceIdAccess,
                 std::shared_ptr<RVLAccessTokenModifier> accessTokenManager,
                 std::shared_ptr<RVLBatchIdModifier> batchIdManager,
                 std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                 std::shared_ptr<UrlSessionFactory> sessionFactory, std::shared_ptr<const RVLCommons> commons,
                 std::shared_ptr<Executor> mainExecutor, Options options);

    std::shared_ptr<UrlSession> sessionFor(bool background);
    void invalidateAndCancelSession(bool background, InvalidationBlock block);
    void handleBackgroundResponse(UrlSessionTask& task, const std::optional<Error>& error);
    void runOnMain(std::function<void()> task);

    const std::string baseURL_;
    const std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> eventUploadDateManager_;
    const std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager_;
    const std::shared_ptr<RVLEventDeletable> eventDeletable_;
    const std::shared_ptr<RVLDeviceIdAccessible> deviceIdAccess_;
    const std::shared_ptr<RVLAccessTokenModifier> accessTokenManager_;
    const std::shared_ptr<RVLBatchIdModifier> batchIdManager_;
    const std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager_;
    const std::shared_ptr<UrlSessionFactory> sessionFactory_;
    const std::shared_ptr<const RVLCommons> commons_;
    const std::shared_ptr<Executor> mainExecutor_;
    const Options options_;

    // Held while a session is looked at or made, so that two callers never make two.
    std::mutex sessionsMutex_;
    std::shared_ptr<UrlSession> internalForegroundSession_;
    std::shared_ptr<UrlSession> internalBackgroundSession_;

    // The rest is shared between the callers' threads and the sessions' delegate threads.
    // Never held while a callback, a session or a collaborator is called.
    std::mutex mutex_;
    std::shared_ptr<UrlSessionTask> uploadTask_;
    SuccessBlock sendEventsSuccessBlock_;
    FailureBlock sendEventsFailureBlock_;
    CompletionHandler completionHandler_;
    InvalidationBlock foregroundSessionInvalidationBlock_;
    InvalidationBlock backgroundSessionInvalidationBlock_;
    std::weak_ptr<RovalisDelegate> sdkDelegate_;
};

}  // namespace rovalis
