#pragma once

// Recording stand-ins for the tracking core, as the trackers see it.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/TrackingInterfaces.h"
#include "events/EventRepository.h"

namespace rovalis::test {

class RecordingSleepInitiator final : public RVLInitiateSleepType {
public:
    void initiateSleepWithReason(const std::string& reason) override { reasons.push_back(reason); }
    std::vector<std::string> reasons;
};

class RecordingWakeUpInitiator final : public RVLInitiateWakeUpType {
public:
    void initiateWakeUpWithReason(const std::string& reason, const std::optional<Location>& last) override {
        requests.emplace_back(reason, last);
    }
    std::vector<std::pair<std::string, std::optional<Location>>> requests;
};

class RecordingLocationUpdateReceiver final : public RVLLocationUpdateReceiver {
public:
    void didUpdateLocation(const Location& location, const std::string& provider) override {
        updates.emplace_back(location, provider);
    }
    std::optional<Location> lastLocation() const override { return last; }

    std::vector<std::pair<Location, std::string>> updates;
    std::optional<Location> last;
};

inline Location fixAt(double latitude, double longitude, double accuracy, Date timestamp) {
    return Location{{latitude, longitude}, 41.5, accuracy, 8.0, 1.25, 270.0, timestamp};
}

// The stored events, oldest first.
inline std::vector<nlohmann::json> storedEvents(EventRepository& repository) {
    std::vector<nlohmann::json> events;
    for (const auto& row : repository.fetchEventsPayloadTo(std::nullopt, 0)) {
        events.push_back(nlohmann::json::parse(row.payload));
    }
    return events;
}

}  // namespace rovalis::test
