#include "Recorder.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>

#include "util/Fatal.h"

namespace rovalis::tracegen {

namespace {

constexpr double earthRadius = 6371008.8;
constexpr double trainAcceleration = 0.5;  // m/s^2, accelerating and braking alike

// The error's typical size per axis (metres) under each sky.
double sigmaOf(Sky sky) {
    switch (sky) {
        case Sky::open: return 2.5;
        case Sky::street: return 4.0;
        case Sky::canyon: return 7.0;
        case Sky::rail: return 4.0;
        case Sky::indoors: return 7.0;
    }
    return 5.0;
}

// How long the error keeps its direction (seconds). Indoors the position comes mostly from
// the same few Wi-Fi networks and hardly moves.
double correlationSecondsOf(Sky sky) { return sky == Sky::indoors ? 900.0 : 30.0; }

// Indoor fixes stay this close to the place.
constexpr double indoorReach = 18.0;

double round(double value, double unit) { return std::round(value / unit) * unit; }

// A polyline with the distance along it to each vertex.
class Measured {
public:
    explicit Measured(const Polyline& route) : route_(route), along_(route.size(), 0.0) {
        if (route.size() < 2) fatalError("a route needs two vertices");
        for (std::size_t i = 1; i < route.size(); ++i)
            along_[i] = along_[i - 1] + sim::distanceBetween(route[i - 1], route[i]);
    }

    double length() const { return along_.back(); }
    double along(std::size_t vertex) const { return along_.at(vertex); }

    LocationCoordinate2D at(double distance) const {
        if (distance <= 0.0) return route_.front();
        if (distance >= length()) return route_.back();
        const std::size_t leg =
            static_cast<std::size_t>(std::upper_bound(along_.begin(), along_.end(), distance) - along_.begin()) - 1;
        const double fraction = (distance - along_[leg]) / (along_[leg + 1] - along_[leg]);
        const auto& a = route_[leg];
        const auto& b = route_[leg + 1];
        return {a.latitude + (b.latitude - a.latitude) * fraction,
                a.longitude + (b.longitude - a.longitude) * fraction};
    }

private:
    Polyline route_;
    std::vector<double> along_;
};

// Distance covered after `t` seconds of a run of `length` metres from standstill to
// standstill: accelerate, run at the top speed if there is room, brake.
struct Run {
    double length, duration, rampTime, peakSpeed;

    Run(double metres, double topSpeed) : length(metres) {
        peakSpeed = std::min(topSpeed, std::sqrt(trainAcceleration * metres));
        rampTime = peakSpeed / trainAcceleration;
        const double rampDistance = peakSpeed * peakSpeed / (2.0 * trainAcceleration);
        duration = 2.0 * rampTime + (metres - 2.0 * rampDistance) / peakSpeed;
    }

    double covered(double t) const {
        if (t <= 0.0) return 0.0;
        if (t >= duration) return length;
        if (t < rampTime) return 0.5 * trainAcceleration * t * t;
        const double left = duration - t;
        if (left < rampTime) return length - 0.5 * trainAcceleration * left * left;
        return 0.5 * trainAcceleration * rampTime * rampTime + peakSpeed * (t - rampTime);
    }
};

}  // namespace

std::uint64_t Random::next() {
    // splitmix64
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

double Random::uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

double Random::uniform(double low, double high) { return low + (high - low) * uniform(); }

double Random::normal() {
    const double u = 1.0 - uniform();  // (0, 1]
    return std::sqrt(-2.0 * std::log(u)) * std::cos(2.0 * std::numbers::pi * uniform());
}

LocationCoordinate2D offset(LocationCoordinate2D from, double east, double north) {
    const double latitude = from.latitude + north / earthRadius * 180.0 / std::numbers::pi;
    const double longitude = from.longitude + east /
                                                  (earthRadius * std::cos(from.latitude * std::numbers::pi / 180.0)) *
                                                  180.0 / std::numbers::pi;
    return {latitude, longitude};
}

Recorder::Recorder(Date start, std::uint64_t seed) : random_(seed), now_(start), lastFix_(start) {}

void Recorder::record(Date time, LocationCoordinate2D truth, Sky sky, double extraAccuracy) {
    const double sigma = sigmaOf(sky);
    const double elapsed = anyFix_ ? time.timeIntervalSince(lastFix_) : 1e9;
    const double keep = std::exp(-elapsed / correlationSecondsOf(sky));
    const double fresh = std::sqrt(1.0 - keep * keep) * sigma;
    errorEast_ = keep * errorEast_ + fresh * random_.normal();
    errorNorth_ = keep * errorNorth_ + fresh * random_.normal();
    if (sky == Sky::indoors) {
        const double size = std::hypot(errorEast_, errorNorth_);
        if (size > indoorReach) {
            errorEast_ *= indoorReach / size;
            errorNorth_ *= indoorReach / size;
        }
    }
    const double factorKeep = std::exp(-elapsed / 120.0);
    accuracyFactor_ =
        1.0 + factorKeep * (accuracyFactor_ - 1.0) + std::sqrt(1.0 - factorKeep * factorKeep) * 0.12 * random_.normal();
    accuracyFactor_ = std::clamp(accuracyFactor_, 0.7, 1.4);
    // About 68% of fixes lie within 1.5 sigma of the truth when the error is round: that is
    // what a horizontal accuracy says.
    double accuracy = 1.5 * sigma * accuracyFactor_ + extraAccuracy;
    accuracy += 45.0 * std::exp(-time.timeIntervalSince(resurfaced_) / 25.0);
    if (sky == Sky::indoors) accuracy += 5.0;

    const LocationCoordinate2D fix = offset(truth, errorEast_, errorNorth_);
    segments_.back().push_back(
        TracePoint{time, {round(fix.latitude, 1e-6), round(fix.longitude, 1e-6)}, round(std::max(accuracy, 3.0), 0.1)});
    lastFix_ = time;
    anyFix_ = true;
}

void Recorder::stay(const std::string& what, LocationCoordinate2D place, Date until) {
    const Date start = now_;
    here_ = place;
    if (!anyFix_) record(now_, place, Sky::indoors);
    // Still in a building, the app asks for a fix only every few minutes.
    const auto gap = [&] { return std::round(random_.uniform(120.0, 300.0)); };
    for (Date t = now_.addingSeconds(gap()); t < until; t = t.addingSeconds(gap())) record(t, place, Sky::indoors);
    record(until, place, Sky::indoors);
    now_ = until;
    legs_.push_back({what, start, now_});
}

void Recorder::walk(const std::string& what, const Polyline& route, Sky sky, const std::vector<Pause>& pauses) {
    const Measured path(route);
    const Date start = now_;
    const double pace = random_.uniform(1.25, 1.45);
    std::vector<Pause> ahead = pauses;
    std::sort(ahead.begin(), ahead.end(), [](const Pause& a, const Pause& b) { return a.vertex < b.vertex; });
    std::size_t nextPause = 0;
    double covered = 0.0, pausing = 0.0;
    while (covered < path.length()) {
        now_ = now_.addingSeconds(1.0);
        if (pausing > 0.0) {
            pausing -= 1.0;
        } else {
            covered += pace * random_.uniform(0.9, 1.1);
            if (nextPause < ahead.size() && covered >= path.along(ahead[nextPause].vertex)) {
                covered = path.along(ahead[nextPause].vertex);
                pausing = std::round(random_.uniform(ahead[nextPause].minimumSeconds, ahead[nextPause].maximumSeconds));
                ++nextPause;
            }
        }
        record(now_, path.at(covered), sky);
    }
    here_ = route.back();
    legs_.push_back({what, start, now_});
}

void Recorder::wait(const std::string& what, Date until, Sky sky) {
    const Date start = now_;
    while (now_.addingSeconds(1.0) <= until) {
        now_ = now_.addingSeconds(1.0);
        record(now_, here_, sky);
    }
    legs_.push_back({what, start, now_});
}

void Recorder::ride(const std::string& what, const Polyline& route, const std::vector<Stop>& stops, double topSpeed) {
    const Measured path(route);
    const Date start = now_;
    // The ride as runs between stops and dwells at them, each from a start time.
    struct Phase {
        double start, duration, from;
        std::optional<Run> run;  // none while dwelling
    };
    std::vector<Phase> phases;
    double clock = 0.0, from = 0.0;
    std::vector<Stop> ordered = stops;
    std::sort(ordered.begin(), ordered.end(), [](const Stop& a, const Stop& b) { return a.vertex < b.vertex; });
    ordered.push_back(Stop{route.size() - 1, 0.0, 0.0});
    for (const Stop& stop : ordered) {
        const Run run(path.along(stop.vertex) - from, topSpeed);
        phases.push_back({clock, run.duration, from, run});
        clock += run.duration;
        from = path.along(stop.vertex);
        if (stop.maximumSeconds > 0.0) {
            const double dwell = std::round(random_.uniform(stop.minimumSeconds, stop.maximumSeconds));
            phases.push_back({clock, dwell, from, std::nullopt});
            clock += dwell;
        }
    }
    const double total = std::ceil(clock);
    const auto where = [&](double t) {
        for (auto phase = phases.rbegin(); phase != phases.rend(); ++phase) {
            if (t >= phase->start)
                return path.at(phase->from + (phase->run ? phase->run->covered(t - phase->start) : 0.0));
        }
        return route.front();
    };
    double t = 0.0;
    while (true) {
        t = std::min(total, t + 2.0 + std::floor(random_.uniform(0.0, 3.0)));
        record(start.addingSeconds(t), where(t), Sky::rail);
        if (t >= total) break;
    }
    now_ = start.addingSeconds(total);
    here_ = route.back();
    legs_.push_back({what, start, now_});
}

void Recorder::underground(const std::string& what, LocationCoordinate2D exit, double seconds) {
    const Date start = now_;
    // Down the stairs: the fix drifts and the accuracy grows.
    for (int step = 1; step <= 3; ++step) {
        errorEast_ += 8.0 * random_.normal();
        errorNorth_ += 8.0 * random_.normal();
        now_ = now_.addingSeconds(5.0);
        record(now_, here_, Sky::canyon, 20.0 * step);
    }
    now_ = now_.addingSeconds(seconds);
    segments_.emplace_back();
    // Up again: the first fixes are tens of metres off and settle as the satellites are found.
    resurfaced_ = now_;
    lastFix_ = now_;
    errorEast_ = 25.0 * random_.normal();
    errorNorth_ = 25.0 * random_.normal();
    here_ = exit;
    legs_.push_back({what, start, now_});
}

}  // namespace rovalis::tracegen
