#pragma once

#include <functional>
#include <optional>
#include <string>

#include "rovalis/platform/Location.h"

namespace rovalis {

// A short burst of accurate fixes before a transition: the centre of the stay before
// sleeping, the point of departure before waking. Used from the main run loop.
class PauseManagerType {
public:
    virtual ~PauseManagerType() = default;
    // The completion gets the best fix of the burst (or the last known location); none when
    // neither is usable.
    virtual void sleepWithReason(const std::string& reason, const std::optional<Location>& lastKnownLocation,
                                 std::function<void(const std::optional<Location>& center)> completion) = 0;
    // The completion gets whether the device has moved away from where it went to sleep; true
    // when there is no usable position to tell.
    virtual void wakeupWithReason(const std::string& reason, const std::optional<Location>& lastKnownLocation,
                                  std::function<void(bool moved)> completion) = 0;
};

}  // namespace rovalis
