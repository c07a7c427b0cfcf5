#pragma once

#include <vector>

#include "platform/sim/TruePath.h"

namespace rovalis::sim {

// A period in which the device truly stayed in one place: the ground truth that the stays
// the SDK reports are compared with.
struct TrueStay {
    Date start, end;
    LocationCoordinate2D centre;  // the mean position over the period, weighted by time

    double duration() const { return end.timeIntervalSince(start); }
};

// The stays of a path, in time order and not overlapping.
//
// The path is sampled every 10 s from its start and at every recorded point; between two
// samples it is a straight line, so a circle that holds every sample of a period holds the
// whole path over it. A period grows from a sample for as long as every sample in it lies
// within `radiusMetres` of the period's time-weighted mean position. When it has lasted at
// least `minimumSeconds` it is a stay and the search goes on after it; otherwise the search
// starts again at the next sample. A stay's ends are therefore found to within a sample
// (10 s or less), and a stay runs on until the device is about `radiusMetres` away from
// where it stayed.
std::vector<TrueStay> findStays(const TruePath& path, double radiusMetres = 150.0, double minimumSeconds = 600.0);

// The length of the path along its recorded points, in metres.
double pathLength(const TruePath& path);

// How the path's time divides between moving and standing still. A leg between two recorded
// points is standing when the path's speed along it counts as standing still.
struct MovementTimes {
    double movingSeconds = 0.0;
    double standingSeconds = 0.0;
};
MovementTimes movementTimes(const TruePath& path);

}  // namespace rovalis::sim
