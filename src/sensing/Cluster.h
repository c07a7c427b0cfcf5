#pragma once

#include <cstddef>
#include <vector>

#include "rovalis/platform/Location.h"

namespace rovalis {

// Consecutive fixes that lie close together, and their centre. A cluster is made from its
// first fix and only ever grows, so it is never empty.
class Cluster {
public:
    // The centre follows the mean of the first this many fixes and then stays put: a long
    // stay costs nothing more per fix.
    static constexpr std::size_t maximumCenteredLocations = 999;

    // A cluster of one: its centre is that fix itself.
    Cluster(const Location& first, double timeLimit);

    // Appends the fix and moves the centre to the mean of the latitudes and of the
    // longitudes of all fixes, as long as there are not more than maximumCenteredLocations.
    void add(const Location& location);

    // Seconds from the first fix to the last.
    double duration() const { return durationOf(locations_); }
    // The same for any list of fixes; an empty list is a programming error.
    static double durationOf(const std::vector<Location>& locations);

    double timeLimit() const { return timeLimit_; }
    const std::vector<Location>& locations() const { return locations_; }
    const Location& center() const { return center_; }

private:
    double timeLimit_;
    std::vector<Location> locations_;
    Location center_;
};

// A location made of a position alone, every other attribute at its default.
Location locationAt(double latitude, double longitude);

}  // namespace rovalis
