#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/sim/DeviceContext.h"
#include "platform/sim/SimulationRandom.h"
#include "rovalis/platform/Motion.h"

namespace rovalis::sim {

class SimulatedMotionManager;
class SimulatedMotionActivityManager;

// The simulated device's motion sensors: one accelerometer and one activity classifier,
// shared by every motion manager the app's processes make. Runs on the device's run loop;
// samples and activities reach the app on the queues it gives.
//
// Accelerometer: while a manager's updates run, it gets a sample every update interval
// (at least 0.01 s), stamped in seconds since the device booted. So that a simulated day
// stays fast, the samples of each second are handed to the manager's queue as one task, at
// the end of that second; each sample keeps its own timestamp. The magnitude follows what
// the device is doing: standing, 1 g with noise of a few thousandths; walking, a step
// oscillation of 0.2 - 0.4 g at about 2 Hz; running, 0.6 - 1 g at about 2.7 Hz; cycling, a
// slow pedalling swing; in a vehicle, a small vibration.
//
// Activity: every 5 s the classifier looks at the true speed: stationary below 0.3 m/s,
// walking below 2.5, running below 4.5, cycling below 8 when the speeds of the last half
// minute or more were steady (3 - 9 m/s, within 3 m/s of each other), automotive otherwise.
// A new class is taken once it has held for 20 s, and is reported with the moment it began
// as its start date. Confidence grows with the time the class has held: low under 30 s,
// medium under 2 minutes, high after. Each manager gets the current activity 0.3 - 1 s after
// it starts, then every change of class and every rise in confidence. Nothing is reported
// without motion authorization.
class SimulatedMotionService : public std::enable_shared_from_this<SimulatedMotionService> {
public:
    static constexpr double deliveryInterval = 1.0;
    static constexpr double classifierInterval = 5.0;
    static constexpr double classChangeDelay = 20.0;
    static constexpr double minimumUpdateInterval = 0.01;

    static std::shared_ptr<SimulatedMotionService> create(DeviceContext context, MotionAuthorizationStatus authorization,
                                                          Date bootDate);
    ~SimulatedMotionService();

    SimulatedMotionService(const SimulatedMotionService&) = delete;
    SimulatedMotionService& operator=(const SimulatedMotionService&) = delete;

    std::shared_ptr<SimulatedMotionManager> makeMotionManager();
    std::shared_ptr<SimulatedMotionActivityManager> makeActivityManager();

    void setAuthorization(MotionAuthorizationStatus status);
    // Safe from any thread.
    MotionAuthorizationStatus authorization() const { return authorization_.load(); }

    Date bootDate() const { return bootDate_; }
    // Seconds since the device booted.
    double uptime(Date time) const { return time.timeIntervalSince(bootDate_); }

    // The class the classifier holds now, and what it would report.
    ActivityClass activity() const { return activity_; }
    MotionActivity currentActivity() const;

    static ActivityClass classify(double speed, bool steady);
    static MotionActivityConfidence confidenceAfter(double heldSeconds);

private:
    friend class SimulatedMotionManager;
    friend class SimulatedMotionActivityManager;

    SimulatedMotionService(DeviceContext context, MotionAuthorizationStatus authorization, Date bootDate);
    Date now() const { return context_.runLoop->now(); }
    void start();

    // Accelerometer.
    void accelerometerChanged();
    void deliverSamples();
    AccelerometerData sample(double timestamp, ActivityClass motion);
    ActivityClass motionAt(Date time) const;

    // Activity.
    void activityManagersChanged();
    bool steadySpeeds() const;
    void classifyNow();
    void reportToAll();
    void reportTo(const std::weak_ptr<SimulatedMotionActivityManager>& manager);

    template <typename Manager>
    static std::vector<std::shared_ptr<Manager>> live(std::vector<std::weak_ptr<Manager>>& managers);

    const DeviceContext context_;
    const Date bootDate_;
    std::atomic<MotionAuthorizationStatus> authorization_;

    std::vector<std::weak_ptr<SimulatedMotionManager>> motionManagers_;
    std::shared_ptr<RunLoopTimer> deliveryTimer_;
    SimulationRandom accelerometerRandom_;
    // How this device is carried and how its owner moves: drawn once from the seed.
    double gravity_[3] = {0.0, 0.0, -1.0};
    double sideways_[3] = {1.0, 0.0, 0.0};
    double walkAmplitude_ = 0.3;
    double walkFrequency_ = 1.9;
    double runAmplitude_ = 0.8;

    std::vector<std::weak_ptr<SimulatedMotionActivityManager>> activityManagers_;
    std::shared_ptr<RunLoopTimer> classifierTimer_;
    SimulationRandom activityRandom_;
    std::deque<double> recentSpeeds_;
    ActivityClass activity_ = ActivityClass::stationary;
    Date activityStart_;
    std::optional<std::pair<ActivityClass, Date>> candidate_;
    MotionActivityConfidence reportedConfidence_ = MotionActivityConfidence::low;
};

// One accelerometer client. Used from the device's run loop.
class SimulatedMotionManager final : public MotionManagerType {
public:
    SimulatedMotionManager(std::weak_ptr<SimulatedMotionService> service, std::shared_ptr<RunLoop> runLoop);
    ~SimulatedMotionManager() override;

    SimulatedMotionManager(const SimulatedMotionManager&) = delete;
    SimulatedMotionManager& operator=(const SimulatedMotionManager&) = delete;

    bool isAccelerometerAvailable() const override { return true; }
    bool isAccelerometerActive() const override { return active_; }
    double accelerometerUpdateInterval() const override { return interval_; }
    void setAccelerometerUpdateInterval(double seconds) override;
    void startAccelerometerUpdates(std::shared_ptr<Executor> queue, AccelerometerHandler handler) override;
    void stopAccelerometerUpdates() override;

private:
    friend class SimulatedMotionService;

    double spacing() const;
    // Restarts the sample grid at `timestamp`, the last sample made.
    void rebase(double timestamp);

    const std::weak_ptr<SimulatedMotionService> service_;
    const std::shared_ptr<RunLoop> runLoop_;
    double interval_ = 0.1;
    bool active_ = false;
    std::shared_ptr<Executor> queue_;
    AccelerometerHandler handler_;
    // Sample k is at base + k × spacing; k counts from 1.
    double base_ = 0.0;
    std::uint64_t made_ = 0;
};

// One activity client. Used from the device's run loop.
class SimulatedMotionActivityManager final : public MotionActivityManagerType,
                                             public std::enable_shared_from_this<SimulatedMotionActivityManager> {
public:
    SimulatedMotionActivityManager(std::weak_ptr<SimulatedMotionService> service, std::shared_ptr<RunLoop> runLoop);
    ~SimulatedMotionActivityManager() override;

    SimulatedMotionActivityManager(const SimulatedMotionActivityManager&) = delete;
    SimulatedMotionActivityManager& operator=(const SimulatedMotionActivityManager&) = delete;

    bool isActivityAvailable() const override { return true; }
    MotionAuthorizationStatus authorizationStatus() const override;
    void startActivityUpdates(std::shared_ptr<Executor> queue, ActivityHandler handler) override;
    void stopActivityUpdates() override;

    bool isActive() const { return active_; }

private:
    friend class SimulatedMotionService;

    void post(const MotionActivity& activity);

    const std::weak_ptr<SimulatedMotionService> service_;
    const std::shared_ptr<RunLoop> runLoop_;
    bool active_ = false;
    std::shared_ptr<Executor> queue_;
    ActivityHandler handler_;
    std::shared_ptr<RunLoopTimer> firstReport_;
};

}  // namespace rovalis::sim
