#pragma once

#include <memory>
#include <vector>

#include "rovalis/platform/LocationManager.h"

namespace rovalis {

// What beacon ranging offers its forwarder: each round of ranging as the platform reports it.
class BeaconRangingDelegate {
public:
    virtual ~BeaconRangingDelegate() = default;
    virtual void didRangeBeacons(const std::vector<RangedBeacon>& beacons,
                                 const BeaconIdentityConstraint& constraint) = 0;
};

// The platform delegate of the ranger's own location manager. The location manager holds it
// weakly and the ranger holds it, so the platform never keeps the ranger alive; rounds that
// arrive after the ranger has gone are dropped.
class BeaconRangerForwarder final : public LocationManagerDelegate {
public:
    std::shared_ptr<BeaconRangingDelegate> delegate() const { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<BeaconRangingDelegate> delegate) { delegate_ = std::move(delegate); }

    void locationManagerDidRangeBeacons(LocationManagerType& manager, const std::vector<RangedBeacon>& beacons,
                                        const BeaconIdentityConstraint& constraint) override;

private:
    std::weak_ptr<BeaconRangingDelegate> delegate_;
};

}  // namespace rovalis
