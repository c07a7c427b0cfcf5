#include "sim/MapProjection.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "sim/ReportFigures.h"

namespace rovalis::sim {

namespace {

constexpr double kSemiMajorAxis = 6378137.0;  // WGS84, metres
constexpr double kEccentricitySquared = 6.69437999014e-3;
constexpr double kMinimumSpan = 400.0;  // metres shown at the least, each way

double radians(double degrees) { return degrees * std::numbers::pi / 180.0; }

// Longitude difference in (-180, 180], so that a day across the antimeridian stays together.
double longitudeDelta(double longitude, double from) {
    double delta = std::fmod(longitude - from, 360.0);
    if (delta > 180.0) delta -= 360.0;
    if (delta <= -180.0) delta += 360.0;
    return delta;
}

bool usable(const LocationCoordinate2D& at) {
    return std::isfinite(at.latitude) && std::isfinite(at.longitude) && std::fabs(at.latitude) <= 90.0;
}

}  // namespace

MapProjection::MapProjection(const std::vector<MapExtent>& extents, double width, double maxHeight, double minHeight,
                             double margin)
    : width_(width) {
    // The reference point: the middle of the centres' latitudes and longitudes.
    double south = std::numeric_limits<double>::infinity(), north = -south, west = south, east = -south;
    std::vector<const MapExtent*> kept;
    for (const auto& extent : extents) {
        if (!usable(extent.centre)) continue;
        if (kept.empty()) longitude0_ = extent.centre.longitude;
        kept.push_back(&extent);
        const double east0 = longitudeDelta(extent.centre.longitude, longitude0_);
        south = std::min(south, extent.centre.latitude);
        north = std::max(north, extent.centre.latitude);
        west = std::min(west, east0);
        east = std::max(east, east0);
    }
    if (!kept.empty()) {
        latitude0_ = (south + north) / 2.0;
        longitude0_ = longitudeDelta(longitude0_ + (west + east) / 2.0, 0.0);
    }
    // The meridian and prime-vertical radii of curvature at the reference latitude.
    const double sine = std::sin(radians(latitude0_));
    const double w = 1.0 - kEccentricitySquared * sine * sine;
    const double primeVertical = kSemiMajorAxis / std::sqrt(w);
    const double meridian = kSemiMajorAxis * (1.0 - kEccentricitySquared) / (w * std::sqrt(w));
    metresPerDegreeEast_ = radians(primeVertical * std::cos(radians(latitude0_)));
    metresPerDegreeNorth_ = radians(meridian);

    // The extent in metres, circles included.
    double left = 0.0, right = 0.0, bottom = 0.0, top = 0.0;
    bool first = true;
    for (const auto* extent : kept) {
        const MapPoint at = metres(extent->centre);
        const double radius = std::isfinite(extent->radius) ? std::max(0.0, extent->radius) : 0.0;
        left = first ? at.x - radius : std::min(left, at.x - radius);
        right = first ? at.x + radius : std::max(right, at.x + radius);
        bottom = first ? at.y - radius : std::min(bottom, at.y - radius);
        top = first ? at.y + radius : std::max(top, at.y + radius);
        first = false;
    }
    const double middleX = (left + right) / 2.0, middleY = (bottom + top) / 2.0;
    const double spanX = std::max(right - left, kMinimumSpan), spanY = std::max(top - bottom, kMinimumSpan);

    const double innerWidth = std::max(1.0, width - 2.0 * margin);
    const double innerMaxHeight = std::max(1.0, maxHeight - 2.0 * margin);
    pixelsPerMetre_ = std::min(innerWidth / spanX, innerMaxHeight / spanY);
    height_ = std::clamp(spanY * pixelsPerMetre_ + 2.0 * margin, std::min(minHeight, maxHeight), maxHeight);
    originX_ = width_ / 2.0 - middleX * pixelsPerMetre_;
    originY_ = height_ / 2.0 + middleY * pixelsPerMetre_;
}

MapPoint MapProjection::metres(const LocationCoordinate2D& coordinate) const {
    return {longitudeDelta(coordinate.longitude, longitude0_) * metresPerDegreeEast_,
            (coordinate.latitude - latitude0_) * metresPerDegreeNorth_};
}

MapPoint MapProjection::project(const LocationCoordinate2D& coordinate) const {
    const MapPoint at = metres(coordinate);
    return {originX_ + at.x * pixelsPerMetre_, originY_ - at.y * pixelsPerMetre_};
}

ScaleBar MapProjection::scaleBar(double maxPixels) const {
    const double most = maxPixels / pixelsPerMetre_;
    double length = std::pow(10.0, std::floor(std::log10(most)));
    for (const double step : {5.0, 2.0}) {
        if (length * step <= most) {
            length *= step;
            break;
        }
    }
    const std::string label =
        length >= 1000.0 ? decimalText(length / 1000.0, 3) + " km" : decimalText(length, 3) + " m";
    return {length, length * pixelsPerMetre_, label};
}

}  // namespace rovalis::sim
