#include "sensing/LocationManagerForwarder.h"

namespace rovalis {

void LocationManagerForwarder::locationManagerDidUpdateLocations(LocationManagerType& /*manager*/,
                                                                 const std::vector<Location>& locations) {
    if (const auto target = delegate_.lock()) target->didUpdateLocations(locations);
}

}  // namespace rovalis
