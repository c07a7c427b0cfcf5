#include "platform/sim/DeviceLog.h"

namespace rovalis::sim {

namespace {

// Coarser modes rank higher; off is above all.
int coarseness(LocationMode mode) {
    switch (mode) {
        case LocationMode::best:
            return 0;
        case LocationMode::tenMetres:
            return 1;
        case LocationMode::hundredMetres:
            return 2;
        case LocationMode::kilometre:
            return 3;
        case LocationMode::approximate:
            return 4;
        case LocationMode::off:
            break;
    }
    return 5;
}

}  // namespace

std::optional<AccuracyBand> bandOf(LocationMode mode) {
    switch (mode) {
        case LocationMode::best:
        case LocationMode::tenMetres:
            return AccuracyBand::tenMetres;
        case LocationMode::hundredMetres:
            return AccuracyBand::hundredMetres;
        case LocationMode::kilometre:
        case LocationMode::approximate:
            return AccuracyBand::kilometre;
        case LocationMode::off:
            break;
    }
    return std::nullopt;
}

LocationMode modeForDesiredAccuracy(double desiredAccuracy) {
    if (desiredAccuracy < 0.0) return LocationMode::best;
    if (desiredAccuracy <= kCLLocationAccuracyNearestTenMeters) return LocationMode::tenMetres;
    if (desiredAccuracy <= kCLLocationAccuracyHundredMeters) return LocationMode::hundredMetres;
    return LocationMode::kilometre;
}

bool isFiner(LocationMode a, LocationMode b) { return coarseness(a) < coarseness(b); }

const char* toString(LocationMode mode) {
    switch (mode) {
        case LocationMode::off:
            return "off";
        case LocationMode::best:
            return "best";
        case LocationMode::tenMetres:
            return "ten-metre";
        case LocationMode::hundredMetres:
            return "hundred-metre";
        case LocationMode::kilometre:
            return "kilometre";
        case LocationMode::approximate:
            return "approximate";
    }
    return "?";
}

const char* toString(AccuracyBand band) {
    switch (band) {
        case AccuracyBand::tenMetres:
            return "ten-metre";
        case AccuracyBand::hundredMetres:
            return "hundred-metre";
        case AccuracyBand::kilometre:
            return "kilometre";
    }
    return "?";
}

const char* toString(ActivityClass activity) {
    switch (activity) {
        case ActivityClass::stationary:
            return "stationary";
        case ActivityClass::walking:
            return "walking";
        case ActivityClass::running:
            return "running";
        case ActivityClass::cycling:
            return "cycling";
        case ActivityClass::automotive:
            return "automotive";
    }
    return "?";
}

const char* toString(RegionEventKind kind) { return kind == RegionEventKind::enter ? "enter" : "exit"; }

void DeviceLog::noteMode(Date time, LocationMode mode) {
    if (!modeChanges.empty() && modeChanges.back().time == time) modeChanges.pop_back();
    if (!modeChanges.empty() && modeChanges.back().mode == mode) return;
    modeChanges.push_back({time, mode});
}

}  // namespace rovalis::sim
