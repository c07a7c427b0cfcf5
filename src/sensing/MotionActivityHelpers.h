#pragma once

// What the SDK reads from one motion-activity classification: the activity codes it
// records, and the texts and tests used in debug output.

#include <string>
#include <vector>

#include "rovalis/platform/Motion.h"

namespace rovalis {

// The codes of the activity kinds that are set, in this order: stationary 0, walking 1,
// running 2, automotive 3, cycling 4, unknown 5. These are the IOSActivity event's codes.
std::vector<long> activityTypeArray(const MotionActivity& activity);

// "Low", "Medium" or "High"; "Low" for a value the classifier does not define.
std::string confidenceString(const MotionActivity& activity);

// The kinds that are set, comma-separated, in the order of activityTypeArray, such as
// "stationary,automotive"; empty when none is set.
std::string motionTypeStrings(const MotionActivity& activity);

// Only unknown is set.
bool isUnknown(const MotionActivity& activity);
// Only stationary is set.
bool isStationaryOnly(const MotionActivity& activity);
// Walking, running, automotive or cycling is set, whatever else is.
bool isNonStationary(const MotionActivity& activity);

}  // namespace rovalis
