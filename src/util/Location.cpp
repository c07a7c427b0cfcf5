#include "rovalis/platform/Location.h"

#include <GeographicLib/Geodesic.hpp>

namespace rovalis {

double Location::distanceFrom(const Location& other) const {
    double metres = 0.0;
    GeographicLib::Geodesic::WGS84().Inverse(coordinate.latitude, coordinate.longitude, other.coordinate.latitude,
                                              other.coordinate.longitude, metres);
    return metres;
}

}  // namespace rovalis
