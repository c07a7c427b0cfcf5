#pragma once

#include <memory>
#include <vector>

#include "rovalis/Error.h"
#include "rovalis/Export.h"
#include "rovalis/platform/Beacons.h"
#include "rovalis/platform/Location.h"

namespace rovalis {

class LocationManagerType;

// What a location manager reports. Every callback arrives on the main run loop; a delegate
// implements the ones it needs.
class ROVALIS_EXPORT LocationManagerDelegate {
public:
    virtual ~LocationManagerDelegate() = default;

    virtual void locationManagerDidUpdateLocations(LocationManagerType& /*manager*/,
                                                   const std::vector<Location>& /*locations*/) {}
    virtual void locationManagerDidEnterRegion(LocationManagerType& /*manager*/, const CircularRegion& /*region*/) {}
    virtual void locationManagerDidExitRegion(LocationManagerType& /*manager*/, const CircularRegion& /*region*/) {}
    virtual void locationManagerDidEnterBeaconRegion(LocationManagerType& /*manager*/, const BeaconRegion& /*region*/) {}
    virtual void locationManagerDidExitBeaconRegion(LocationManagerType& /*manager*/, const BeaconRegion& /*region*/) {}
    // One round of ranging: the beacons of the constraint heard now, nearest first.
    virtual void locationManagerDidRangeBeacons(LocationManagerType& /*manager*/,
                                                const std::vector<RangedBeacon>& /*beacons*/,
                                                const BeaconIdentityConstraint& /*constraint*/) {}
    virtual void locationManagerDidChangeAuthorization(LocationManagerType& /*manager*/) {}
    virtual void locationManagerDidFailWithError(LocationManagerType& /*manager*/, const Error& /*error*/) {}
};

// The platform location manager, one to one. Each instance has its own settings and
// delegate; several instances share the one location service of the device. Used from the
// main run loop only.
class ROVALIS_EXPORT LocationManagerType {
public:
    virtual ~LocationManagerType() = default;

    // The delegate is held weakly: one that has gone is simply not called.
    virtual std::shared_ptr<LocationManagerDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) = 0;

    virtual bool allowsBackgroundLocationUpdates() const = 0;
    virtual void setAllowsBackgroundLocationUpdates(bool allows) = 0;
    virtual bool pausesLocationUpdatesAutomatically() const = 0;
    virtual void setPausesLocationUpdatesAutomatically(bool pauses) = 0;
    virtual double distanceFilter() const = 0;
    virtual void setDistanceFilter(double metres) = 0;
    virtual double desiredAccuracy() const = 0;
    virtual void setDesiredAccuracy(double metres) = 0;

    virtual std::vector<CircularRegion> monitoredRegions() const = 0;

    virtual void startUpdatingLocation() = 0;
    virtual void stopUpdatingLocation() = 0;
    virtual void startMonitoringSignificantLocationChanges() = 0;
    virtual void stopMonitoringSignificantLocationChanges() = 0;
    virtual void startMonitoring(const CircularRegion& region) = 0;
    virtual void stopMonitoring(const CircularRegion& region) = 0;

    // iBeacon regions and ranging. A location source without Bluetooth keeps these defaults: it
    // monitors no beacon region and ranges nothing, and says so through isRangingAvailable.
    virtual bool isRangingAvailable() const { return false; }
    virtual std::vector<BeaconRegion> monitoredBeaconRegions() const { return {}; }
    // A region with the identifier of one already monitored replaces it.
    virtual void startMonitoringBeaconRegion(const BeaconRegion& /*region*/) {}
    virtual void stopMonitoringBeaconRegion(const BeaconRegion& /*region*/) {}
    virtual std::vector<BeaconIdentityConstraint> rangedBeaconConstraints() const { return {}; }
    // Reports a round about every second to the delegate until stopped.
    virtual void startRangingBeacons(const BeaconIdentityConstraint& /*constraint*/) {}
    virtual void stopRangingBeacons(const BeaconIdentityConstraint& /*constraint*/) {}

    virtual AuthorizationStatus authorizationStatus() const = 0;
    // Whether the platform knows the permission and the location services' state yet. One
    // that learns them only after starting (on Linux, once gpsd first answers) says false
    // until then and reports an authorization change when they become known.
    virtual bool authorizationKnown() const { return true; }
    virtual AccuracyAuthorization accuracyAuthorization() const = 0;
    virtual bool locationServicesEnabled() const = 0;
};

}  // namespace rovalis
