#include "sensing/StayDetector.h"

namespace rovalis {

void StayDetector::processLocation(const Location& location) {
    if (!cluster_) {
        cluster_ = std::make_unique<Cluster>(location, timeLimit_);
        return;
    }

    // Three quarters of the new fix, one quarter of the position so far.
    const Location smoothed =
        currentLocation_
            ? locationAt(0.75 * location.coordinate.latitude + 0.25 * currentLocation_->coordinate.latitude,
                         0.75 * location.coordinate.longitude + 0.25 * currentLocation_->coordinate.longitude)
            : location;
    currentLocation_ = smoothed;

    if (!(cluster_->center().distanceFrom(smoothed) > distanceLimit)) {
        addToCluster(location);
        return;
    }
    // Moved away: the raw fix starts a new cluster, the smoothed position carries on.
    cluster_ = std::make_unique<Cluster>(location, timeLimit_);
}

void StayDetector::addToCluster(const Location& location) {
    cluster_->add(location);
    if (!(cluster_->duration() > cluster_->timeLimit())) return;
    // Copied: the delegate may reset this detector while it is being told.
    const Location center = cluster_->center();
    if (const auto delegate = delegate_.lock()) delegate->didDetectStay(center);
    cluster_.reset();
    currentLocation_.reset();
}

}  // namespace rovalis
