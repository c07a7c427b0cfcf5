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
// whole path over it. A window of samples sweeps forward over the path, and every sample in
// it stays within `radiusMetres` of its time-weighted mean position:
//   - a new sample within the radius of the mean joins the window; if older samples then
//     fall outside, they were the way in and leave it from the front;
//   - a new sample outside the radius ends the window: if it has lasted `minimumSeconds`, it
//     is a stay and a new window starts at the sample; otherwise its oldest sample leaves
//     and the new one is tried again.
// A stay's ends are found to within a sample (10 s or less). It begins when the device comes
// within about `radiusMetres` of where it stays and ends when it is about as far away again,
// so on foot a stay starts up to two minutes before the arrival and ends as long after leaving.
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
