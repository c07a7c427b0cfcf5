#pragma once

#include <cstdint>
#include <string>

#include "rovalis/Date.h"
#include "rovalis/Export.h"

namespace rovalis {

struct LocationCoordinate2D {
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees

    friend bool operator==(const LocationCoordinate2D&, const LocationCoordinate2D&) = default;
};

// One location fix as the platform's location service reports it.
struct ROVALIS_EXPORT Location {
    LocationCoordinate2D coordinate;
    double altitude = 0.0;             // metres
    double horizontalAccuracy = 0.0;   // metres; negative: the fix is invalid
    double verticalAccuracy = -1.0;    // metres; negative: no altitude
    double speed = -1.0;               // metres per second; negative: unknown
    double course = -1.0;              // degrees from true north; negative: unknown
    Date timestamp;

    // Geodesic distance on the WGS84 ellipsoid, in metres.
    double distanceFrom(const Location& other) const;

    friend bool operator==(const Location&, const Location&) = default;
};

// A circular region watched by region monitoring.
struct CircularRegion {
    std::string identifier;
    LocationCoordinate2D center;
    double radius = 0.0;  // metres
    bool notifyOnEntry = true;
    bool notifyOnExit = true;

    friend bool operator==(const CircularRegion&, const CircularRegion&) = default;
};

// The platform's accuracy requests, in metres (the negative ones are the best modes).
inline constexpr double kCLLocationAccuracyBestForNavigation = -2.0;
inline constexpr double kCLLocationAccuracyBest = -1.0;
inline constexpr double kCLLocationAccuracyNearestTenMeters = 10.0;
inline constexpr double kCLLocationAccuracyHundredMeters = 100.0;
inline constexpr double kCLLocationAccuracyKilometer = 1000.0;
inline constexpr double kCLLocationAccuracyThreeKilometers = 3000.0;
// Every movement is reported.
inline constexpr double kCLDistanceFilterNone = -1.0;

// Authorization status of the location service, with the platform's raw values.
enum class AuthorizationStatus : std::int32_t {
    notDetermined = 0,
    restricted = 1,
    denied = 2,
    authorizedAlways = 3,
    authorizedWhenInUse = 4,
};

enum class AccuracyAuthorization : std::int32_t { fullAccuracy = 0, reducedAccuracy = 1 };

}  // namespace rovalis
