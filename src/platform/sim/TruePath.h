#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/platform/Location.h"

namespace rovalis::sim {

// One recorded point of a trace: where the device was at a moment, and, when the recording
// says so, how accurate the recording was (metres).
struct TracePoint {
    Date time;
    LocationCoordinate2D coordinate;
    std::optional<double> accuracy;

    friend bool operator==(const TracePoint&, const TracePoint&) = default;
};

// Where the simulated device truly is at any moment of a trace. Between two recorded points
// it moves in a straight line at constant speed, so two nearby points far apart in time are
// a stay. Before the first point it is at the first; after the last, at the last.
class TruePath {
public:
    struct State {
        LocationCoordinate2D coordinate;
        double speed = 0.0;    // metres per second, along the current leg
        double course = -1.0;  // degrees from true north; -1 while standing still
    };

    // Points are sorted by time; of several at one time the last is kept. Needs at least one.
    explicit TruePath(std::vector<TracePoint> points);

    State at(Date time) const;
    Date start() const { return points_.front().time; }
    Date end() const { return points_.back().time; }
    const std::vector<TracePoint>& points() const { return points_; }

private:
    // The leg whose start is the last point at or before `time`.
    std::size_t legAt(Date time) const;

    std::vector<TracePoint> points_;
    // Queries mostly move forward in time: the last leg found is tried first.
    mutable std::size_t lastLeg_ = 0;
};

// The initial bearing from one point to another along the great circle, in degrees [0, 360).
double initialBearing(LocationCoordinate2D from, LocationCoordinate2D to);
// Geodesic distance on the WGS84 ellipsoid, in metres.
double distanceBetween(LocationCoordinate2D from, LocationCoordinate2D to);

}  // namespace rovalis::sim
