#pragma once

#include <memory>
#include <vector>

#include "rovalis/platform/LocationManager.h"

namespace rovalis {

// What a location tracker offers its forwarder: the fixes the platform delivered, in
// delivery order.
class LocationManagerDelegateType {
public:
    virtual ~LocationManagerDelegateType() = default;
    virtual void didUpdateLocations(const std::vector<Location>& locations) = 0;
};

class LocationManagerForwarderType {
public:
    virtual ~LocationManagerForwarderType() = default;
    virtual std::shared_ptr<LocationManagerDelegateType> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<LocationManagerDelegateType> delegate) = 0;
};

// The platform delegate of a tracker's location manager. The location manager holds its
// delegate weakly and the tracker holds this forwarder, so a tracker is never kept alive
// by the platform; fixes that arrive after the tracker has gone are dropped.
class LocationManagerForwarder final : public LocationManagerDelegate, public LocationManagerForwarderType {
public:
    std::shared_ptr<LocationManagerDelegateType> delegate() const override { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<LocationManagerDelegateType> delegate) override { delegate_ = std::move(delegate); }

    void locationManagerDidUpdateLocations(LocationManagerType& manager,
                                           const std::vector<Location>& locations) override;

private:
    std::weak_ptr<LocationManagerDelegateType> delegate_;
};

}  // namespace rovalis
