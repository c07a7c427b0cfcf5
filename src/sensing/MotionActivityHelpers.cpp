#include "sensing/MotionActivityHelpers.h"

#include <array>
#include <utility>

namespace rovalis {

namespace {

// The six flags in code order, with their names.
std::array<std::pair<bool, const char*>, 6> flags(const MotionActivity& activity) {
    return {{{activity.stationary, "stationary"},
             {activity.walking, "walking"},
             {activity.running, "running"},
             {activity.automotive, "automotive"},
             {activity.cycling, "cycling"},
             {activity.unknown, "unknown"}}};
}

}  // namespace

std::vector<long> activityTypeArray(const MotionActivity& activity) {
    std::vector<long> codes;
    long code = 0;
    for (const auto& [set, name] : flags(activity)) {
        if (set) codes.push_back(code);
        ++code;
    }
    return codes;
}

std::string confidenceString(const MotionActivity& activity) {
    switch (activity.confidence) {
        case MotionActivityConfidence::medium:
            return "Medium";
        case MotionActivityConfidence::high:
            return "High";
        case MotionActivityConfidence::low:
            break;
    }
    return "Low";
}

std::string motionTypeStrings(const MotionActivity& activity) {
    std::string text;
    for (const auto& [set, name] : flags(activity)) {
        if (!set) continue;
        if (!text.empty()) text += ',';
        text += name;
    }
    return text;
}

bool isUnknown(const MotionActivity& activity) {
    return activity.unknown && !activity.stationary && !isNonStationary(activity);
}

bool isStationaryOnly(const MotionActivity& activity) {
    return activity.stationary && !activity.unknown && !isNonStationary(activity);
}

bool isNonStationary(const MotionActivity& activity) {
    return activity.walking || activity.running || activity.automotive || activity.cycling;
}

}  // namespace rovalis
