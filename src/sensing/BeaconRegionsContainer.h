#pragma once

#include <string>
#include <vector>

#include "rovalis/InfoDictionary.h"
#include "rovalis/platform/Beacons.h"

namespace rovalis {

// The iBeacon regions the host asks the SDK to watch, from its Info settings: under
// "RV_SDK_BEACON_REGIONS", a text holding a JSON array of objects such as
//   {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 1, "minor": 2, "identifier": "lobby"}
// "major" and "minor" (integers 0 to 65535) narrow the region; "minor" only within a "major".
// Without "identifier" the region is called "RVLBeaconRegion_<index in the array>".
//
// A host's typo must not silence the regions it got right: an invalid entry is refused with a
// console line that names its index and why, and the others are kept. Identifiers must be
// unique and must stay clear of the sleep regions' prefix, whose regions the SDK removes at
// will. A setting that is not a text holding a JSON array refuses everything, in one line.
class BeaconRegionsContainer {
public:
    static constexpr const char* infoKey = "RV_SDK_BEACON_REGIONS";
    static constexpr const char* defaultIdentifierPrefix = "RVLBeaconRegion_";

    explicit BeaconRegionsContainer(const InfoDictionary& info);

    // In the order of the array, without the refused entries.
    const std::vector<BeaconRegion>& beaconRegions() const { return regions_; }
    bool contains(const std::string& identifier) const;

private:
    std::vector<BeaconRegion> regions_;
};

}  // namespace rovalis
