#pragma once

// Fixes a platform may hand over that the SDK must refuse, for the tests of every path by
// which fixes enter it.

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "rovalis/platform/Location.h"

namespace rovalis::test {

struct SpoiledFix {
    Location fix;
    // What the console line says is wrong with it.
    std::string defect;
};

// `good` with one value spoiled at a time: off the globe, not finite, a negative accuracy.
inline std::vector<SpoiledFix> spoiledFixes(const Location& good) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double inf = std::numeric_limits<double>::infinity();
    std::vector<SpoiledFix> spoiled;
    const auto add = [&](std::string defect, const std::function<void(Location&)>& spoil) {
        Location fix = good;
        spoil(fix);
        spoiled.push_back({fix, std::move(defect)});
    };
    add("latitude 91 is outside -90 to 90", [](Location& f) { f.coordinate.latitude = 91.0; });
    add("latitude -90.5 is outside -90 to 90", [](Location& f) { f.coordinate.latitude = -90.5; });
    add("latitude nan is not a finite number", [=](Location& f) { f.coordinate.latitude = nan; });
    add("longitude 180.25 is outside -180 to 180", [](Location& f) { f.coordinate.longitude = 180.25; });
    add("longitude -inf is not a finite number", [=](Location& f) { f.coordinate.longitude = -inf; });
    add("horizontal accuracy -1 is negative", [](Location& f) { f.horizontalAccuracy = -1.0; });
    add("horizontal accuracy nan is not a finite number", [=](Location& f) { f.horizontalAccuracy = nan; });
    add("horizontal accuracy inf is not a finite number", [=](Location& f) { f.horizontalAccuracy = inf; });
    add("timestamp nan is not a finite number", [=](Location& f) { f.timestamp = Date{nan}; });
    add("timestamp inf is not a finite number", [=](Location& f) { f.timestamp = Date{inf}; });
    add("speed nan is not a finite number", [=](Location& f) { f.speed = nan; });
    add("course inf is not a finite number", [=](Location& f) { f.course = inf; });
    add("altitude nan is not a finite number", [=](Location& f) { f.altitude = nan; });
    return spoiled;
}

}  // namespace rovalis::test
