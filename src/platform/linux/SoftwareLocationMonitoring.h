#pragma once

#include <optional>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

// Region monitoring, the significant-change service and update pacing, done in software
// from a stream of fixes for a location source that offers none of them itself.

// Where a fix puts the device relative to a region. Accuracy counts against certainty:
// outside only when even the nearest point the fix allows lies beyond the radius, inside
// only when even the farthest lies within it; in between nothing is known.
enum class RegionSide { unknown, inside, outside };
RegionSide regionSide(const CircularRegion& region, const Location& fix);

// Whether a region can be monitored at all: a finite, positive radius around a point on
// the globe.
bool isMonitorableRegion(const CircularRegion& region);

// The monitored regions of the process, each with the side it was last known to be on.
// The first side learnt after a region is added is its initial state and reports nothing.
class RegionMonitor {
public:
    struct Crossing {
        CircularRegion region;
        bool entered = false;  // false: exited
    };

    // A region with the identifier of one already monitored replaces it and starts afresh.
    void startMonitoring(const CircularRegion& region);
    void stopMonitoring(const std::string& identifier);

    // In the order they were first added.
    std::vector<CircularRegion> regions() const;
    bool empty() const { return entries_.empty(); }

    // The crossings this fix makes, for the regions that notify them, in region order.
    std::vector<Crossing> process(const Location& fix);

private:
    struct Entry {
        CircularRegion region;
        RegionSide side = RegionSide::unknown;
    };
    std::vector<Entry> entries_;
};

// The significant-change service of one client: the first fix after a start, then a fix
// that lies far enough from the last one reported, once enough time has passed.
class SignificantChangeFilter {
public:
    static constexpr double minimumDistanceMetres = 500.0;
    static constexpr double minimumIntervalSeconds = 300.0;

    void reset() { last_.reset(); }
    bool accepts(const Location& fix, Date now) const;
    void record(const Location& fix, Date now) { last_ = Reported{fix, now}; }

private:
    struct Reported {
        Location fix;
        Date at;
    };
    std::optional<Reported> last_;
};

// The shortest time between two fixes delivered to a client that asks for this accuracy
// (metres, or one of the negative best modes): every fix for ten metres and finer, one a
// second up to a kilometre, one every ten seconds for a kilometre and coarser.
double minimumUpdateInterval(double desiredAccuracy);

}  // namespace rovalis
