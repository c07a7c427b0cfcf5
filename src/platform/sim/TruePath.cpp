#include "platform/sim/TruePath.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <GeographicLib/Geodesic.hpp>

#include "util/Fatal.h"

namespace rovalis::sim {

namespace {

// Below this speed a leg counts as standing still: a recorded stay with GPS noise of a few
// metres spread over minutes is not a walk.
constexpr double standingStillSpeed = 0.2;

}  // namespace

double distanceBetween(LocationCoordinate2D from, LocationCoordinate2D to) {
    double metres = 0.0;
    GeographicLib::Geodesic::WGS84().Inverse(from.latitude, from.longitude, to.latitude, to.longitude, metres);
    return metres;
}

double initialBearing(LocationCoordinate2D from, LocationCoordinate2D to) {
    double metres = 0.0, azimuthFrom = 0.0, azimuthTo = 0.0;
    GeographicLib::Geodesic::WGS84().Inverse(from.latitude, from.longitude, to.latitude, to.longitude, metres,
                                              azimuthFrom, azimuthTo);
    const double degrees = std::fmod(azimuthFrom + 360.0, 360.0);
    return degrees >= 360.0 ? 0.0 : degrees;
}

TruePath::TruePath(std::vector<TracePoint> points) {
    if (points.empty()) fatalError("TruePath needs at least one point");
    std::stable_sort(points.begin(), points.end(),
                     [](const TracePoint& a, const TracePoint& b) { return a.time < b.time; });
    for (auto& point : points) {
        if (!points_.empty() && points_.back().time == point.time) {
            points_.back() = point;
        } else {
            points_.push_back(point);
        }
    }
}

std::size_t TruePath::legAt(Date time) const {
    const auto fits = [&](std::size_t leg) {
        return points_[leg].time <= time && (leg + 1 == points_.size() || time < points_[leg + 1].time);
    };
    if (fits(lastLeg_)) return lastLeg_;
    if (lastLeg_ + 1 < points_.size() && fits(lastLeg_ + 1)) return ++lastLeg_;
    const auto after = std::upper_bound(points_.begin(), points_.end(), time,
                                        [](Date t, const TracePoint& point) { return t < point.time; });
    lastLeg_ = after == points_.begin() ? 0 : static_cast<std::size_t>(after - points_.begin()) - 1;
    return lastLeg_;
}

TruePath::State TruePath::at(Date time) const {
    if (time <= start()) return State{points_.front().coordinate};
    if (time >= end()) return State{points_.back().coordinate};
    const std::size_t leg = legAt(time);
    const TracePoint& from = points_[leg];
    const TracePoint& to = points_[leg + 1];
    const double duration = to.time.timeIntervalSince(from.time);
    const double fraction = time.timeIntervalSince(from.time) / duration;
    State state;
    state.coordinate.latitude = from.coordinate.latitude + (to.coordinate.latitude - from.coordinate.latitude) * fraction;
    double longitudeStep = to.coordinate.longitude - from.coordinate.longitude;
    if (longitudeStep > 180.0) longitudeStep -= 360.0;
    if (longitudeStep < -180.0) longitudeStep += 360.0;
    double longitude = from.coordinate.longitude + longitudeStep * fraction;
    if (longitude >= 180.0) longitude -= 360.0;
    if (longitude < -180.0) longitude += 360.0;
    state.coordinate.longitude = longitude;
    state.speed = distanceBetween(from.coordinate, to.coordinate) / duration;
    state.course = state.speed < standingStillSpeed ? -1.0 : initialBearing(from.coordinate, to.coordinate);
    if (state.speed < standingStillSpeed) state.speed = 0.0;
    return state;
}

}  // namespace rovalis::sim
