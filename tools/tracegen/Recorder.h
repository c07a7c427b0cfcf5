#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/sim/TruePath.h"

namespace rovalis::tracegen {

using sim::TracePoint;
using Polyline = std::vector<LocationCoordinate2D>;

// A small seeded generator whose sequence, unlike the standard distributions', is the same
// with every standard library.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next();
    double uniform();                         // [0, 1)
    double uniform(double low, double high);  // [low, high)
    double normal();                          // mean 0, deviation 1

private:
    std::uint64_t state_;
};

// How open the sky is where the phone is: it sets the size of the position error.
enum class Sky {
    open,     // a bridge, the river bank
    street,   // low-rise streets
    canyon,   // between the City's office blocks
    rail,     // in a train on the surface
    indoors,  // in a building: positions from Wi-Fi and a weak satellite signal
};

// A point of a walk where the walker stops for a while (a crossing), `vertex` being an index
// of the route.
struct Pause {
    std::size_t vertex;
    double minimumSeconds, maximumSeconds;
};

// A stop of a ride at a route vertex: a station, or a signal check.
struct Stop {
    std::size_t vertex;
    double minimumSeconds, maximumSeconds;
};

// One part of the day, for the summary.
struct Leg {
    std::string what;
    Date start, end;
};

// Records a day as a phone app would: a fix every second while walking, every 2-4 s on
// rails, every few minutes while the phone lies still in a building, and nothing underground.
//
// The position error is a first-order Gauss-Markov process in each of east and north: it
// moves slowly, so consecutive fixes are off in much the same direction, as a receiver's are.
// Its size depends on the sky; after a spell underground it starts large and settles, as a
// receiver's does while it finds the satellites again. The reported accuracy follows the size
// of the error, with a slowly varying factor.
class Recorder {
public:
    Recorder(Date start, std::uint64_t seed);

    Date now() const { return now_; }

    // Lies still at `place` until `until`.
    void stay(const std::string& what, LocationCoordinate2D place, Date until);
    // Walks the route from its first vertex to its last at a steady pace of its own.
    void walk(const std::string& what, const Polyline& route, Sky sky, const std::vector<Pause>& pauses = {});
    // Stands at the current place, recording every second, until `until`.
    void wait(const std::string& what, Date until, Sky sky);
    // Rides the route from its first vertex, stopping at `stops`, and ends at its last vertex.
    // Between stops the train accelerates and brakes at 0.5 m/s^2 and runs at most at
    // `topSpeed` (m/s).
    void ride(const std::string& what, const Polyline& route, const std::vector<Stop>& stops, double topSpeed);
    // Goes down at the current place and comes up at `exit` after `seconds`: the last fixes
    // before are poor, none are recorded in between, and a new segment starts after.
    void underground(const std::string& what, LocationCoordinate2D exit, double seconds);

    // The recording: a new segment starts after every gap.
    const std::vector<std::vector<TracePoint>>& segments() const { return segments_; }
    const std::vector<Leg>& legs() const { return legs_; }

private:
    // Records where the phone truly is at `time`.
    void record(Date time, LocationCoordinate2D truth, Sky sky, double extraAccuracy = 0.0);
    double sigmaAt(Date time, Sky sky) const;

    Random random_;
    Date now_;
    LocationCoordinate2D here_{};
    std::vector<std::vector<TracePoint>> segments_{1};
    std::vector<Leg> legs_;
    // The position error (metres east and north) and the accuracy factor, at `lastFix_`.
    double errorEast_ = 0.0, errorNorth_ = 0.0, accuracyFactor_ = 1.0;
    Date lastFix_;
    bool anyFix_ = false;
    Date resurfaced_ = Date::distantPast();
};

// The point `east` and `north` metres from `from`.
LocationCoordinate2D offset(LocationCoordinate2D from, double east, double north);

}  // namespace rovalis::tracegen
