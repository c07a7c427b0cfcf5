#include "platform/sim/SimulatedMotion.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "util/Fatal.h"

namespace rovalis::sim {

namespace {

constexpr double stationaryBelow = 0.3;
constexpr double walkingBelow = 2.5;
constexpr double runningBelow = 4.5;
constexpr double cyclingBelow = 8.0;
// The speeds of the last minute at most; at least half a minute of them to call them steady.
constexpr std::size_t speedWindow = 12;
constexpr std::size_t steadyWindow = 6;
constexpr double steadyLow = 3.0;
constexpr double steadyHigh = 9.0;
constexpr double steadySpread = 3.0;
constexpr double firstReportLow = 0.3;
constexpr double firstReportHigh = 1.0;
// Samples a hair before the end of a second still belong to it.
constexpr double sampleSlack = 1e-9;

void normalise(double (&v)[3]) {
    const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    for (double& c : v) c /= length;
}

}  // namespace

// ---- SimulatedMotionService ----

std::shared_ptr<SimulatedMotionService> SimulatedMotionService::create(DeviceContext context,
                                                                       MotionAuthorizationStatus authorization,
                                                                       Date bootDate) {
    auto service =
        std::shared_ptr<SimulatedMotionService>(new SimulatedMotionService(std::move(context), authorization, bootDate));
    service->start();
    return service;
}

SimulatedMotionService::SimulatedMotionService(DeviceContext context, MotionAuthorizationStatus authorization,
                                               Date bootDate)
    : context_(std::move(context)),
      bootDate_(bootDate),
      authorization_(authorization),
      accelerometerRandom_(context_.seed, RandomStream::accelerometer),
      activityRandom_(context_.seed, RandomStream::activity) {
    // Carried in a pocket or bag: gravity mostly along the long axis, tilted a little.
    gravity_[0] = 0.15 * accelerometerRandom_.normal();
    gravity_[1] = -1.0 + 0.1 * accelerometerRandom_.normal();
    gravity_[2] = 0.3 * accelerometerRandom_.normal();
    normalise(gravity_);
    sideways_[0] = -gravity_[1];
    sideways_[1] = gravity_[0];
    sideways_[2] = 0.0;
    normalise(sideways_);
    walkAmplitude_ = accelerometerRandom_.uniform(0.2, 0.4);
    walkFrequency_ = accelerometerRandom_.uniform(1.8, 2.1);
    runAmplitude_ = accelerometerRandom_.uniform(0.6, 1.0);
}

SimulatedMotionService::~SimulatedMotionService() {
    if (deliveryTimer_) deliveryTimer_->invalidate();
    if (classifierTimer_) classifierTimer_->invalidate();
}

void SimulatedMotionService::start() {
    const Date current = now();
    const double speed = context_.path->at(current).speed;
    recentSpeeds_.push_back(speed);
    activity_ = classify(speed, false);
    activityStart_ = current;
    context_.log->activityChanges.push_back({current, current, activity_});
    // The classifier runs all the time, as the device's does, whether or not anyone listens.
    classifierTimer_ = context_.runLoop->scheduleTimer(classifierInterval, true, [self = weak_from_this()] {
        if (const auto service = self.lock()) service->classifyNow();
    });
}

template <typename Manager>
std::vector<std::shared_ptr<Manager>> SimulatedMotionService::live(std::vector<std::weak_ptr<Manager>>& managers) {
    std::erase_if(managers, [](const auto& weak) { return weak.expired(); });
    std::vector<std::shared_ptr<Manager>> result;
    for (const auto& weak : managers) {
        if (auto manager = weak.lock()) result.push_back(std::move(manager));
    }
    return result;
}

std::shared_ptr<SimulatedMotionManager> SimulatedMotionService::makeMotionManager() {
    auto manager = std::make_shared<SimulatedMotionManager>(weak_from_this(), context_.runLoop);
    motionManagers_.push_back(manager);
    return manager;
}

std::shared_ptr<SimulatedMotionActivityManager> SimulatedMotionService::makeActivityManager() {
    auto manager = std::make_shared<SimulatedMotionActivityManager>(weak_from_this(), context_.runLoop);
    activityManagers_.push_back(manager);
    return manager;
}

void SimulatedMotionService::setAuthorization(MotionAuthorizationStatus status) {
    if (authorization_ == status) return;
    authorization_ = status;
    activityManagersChanged();
}

// ---- accelerometer ----

void SimulatedMotionService::accelerometerChanged() {
    const auto managers = live(motionManagers_);
    const bool any = std::any_of(managers.begin(), managers.end(), [](const auto& m) { return m->active_; });
    context_.energy->setAccelerometerActive(any);
    if (any == (deliveryTimer_ != nullptr)) return;
    if (!any) {
        deliveryTimer_->invalidate();
        deliveryTimer_.reset();
        return;
    }
    deliveryTimer_ = context_.runLoop->scheduleTimer(deliveryInterval, true, [self = weak_from_this()] {
        if (const auto service = self.lock()) service->deliverSamples();
    });
}

ActivityClass SimulatedMotionService::motionAt(Date time) const {
    const double speed = context_.path->at(time).speed;
    if (speed < runningBelow) return classify(speed, false);
    // Above a runner's speed the feel of the ride tells a bicycle from a vehicle; the
    // classifier's judgement stands in for it.
    return activity_ == ActivityClass::cycling ? ActivityClass::cycling : ActivityClass::automotive;
}

AccelerometerData SimulatedMotionService::sample(double timestamp, ActivityClass motion) {
    double amplitude = 0.0, frequency = 1.0, noise = 0.004;
    switch (motion) {
        case ActivityClass::stationary:
            break;
        case ActivityClass::walking:
            amplitude = walkAmplitude_;
            frequency = walkFrequency_;
            noise = 0.03;
            break;
        case ActivityClass::running:
            amplitude = runAmplitude_;
            frequency = 2.7;
            noise = 0.06;
            break;
        case ActivityClass::cycling:
            amplitude = 0.12;
            frequency = 1.3;
            noise = 0.05;
            break;
        case ActivityClass::automotive:
            amplitude = 0.03;
            frequency = 0.6;
            noise = 0.02;
            break;
    }
    const double phase = 2.0 * std::numbers::pi * frequency * timestamp;
    const double along = 1.0 + amplitude * std::sin(phase);
    const double across = 0.5 * amplitude * std::sin(0.5 * phase + 0.3);
    AccelerometerData data;
    data.x = gravity_[0] * along + sideways_[0] * across + noise * accelerometerRandom_.normal();
    data.y = gravity_[1] * along + sideways_[1] * across + noise * accelerometerRandom_.normal();
    data.z = gravity_[2] * along + sideways_[2] * across + noise * accelerometerRandom_.normal();
    data.timestamp = timestamp;
    return data;
}

void SimulatedMotionService::deliverSamples() {
    const Date current = now();
    const double upNow = uptime(current);
    const ActivityClass motion = motionAt(current);
    for (const auto& manager : live(motionManagers_)) {
        if (!manager->active_) continue;
        std::vector<AccelerometerData> batch;
        for (;;) {
            const double timestamp = manager->base_ + static_cast<double>(manager->made_ + 1) * manager->spacing();
            if (timestamp > upNow + sampleSlack) break;
            batch.push_back(sample(timestamp, motion));
            ++manager->made_;
        }
        if (batch.empty()) continue;
        manager->queue_->async([handler = manager->handler_, batch = std::move(batch)] { handler(batch); });
    }
}

// ---- activity ----

ActivityClass SimulatedMotionService::classify(double speed, bool steady) {
    if (speed < stationaryBelow) return ActivityClass::stationary;
    if (speed < walkingBelow) return ActivityClass::walking;
    if (speed < runningBelow) return ActivityClass::running;
    if (speed < cyclingBelow && steady) return ActivityClass::cycling;
    return ActivityClass::automotive;
}

MotionActivityConfidence SimulatedMotionService::confidenceAfter(double heldSeconds) {
    if (heldSeconds < 30.0) return MotionActivityConfidence::low;
    if (heldSeconds < 120.0) return MotionActivityConfidence::medium;
    return MotionActivityConfidence::high;
}

MotionActivity SimulatedMotionService::currentActivity() const {
    MotionActivity record;
    record.startDate = activityStart_;
    record.confidence = confidenceAfter(now().timeIntervalSince(activityStart_));
    record.stationary = activity_ == ActivityClass::stationary;
    record.walking = activity_ == ActivityClass::walking;
    record.running = activity_ == ActivityClass::running;
    record.cycling = activity_ == ActivityClass::cycling;
    record.automotive = activity_ == ActivityClass::automotive;
    return record;
}

bool SimulatedMotionService::steadySpeeds() const {
    if (recentSpeeds_.size() < steadyWindow) return false;
    const auto [low, high] = std::minmax_element(recentSpeeds_.begin(), recentSpeeds_.end());
    return *low >= steadyLow && *high <= steadyHigh && *high - *low <= steadySpread;
}

void SimulatedMotionService::classifyNow() {
    const Date current = now();
    recentSpeeds_.push_back(context_.path->at(current).speed);
    while (recentSpeeds_.size() > speedWindow) recentSpeeds_.pop_front();
    const ActivityClass seen = classify(recentSpeeds_.back(), steadySpeeds());
    if (seen == activity_) {
        candidate_.reset();
    } else if (!candidate_ || candidate_->first != seen) {
        candidate_.emplace(seen, current);
    } else if (current.timeIntervalSince(candidate_->second) >= classChangeDelay) {
        activity_ = seen;
        activityStart_ = candidate_->second;
        candidate_.reset();
        reportedConfidence_ = confidenceAfter(current.timeIntervalSince(activityStart_));
        context_.log->activityChanges.push_back({current, activityStart_, activity_});
        reportToAll();
        return;
    }
    const auto confidence = confidenceAfter(current.timeIntervalSince(activityStart_));
    if (confidence != reportedConfidence_) {
        reportedConfidence_ = confidence;
        reportToAll();
    }
}

void SimulatedMotionService::activityManagersChanged() {
    const auto managers = live(activityManagers_);
    const bool any = authorization_ == MotionAuthorizationStatus::authorized &&
                     std::any_of(managers.begin(), managers.end(), [](const auto& m) { return m->active_; });
    context_.energy->setActivityActive(any);
}

void SimulatedMotionService::reportToAll() {
    if (authorization_ != MotionAuthorizationStatus::authorized) return;
    const MotionActivity record = currentActivity();
    for (const auto& manager : live(activityManagers_)) {
        if (manager->active_) manager->post(record);
    }
}

void SimulatedMotionService::reportTo(const std::weak_ptr<SimulatedMotionActivityManager>& target) {
    const auto manager = target.lock();
    if (!manager || !manager->active_ || authorization_ != MotionAuthorizationStatus::authorized) return;
    manager->post(currentActivity());
}

// ---- SimulatedMotionManager ----

SimulatedMotionManager::SimulatedMotionManager(std::weak_ptr<SimulatedMotionService> service,
                                               std::shared_ptr<RunLoop> runLoop)
    : service_(std::move(service)), runLoop_(std::move(runLoop)) {}

SimulatedMotionManager::~SimulatedMotionManager() {
    if (!active_) return;
    // Later, on the loop, as for location managers: the release may come from anywhere.
    runLoop_->async([service = service_] {
        if (const auto live = service.lock()) live->accelerometerChanged();
    });
}

double SimulatedMotionManager::spacing() const {
    return std::max(interval_, SimulatedMotionService::minimumUpdateInterval);
}

void SimulatedMotionManager::rebase(double timestamp) {
    base_ = timestamp;
    made_ = 0;
}

void SimulatedMotionManager::setAccelerometerUpdateInterval(double seconds) {
    if (active_) rebase(base_ + static_cast<double>(made_) * spacing());
    interval_ = seconds;
}

void SimulatedMotionManager::startAccelerometerUpdates(std::shared_ptr<Executor> queue, AccelerometerHandler handler) {
    if (!queue || !handler) fatalError("startAccelerometerUpdates needs a queue and a handler");
    const auto service = service_.lock();
    queue_ = std::move(queue);
    handler_ = std::move(handler);
    active_ = true;
    if (!service) return;
    rebase(service->uptime(runLoop_->now()));
    service->accelerometerChanged();
}

void SimulatedMotionManager::stopAccelerometerUpdates() {
    if (!active_) return;
    active_ = false;
    queue_.reset();
    handler_ = nullptr;
    if (const auto service = service_.lock()) service->accelerometerChanged();
}

// ---- SimulatedMotionActivityManager ----

SimulatedMotionActivityManager::SimulatedMotionActivityManager(std::weak_ptr<SimulatedMotionService> service,
                                                               std::shared_ptr<RunLoop> runLoop)
    : service_(std::move(service)), runLoop_(std::move(runLoop)) {}

SimulatedMotionActivityManager::~SimulatedMotionActivityManager() {
    if (firstReport_) firstReport_->invalidate();
    if (!active_) return;
    runLoop_->async([service = service_] {
        if (const auto live = service.lock()) live->activityManagersChanged();
    });
}

MotionAuthorizationStatus SimulatedMotionActivityManager::authorizationStatus() const {
    const auto service = service_.lock();
    return service ? service->authorization() : MotionAuthorizationStatus::notDetermined;
}

void SimulatedMotionActivityManager::startActivityUpdates(std::shared_ptr<Executor> queue, ActivityHandler handler) {
    if (!queue || !handler) fatalError("startActivityUpdates needs a queue and a handler");
    queue_ = std::move(queue);
    handler_ = std::move(handler);
    active_ = true;
    const auto service = service_.lock();
    if (!service) return;
    service->activityManagersChanged();
    if (firstReport_) firstReport_->invalidate();
    firstReport_ = runLoop_->scheduleTimer(service->activityRandom_.uniform(firstReportLow, firstReportHigh), false,
                                           [service = service_, self = weak_from_this()] {
                                               if (const auto live = service.lock()) live->reportTo(self);
                                           });
}

void SimulatedMotionActivityManager::stopActivityUpdates() {
    if (firstReport_) firstReport_->invalidate();
    firstReport_.reset();
    if (!active_) return;
    active_ = false;
    queue_.reset();
    handler_ = nullptr;
    if (const auto service = service_.lock()) service->activityManagersChanged();
}

void SimulatedMotionActivityManager::post(const MotionActivity& activity) {
    queue_->async([handler = handler_, activity] { handler(activity); });
}

}  // namespace rovalis::sim
