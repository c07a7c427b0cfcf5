#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/DebugEventsManager.h"
#include "core/TrackingInterfaces.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/LocationManager.h"
#include "sensing/LocationManagerForwarder.h"
#include "sensing/LocationVerifier.h"
#include "sensing/StayDetector.h"

namespace rovalis {

// The tracker of the awake SDK. It keeps fixes coming, asks for ten-metre accuracy for the
// first 10 seconds of every 70 and for hundred-metre accuracy the rest of the time, hands
// each accepted fix to the location update receiver and the stay detector, and asks for
// sleep when the stay detector reports a stay.
//
// Lives on the main run loop; owned through a shared_ptr (create), because the forwarder,
// the stay detector and the timers hold it weakly.
class RegularLocationTracker final : public RVLTracker,
                                     public LocationManagerDelegateType,
                                     public LocationProcessor,
                                     public StayDetectorDelegate,
                                     public LocationVerifier,
                                     public std::enable_shared_from_this<RegularLocationTracker> {
public:
    static constexpr double dutyCycleInterval = 70.0;   // seconds
    static constexpr double finePeriodDuration = 10.0;  // seconds
    static constexpr const char* provider = "regular";

    // Configures the location manager for background updates at hundred-metre accuracy,
    // makes the forwarder its delegate and this tracker the stay detector's delegate.
    static std::shared_ptr<RegularLocationTracker> create(
        std::shared_ptr<LocationManagerType> locationManager, std::shared_ptr<LocationManagerForwarder> forwarder,
        std::weak_ptr<RVLInitiateSleepType> sleepInitiationProvider, std::unique_ptr<StayDetectorType> stayDetector,
        std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
        std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager, std::shared_ptr<RunLoop> runLoop);
    ~RegularLocationTracker() override;

    RegularLocationTracker(const RegularLocationTracker&) = delete;
    RegularLocationTracker& operator=(const RegularLocationTracker&) = delete;

    // RVLTracker
    void setup() override {}
    void start() override {}
    void stop() override;
    void halt() override;
    void speedUp() override;
    void slowDown(const std::optional<Location>& centerLocation) override;

    // LocationVerifier
    double maximumHorizontalAccuracy() const override { return 2600.0; }
    double maximumAge() const override { return 3.0; }

    // LocationManagerDelegateType
    void didUpdateLocations(const std::vector<Location>& locations) override;
    // LocationProcessor
    void processLocation(const Location& location) override;
    // StayDetectorDelegate
    void didDetectStay(const Location& center) override;

    // "no movement in <whole minutes> minutes" for a stay time limit in seconds.
    static std::string stayReason(double timeLimit);

    bool isRegularTracking() const { return timerLong_ != nullptr; }
    bool isInFinePeriod() const { return timerShort_ != nullptr; }

private:
    RegularLocationTracker(std::shared_ptr<LocationManagerType> locationManager,
                           std::weak_ptr<RVLInitiateSleepType> sleepInitiationProvider,
                           std::unique_ptr<StayDetectorType> stayDetector,
                           std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver,
                           std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager,
                           std::shared_ptr<LocationManagerForwarder> forwarder, std::shared_ptr<RunLoop> runLoop);

    void openFinePeriod();
    void closeFinePeriod();
    void invalidateTimers();

    const std::shared_ptr<LocationManagerType> locationManager_;
    const std::weak_ptr<RVLInitiateSleepType> sleepInitiationProvider_;
    const std::unique_ptr<StayDetectorType> stayDetector_;
    const std::weak_ptr<RVLLocationUpdateReceiver> locationUpdateReceiver_;
    const std::shared_ptr<RVLDebugEventsInsertable> debugEventsManager_;
    const std::shared_ptr<LocationManagerForwarder> forwarder_;
    const std::shared_ptr<RunLoop> runLoop_;
    std::shared_ptr<RunLoopTimer> timerLong_;
    std::shared_ptr<RunLoopTimer> timerShort_;
};

}  // namespace rovalis
