#include "upload/RVLAPIClient.h"

#include <iconv.h>
#include <locale.h>

#include <algorithm>
#include <charconv>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <utility>

namespace rovalis {

namespace {

constexpr const char* kTimestampFrom = "timestampFrom";
constexpr const char* kTimestamp = "timestamp";
// The identity the batch went out under, kept with the task (a background task's across a
// relaunch) so that its acceptance renews and deletes exactly that batch.
constexpr const char* kBatchId = "batchId";
constexpr const char* kSequentialId = "sequentialId";
// Set by background tasks journaled before batches carried their identity: the last event
// of the batch, in the order the store kept them.
constexpr const char* kLastStoredEventURI = "lastStoredEventURI";

void attachBatchIdentity(UrlRequest& request, const BatchIdentity& batch) {
    request.textProperties[kBatchId] = batch.batchId;
    request.textProperties[kSequentialId] = std::to_string(batch.sequentialId);
}

std::optional<BatchIdentity> batchIdentityOf(const UrlRequest& request) {
    const auto& texts = request.textProperties;
    const auto id = texts.find(kBatchId);
    const auto sequential = texts.find(kSequentialId);
    if (id == texts.end() || sequential == texts.end()) return std::nullopt;
    BatchIdentity batch{id->second, 0};
    const auto& digits = sequential->second;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), batch.sequentialId);
    if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return batch;
}

std::string orNull(const std::string& value) { return value.empty() ? std::string("(null)") : value; }

// The body as UTF-8 text: each byte that does not belong to a valid sequence becomes U+FFFD.
std::string validUTF8(std::string_view bytes) {
    static constexpr const char* kReplacement = "\xEF\xBF\xBD";
    std::string text;
    text.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        const auto lead = static_cast<unsigned char>(bytes[i]);
        std::size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;
        if (lead < 0x80) {
            length = 1;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;  // no surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        }
        bool valid = length > 0 && i + length <= bytes.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const auto c = static_cast<unsigned char>(bytes[i + k]);
            const unsigned char min = k == 1 ? low : 0x80;
            const unsigned char max = k == 1 ? high : 0xBF;
            valid = c >= min && c <= max;
        }
        if (valid) {
            text.append(bytes.substr(i, length));
            i += length;
        } else {
            text += kReplacement;
            ++i;
        }
    }
    return text;
}

// A locale whose character table transliterates, whatever the process's own locale is.
locale_t transliterationLocale() {
    // Made once and kept for the process: nothing is released in static destructors.
    static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    return locale;
}

}  // namespace

std::string resolveURL(std::string_view base, std::string_view relative) {
    const std::size_t cut = base.find_first_of("?#");
    if (cut != std::string_view::npos) base = base.substr(0, cut);
    std::string url(base);
    if (url.empty() || url.back() != '/') url += '/';
    while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
    url += relative;
    return url;
}

std::string headerSafe(std::string_view value) {
    std::string safe(value);
    for (char& c : safe) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) c = ' ';
    }
    return safe;
}

std::string lossyASCII(std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size());
    const locale_t locale = transliterationLocale();
    const locale_t previous = locale ? ::uselocale(locale) : static_cast<locale_t>(nullptr);
    const iconv_t converter = ::iconv_open("ASCII//TRANSLIT", "UTF-8");
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        // Without a converter every byte outside ASCII becomes "?".
        for (char c : utf8) out += static_cast<unsigned char>(c) < 0x80 ? c : '?';
    } else {
        std::string input(utf8);
        char* in = input.data();
        std::size_t inLeft = input.size();
        char buffer[256];
        while (inLeft > 0) {
            char* outPtr = buffer;
            std::size_t outLeft = sizeof buffer;
            const std::size_t result = ::iconv(converter, &in, &inLeft, &outPtr, &outLeft);
            out.append(buffer, static_cast<std::size_t>(outPtr - buffer));
            if (result != static_cast<std::size_t>(-1)) break;
            if (errno == E2BIG) continue;
            if (errno == EILSEQ) {
                // A character without a transliteration, or a byte that is not UTF-8: one
                // "?" for the whole character when it is well formed, else for the byte.
                const std::string_view rest(in, inLeft);
                const auto lead = static_cast<unsigned char>(rest[0]);
                std::size_t skip = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
                if (skip > rest.size() || validUTF8(rest.substr(0, skip)) != rest.substr(0, skip)) skip = 1;
                out += '?';
                in += skip;
                inLeft -= skip;
                continue;
            }
            // An incomplete sequence at the end (EINVAL) or anything else.
            out += '?';
            break;
        }
        ::iconv_close(converter);
    }
    if (locale) ::uselocale(previous);
    return out;
}

UrlRequest makeEventBatchRequest(std::string_view baseURL, const std::optional<std::string>& accessToken,
                                 std::string_view userAgent, std::uint64_t contentLength) {
    UrlRequest request;
    request.url = resolveURL(baseURL, kRVLEventBatchesPath);
    request.httpMethod = "POST";
    request.headers = {
        {"Content-Type", "application/octet-stream"},
        {"X-Content-Encoding", "gzip"},
        {"Accept", "application/json"},
        {"User-Agent", headerSafe(userAgent)},
        {"Accept-Language", "en"},
    };
    if (accessToken) request.headers.emplace_back("Authorization", "Bearer " + headerSafe(*accessToken));
    request.headers.emplace_back("Content-Length", std::to_string(contentLength));
    return request;
}

std::string makeUserAgent(const UserAgentValues& values) {
    const std::string appName = values.displayName.empty() ? std::string("Rovalis SDK") : values.displayName;
    const std::string text = "{\"app_name\":\"" + appName +                                    //
                             "\", \"operating_system\":\"ios\", \"os_version\":\"iOS " +          //
                             orNull(values.systemVersion) +                                      //
                             "\", \"sdk_version\":\"" + orNull(values.sdkVersion) +              //
                             "\", \"handset\":\"" + orNull(values.handset) +                     //
                             "\", \"sdk_build_number\":\"" + orNull(values.sdkBuildNumber) +     //
                             "\", \"device_id\":\"" + orNull(values.deviceId) +                  //
                             "\", \"app_id\":\"" + orNull(values.appId.value_or("")) +           //
                             "\", \"app_version\":\"" + orNull(values.appVersion) +              //
                             "\", \"app_build_number\":\"" + orNull(values.appBuildNumber) + "\"}";
    return headerSafe(lossyASCII(text));
}

std::string errorDebugDescription(const Error& error) {
    return "Error Domain=" + error.domain + " Code=" + std::to_string(error.code) + " \"" +
           error.localizedDescription + "\"";
}

std::shared_ptr<RVLAPIClient> RVLAPIClient::create(
    std::string baseURL, std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> eventUploadDateManager,
    std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager,
    std::shared_ptr<RVLEventDeletable> eventDeletable, std::shared_ptr<RVLDeviceIdAccessible> deviceIdAccess,
    std::shared_ptr<RVLAccessTokenModifier> accessTokenManager, std::shared_ptr<RVLBatchIdModifier> batchIdManager,
    std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager, std::shared_ptr<UrlSessionFactory> sessionFactory,
    std::shared_ptr<const RVLCommons> commons, std::shared_ptr<Executor> mainExecutor, Options options) {
    std::shared_ptr<RVLAPIClient> client(new RVLAPIClient(
        std::move(baseURL), std::move(eventUploadDateManager), std::move(transferModeRecordManager),
        std::move(eventDeletable), std::move(deviceIdAccess), std::move(accessTokenManager), std::move(batchIdManager),
        std::move(debugEventsManager), std::move(sessionFactory), std::move(commons), std::move(mainExecutor),
        options));
    // Made now, with the client as its delegate, so that what an earlier process left
    // pending is delivered here.
    client->backgroundURLSession();
    return client;
}

RVLAPIClient::RVLAPIClient(std::string baseURL,
                           std::shared_ptr<RVLLastSuccessfulEventUploadDateModifier> eventUploadDateManager,
                           std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager,
                           std::shared_ptr<RVLEventDeletable> eventDeletable,
                           std::shared_ptr<RVLDeviceIdAccessible> deviceIdAccess,
                           std::shared_ptr<RVLAccessTokenModifier> accessTokenManager,
                           std::shared_ptr<RVLBatchIdModifier> batchIdManager,
                           std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                           std::shared_ptr<UrlSessionFactory> sessionFactory,
                           std::shared_ptr<const RVLCommons> commons, std::shared_ptr<Executor> mainExecutor,
                           Options options)
    : baseURL_(std::move(baseURL)),
      eventUploadDateManager_(std::move(eventUploadDateManager)),
      transferModeRecordManager_(std::move(transferModeRecordManager)),
      eventDeletable_(std::move(eventDeletable)),
      deviceIdAccess_(std::move(deviceIdAccess)),
      accessTokenManager_(std::move(accessTokenManager)),
      batchIdManager_(std::move(batchIdManager)),
      debugEventsManager_(std::move(debugEventsManager)),
      sessionFactory_(std::move(sessionFactory)),
      commons_(std::move(commons)),
      mainExecutor_(std::move(mainExecutor)),
      options_(options) {}

bool RVLAPIClient::canSendEvents() { return accessTokenManager_->accessToken().has_value(); }

UrlRequest RVLAPIClient::requestWithContentLength(std::uint64_t length) {
    return makeEventBatchRequest(baseURL_, accessTokenManager_->accessToken(), userAgent(), length);
}

std::string RVLAPIClient::userAgent() {
    const HostInfo& host = commons_->host();
    UserAgentValues values;
    values.displayName = host.displayName;
    values.systemVersion = commons_->systemVersion();
    values.sdkVersion = RVLCommons::sdkVersion();
    values.handset = RVLCommons::deviceType();
    values.sdkBuildNumber = RVLCommons::sdkBuildNumber();
    values.deviceId = deviceIdAccess_->deviceId();
    values.appId = host.identifier;
    values.appVersion = host.version;
    values.appBuildNumber = host.build;
    return makeUserAgent(values);
}

bool RVLAPIClient::isBackgroundSession(const UrlSession& session) {
    const auto& identifier = session.configuration().identifier;
    return identifier && *identifier == kRVLBackgroundSessionIdentifier;
}

std::shared_ptr<UrlSession> RVLAPIClient::foregroundURLSession() { return sessionFor(false); }

std::shared_ptr<UrlSession> RVLAPIClient::backgroundURLSession() { return sessionFor(true); }

std::shared_ptr<UrlSession> RVLAPIClient::sessionFor(bool background) {
    const bool allowsCellular = !transferModeRecordManager_->wifiOnlyDataTransfer();
    std::lock_guard lock(sessionsMutex_);
    std::shared_ptr<UrlSession>& session = background ? internalBackgroundSession_ : internalForegroundSession_;
    if (session && session->configuration().allowsCellularAccess == allowsCellular) return session;
    UrlSessionConfiguration configuration;
    if (background) {
        configuration = UrlSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
            kRVLBackgroundSessionIdentifier);
        configuration.discretionary = true;
        configuration.sessionSendsLaunchEvents = true;
    } else {
        configuration = UrlSessionConfiguration::defaultSessionConfiguration();
    }
    configuration.timeoutIntervalForRequest = options_.transferLimits.idleTimeout;
    configuration.minimumBytesPerSecond = options_.transferLimits.minimumBytesPerSecond;
    configuration.lowSpeedWindow = options_.transferLimits.lowSpeedWindow;
    if (!background && options_.foregroundTimeoutIntervalForRequest) {
        configuration.timeoutIntervalForRequest = *options_.foregroundTimeoutIntervalForRequest;
    }
    configuration.allowsCellularAccess = allowsCellular;
    // The old session is not invalidated: an upload still running in it finishes.
    session = sessionFactory_->makeSession(configuration, weak_from_this());
    return session;
}

void RVLAPIClient::sendEvents(std::string zippedData, Date trackedFrom, Date trackedTo, const BatchIdentity& batch,
                              SuccessBlock success, FailureBlock failure) {
    const std::size_t size = zippedData.size();
    startForegroundUpload(size, trackedFrom, trackedTo, batch, std::move(success), std::move(failure),
                          [&](UrlSession& session, const UrlRequest& request) {
                              return session.uploadTaskWithRequest(request, std::move(zippedData));
                          });
}

void RVLAPIClient::sendEventsFile(const std::filesystem::path& file, Date trackedFrom, Date trackedTo,
                                  const BatchIdentity& batch, SuccessBlock success, FailureBlock failure) {
    startForegroundUpload(RVLCommons::fileSizeFor(file), trackedFrom, trackedTo, batch, std::move(success),
                          std::move(failure), [&](UrlSession& session, const UrlRequest& request) {
                              return session.uploadTaskWithRequestFromFile(request, file);
                          });
}

void RVLAPIClient::startForegroundUpload(
    std::size_t bodySize, Date trackedFrom, Date trackedTo, const BatchIdentity& batch, SuccessBlock success,
    FailureBlock failure,
    const std::function<std::shared_ptr<UrlSessionTask>(UrlSession&, const UrlRequest&)>& makeTask) {
    UrlRequest request = requestWithContentLength(bodySize);
    request.properties[kTimestampFrom] = trackedFrom;
    request.properties[kTimestamp] = trackedTo;
    attachBatchIdentity(request, batch);
    {
        std::lock_guard lock(mutex_);
        sendEventsSuccessBlock_ = std::move(success);
        sendEventsFailureBlock_ = std::move(failure);
    }
    const auto session = foregroundURLSession();
    auto task = makeTask(*session, request);
    {
        std::lock_guard lock(mutex_);
        uploadTask_ = task;
    }
    task->resume();
}

void RVLAPIClient::sendEventsFileInBackground(const std::filesystem::path& file, Date trackedFrom, Date trackedTo,
                                              const BatchIdentity& batch) {
    // At most one background upload is pending.
    cancelPendingBackgroundTasks();
    UrlRequest request = requestWithContentLength(RVLCommons::fileSizeFor(file));
    request.properties[kTimestampFrom] = trackedFrom;
    request.properties[kTimestamp] = trackedTo;
    attachBatchIdentity(request, batch);
    const auto session = backgroundURLSession();
    auto task = session->uploadTaskWithRequestFromFile(request, file);
    {
        std::lock_guard lock(mutex_);
        uploadTask_ = task;
    }
    task->resume();
}

void RVLAPIClient::cancelPendingBackgroundTasks() {
    for (const auto& task : backgroundURLSession()->allTasks()) task->cancel();
}

void RVLAPIClient::registerCallback(CompletionHandler completionHandler, const std::string& /*identifier*/) {
    backgroundURLSession();
    std::lock_guard lock(mutex_);
    completionHandler_ = std::move(completionHandler);
}

void RVLAPIClient::callCompletionHandlerForSession(UrlSession& /*session*/) {
    CompletionHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = std::exchange(completionHandler_, nullptr);
    }
    if (handler) runOnMain(std::move(handler));
}

void RVLAPIClient::invalidateAndCancelBackgroundSession(InvalidationBlock block) {
    invalidateAndCancelSession(true, std::move(block));
}

void RVLAPIClient::invalidateAndCancelForegroundSession(InvalidationBlock block) {
    invalidateAndCancelSession(false, std::move(block));
}

void RVLAPIClient::invalidateAndCancelSession(bool background, InvalidationBlock block) {
    std::shared_ptr<UrlSession> session;
    {
        std::lock_guard sessionsLock(sessionsMutex_);
        session = std::move(background ? internalBackgroundSession_ : internalForegroundSession_);
        if (session) {
            std::lock_guard lock(mutex_);
            (background ? backgroundSessionInvalidationBlock_ : foregroundSessionInvalidationBlock_) =
                std::move(block);
        }
    }
    if (!session) {
        // Nothing to invalidate: a caller waiting for the block is not kept waiting.
        if (block) block();
        return;
    }
    // The session tells its delegate, on its own thread, once every task has been cancelled;
    // it stays alive until then though this reference goes.
    session->invalidateAndCancel();
}

void RVLAPIClient::updateBatchIdContents(const BatchIdentity& sent) { batchIdManager_->renewBatchIdentityAfter(sent); }

void RVLAPIClient::setSdkDelegate(std::weak_ptr<RovalisDelegate> delegate) {
    std::lock_guard lock(mutex_);
    sdkDelegate_ = std::move(delegate);
}

void RVLAPIClient::runOnMain(std::function<void()> task) {
    if (mainExecutor_->isCurrent()) {
        task();
    } else {
        mainExecutor_->async(std::move(task));
    }
}

void RVLAPIClient::updateTransmitDataDelegateWithTrackedFrom(Date trackedFrom, Date trackedTo,
                                                             const std::optional<Error>& error) {
    std::weak_ptr<RovalisDelegate> weakDelegate;
    {
        std::lock_guard lock(mutex_);
        weakDelegate = sdkDelegate_;
    }
    runOnMain([weakDelegate, trackedFrom, trackedTo, error] {
        const auto delegate = weakDelegate.lock();
        if (auto* upload = dynamic_cast<RovalisDataUploadDelegate*>(delegate.get())) {
            upload->dataUploadWithTrackedFrom(trackedFrom, trackedTo, error);
        }
    });
}

void RVLAPIClient::didReceiveData(UrlSession& /*session*/, UrlSessionTask& task, std::string_view data) {
    std::string& body = task.delegateResponseBody();
    // A body beyond the limit is dropped: neither a message nor an error text needs more.
    const std::size_t room = body.size() < options_.maxResponseBytes ? options_.maxResponseBytes - body.size() : 0;
    body.append(data.substr(0, std::min(room, data.size())));
}

std::optional<nlohmann::json> RVLAPIClient::processResponseDataFrom(std::string_view responseData,
                                                                     long responseCode,
                                                                     const std::optional<Error>& error,
                                                                     std::optional<Error>& processedError) {
    if (responseCode >= 200 && responseCode <= 298) {
        processedError.reset();
        const auto body = nlohmann::json::parse(responseData, nullptr, /*allow_exceptions=*/false);
        if (body.is_object()) {
            const auto message = body.find("message");
            if (message != body.end()) return *message;
        }
        return std::nullopt;
    }
    if (error) {
        processedError = error;
    } else {
        processedError = Error{kRVLServerErrorDomain, responseCode, validUTF8(responseData)};
    }
    return std::nullopt;
}

void RVLAPIClient::didCompleteWithError(UrlSession& session, UrlSessionTask& task, const std::optional<Error>& error) {
    // Taken from the task, which may be kept for a while yet.
    const std::string body = std::exchange(task.delegateResponseBody(), {});
    const bool background = isBackgroundSession(session);
    const char* label = background ? "BG" : "FG";

    std::optional<Error> processedError;
    const auto message = processResponseDataFrom(body, task.statusCode(), error, processedError);

    if (!processedError) {
        // A task journaled before batches carried their identity went out under the stored one.
        const auto sent = batchIdentityOf(task.originalRequest());
        updateBatchIdContents(sent ? *sent : BatchIdentity{batchIdManager_->batchId(), batchIdManager_->sequentialId()});
        if (background) {
            handleBackgroundResponse(task, std::nullopt);
        } else {
            SuccessBlock success;
            {
                std::lock_guard lock(mutex_);
                success = sendEventsSuccessBlock_;
            }
            if (success) success(message);
        }
    } else if (background) {
        handleBackgroundResponse(task, processedError);
    } else {
        FailureBlock failure;
        {
            std::lock_guard lock(mutex_);
            failure = sendEventsFailureBlock_;
        }
        if (failure) failure(*processedError);
    }

    const auto& properties = task.originalRequest().properties;
    const auto toFound = properties.find(kTimestamp);
    const auto fromFound = properties.find(kTimestampFrom);
    const Date to = toFound != properties.end() ? toFound->second : Date{};
    const Date from = fromFound != properties.end() ? fromFound->second : to;

    if (error && debugEventsManager_) {
        debugEventsManager_->insertLogDebugEvent(std::string(label) + " transmission Error " +
                                                 errorDebugDescription(*error) + " from:" +
                                                 dateDebugDescription(from) + " to:" + dateDebugDescription(to));
    }
    updateTransmitDataDelegateWithTrackedFrom(from, to, processedError);
}

void RVLAPIClient::handleBackgroundResponse(UrlSessionTask& task, const std::optional<Error>& error) {
    if (!error) {
        const auto& properties = task.originalRequest().properties;
        const auto found = properties.find(kTimestamp);
        // Without the batch's last event time nothing tells which events were sent; they stay.
        if (found == properties.end()) return;
        eventUploadDateManager_->setLastSuccessfulEventUploadDate(found->second);
        if (!eventDeletable_) return;
        // Exactly the events the batch held, and only while it is still the pending batch: a
        // foreground send may have had it accepted first.
        if (const auto sent = batchIdentityOf(task.originalRequest())) {
            eventDeletable_->deleteAcceptedBatch(sent->batchId);
            return;
        }
        const auto& texts = task.originalRequest().textProperties;
        if (const auto last = texts.find(kLastStoredEventURI); last != texts.end()) {
            eventDeletable_->deleteEventsStoredUpTo(last->second);
        } else {
            eventDeletable_->deleteEventsWithUpTo(found->second);
        }
        return;
    }
    // A task cancelled on purpose (by a newer upload or an invalidation) has nothing more to
    // cancel; cancelling now could hit the upload that replaced it.
    if (error->domain == NSURLErrorDomain && error->code == URLError::cancelled) return;
    cancelPendingBackgroundTasks();
}

void RVLAPIClient::didFinishEventsForBackgroundURLSession(UrlSession& session) {
    if (session.configuration().identifier) callCompletionHandlerForSession(session);
}

void RVLAPIClient::didBecomeInvalidWithError(UrlSession& session, const std::optional<Error>& /*error*/) {
    InvalidationBlock block;
    {
        std::lock_guard lock(mutex_);
        block = std::exchange(isBackgroundSession(session) ? backgroundSessionInvalidationBlock_
                                                           : foregroundSessionInvalidationBlock_,
                              nullptr);
    }
    if (block) block();
}

void RVLAPIClient::willResendRestoredTask(UrlSession& /*session*/, UrlRequest& request) {
    if (const auto token = accessTokenManager_->accessToken()) {
        request.setValueForHTTPHeaderField("Bearer " + headerSafe(*token), "Authorization");
    }
    request.setValueForHTTPHeaderField(userAgent(), "User-Agent");
}

}  // namespace rovalis
