#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/platform/Beacons.h"
#include "rovalis/platform/Location.h"

namespace rovalis::sim {

// How the device's location receiver runs: off, or at the finest accuracy that any
// updating location manager asks for. Approximate: the app has reduced accuracy, and every
// fix is a coarse area rather than a position.
enum class LocationMode { off, best, tenMetres, hundredMetres, kilometre, approximate };

// The energy bands of the receiver: satellite fixes (best and ten-metre), Wi-Fi grade
// fixes (hundred-metre), cell grade fixes (kilometre and coarser, approximate).
enum class AccuracyBand { tenMetres, hundredMetres, kilometre };

// None while the receiver is off.
std::optional<AccuracyBand> bandOf(LocationMode mode);
// The mode a location manager's desired accuracy asks for (metres, or one of the negative
// best values).
LocationMode modeForDesiredAccuracy(double desiredAccuracy);
// True when `a` gives finer fixes than `b` (off is the coarsest of all).
bool isFiner(LocationMode a, LocationMode b);

// What the motion-activity classifier can tell apart.
enum class ActivityClass { stationary, walking, running, cycling, automotive };

const char* toString(LocationMode mode);
const char* toString(AccuracyBand band);
const char* toString(ActivityClass activity);

enum class RegionEventKind { enter, exit };
const char* toString(RegionEventKind kind);

// What the device did, for the map of a simulated day: every fix it handed out, the regions
// it watched and their crossings, the significant changes, how the receiver and the
// activity classifier changed over time, the crossings of beacon regions and the ranging
// rounds that heard a beacon. Entries are in time order.
struct DeviceLog {
    struct Fix {
        Date time;  // when the fix was delivered (a cached fix keeps its older timestamp in `location`)
        Location location;
        AccuracyBand band = AccuracyBand::tenMetres;
        bool cached = false;  // the last known fix, handed to a manager that starts in best mode
        friend bool operator==(const Fix&, const Fix&) = default;
    };
    struct RegionSpan {
        CircularRegion region;
        Date from;
        std::optional<Date> to;  // none while still monitored
        friend bool operator==(const RegionSpan&, const RegionSpan&) = default;
    };
    struct RegionEvent {
        Date time;
        std::string identifier;
        RegionEventKind kind = RegionEventKind::exit;
        // How many location managers' delegates were told (none when no process was there).
        std::size_t recipients = 0;
        friend bool operator==(const RegionEvent&, const RegionEvent&) = default;
    };
    struct SignificantChange {
        Location location;
        std::size_t recipients = 0;
        friend bool operator==(const SignificantChange&, const SignificantChange&) = default;
    };
    struct ModeChange {
        Date time;
        LocationMode mode = LocationMode::off;
        friend bool operator==(const ModeChange&, const ModeChange&) = default;
    };
    struct ActivityChange {
        Date time;       // when the classifier settled on the class
        Date startDate;  // when the activity began, as reported
        ActivityClass activity = ActivityClass::stationary;
        friend bool operator==(const ActivityChange&, const ActivityChange&) = default;
    };

    // The beacons of one constraint that one ranging round heard, as the app got them.
    struct RangingRound {
        Date time;
        BeaconIdentityConstraint constraint;
        std::vector<RangedBeacon> beacons;  // strongest first; never empty
        // How many location managers' delegates got the round.
        std::size_t recipients = 0;
        friend bool operator==(const RangingRound&, const RangingRound&) = default;
    };

    std::vector<Fix> fixes;
    std::vector<RegionSpan> regionSpans;
    std::vector<RegionEvent> regionEvents;
    std::vector<SignificantChange> significantChanges;
    std::vector<ModeChange> modeChanges;
    std::vector<ActivityChange> activityChanges;
    std::vector<RegionEvent> beaconRegionEvents;
    std::vector<RangingRound> rangingRounds;

    // Records a change of the receiver's mode. Changes at one instant collapse into the
    // last of them (a manager restarted with a new accuracy passes through off for no time),
    // and a change back to the mode before is no change at all.
    void noteMode(Date time, LocationMode mode);

    friend bool operator==(const DeviceLog&, const DeviceLog&) = default;
};

}  // namespace rovalis::sim
