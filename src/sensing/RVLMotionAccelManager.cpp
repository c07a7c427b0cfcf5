#include "sensing/RVLMotionAccelManager.h"

#include <cmath>
#include <utility>
#include <vector>

#include "sensing/MotionActivityHelpers.h"
#include "util/Fatal.h"

namespace rovalis {

struct RVLMotionAccelManager::Recorder {
    std::shared_ptr<RVLEventInsertable> eventInsertable;
    std::shared_ptr<RVLDateSource> dateSource;
    std::shared_ptr<SystemStateType> systemState;

    // Sample times count seconds since boot; the platform's uptime is on the same clock.
    Date dateOfSample(double timestamp) const {
        return Date{dateSource->now().secondsSince1970 - systemState->systemUptime() + timestamp};
    }

    // A broken sample must not become an event the encoder refuses: none for it.
    std::optional<Acceleration> acceleration(const AccelerationVector& vector, double timestamp) const {
        const std::optional<Decimal> magnitude = RVLCommons::calculateMagnitude(vector);
        const Date trackedAt = dateOfSample(timestamp);
        if (!magnitude || !std::isfinite(trackedAt.secondsSince1970)) return std::nullopt;
        return Acceleration(trackedAt, *magnitude);
    }

    void processAcceleration(const AccelerationVector& vector, double timestamp) const {
        if (const auto record = acceleration(vector, timestamp)) {
            eventInsertable->insertAccelerationEventWithTrackedAtMs(record->trackedAtMs, record->magnitude);
        }
    }

    void processAccelerations(std::span<const AccelerometerData> samples) const {
        std::vector<Acceleration> records;
        records.reserve(samples.size());
        for (const auto& sample : samples) {
            if (auto record = acceleration(RVLCommons::fromGToMs2({sample.x, sample.y, sample.z}), sample.timestamp)) {
                records.push_back(std::move(*record));
            }
        }
        eventInsertable->insertAccelerationEvents(std::move(records));
    }

    void insertActivity(const MotionActivity& activity) const {
        std::vector<IOSActivityTypeWrapper> codes;
        for (const long code : activityTypeArray(activity)) codes.push_back(IOSActivityTypeWrapper{code});
        eventInsertable->insertIOSActivityEventWithTrackedAtMs(activity.startDate,
                                                               static_cast<long>(activity.confidence), codes);
    }
};

std::shared_ptr<RVLMotionAccelManager> RVLMotionAccelManager::create(
    std::shared_ptr<RVLEventInsertable> eventInsertable, std::shared_ptr<MotionManagerType> motionManager,
    std::shared_ptr<MotionActivityManagerType> activityManager,
    std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userDefaultsManager,
    std::shared_ptr<RVLDateSource> dateSource, std::shared_ptr<SystemStateType> systemState,
    std::shared_ptr<Executor> mainQueue, QueueFactory makeQueue) {
    auto recorder = std::make_shared<Recorder>(
        Recorder{std::move(eventInsertable), std::move(dateSource), std::move(systemState)});
    std::shared_ptr<RVLMotionAccelManager> manager(
        new RVLMotionAccelManager(std::move(recorder), std::move(motionManager), std::move(activityManager),
                                  std::move(userDefaultsManager), std::move(mainQueue), std::move(makeQueue)));
    manager->setup();
    return manager;
}

RVLMotionAccelManager::RVLMotionAccelManager(std::shared_ptr<Recorder> recorder,
                                             std::shared_ptr<MotionManagerType> motionManager,
                                             std::shared_ptr<MotionActivityManagerType> activityManager,
                                             std::shared_ptr<RVLUserActivatedTrackingOnceModifier> userDefaultsManager,
                                             std::shared_ptr<Executor> mainQueue, QueueFactory makeQueue)
    : recorder_(std::move(recorder)),
      motionManager_(std::move(motionManager)),
      activityManager_(std::move(activityManager)),
      userDefaultsManager_(std::move(userDefaultsManager)),
      mainQueue_(std::move(mainQueue)),
      makeQueue_(std::move(makeQueue)) {
    if (!mainQueue_ || !makeQueue_) fatalError("RVLMotionAccelManager needs a main queue and a queue factory");
}

RVLMotionAccelManager::~RVLMotionAccelManager() {
    stopAccelerometer();
    // Whatever the authorization says now: updates started earlier must not outlive us.
    if (activityManager_) activityManager_->stopActivityUpdates();
    drain(mainQueue_);
    drain(activityQueue_);
}

void RVLMotionAccelManager::drain(const std::shared_ptr<Executor>& queue) {
    if (queue && !queue->isCurrent()) queue->sync([] {});
}

void RVLMotionAccelManager::setup() {
    motionActivityActive_ = activityManager_ && activityManager_->isActivityAvailable();
    if (motionManager_) motionManager_->setAccelerometerUpdateInterval(accelerometerUpdateInterval);
}

void RVLMotionAccelManager::stop() {
    if (!userDefaultsManager_->userActivatedTrackingOnce()) return;
    stopAccelerometer();
    stopMotionActivity();
}

void RVLMotionAccelManager::speedUp() {
    startAccelerometer();
    startMotionActivity();
}

void RVLMotionAccelManager::slowDown(const std::optional<Location>&) {
    stopAccelerometer();
    stopMotionActivity();
}

void RVLMotionAccelManager::startAccelerometer() {
    if (!motionManager_) return;
    stopAccelerometer();
    std::weak_ptr<const Recorder> recorder = recorder_;
    motionManager_->startAccelerometerUpdates(mainQueue_, [recorder](std::span<const AccelerometerData> samples) {
        if (const auto strong = recorder.lock()) strong->processAccelerations(samples);
    });
}

void RVLMotionAccelManager::stopAccelerometer() {
    if (motionManager_) motionManager_->stopAccelerometerUpdates();
}

bool RVLMotionAccelManager::activityAuthorized() const {
    return activityManager_ && activityManager_->authorizationStatus() == MotionAuthorizationStatus::authorized;
}

void RVLMotionAccelManager::startMotionActivity() {
    if (!activityAuthorized() || !motionActivityActive_ || !activityManager_->isActivityAvailable()) return;
    activityManager_->stopActivityUpdates();
    if (!activityQueue_) activityQueue_ = makeQueue_(activityQueueLabel);
    std::weak_ptr<const Recorder> recorder = recorder_;
    activityManager_->startActivityUpdates(activityQueue_, [recorder](const MotionActivity& activity) {
        if (const auto strong = recorder.lock()) strong->insertActivity(activity);
    });
}

void RVLMotionAccelManager::stopMotionActivity() {
    if (activityAuthorized()) activityManager_->stopActivityUpdates();
}

void RVLMotionAccelManager::processAcceleration(const AccelerationVector& acceleration, double timestamp) const {
    recorder_->processAcceleration(acceleration, timestamp);
}

void RVLMotionAccelManager::processAccelerations(std::span<const AccelerometerData> samples) const {
    recorder_->processAccelerations(samples);
}

void RVLMotionAccelManager::insertActivity(const MotionActivity& activity) const {
    recorder_->insertActivity(activity);
}

Date RVLMotionAccelManager::epochTimestampFromAccelerationTimestampInMilliseconds(double timestamp) const {
    return recorder_->dateOfSample(timestamp);
}

}  // namespace rovalis
