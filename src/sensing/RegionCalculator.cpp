#include "sensing/RegionCalculator.h"

#include <cmath>
#include <cstdio>
#include <numbers>

#include "util/Fatal.h"

namespace rovalis {

namespace {

constexpr double pi = std::numbers::pi;
constexpr double earthRadiusKilometres = 6371.0;

void requireValidCount(std::int64_t count) {
    if (count < 0) fatalError("Invalid RegionCalculator.count: " + std::to_string(count));
}

// D: the distance from the stay position to the far edge of an outer region when the outer
// regions just touch the centre region and their neighbours.
double ringExtent(const RegionCalculator& calculator) {
    const double a = pi / static_cast<double>(calculator.count);
    const double k = 1.0 / std::cos(a) + std::tan(a);
    return calculator.radius * k * k;
}

}  // namespace

CircularRegion RegionCalculator::centerRegion(const LocationCoordinate2D& center) const {
    return CircularRegion{identifierPrefix + "_00", center, radius, /*notifyOnEntry=*/false, /*notifyOnExit=*/true};
}

double RegionCalculator::outerRadius() const {
    requireValidCount(count);
    return (ringExtent(*this) - radius) * 0.5 * spreadFactor;
}

double RegionCalculator::outerCenterDistance() const { return ringExtent(*this) - outerRadius(); }

std::vector<CircularRegion> RegionCalculator::outerRegions(const LocationCoordinate2D& center) const {
    requireValidCount(count);
    std::vector<CircularRegion> result;
    if (count == 0) return result;
    const double r = outerRadius();
    const double d = outerCenterDistance();
    result.reserve(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
        const double bearing = static_cast<double>(i) / static_cast<double>(count) * 360.0;
        result.push_back(CircularRegion{identifierPrefix + "_" + std::to_string(i), destination(center, d, bearing), r,
                                        /*notifyOnEntry=*/true, /*notifyOnExit=*/true});
    }
    return result;
}

std::vector<CircularRegion> RegionCalculator::regions(const LocationCoordinate2D& center) const {
    std::vector<CircularRegion> result{centerRegion(center)};
    for (CircularRegion& region : outerRegions(center)) result.push_back(std::move(region));
    return result;
}

LocationCoordinate2D RegionCalculator::destination(const LocationCoordinate2D& start, double distance,
                                                   double bearing) {
    const double delta = (distance * 0.001) / earthRadiusKilometres;
    const double theta = bearing * pi / 180.0;
    const double phi1 = start.latitude * pi / 180.0;
    const double lambda1 = start.longitude * pi / 180.0;

    const double phi2 =
        std::asin(std::sin(phi1) * std::cos(delta) + std::cos(phi1) * std::sin(delta) * std::cos(theta));
    double lambda2 = lambda1 + std::atan2(std::sin(theta) * std::sin(delta) * std::cos(phi1),
                                          std::cos(delta) - std::sin(phi1) * std::sin(phi2));
    lambda2 = std::fmod(lambda2 + 3.0 * pi, 2.0 * pi) - pi;

    return LocationCoordinate2D{phi2 * 180.0 / pi, lambda2 * 180.0 / pi};
}

std::string regionDescription(const CircularRegion& region) {
    char text[160];
    std::snprintf(text, sizeof text, "', center:<%+.8f,%+.8f>, radius:%.2fm)", region.center.latitude,
                  region.center.longitude, region.radius);
    return "CircularRegion (identifier:'" + region.identifier + text;
}

}  // namespace rovalis
