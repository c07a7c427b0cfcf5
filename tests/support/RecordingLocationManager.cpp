#include "support/RecordingLocationManager.h"

#include <algorithm>

namespace rovalis::test {

void RecordingLocationManager::startMonitoring(const CircularRegion& region) {
    const auto found = std::find_if(monitoredRegions_.begin(), monitoredRegions_.end(),
                                    [&](const CircularRegion& r) { return r.identifier == region.identifier; });
    if (found != monitoredRegions_.end()) {
        *found = region;
    } else {
        monitoredRegions_.push_back(region);
    }
    calls_.push_back("startMonitoring:" + region.identifier);
}

void RecordingLocationManager::stopMonitoring(const CircularRegion& region) {
    std::erase_if(monitoredRegions_, [&](const CircularRegion& r) { return r.identifier == region.identifier; });
    calls_.push_back("stopMonitoring:" + region.identifier);
}

}  // namespace rovalis::test
