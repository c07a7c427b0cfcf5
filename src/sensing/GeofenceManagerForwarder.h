#pragma once

#include <memory>

#include "rovalis/platform/LocationManager.h"

namespace rovalis {

// What the receiver of region crossings offers the geofence forwarder. The location manager
// it forwards for watches the sleep regions and the beacon regions.
class GeofenceManagerDelegateType {
public:
    virtual ~GeofenceManagerDelegateType() = default;
    virtual void didEnterRegion(const CircularRegion& region) = 0;
    virtual void didExitRegion(const CircularRegion& region) = 0;
    virtual void didEnterBeaconRegion(const BeaconRegion& region) = 0;
    virtual void didExitBeaconRegion(const BeaconRegion& region) = 0;
};

// The platform delegate of the location manager that monitors regions. Crossings reported
// after the delegate has gone are dropped.
class GeofenceManagerForwarder final : public LocationManagerDelegate {
public:
    std::shared_ptr<GeofenceManagerDelegateType> delegate() const { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<GeofenceManagerDelegateType> delegate) { delegate_ = std::move(delegate); }

    void locationManagerDidEnterRegion(LocationManagerType& manager, const CircularRegion& region) override;
    void locationManagerDidExitRegion(LocationManagerType& manager, const CircularRegion& region) override;
    void locationManagerDidEnterBeaconRegion(LocationManagerType& manager, const BeaconRegion& region) override;
    void locationManagerDidExitBeaconRegion(LocationManagerType& manager, const BeaconRegion& region) override;

private:
    std::weak_ptr<GeofenceManagerDelegateType> delegate_;
};

}  // namespace rovalis
