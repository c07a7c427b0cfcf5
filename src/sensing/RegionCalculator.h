#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rovalis/SleepRegions.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

// The start of the identifier of every region the SDK lays out while it sleeps; regions
// with other identifiers (beacon regions) are not the geofence tracker's.

// The geometry of the sleep regions: a centre region of `radius` on the stay position and
// a ring of `count` equal outer regions around it, spread by `spreadFactor`.
struct RegionCalculator {
    double radius = 0.0;  // metres, of the centre region
    double spreadFactor = 1.0;
    std::int64_t count = 0;
    std::string identifierPrefix;

    // The SDK's sleep regions as a host configured them (see SleepRegionConfiguration for
    // why the defaults are what they are).
    static RegionCalculator sleepRegions(const SleepRegionConfiguration& configuration = {}) {
        return {configuration.centerRadius, configuration.spreadFactor, configuration.outerRegionCount,
                configuration.identifierPrefix};
    }

    // Reports exits only: the device starts inside it.
    CircularRegion centerRegion(const LocationCoordinate2D& center) const;
    // Report entries and exits. A negative count is a programming error.
    std::vector<CircularRegion> outerRegions(const LocationCoordinate2D& center) const;
    // The centre region first, then the outer regions in ring order.
    std::vector<CircularRegion> regions(const LocationCoordinate2D& center) const;

    // The radius of each outer region and the distance of its centre from the stay position.
    double outerRadius() const;
    double outerCenterDistance() const;

    bool isOwnRegion(std::string_view identifier) const { return identifier.starts_with(identifierPrefix); }

    // The point reached from `start` by travelling `distance` metres along the initial
    // `bearing` (degrees from north) on a sphere of radius 6371 km; the longitude is
    // normalised into [-180, 180).
    static LocationCoordinate2D destination(const LocationCoordinate2D& start, double distance, double bearing);
};

// A readable description of a region for console lines:
// "CircularRegion (identifier:'RVLSleepRegion_00', center:<+52.52000000,+13.40500000>, radius:150.00m)".
std::string regionDescription(const CircularRegion& region);

}  // namespace rovalis
