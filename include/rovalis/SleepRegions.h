#pragma once

#include <string>

namespace rovalis {

// The regions the SDK lays around a stay while it sleeps: a centre region on the stay that
// reports the device leaving it, and a ring of equal outer regions around it that report the
// device entering them, so that a departure in any direction is noticed early.
//
// The defaults suit the platform's region monitoring: it is unreliable below about 100 m, so
// no region is smaller than 150 m; 150 m is also the distance within which fixes count as one
// stay, so the stay fits the centre region. With a spread factor of 1.0 the outer circles only
// touch the centre circle and each other; 1.2 makes them overlap, leaving no gap to slip
// through. Six outer regions and the centre make seven, which leaves room for beacon regions
// under the usual limit of twenty monitored regions per app.
struct SleepRegionConfiguration {
    double centerRadius = 150.0;  // metres; the outer regions' size follows from it
    double spreadFactor = 1.2;
    int outerRegionCount = 6;
    // Every sleep region's identifier starts with it; other regions are never touched.
    std::string identifierPrefix = "RVLSleepRegion";

    // A positive, finite radius and spread factor, a count from 0 to 18, and a prefix.
    bool isValid() const {
        return centerRadius > 0.0 && centerRadius < 1e7 && spreadFactor > 0.0 && spreadFactor < 100.0 &&
               outerRegionCount >= 0 && outerRegionCount <= 18 && !identifierPrefix.empty();
    }
};

}  // namespace rovalis
