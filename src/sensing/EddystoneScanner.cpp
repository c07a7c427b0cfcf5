#include "sensing/EddystoneScanner.h"

#include <list>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <variant>

#include "rovalis/Console.h"
#include "util/Fatal.h"

namespace rovalis {

class EddystoneScanner::Registry {
public:
    // Parses one advertisement and records what it says; the sighting it makes, if any.
    std::optional<EddystoneSighting> handle(const BleAdvertisement& advertisement) {
        const auto serviceData = advertisement.serviceData.find(kEddystoneServiceUUID);
        const auto frame = serviceData == advertisement.serviceData.end()
                               ? std::nullopt
                               : parseEddystoneFrame(serviceData->second);

        const std::lock_guard lock(mutex_);
        ++counters_.advertisements;
        if (!frame) {
            ++counters_.malformed;
            return std::nullopt;
        }
        KnownEddystoneBeacon& known = touch(advertisement.address, advertisement.timestamp);
        std::optional<EddystoneSighting> sighting;
        if (const auto* uid = std::get_if<EddystoneUid>(&*frame)) {
            sighting = EddystoneSighting{uid->identifierHex(), advertisement.rssi, advertisement.timestamp,
                                         advertisement.address};
        } else if (const auto* eid = std::get_if<EddystoneEid>(&*frame)) {
            sighting = EddystoneSighting{eid->identifierHex(), advertisement.rssi, advertisement.timestamp,
                                         advertisement.address};
        } else if (const auto* url = std::get_if<EddystoneUrl>(&*frame)) {
            ++counters_.urls;
            known.url = url->url;
        } else {
            ++counters_.telemetry;
            known.telemetry = std::get<EddystoneTlm>(*frame);
        }
        if (sighting) {
            ++counters_.sightings;
            known.eid = sighting->eid;
        }
        return sighting;
    }

    std::vector<KnownEddystoneBeacon> knownBeacons() const {
        const std::lock_guard lock(mutex_);
        return {recency_.begin(), recency_.end()};
    }

    Counters counters() const {
        const std::lock_guard lock(mutex_);
        return counters_;
    }

private:
    // The entry of the device, moved to the front as the most recently heard. Needs mutex_.
    KnownEddystoneBeacon& touch(const std::string& address, Date seen) {
        if (const auto found = byAddress_.find(address); found != byAddress_.end()) {
            recency_.splice(recency_.begin(), recency_, found->second);
        } else {
            recency_.push_front(KnownEddystoneBeacon{address, std::nullopt, std::nullopt, std::nullopt, seen});
            byAddress_.emplace(address, recency_.begin());
            if (recency_.size() > maxKnownBeacons) {
                byAddress_.erase(recency_.back().address);
                recency_.pop_back();
            }
        }
        recency_.front().lastSeen = seen;
        return recency_.front();
    }

    mutable std::mutex mutex_;
    Counters counters_;
    std::list<KnownEddystoneBeacon> recency_;  // most recently heard first
    std::unordered_map<std::string, std::list<KnownEddystoneBeacon>::iterator> byAddress_;
};

std::shared_ptr<EddystoneScanner> EddystoneScanner::create(std::shared_ptr<BluetoothScannerType> scanner,
                                                           std::shared_ptr<RunLoop> mainRunLoop,
                                                           QueueFactory makeQueue) {
    if (!mainRunLoop || !makeQueue) fatalError("EddystoneScanner needs a main run loop and a queue factory");
    auto queue = makeQueue(queueLabel);
    if (!queue) fatalError("EddystoneScanner got no queue");
    return std::shared_ptr<EddystoneScanner>(
        new EddystoneScanner(std::move(scanner), std::move(mainRunLoop), std::move(queue)));
}

EddystoneScanner::EddystoneScanner(std::shared_ptr<BluetoothScannerType> scanner,
                                   std::shared_ptr<RunLoop> mainRunLoop, std::shared_ptr<Executor> queue)
    : scanner_(std::move(scanner)),
      mainRunLoop_(std::move(mainRunLoop)),
      queue_(std::move(queue)),
      registry_(std::make_shared<Registry>()) {}

EddystoneScanner::~EddystoneScanner() {
    if (scanning_) scanner_->stopScanning();
    // The platform scanner queues nothing more now; let what it queued before run out, so
    // that no parsing for this scanner goes on once it is gone.
    if (!queue_->isCurrent()) queue_->sync([] {});
}

bool EddystoneScanner::isAvailable() const {
    return scanner_ && scanner_->isScanningAvailable();
}

void EddystoneScanner::startScanning(SightingHandler handler) {
    handler_ = std::move(handler);
    if (scanning_) return;  // the running scan keeps going for the new handler
    if (!isAvailable()) {
        Console::log("Eddystone scanning is not available: Bluetooth LE scanning is unavailable");
        return;
    }
    scanning_ = true;
    const std::uint64_t generation = ++scanGeneration_;
    scanner_->startScanning(
        {kEddystoneServiceUUID}, queue_,
        [registry = registry_, loop = std::weak_ptr<RunLoop>(mainRunLoop_),
         self = weak_from_this(), generation](const BleAdvertisement& advertisement) {
            auto sighting = registry->handle(advertisement);
            if (!sighting) return;
            if (const auto mainLoop = loop.lock()) {
                mainLoop->async([self, sighting = std::move(*sighting), generation] {
                    if (const auto scanner = self.lock()) scanner->deliver(sighting, generation);
                });
            }
        });
}

void EddystoneScanner::stopScanning() {
    handler_ = nullptr;
    if (!scanning_) return;
    scanning_ = false;
    ++scanGeneration_;  // sightings already posted are not delivered
    scanner_->stopScanning();
}

void EddystoneScanner::deliver(const EddystoneSighting& sighting, std::uint64_t scanGeneration) {
    if (!scanning_ || scanGeneration != scanGeneration_ || !handler_) return;
    // A copy: the handler may stop or restart the scan, which replaces handler_.
    const SightingHandler handler = handler_;
    handler(sighting);
}

std::vector<KnownEddystoneBeacon> EddystoneScanner::knownBeacons() const {
    return registry_->knownBeacons();
}

EddystoneScanner::Counters EddystoneScanner::counters() const {
    return registry_->counters();
}

}  // namespace rovalis
