#pragma once

#include <optional>

#include "platform/sim/DeviceLog.h"
#include "platform/sim/SimulationRandom.h"
#include "platform/sim/TruePath.h"
#include "rovalis/platform/Location.h"

namespace rovalis::sim {

// Turns the true position into the fixes a phone's receiver would report.
//
// Each fix carries a horizontal accuracy (the radius that holds the true position about two
// times in three) and an error consistent with it: the error along north and east is the
// accuracy / 1.51 times a unit Gauss-Markov value, so that it drifts from fix to fix instead
// of jumping. The accuracy itself wanders inside the band of the mode:
//
//   best, ten-metre     3 - 10 m       satellite fixes; speed, course and altitude known
//   hundred-metre       20 - 65 m      Wi-Fi grade; no speed, course or altitude
//   kilometre           300 - 3000 m   cell grade; likewise
//   approximate         1000 - 3000 m  the position is the centre of a 2 km grid cell
//
// After the receiver starts, or switches to a finer mode, the accuracy converges from where
// it stood (or, from cold, from 150 - 300 m) to the band's with a time constant of about a
// second and a half, so a cold best-accuracy start reaches 63 m in about three seconds, a warm one sooner.
class LocationErrorModel {
public:
    explicit LocationErrorModel(SimulationRandom random) : random_(random) {}

    // The receiver starts in `mode`, or moves to it from a coarser one. `recent` is the
    // receiver's last fix, if it was made in the last minute; `satelliteWarm` says whether
    // satellite fixes ran in the last half minute.
    void beginAcquisition(Date now, const std::optional<Location>& recent, bool satelliteWarm);

    // The fix at `now` in `mode` (not off) for the true state.
    Location fix(Date now, LocationMode mode, const TruePath::State& truth);

    // One coarse fix (accuracy 100 - 1500 m, independent error), as the significant-change
    // service reports; approximate when `approximate`.
    static Location coarseFix(SimulationRandom& random, Date now, const TruePath::State& truth, bool approximate);

    // The centre of the 2 km grid cell that holds `coordinate`.
    static LocationCoordinate2D approximate(LocationCoordinate2D coordinate);
    // `coordinate` moved `north` and `east` metres.
    static LocationCoordinate2D offset(LocationCoordinate2D coordinate, double north, double east);
    // A smooth terrain height for a place, so that the same place always has the same one.
    static double terrainAltitude(LocationCoordinate2D coordinate);

    // Radius that holds a two-dimensional normal error about two times in three, in units of
    // the error's standard deviation along one axis.
    static constexpr double accuracyPerSigma = 1.51;

private:
    SimulationRandom random_;
    CorrelatedNoise accuracyWander_;
    CorrelatedNoise north_;
    CorrelatedNoise east_;
    CorrelatedNoise vertical_;
    std::optional<Date> lastFix_;
    Date acquisitionStart_;
    double acquisitionFrom_ = 0.0;
    double acquisitionTau_ = 1.5;
};

}  // namespace rovalis::sim
