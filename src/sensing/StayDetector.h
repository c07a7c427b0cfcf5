#pragma once

#include <memory>
#include <optional>

#include "rovalis/platform/Location.h"
#include "sensing/Cluster.h"

namespace rovalis {

class StayDetectorDelegate {
public:
    virtual ~StayDetectorDelegate() = default;
    // The device stayed within the distance limit of `center` for longer than the time limit.
    virtual void didDetectStay(const Location& center) = 0;
};

// What the regular tracker needs of its stay detector.
class StayDetectorType {
public:
    virtual ~StayDetectorType() = default;
    virtual void processLocation(const Location& location) = 0;
    virtual void setDelegate(std::weak_ptr<StayDetectorDelegate> delegate) = 0;
    // Regular tracking starts afresh: no cluster, no smoothed position.
    virtual void resetCluster() = 0;
    virtual void resetCurrentLocation() = 0;
    // Seconds a cluster must span before a stay is reported.
    virtual double timeLimit() const = 0;
};

// Decides from the stream of accepted fixes that the device has stopped moving: fixes within
// distanceLimit of the running centre grow a cluster, and a cluster that spans more than the
// time limit is a stay. Distances are measured to a smoothed position, so that one noisy fix
// does not break a cluster. Runs on the main run loop.
class StayDetector final : public StayDetectorType {
public:
    static constexpr double distanceLimit = 150.0;  // metres

    // timeLimit: seconds (see stayTimeLimit of the build configuration).
    explicit StayDetector(double timeLimit) : timeLimit_(timeLimit) {}

    void processLocation(const Location& location) override;
    void setDelegate(std::weak_ptr<StayDetectorDelegate> delegate) override { delegate_ = std::move(delegate); }
    void resetCluster() override { cluster_.reset(); }
    void resetCurrentLocation() override { currentLocation_.reset(); }
    double timeLimit() const override { return timeLimit_; }

    const Cluster* cluster() const { return cluster_.get(); }
    const std::optional<Location>& currentLocation() const { return currentLocation_; }

private:
    void addToCluster(const Location& location);

    const double timeLimit_;
    std::unique_ptr<Cluster> cluster_;
    std::optional<Location> currentLocation_;
    std::weak_ptr<StayDetectorDelegate> delegate_;
};

}  // namespace rovalis
