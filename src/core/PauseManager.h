#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/PauseManagerType.h"
#include "core/UserDefaultsManager.h"
#include "events/EventStoreInterfaces.h"
#include "rovalis/Date.h"
#include "rovalis/DateSource.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/Location.h"
#include "rovalis/platform/LocationManager.h"

namespace rovalis {

// Where and when the SDK went to sleep, kept across launches as JSON with the keys
// "latitude", "longitude", "accuracy" (metres) and "date".
struct PauseRecord {
    double latitude = 0.0;
    double longitude = 0.0;
    double accuracy = 0.0;
    Date date;

    // The JSON bytes, keys in field order. The date is written the way the platform's JSON
    // encoder writes dates by default: seconds since 2001-01-01 00:00 UTC as a number.
    // None when a value is not finite: JSON cannot hold it.
    std::optional<std::vector<std::uint8_t>> encode() const;
    // None for bytes that are not such a record (not JSON, a key missing or not a number,
    // or a position that is not on the globe): the bytes come from disk and may be damaged.
    static std::optional<PauseRecord> decode(const std::vector<std::uint8_t>& bytes);

    friend bool operator==(const PauseRecord&, const PauseRecord&) = default;
};
using RVLPauseRecord = PauseRecord;

// PreSleep reason code of a sleep reason text: 0 (no movement) when the text contains
// "no movement", as the stay detector's reasons do; 1 (unknown) otherwise.
long preSleepReasonCode(std::string_view reason);
// PreWakeUp reason code of a wake-up reason text: the first reason whose raw text the
// reason contains ("exited geofence" 0, "entered surrounding geofence" 1,
// "significant location" 2); 3 (unknown) when none does.
long preWakeUpReasonCode(std::string_view reason);
// Whether a wake-up reason names a beacon: "beacon" in any letter case, as every reason of
// beacon ranging does.
bool namesBeacon(std::string_view reason);

// Runs one short burst of best-accuracy fixes before a transition, records each usable fix
// as a Waypoint, and hands the first fresh, accurate fix (or, at the time-out, the latest
// usable one or the last known location) to the transition: PreSleep and the pause record
// before sleeping, PreWakeUp and the moved test before waking. Every fix, the last known
// location included, passes the fix check first. When no usable position is left at the
// time-out, the sleep goes on without a centre (and without a pause record) and the wake-up
// counts as moved.
//
// Lives on the main run loop; the caller must own it through a shared_ptr, because it is
// the location manager's (weak) delegate and the time-out timer holds it weakly.
class PauseManager final : public PauseManagerType,
                           public LocationManagerDelegate,
                           public std::enable_shared_from_this<PauseManager> {
public:
    static constexpr double maximumFixAgeSeconds = 2.0;
    static constexpr double maximumFixAccuracyMetres = 63.0;
    static constexpr double movedThresholdMetres = 28.0;
    static constexpr double pauseLocationAltitude = 50.0;
    static constexpr double pauseLocationVerticalAccuracy = 50.0;
    static constexpr const char* waypointProvider = "PauseManager";

    PauseManager(std::shared_ptr<LocationManagerType> locationManager,
                 std::weak_ptr<RVLEventInsertable> eventRepository,
                 std::weak_ptr<RVLPauseRecordModifier> pauseRecordManager, std::shared_ptr<RVLDateSource> dateSource,
                 std::shared_ptr<RunLoop> runLoop, double locationUpdateTimeout,
                 std::function<void(const Location&)> waypointStored = {});
    // A burst cut short by the manager's end stops its updates; nothing is handed over.
    ~PauseManager() override;
    PauseManager(const PauseManager&) = delete;
    PauseManager& operator=(const PauseManager&) = delete;

    // PauseManagerType
    void sleepWithReason(const std::string& reason, const std::optional<Location>& lastKnownLocation,
                         std::function<void(const std::optional<Location>& center)> completion) override;
    void wakeupWithReason(const std::string& reason, const std::optional<Location>& lastKnownLocation,
                          std::function<void(bool moved)> completion) override;

    // LocationManagerDelegate
    void locationManagerDidUpdateLocations(LocationManagerType& manager,
                                           const std::vector<Location>& locations) override;

    // Whether `fix` lies away from `pauseLocation`: the distance less a margin for the two
    // accuracies (10 % of their combined accuracy below 100 m, 20 % from there on) is more
    // than 28 m.
    static bool hasMoved(const Location& fix, const Location& pauseLocation);

    // The place a pause record describes, as a fix to measure distances from.
    static Location pauseLocation(const PauseRecord& record);

private:
    using LocationCallback = std::function<void(const std::optional<Location>&)>;

    void startBurst(const std::optional<Location>& lastKnownLocation, LocationCallback callback);
    void finishBurst();
    void recordSleep(const std::string& reason, const std::optional<Location>& center);
    bool recordWakeUpAndTestMoved(const std::string& reason, const Location& fix);

    const std::shared_ptr<LocationManagerType> locationManager_;
    const std::weak_ptr<RVLEventInsertable> eventRepository_;
    const std::weak_ptr<RVLPauseRecordModifier> pauseRecordManager_;
    const std::shared_ptr<RVLDateSource> dateSource_;
    const std::shared_ptr<RunLoop> runLoop_;
    const double locationUpdateTimeout_;
    // Told of each fix stored as a waypoint, for the host.
    const std::function<void(const Location&)> waypointStored_;
    std::optional<Location> lastLocation_;
    std::shared_ptr<RunLoopTimer> timer_;
    LocationCallback locationCallback_;
};

}  // namespace rovalis
