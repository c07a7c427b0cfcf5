#include "sensing/BeaconRangerForwarder.h"

namespace rovalis {

void BeaconRangerForwarder::locationManagerDidRangeBeacons(LocationManagerType& /*manager*/,
                                                           const std::vector<RangedBeacon>& beacons,
                                                           const BeaconIdentityConstraint& constraint) {
    if (const auto target = delegate_.lock()) target->didRangeBeacons(beacons, constraint);
}

}  // namespace rovalis
