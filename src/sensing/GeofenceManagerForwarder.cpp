#include "sensing/GeofenceManagerForwarder.h"

namespace rovalis {

void GeofenceManagerForwarder::locationManagerDidEnterRegion(LocationManagerType& /*manager*/,
                                                             const CircularRegion& region) {
    if (const auto target = delegate_.lock()) target->didEnterRegion(region);
}

void GeofenceManagerForwarder::locationManagerDidExitRegion(LocationManagerType& /*manager*/,
                                                            const CircularRegion& region) {
    if (const auto target = delegate_.lock()) target->didExitRegion(region);
}

void GeofenceManagerForwarder::locationManagerDidEnterBeaconRegion(LocationManagerType& /*manager*/,
                                                                   const BeaconRegion& region) {
    if (const auto target = delegate_.lock()) target->didEnterBeaconRegion(region);
}

void GeofenceManagerForwarder::locationManagerDidExitBeaconRegion(LocationManagerType& /*manager*/,
                                                                  const BeaconRegion& region) {
    if (const auto target = delegate_.lock()) target->didExitBeaconRegion(region);
}

}  // namespace rovalis
