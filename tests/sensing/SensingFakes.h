#pragma once

// Recording stand-ins for the tracking core, as the trackers see it.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <GeographicLib/Geodesic.hpp>

#include "core/TrackingInterfaces.h"

namespace rovalis::test {

class RecordingSleepInitiator final : public RVLInitiateSleepType {
public:
    void initiateSleepWithReason(const std::string& reason) override { reasons.push_back(reason); }
    std::vector<std::string> reasons;
};

class RecordingWakeUpInitiator final : public RVLInitiateWakeUpType {
public:
    struct Request {
        std::string reason;
        std::optional<Location> lastKnownLocation;
    };
    void initiateWakeUpWithReason(const std::string& reason,
                                  const std::optional<Location>& lastKnownLocation) override {
        requests.push_back({reason, lastKnownLocation});
    }
    std::vector<Request> requests;
};

class RecordingLocationUpdateReceiver final : public RVLLocationUpdateReceiver {
public:
    void didUpdateLocation(const Location& location, const std::string& provider) override {
        updates.emplace_back(location, provider);
        last = location;
    }
    std::optional<Location> lastLocation() const override { return last; }

    std::vector<std::pair<Location, std::string>> updates;
    std::optional<Location> last;
};

inline Location fixAt(double latitude, double longitude, double accuracy, Date timestamp) {
    return Location{{latitude, longitude}, 41.5, accuracy, 8.0, 1.25, 270.0, timestamp};
}

// The fix `metres` from `from` along `bearing` on the WGS84 ellipsoid, at the given time.
inline Location moved(const Location& from, double metres, double bearing, Date timestamp) {
    double latitude = 0.0, longitude = 0.0;
    GeographicLib::Geodesic::WGS84().Direct(from.coordinate.latitude, from.coordinate.longitude, bearing, metres,
                                            latitude, longitude);
    return fixAt(latitude, longitude, from.horizontalAccuracy, timestamp);
}

}  // namespace rovalis::test
