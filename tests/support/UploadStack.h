#pragma once

// The SDK's upload components wired together on a data root, as the composition root wires
// them: the event store, persisted state, credentials, debug events, the API client over
// libcurl sessions, reachability, the operations controller and the send-data queue. Used
// by the end-to-end tests and the upload benchmarks; making a second stack on the same data
// root stands for a relaunch of the app.

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <vector>
#include <memory>
#include <optional>
#include <string>

#include "core/DebugEventsManager.h"
#include "core/UserDefaultsManager.h"
#include "events/EventRepository.h"
#include "platform/sim/SimulatedNetwork.h"
#include "rovalis/RovalisDelegate.h"
#include "upload/CredentialsManager.h"
#include "upload/CurlUrlSession.h"
#include "upload/RVLAPIClient.h"
#include "upload/RVLCommons.h"
#include "upload/RVLOperationsController.h"
#include "upload/RVLSendDataQueue.h"
#include "upload/ReachabilityTracker.h"
#include "util/DataRoot.h"
#include "util/ThreadRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis::test {

struct UploadStackOptions {
    std::filesystem::path dataRoot;
    std::string baseURL;
    SimulatedConnection connection = SimulatedConnection::wifi;
    // The foreground request time-out; none keeps the default of 60 s.
    std::optional<double> foregroundTimeout;
    CurlUrlSessionOptions sessions{.backgroundRetryDelay = 0.2, .backgroundRetryMaxDelay = 1.0};
    // Whether transfers start by themselves (network changes, time), as they do in the SDK.
    bool withSendDataQueue = false;
};

// A token of three dot-separated parts whose payload names a user.
std::string sampleAccessToken();

// The host's delegate: records what it is told after each upload.
class UploadObserver final : public RovalisDelegate, public RovalisDataUploadDelegate {
public:
    struct Upload {
        Date from;
        Date to;
        std::optional<Error> error;
    };

    void trackingStatusChanged(bool) override {}
    void locationAuthorizationStatusDidChange(std::int32_t, bool) override {}
    void dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) override;

    // Waits (30 s at most) until `count` uploads have been told; what was told by then.
    std::vector<Upload> waitForUploads(std::size_t count);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Upload> uploads_;
};

class UploadStack {
public:
    explicit UploadStack(UploadStackOptions options);
    // Waits for the work queued on the operations queue, then tears down in reverse order.
    ~UploadStack();

    UploadStack(const UploadStack&) = delete;
    UploadStack& operator=(const UploadStack&) = delete;

    // The stack records one Connectivity event when it first sees the network.
    static constexpr long ownEvents = 1;

    // Stores `count` waypoints, one second apart from `start`, and waits until they are written.
    void storeWaypoints(std::size_t count, Date start = Date{1700000000.0});
    // Runs the foreground send group and waits for its result.
    bool sendEvents(const std::optional<std::string>& lastEventURI = std::nullopt);
    // Runs the pre-shutdown group and waits for its result.
    bool preShutDown(const std::optional<std::string>& toggleTrackingOffURI = std::nullopt);

    const DataRoot dataRoot;
    const std::shared_ptr<UploadObserver> observer = std::make_shared<UploadObserver>();
    const std::shared_ptr<SystemDateSource> dateSource = std::make_shared<SystemDateSource>();
    const std::shared_ptr<ThreadRunLoop> mainRunLoop;
    const std::shared_ptr<WorkTracker> reachabilityWork = std::make_shared<WorkTracker>();
    const std::shared_ptr<SimulatedNetwork> network;
    const std::shared_ptr<UserDefaultsManager> userDefaults;
    const std::shared_ptr<CredentialsManager> credentials;
    const std::shared_ptr<EventRepository> events;
    const std::shared_ptr<DebugEventsManager> debugEvents;
    const std::shared_ptr<RVLCommons> commons;
    const std::shared_ptr<RVLAPIClient> apiClient;
    const std::shared_ptr<ReachabilityTracker> reachability;
    const std::shared_ptr<RVLOperationsController> operationsController;
    const std::shared_ptr<RVLSendDataQueue> sendDataQueue;
};

}  // namespace rovalis::test
