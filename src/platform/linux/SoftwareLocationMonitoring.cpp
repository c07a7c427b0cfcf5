#include "platform/linux/SoftwareLocationMonitoring.h"

#include <algorithm>
#include <cmath>

namespace rovalis {

RegionSide regionSide(const CircularRegion& region, const Location& fix) {
    Location center;
    center.coordinate = region.center;
    const double distance = fix.distanceFrom(center);
    const double accuracy = std::max(fix.horizontalAccuracy, 0.0);
    if (!std::isfinite(distance) || !std::isfinite(accuracy)) return RegionSide::unknown;
    if (distance - accuracy > region.radius) return RegionSide::outside;
    if (distance + accuracy <= region.radius) return RegionSide::inside;
    return RegionSide::unknown;
}

bool isMonitorableRegion(const CircularRegion& region) {
    const auto& c = region.center;
    return std::isfinite(region.radius) && region.radius > 0.0 && std::isfinite(c.latitude) &&
           std::isfinite(c.longitude) && c.latitude >= -90.0 && c.latitude <= 90.0 && c.longitude >= -180.0 &&
           c.longitude <= 180.0;
}

void RegionMonitor::startMonitoring(const CircularRegion& region) {
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& e) { return e.region.identifier == region.identifier; });
    if (found != entries_.end()) {
        *found = Entry{region, RegionSide::unknown};
    } else {
        entries_.push_back(Entry{region, RegionSide::unknown});
    }
}

void RegionMonitor::stopMonitoring(const std::string& identifier) {
    std::erase_if(entries_, [&](const Entry& e) { return e.region.identifier == identifier; });
}

std::vector<CircularRegion> RegionMonitor::regions() const {
    std::vector<CircularRegion> result;
    result.reserve(entries_.size());
    for (const Entry& entry : entries_) result.push_back(entry.region);
    return result;
}

std::vector<RegionMonitor::Crossing> RegionMonitor::process(const Location& fix) {
    std::vector<Crossing> crossings;
    for (Entry& entry : entries_) {
        const RegionSide side = regionSide(entry.region, fix);
        if (side == RegionSide::unknown || side == entry.side) continue;
        const RegionSide previous = entry.side;
        entry.side = side;
        if (previous == RegionSide::unknown) continue;
        const bool entered = side == RegionSide::inside;
        if (entered ? entry.region.notifyOnEntry : entry.region.notifyOnExit) {
            crossings.push_back(Crossing{entry.region, entered});
        }
    }
    return crossings;
}

bool SignificantChangeFilter::accepts(const Location& fix, Date now) const {
    if (!last_) return true;
    return now.timeIntervalSince(last_->at) >= minimumIntervalSeconds &&
           fix.distanceFrom(last_->fix) >= minimumDistanceMetres;
}

double minimumUpdateInterval(double desiredAccuracy) {
    if (desiredAccuracy <= kCLLocationAccuracyNearestTenMeters) return 0.0;
    if (desiredAccuracy < kCLLocationAccuracyKilometer) return 1.0;
    return 10.0;
}

}  // namespace rovalis
