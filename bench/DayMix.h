#pragma once

// Events in the mix of a real day: the sample weekday (data/traces/london-weekday.gpx with its
// scenario) replayed by rovalis-sim delivers 195,391 events, 185,833 of them accelerations
// (20 Hz while awake) and 9,295 Waypoints (about one a second while awake, full-precision
// doubles), the rest a few dozen of each other kind. The generator keeps those proportions
// and the values' shapes (magnitudes to two decimals, GPS noise, sleep-region identifiers,
// a scan of 16 sightings), so that stored and gzipped sizes come out as a real day's do.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "events/EventRecords.h"

namespace rovalis {
class EventRepository;
}

namespace rovalis::bench {

// `count` events in time order from `start`, the same for the same seed.
std::vector<EventRecord> dayMixEvents(std::size_t count, Date start, std::uint64_t seed = 1);

// Inserts them as the SDK does: accelerations through the acceleration buffer, the rest
// one record at a time; returns once everything is committed.
void storeEvents(EventRepository& store, const std::vector<EventRecord>& events);

}  // namespace rovalis::bench
