#include "support/UploadStack.h"

#include <future>

#include "util/WorkTracker.h"

#include "platform/linux/FileKeychain.h"
#include "platform/linux/LinuxBackgroundTasks.h"
#include "platform/linux/SqliteKeyValueStore.h"

namespace rovalis::test {

namespace {

RVLAPIClientOptions apiClientOptions(const UploadStackOptions& options) {
    RVLAPIClientOptions apiOptions;
    apiOptions.foregroundTimeoutIntervalForRequest = options.foregroundTimeout;
    return apiOptions;
}

}  // namespace

namespace {

HostInfo sampleHost() {
    HostInfo host;
    host.displayName = "Upload Tests";
    host.version = "1.0";
    host.build = "1";
    host.identifier = "com.rovalis.tests";
    return host;
}

// Waits for a group's result; the controller calls the completion on its own threads.
template <typename Submit>
bool resultOf(Submit&& submit) {
    auto result = std::make_shared<std::promise<bool>>();
    auto future = result->get_future();
    submit([result](bool succeeded) { result->set_value(succeeded); });
    return future.get();
}

}  // namespace

std::string sampleAccessToken() {
    return "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
           "eyJzdWIiOiIwZjhmYWQ1Yi1kOWNiLTQ2OWYtYTE2NS03MDg2NzcyODk1MGUiLCJuYW1lIjoiU2FtcGxlIn0."
           "c2lnbmF0dXJl";
}

void UploadObserver::dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) {
    std::lock_guard lock(mutex_);
    uploads_.push_back({from, to, error});
    changed_.notify_all();
}

std::vector<UploadObserver::Upload> UploadObserver::waitForUploads(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(30), [&] { return uploads_.size() >= count; });
    return uploads_;
}

UploadStack::UploadStack(UploadStackOptions options)
    : dataRoot(options.dataRoot),
      mainRunLoop(std::make_shared<ThreadRunLoop>(dateSource)),
      network(std::make_shared<SimulatedNetwork>(options.connection)),
      userDefaults(std::make_shared<UserDefaultsManager>(
          std::make_shared<SqliteKeyValueStore>(dataRoot.root() / "Preferences.sqlite"))),
      credentials(std::make_shared<CredentialsManager>(
          std::make_shared<FileKeychain>(dataRoot.privateDirectory("Keychain")), sampleHost())),
      events(std::make_shared<EventRepository>(dataRoot.privateDirectory("Store") / "RovalisSDK.sqlite")),
      debugEvents(std::make_shared<DebugEventsManager>(events, dateSource)),
      commons(std::make_shared<RVLCommons>(dataRoot.documents(), sampleHost(), "6.1")),
      apiClient(RVLAPIClient::create(
          options.baseURL, userDefaults, userDefaults, events, credentials, credentials, credentials, debugEvents,
          std::make_shared<CurlUrlSessionFactory>(dataRoot.privateDirectory("BackgroundSessions"), network,
                                                  mainRunLoop, dateSource, nullptr, options.sessions),
          commons, mainRunLoop, apiClientOptions(options))),
      reachability(std::make_shared<ReachabilityTracker>(events, userDefaults, userDefaults, dateSource, *network,
                                                         "127.0.0.1",
                                                         std::make_shared<SerialExecutor>("reachability.tests", reachabilityWork),
                                                         reachabilityWork)),
      operationsController(std::make_shared<RVLOperationsController>(
          std::weak_ptr<RVLSleepable>(), std::weak_ptr<RVLWakeupable>(), events, events, events, events, apiClient,
          userDefaults, reachability, credentials, debugEvents,
          OperationsEnvironment{
              .eventsQueue = std::make_shared<SerialExecutor>("RVLOperationsController.eventsQueue"),
              .mainQueue = mainRunLoop,
              .backgroundTasks = std::make_shared<LinuxBackgroundTasks>(),
              .commons = commons,
              .dateSource = dateSource,
              .pauseManagerFactory = nullptr,
          })),
      sendDataQueue(options.withSendDataQueue ? std::make_shared<RVLSendDataQueue>(operationsController, userDefaults,
                                                                                 reachability, dateSource)
                                              : nullptr) {
    apiClient->setSdkDelegate(observer);
    debugEvents->start();
    reachability->start();
    reachabilityWork->waitUntilIdle();  // the first report has been handled
}

UploadStack::~UploadStack() {
    reachability->stop();
    resultOf([&](auto done) { operationsController->addOperationsToQueue({operationsController->persistDataOperation()}, done); });
}

void UploadStack::storeWaypoints(std::size_t count, Date start) {
    for (std::size_t i = 0; i < count; ++i) {
        events->insertWaypointEventWithTrackedAtMs(start.addingSeconds(static_cast<double>(i)), 52.5 + i * 1e-6, 13.4,
                                                   1.5, 90.0, 5.0, 34.0, "regular");
    }
    (void)events->eventsCount();  // waits for the inserts to be written
}

bool UploadStack::sendEvents(const std::optional<std::string>& lastEventURI) {
    return resultOf([&](auto done) {
        operationsController->performSendEventsOperationsWithToggleTrackingOffEventURI(lastEventURI, done);
    });
}

bool UploadStack::preShutDown(const std::optional<std::string>& toggleTrackingOffURI) {
    return resultOf([&](auto done) {
        operationsController->performPreShutDownOperationsWithTtOffEventURI(toggleTrackingOffURI, done);
    });
}

}  // namespace rovalis::test
