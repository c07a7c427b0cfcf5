#pragma once

#include <string>
#include <vector>

#include "Recorder.h"

namespace rovalis::tracegen {

struct NamedPlace {
    std::string name;
    LocationCoordinate2D where;
};

// The places where the day's person stays, for the summary.
std::vector<NamedPlace> londonWeekdayPlaces();

// A weekday in London from `midnight` to the next midnight (UTC, which is London's clock in
// winter): home in Herne Hill, the train to Blackfriars, an office by St Paul's, a lunch walk
// over the river with a café, the Tube home to Brixton, a shop, home.
void recordLondonWeekday(Recorder& recorder, Date midnight);

}  // namespace rovalis::tracegen
