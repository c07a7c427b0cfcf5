#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/Executor.h"
#include "rovalis/RunLoop.h"
#include "rovalis/platform/Beacons.h"
#include "sensing/BeaconFrames.h"
#include "sensing/BeaconInterfaces.h"

namespace rovalis {

// What the advertisements of one device have said so far.
struct KnownEddystoneBeacon {
    std::string address;
    std::optional<std::string> eid;  // identifier of its latest UID or EID frame
    std::optional<std::string> url;
    std::optional<EddystoneTlm> telemetry;
    Date lastSeen;  // timestamp of its latest valid frame

    friend bool operator==(const KnownEddystoneBeacon&, const KnownEddystoneBeacon&) = default;
};

// Scans for Eddystone beacons over Bluetooth LE. Advertisements of service 0xFEAA are parsed
// on the scanner's own queue; UID and EID frames become sightings, handed to the handler on
// the main run loop in the order they were heard. URL and TLM frames identify nobody: they
// only add to what is known of the device that sent them. Frames that do not parse are
// counted and otherwise ignored: anyone nearby can send anything.
class EddystoneScanner final : public EddystoneScannerType, public std::enable_shared_from_this<EddystoneScanner> {
public:
    struct Counters {
        std::uint64_t advertisements = 0;  // handed over by the platform scanner
        std::uint64_t sightings = 0;       // UID and EID frames
        std::uint64_t telemetry = 0;       // TLM frames
        std::uint64_t urls = 0;            // URL frames
        std::uint64_t malformed = 0;       // advertisements without a valid frame

        friend bool operator==(const Counters&, const Counters&) = default;
    };

    // Devices remembered at most; the least recently heard one goes first.
    static constexpr std::size_t maxKnownBeacons = 256;
    static constexpr const char* queueLabel = "rovalis.eddystone";

    using QueueFactory = std::function<std::shared_ptr<Executor>(const std::string& label)>;

    // makeQueue is asked once, here, for the serial queue the advertisements are parsed on.
    // Without a scanner (a device without Bluetooth LE) nothing is ever available.
    static std::shared_ptr<EddystoneScanner> create(std::shared_ptr<BluetoothScannerType> scanner,
                                                    std::shared_ptr<RunLoop> mainRunLoop, QueueFactory makeQueue);
    // Stops a scan it started, and waits for the advertisements already on the queue.
    ~EddystoneScanner() override;

    EddystoneScanner(const EddystoneScanner&) = delete;
    EddystoneScanner& operator=(const EddystoneScanner&) = delete;

    // EddystoneScannerType; main run loop only.
    bool isAvailable() const override;
    void startScanning(SightingHandler handler) override;
    void stopScanning() override;

    bool isScanning() const { return scanning_; }

    // Safe from any thread. The devices most recently heard first.
    std::vector<KnownEddystoneBeacon> knownBeacons() const;
    Counters counters() const;

private:
    // What the queue and the main loop share, behind one mutex. The platform scanner's handler
    // holds it, not the scanner, so that the scanner is only ever released on the main loop.
    class Registry;

    EddystoneScanner(std::shared_ptr<BluetoothScannerType> scanner, std::shared_ptr<RunLoop> mainRunLoop,
                     std::shared_ptr<Executor> queue);

    // Posted to the main loop for every sighting; drops those that arrive after a stop.
    void deliver(const EddystoneSighting& sighting, std::uint64_t scanGeneration);

    const std::shared_ptr<BluetoothScannerType> scanner_;
    const std::shared_ptr<RunLoop> mainRunLoop_;
    const std::shared_ptr<Executor> queue_;
    const std::shared_ptr<Registry> registry_;
    // Main loop only.
    SightingHandler handler_;
    bool scanning_ = false;
    std::uint64_t scanGeneration_ = 0;
};

}  // namespace rovalis
