#pragma once

// The map page's projection: equirectangular around the middle of what is drawn, with the
// east-west scale shrunk by the cosine of that latitude (on the WGS84 ellipsoid's local
// radii), so that over the few kilometres of a day a metre is the same length on the page in
// every direction.

#include <string>
#include <vector>

#include "rovalis/platform/Location.h"

namespace rovalis::sim {

// A place that must fit on the map, with the circle around it drawn to scale.
struct MapExtent {
    LocationCoordinate2D centre;
    double radius = 0.0;  // metres
};

struct MapPoint {
    double x = 0.0;  // pixels from the left
    double y = 0.0;  // pixels from the top
};

struct ScaleBar {
    double metres = 0.0;
    double pixels = 0.0;
    std::string label;  // "500 m", "2 km"
};

class MapProjection {
public:
    // Fits every extent into a drawing `width` pixels wide and at most `maxHeight` high with
    // `margin` pixels all round, centred; the drawing is as high as the data need, but no less
    // than `minHeight`. Nothing to fit, or a single point, gives a view a few hundred metres
    // across.
    MapProjection(const std::vector<MapExtent>& extents, double width, double maxHeight, double minHeight,
                  double margin);

    MapPoint project(const LocationCoordinate2D& coordinate) const;
    double pixelsPerMetre() const { return pixelsPerMetre_; }
    double width() const { return width_; }
    double height() const { return height_; }
    // The latitude about which the east-west scale is taken, degrees.
    double referenceLatitude() const { return latitude0_; }

    // The longest round length (1, 2 or 5 times a power of ten metres) no longer than
    // `maxPixels` on the map.
    ScaleBar scaleBar(double maxPixels) const;

private:
    // Metres east and north of the reference point.
    MapPoint metres(const LocationCoordinate2D& coordinate) const;

    double latitude0_ = 0.0;
    double longitude0_ = 0.0;
    double metresPerDegreeEast_ = 0.0;
    double metresPerDegreeNorth_ = 0.0;
    double pixelsPerMetre_ = 1.0;
    double width_ = 0.0;
    double height_ = 0.0;
    double originX_ = 0.0;  // page position of the reference point
    double originY_ = 0.0;
};

}  // namespace rovalis::sim
