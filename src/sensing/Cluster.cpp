#include "sensing/Cluster.h"

#include "util/Fatal.h"

namespace rovalis {

Location locationAt(double latitude, double longitude) {
    Location location;
    location.coordinate = {latitude, longitude};
    return location;
}

Cluster::Cluster(const Location& first, double timeLimit)
    : timeLimit_(timeLimit), locations_{first}, center_(first) {}

void Cluster::add(const Location& location) {
    locations_.push_back(location);
    if (locations_.size() > maximumCenteredLocations) return;
    double latitudes = 0.0, longitudes = 0.0;
    for (const Location& each : locations_) {
        latitudes += each.coordinate.latitude;
        longitudes += each.coordinate.longitude;
    }
    const auto count = static_cast<double>(locations_.size());
    center_ = locationAt(latitudes / count, longitudes / count);
}

double Cluster::durationOf(const std::vector<Location>& locations) {
    if (locations.empty()) fatalError("Invalid Cluster size!");
    return locations.back().timestamp.timeIntervalSince(locations.front().timestamp);
}

}  // namespace rovalis
