#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/TrackingInterfaces.h"
#include "core/UserDefaultsManager.h"
#include "events/EventRecords.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/DateSource.h"
#include "rovalis/Executor.h"
#include "rovalis/platform/NetworkMonitor.h"
#include "upload/NetworkReachabilityManager.h"
#include "upload/UploadInterfaces.h"

namespace rovalis {

class WorkTracker;

// Turns reachability reports into the SDK's connection type: records each change as a
// Connectivity event and as the persisted last connection type, and tells its listener
// whether sending is possible now under the wifi-only choice.
class ReachabilityTracker final : public RVLTracker, public RVLReachabilityType {
public:
    using ConnectionType = Connectivity::Status;

    // host: the collection service's host name, whose reachability is watched. queue: a
    // serial queue with a thread of its own (not the main run loop) on which the reports are
    // handled; the destructor waits for it. workTracker, when given, counts the work of the
    // reachability queue. Stops the process when the network monitor cannot make the target.
    ReachabilityTracker(std::shared_ptr<RVLEventInsertable> eventInsertable,
                        std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager,
                        std::shared_ptr<RVLLastConnectionTypeModifier> lastConnectionTypeModifier,
                        std::shared_ptr<RVLDateSource> dateSource, NetworkMonitor& network, const std::string& host,
                        std::shared_ptr<Executor> queue, std::shared_ptr<WorkTracker> workTracker = nullptr);
    // Stops listening and lets reports already queued for the handler run first.
    ~ReachabilityTracker() override;

    ReachabilityTracker(const ReachabilityTracker&) = delete;
    ReachabilityTracker& operator=(const ReachabilityTracker&) = delete;

    // RVLTracker
    void setup() override {}
    void start() override;
    void stop() override;
    void halt() override {}
    void speedUp() override;
    void slowDown(const std::optional<Location>&) override {}

    // RVLReachabilityType
    bool canSendDataNow() const override;
    void setChangeListener(std::function<void(bool canSendNow)> listener) override;
    // Waits until a report being handled, or queued, has been handled: one that copied the
    // change listener before it was replaced may still be calling it until then.
    void finishReportsUnderWay();

    ConnectionType status() const { return status_.load(); }
    bool isTrackingActive() const { return isTrackingActive_.load(); }

    // Connectivity status for a reachability status.
    static ConnectionType connectionTypeFor(NetworkReachabilityManager::NetworkReachabilityStatus status);

private:
    void startListening();
    void handle(NetworkReachabilityManager::NetworkReachabilityStatus reachabilityStatus);
    bool canSendDataWith(ConnectionType type) const;

    const std::shared_ptr<RVLEventInsertable> eventInsertable_;
    const std::shared_ptr<RVLDataTransferModeRecording> transferModeRecordManager_;
    const std::shared_ptr<RVLLastConnectionTypeModifier> lastConnectionTypeModifier_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    // Written by the handler, read from any thread; a slightly stale answer is fine.
    std::atomic<ConnectionType> status_{ConnectionType::other};
    std::atomic<bool> isTrackingActive_{false};
    std::shared_ptr<NetworkReachabilityManager> reachabilityManager_;
    const std::shared_ptr<Executor> queue_;
    // Touched only by the handler, on queue_.
    bool initialized_ = false;
    mutable std::mutex listenerMutex_;
    std::function<void(bool)> changeListener_;
};

}  // namespace rovalis
