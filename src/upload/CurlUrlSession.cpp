#include "upload/CurlUrlSession.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>

#include "rovalis/Console.h"
#include "upload/BackgroundTaskJournal.h"
#include "upload/CurlTransfer.h"
#include "util/Fatal.h"
#include "util/SerialExecutor.h"

namespace rovalis {

namespace {

class SessionCore;

// Where a task stands. Guarded by the core's mutex.
enum class Phase {
    suspended,  // made, not resumed yet
    queued,     // waiting for its turn on the delegate thread
    running,    // its transfer is under way
    waiting,    // a background task waiting to be sent again
    ending,     // its completion is queued
    completed,
};

class CurlUrlSessionTask final : public UrlSessionTask, public std::enable_shared_from_this<CurlUrlSessionTask> {
public:
    CurlUrlSessionTask(std::weak_ptr<SessionCore> core, std::uint64_t identifier, UrlRequest request,
                       std::string data, std::optional<std::filesystem::path> file, Date created)
        : core_(std::move(core)),
          identifier_(identifier),
          original_(request),
          sending_(std::move(request)),
          data_(std::move(data)),
          file_(std::move(file)),
          created_(created) {}

    std::uint64_t taskIdentifier() const override { return identifier_; }
    const UrlRequest& originalRequest() const override { return original_; }
    long statusCode() const override { return status_.load(); }
    void resume() override;
    void cancel() override;

    const std::weak_ptr<SessionCore> core_;
    const std::uint64_t identifier_;
    const UrlRequest original_;
    // The request as sent; a restored task gets its credentials back here. Delegate thread only.
    UrlRequest sending_;
    const std::string data_;
    const std::optional<std::filesystem::path> file_;
    const Date created_;
    std::atomic<long> status_{0};
    std::atomic<bool> cancelRequested_{false};

    // Guarded by the core's mutex.
    Phase phase_ = Phase::suspended;
    std::shared_ptr<RunLoopTimer> retryTimer_;
    int failures_ = 0;
    bool needsCredentials_ = false;
};

bool isReachable(std::uint32_t flags) {
    return (flags & ReachabilityFlags::reachable) != 0 && (flags & ReachabilityFlags::connectionRequired) == 0;
}

class SessionCore final : public std::enable_shared_from_this<SessionCore> {
public:
    SessionCore(UrlSession& handle, UrlSessionConfiguration configuration, std::weak_ptr<UrlSessionDelegate> delegate,
                std::optional<BackgroundTaskJournal> journal, std::shared_ptr<NetworkMonitor> network,
                std::shared_ptr<RunLoop> runLoop, std::shared_ptr<const RVLDateSource> dateSource,
                std::shared_ptr<WorkTracker> workTracker, CurlUrlSessionOptions options)
        : handle_(handle),
          configuration_(std::move(configuration)),
          delegate_(std::move(delegate)),
          journal_(std::move(journal)),
          network_(std::move(network)),
          runLoop_(std::move(runLoop)),
          dateSource_(std::move(dateSource)),
          options_(options),
          executor_(std::make_unique<SerialExecutor>(
              configuration_.identifier.value_or("rovalis.URLSession") + ".delegateQueue", std::move(workTracker))) {}

    const UrlSessionConfiguration& configuration() const { return configuration_; }

    // Background sessions: picks up the tasks an earlier process left, and follows the
    // network so that waiting tasks go as soon as it is back.
    void start() {
        if (!configuration_.isBackground()) return;
        std::vector<std::shared_ptr<CurlUrlSessionTask>> restored;
        {
            std::lock_guard lock(mutex_);
            for (auto& entry : journal_->load()) {
                auto task = std::make_shared<CurlUrlSessionTask>(weak_from_this(), entry.taskIdentifier,
                                                                 std::move(entry.request), std::string(),
                                                                 std::move(entry.bodyFile), entry.created);
                task->needsCredentials_ = true;
                task->phase_ = Phase::queued;
                nextIdentifier_ = std::max(nextIdentifier_, entry.taskIdentifier + 1);
                tasks_[task->identifier_] = task;
                restored.push_back(std::move(task));
            }
        }
        if (network_) {
            watch_ = network_->reachabilityForZeroAddress();
            if (watch_) {
                std::weak_ptr<SessionCore> weak = weak_from_this();
                watch_->setCallback(
                    [weak](std::uint32_t flags) {
                        if (auto core = weak.lock()) core->networkChanged(flags);
                    },
                    executor_.get());
            }
        }
        // Run after makeSession has returned, so the delegate is complete when asked for
        // the restored tasks' credentials.
        for (const auto& task : restored) post([task](SessionCore& core) { core.run(task); });
    }

    std::shared_ptr<UrlSessionTask> makeTask(const UrlRequest& request, std::string data,
                                             std::optional<std::filesystem::path> file) {
        std::lock_guard lock(mutex_);
        if (invalidated_) {
            Console::log("A task was created in a session that has been invalidated; it will not run.");
            auto task = std::make_shared<CurlUrlSessionTask>(std::weak_ptr<SessionCore>(), 0, request,
                                                             std::string(), std::move(file), dateSource_->now());
            task->phase_ = Phase::completed;
            return task;
        }
        if (file) file = std::filesystem::absolute(*file);
        auto task = std::make_shared<CurlUrlSessionTask>(weak_from_this(), nextIdentifier_++, request,
                                                         std::move(data), std::move(file), dateSource_->now());
        tasks_[task->identifier_] = task;
        return task;
    }

    void resume(const std::shared_ptr<CurlUrlSessionTask>& task) {
        {
            std::lock_guard lock(mutex_);
            if (task->phase_ != Phase::suspended || stopping_) return;
            task->phase_ = Phase::queued;
            // On disk before the first byte goes out, so a process that dies mid-transfer
            // leaves the task for the next one.
            writeJournalLocked();
        }
        post([task](SessionCore& core) { core.run(task); });
    }

    void cancel(const std::shared_ptr<CurlUrlSessionTask>& task) {
        std::lock_guard lock(mutex_);
        // Off the disk at once: a process that dies before the cancellation is delivered
        // must not send the upload again.
        if (cancelLocked(task)) writeJournalLocked();
    }

    std::vector<std::shared_ptr<UrlSessionTask>> allTasks() {
        std::lock_guard lock(mutex_);
        std::vector<std::shared_ptr<UrlSessionTask>> result;
        for (const auto& [identifier, task] : tasks_) result.push_back(task);
        return result;
    }

    // Cancels every task and forgets the journal at once, then, after the cancellations,
    // tells the delegate that the session is invalid. The handle stays alive until then, so
    // the caller may let go of it as soon as this returns.
    void invalidateAndCancel(std::shared_ptr<UrlSession> handle) {
        std::lock_guard lock(mutex_);
        if (invalidated_) return;
        invalidated_ = true;
        // A session that handed its tasks over has nothing left to end or to tell.
        if (stopping_) return;
        for (const auto& [identifier, task] : tasks_) cancelLocked(task);
        // The whole file goes, a task whose outcome is being delivered right now included:
        // from here on a newer session of this identifier may be writing it.
        if (journal_) journal_->store({});
        postLocked([handle = std::move(handle)](SessionCore& core) {
            core.withDelegate([&](UrlSessionDelegate& delegate, UrlSession& session) {
                delegate.didBecomeInvalidWithError(session, std::nullopt);
            });
        });
    }

    // Leaves what is journaled to a newer session of this identifier: stops for good
    // without completing anything or touching the journal again; the delegate is not called
    // any more, and a transfer under way ends promptly. An invalidated session has given the
    // journal up already and goes on telling its delegate of the cancellations.
    void detach() { stopWorking(StopReason::handedOver); }

    // Stops, then joins the delegate thread (unless called on it).
    void shutdown() {
        stopWorking(StopReason::destroyed);
        std::unique_ptr<SerialExecutor> executor;
        {
            std::lock_guard lock(mutex_);
            executor = std::move(executor_);
        }
        if (executor && executor->isCurrent()) {
            // Destroyed from its own delegate callback: the thread cannot join itself, so a
            // short-lived helper waits for it to finish what it runs.
            std::thread([executor = std::move(executor)]() mutable { executor.reset(); }).detach();
        }
    }

private:
    enum class StopReason { handedOver, destroyed };

    void stopWorking(StopReason reason) {
        std::vector<std::shared_ptr<RunLoopTimer>> timers;
        {
            std::lock_guard lock(mutex_);
            if (stopping_ || (reason == StopReason::handedOver && invalidated_)) return;
            stopping_ = true;
            for (const auto& [identifier, task] : tasks_) {
                if (task->retryTimer_) timers.push_back(task->retryTimer_);
            }
        }
        for (const auto& timer : timers) timer->invalidate();
        if (watch_) watch_->setCallback({}, nullptr);
        transfer_.wakeUp();
    }

    // Whether the task was still to be cancelled. A running task is completed by its
    // transfer, which the wake-up makes notice at once; any other is completed in turn.
    bool cancelLocked(const std::shared_ptr<CurlUrlSessionTask>& task) {
        if (task->phase_ == Phase::completed || task->phase_ == Phase::ending || task->cancelRequested_) return false;
        task->cancelRequested_ = true;
        if (task->phase_ == Phase::running) {
            transfer_.wakeUp();
            return true;
        }
        if (task->retryTimer_) task->retryTimer_->invalidate();
        task->phase_ = Phase::ending;
        postLocked([task](SessionCore& core) { core.complete(task, urlError(URLError::cancelled, "cancelled")); });
        return true;
    }

    void post(std::function<void(SessionCore&)> work) {
        std::lock_guard lock(mutex_);
        postLocked(std::move(work));
    }

    void postLocked(std::function<void(SessionCore&)> work) {
        if (stopping_ || !executor_) return;
        executor_->async([self = shared_from_this(), work = std::move(work)] {
            if (!self->stopping_) work(*self);
        });
    }

    template <typename Call>
    void withDelegate(Call&& call) {
        if (stopping_) return;
        if (auto delegate = delegate_.lock()) call(*delegate, handle_);
    }

    bool networkAllows(const RequestTarget& target, Error* refusal) {
        if (!network_) return true;
        auto reachability = target.loopback ? network_->reachabilityForHost(target.host)
                                            : network_->reachabilityForZeroAddress();
        if (!reachability) return true;
        const auto flags = reachability->flags();
        if (!flags) return true;
        const bool cellularOnly = (*flags & ReachabilityFlags::isWWAN) != 0;
        if (!isReachable(*flags) || (cellularOnly && !configuration_.allowsCellularAccess && !target.loopback)) {
            *refusal = urlError(URLError::notConnectedToInternet, "The Internet connection appears to be offline.");
            return false;
        }
        return true;
    }

    // Delegate thread.
    void run(const std::shared_ptr<CurlUrlSessionTask>& task) {
        {
            std::lock_guard lock(mutex_);
            if (task->phase_ != Phase::queued) return;
            task->phase_ = Phase::running;
        }
        if (configuration_.isBackground() &&
            dateSource_->now().timeIntervalSince(task->created_) >= configuration_.timeoutIntervalForResource) {
            complete(task, urlError(URLError::timedOut, "The request timed out."));
            return;
        }
        if (task->needsCredentials_) {
            task->needsCredentials_ = false;
            withDelegate([&](UrlSessionDelegate& delegate, UrlSession& session) {
                delegate.willResendRestoredTask(session, task->sending_);
            });
        }

        CurlTransferResult result;
        RequestTarget target;
        Error refusal;
        if (auto invalid = checkRequest(task->sending_, &target)) {
            result.error = std::move(invalid);
        } else if (!networkAllows(target, &refusal)) {
            result.error = std::move(refusal);
            result.transient = true;
        } else {
            // A background task may be sent more than once; only the attempt that gets a
            // response hands its body to the delegate.
            std::string buffered;
            const bool streams = !configuration_.isBackground();
            const auto onData = [&](std::string_view bytes) {
                if (!streams) {
                    buffered.append(bytes);
                    return;
                }
                withDelegate([&](UrlSessionDelegate& delegate, UrlSession& session) {
                    delegate.didReceiveData(session, *task, bytes);
                });
            };
            const auto stop = [&] { return stopping_.load() || task->cancelRequested_.load(); };
            const CurlTransferLimits limits{configuration_.timeoutIntervalForRequest,
                                        configuration_.minimumBytesPerSecond, configuration_.lowSpeedWindow};
            result = transfer_.perform(task->sending_, CurlTransfer::Body{task->data_, task->file_}, limits, onData,
                                       stop);
            if (!result.error) {
                task->status_ = result.statusCode;
                if (!buffered.empty()) {
                    withDelegate([&](UrlSessionDelegate& delegate, UrlSession& session) {
                        delegate.didReceiveData(session, *task, buffered);
                    });
                }
            }
        }
        if (stopping_) return;  // the task stays journaled for the next session
        if (result.error && result.transient && configuration_.isBackground() && scheduleRetry(task)) return;
        complete(task, task->cancelRequested_ ? urlError(URLError::cancelled, "cancelled") : result.error);
    }

    // Delegate thread. Whether the task now waits for its retry; a task asked to cancel
    // (perhaps while its transfer was ending) does not.
    bool scheduleRetry(const std::shared_ptr<CurlUrlSessionTask>& task) {
        std::lock_guard lock(mutex_);
        if (task->phase_ != Phase::running || task->cancelRequested_) return false;
        task->phase_ = Phase::waiting;
        const double backoff = options_.backgroundRetryDelay * std::pow(2.0, std::min(task->failures_, 30));
        ++task->failures_;
        const double resourceLeft = configuration_.timeoutIntervalForResource -
                                    dateSource_->now().timeIntervalSince(task->created_);
        const double delay = std::max(0.0, std::min({backoff, options_.backgroundRetryMaxDelay, resourceLeft}));
        std::weak_ptr<SessionCore> weak = weak_from_this();
        task->retryTimer_ = runLoop_->scheduleTimer(delay, false, [weak, task] {
            if (auto core = weak.lock()) core->retryNow(task);
        });
        return true;
    }

    void retryNow(const std::shared_ptr<CurlUrlSessionTask>& task) {
        std::lock_guard lock(mutex_);
        if (task->phase_ != Phase::waiting) return;
        task->phase_ = Phase::queued;
        task->retryTimer_.reset();
        postLocked([task](SessionCore& core) { core.run(task); });
    }

    // Delegate thread.
    void networkChanged(std::uint32_t flags) {
        if (!isReachable(flags)) return;
        std::vector<std::shared_ptr<CurlUrlSessionTask>> waiting;
        {
            std::lock_guard lock(mutex_);
            for (const auto& [identifier, task] : tasks_) {
                if (task->phase_ == Phase::waiting) waiting.push_back(task);
            }
        }
        for (const auto& task : waiting) {
            {
                std::lock_guard lock(mutex_);
                if (task->retryTimer_) task->retryTimer_->invalidate();
            }
            retryNow(task);
        }
    }

    // Delegate thread.
    void complete(const std::shared_ptr<CurlUrlSessionTask>& task, const std::optional<Error>& error) {
        {
            std::lock_guard lock(mutex_);
            if (task->phase_ == Phase::completed) return;
            task->phase_ = Phase::completed;
            if (task->retryTimer_) task->retryTimer_->invalidate();
            task->retryTimer_.reset();
            // No longer listed, but kept on disk until the delegate has had the outcome.
            tasks_.erase(task->identifier_);
            if (journal_ && task->file_) delivering_[task->identifier_] = task;
        }
        withDelegate([&](UrlSessionDelegate& delegate, UrlSession& session) {
            delegate.didCompleteWithError(session, *task, error);
        });
        bool finished = false;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;  // handed over: the next session delivers it again
            // Only once the delegate has had the outcome does the task leave the disk.
            if (delivering_.erase(task->identifier_) > 0) writeJournalLocked();
            finished = configuration_.isBackground() && !invalidated_ &&
                       std::none_of(tasks_.begin(), tasks_.end(),
                                    [](const auto& entry) { return entry.second->phase_ != Phase::suspended; });
        }
        if (finished) {
            withDelegate([&](UrlSessionDelegate& delegate, UrlSession& session) {
                delegate.didFinishEventsForBackgroundURLSession(session);
            });
        }
    }

    void writeJournalLocked() {
        // Once handed over or invalidated, the journal is no longer this session's.
        if (!journal_ || stopping_ || invalidated_) return;
        std::vector<JournaledTask> entries;
        const auto add = [&](const CurlUrlSessionTask& task) {
            // A cancelled upload is never sent again.
            if (!task.file_ || task.cancelRequested_) return;
            entries.push_back(JournaledTask{task.identifier_, BackgroundTaskJournal::withoutCredentials(task.original_),
                                            *task.file_, task.created_});
        };
        for (const auto& [identifier, task] : delivering_) add(*task);
        for (const auto& [identifier, task] : tasks_) {
            if (task->phase_ != Phase::suspended) add(*task);
        }
        // A journal that cannot be written costs only the task's survival of this process.
        journal_->store(entries);
    }

    UrlSession& handle_;
    const UrlSessionConfiguration configuration_;
    const std::weak_ptr<UrlSessionDelegate> delegate_;
    const std::optional<BackgroundTaskJournal> journal_;
    const std::shared_ptr<NetworkMonitor> network_;
    const std::shared_ptr<RunLoop> runLoop_;
    const std::shared_ptr<const RVLDateSource> dateSource_;
    const CurlUrlSessionOptions options_;
    CurlTransfer transfer_;
    std::unique_ptr<NetworkReachabilityTarget> watch_;

    std::mutex mutex_;
    std::unique_ptr<SerialExecutor> executor_;
    // Tasks not completed yet.
    std::map<std::uint64_t, std::shared_ptr<CurlUrlSessionTask>> tasks_;
    // Completed background tasks whose outcome is being handed to the delegate.
    std::map<std::uint64_t, std::shared_ptr<CurlUrlSessionTask>> delivering_;
    std::uint64_t nextIdentifier_ = 1;
    bool invalidated_ = false;
    std::atomic<bool> stopping_{false};
};

void CurlUrlSessionTask::resume() {
    if (auto core = core_.lock()) core->resume(shared_from_this());
}

void CurlUrlSessionTask::cancel() {
    if (auto core = core_.lock()) core->cancel(shared_from_this());
}

class CurlUrlSession final : public UrlSession, public std::enable_shared_from_this<CurlUrlSession> {
public:
    CurlUrlSession(const UrlSessionConfiguration& configuration, std::weak_ptr<UrlSessionDelegate> delegate,
                   std::optional<BackgroundTaskJournal> journal, std::shared_ptr<NetworkMonitor> network,
                   std::shared_ptr<RunLoop> runLoop, std::shared_ptr<const RVLDateSource> dateSource,
                   std::shared_ptr<WorkTracker> workTracker, CurlUrlSessionOptions options)
        : core_(std::make_shared<SessionCore>(*this, configuration, std::move(delegate), std::move(journal),
                                              std::move(network), std::move(runLoop), std::move(dateSource),
                                              std::move(workTracker), options)) {
        core_->start();
    }

    ~CurlUrlSession() override { core_->shutdown(); }

    CurlUrlSession(const CurlUrlSession&) = delete;
    CurlUrlSession& operator=(const CurlUrlSession&) = delete;

    const UrlSessionConfiguration& configuration() const override { return core_->configuration(); }

    std::shared_ptr<UrlSessionTask> uploadTaskWithRequest(const UrlRequest& request, std::string body) override {
        // The body of a background upload must outlive the process, so it has to be a file.
        if (configuration().isBackground()) {
            fatalError("Upload tasks from NSData are not supported in background sessions.");
        }
        return core_->makeTask(request, std::move(body), std::nullopt);
    }

    std::shared_ptr<UrlSessionTask> uploadTaskWithRequestFromFile(const UrlRequest& request,
                                                                  const std::filesystem::path& file) override {
        return core_->makeTask(request, std::string(), file);
    }

    std::vector<std::shared_ptr<UrlSessionTask>> allTasks() override { return core_->allTasks(); }

    void invalidateAndCancel() override { core_->invalidateAndCancel(shared_from_this()); }

    // Leaves this session's background tasks to a newer session of the same identifier.
    void detach() { core_->detach(); }

private:
    const std::shared_ptr<SessionCore> core_;
};

}  // namespace

}  // namespace rovalis

namespace rovalis {

CurlUrlSessionFactory::CurlUrlSessionFactory(std::filesystem::path journalDirectory,
                                             std::shared_ptr<NetworkMonitor> network, std::shared_ptr<RunLoop> runLoop,
                                             std::shared_ptr<const RVLDateSource> dateSource,
                                             std::shared_ptr<WorkTracker> workTracker, CurlUrlSessionOptions options)
    : journalDirectory_(std::move(journalDirectory)),
      network_(std::move(network)),
      runLoop_(std::move(runLoop)),
      dateSource_(std::move(dateSource)),
      workTracker_(std::move(workTracker)),
      options_(options) {}

std::shared_ptr<UrlSession> CurlUrlSessionFactory::makeSession(const UrlSessionConfiguration& configuration,
                                                               std::weak_ptr<UrlSessionDelegate> delegate) {
    std::optional<BackgroundTaskJournal> journal;
    if (configuration.identifier) {
        journal.emplace(journalDirectory_, *configuration.identifier);
        // One live session per identifier works the journal: an older one that is still
        // held stops, and the new one takes its pending tasks over.
        std::shared_ptr<UrlSession> older;
        {
            std::lock_guard lock(mutex_);
            older = backgroundSessions_[*configuration.identifier].lock();
        }
        if (older) static_cast<CurlUrlSession&>(*older).detach();
    }
    auto session = std::make_shared<CurlUrlSession>(configuration, std::move(delegate), std::move(journal), network_,
                                                    runLoop_, dateSource_, workTracker_, options_);
    if (configuration.identifier) {
        std::lock_guard lock(mutex_);
        backgroundSessions_[*configuration.identifier] = session;
    }
    return session;
}

}  // namespace rovalis
