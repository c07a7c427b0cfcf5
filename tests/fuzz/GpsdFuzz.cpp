// The gpsd client's reader of the daemon's JSON lines. gpsd relays what a receiver says, and
// anything listening on its port can say anything: every line is one message, and a fix it
// reads is a real place at a real time.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <variant>

#include "FuzzSupport.h"
#include "platform/linux/GpsdProtocol.h"

namespace {

using rovalis::fuzz::require;
namespace gpsd = rovalis::gpsd;

void checkLine(std::string_view line) {
    const rovalis::Date receivedAt{1714566645.0};
    const auto message = gpsd::parseLine(line, receivedAt);
    if (const auto* fix = std::get_if<gpsd::Fix>(&message)) {
        const auto& location = fix->location;
        require(std::isfinite(location.coordinate.latitude) && std::abs(location.coordinate.latitude) <= 90 &&
                    std::isfinite(location.coordinate.longitude) && std::abs(location.coordinate.longitude) <= 180,
                "a fix off the globe");
        require(std::isfinite(location.horizontalAccuracy) && location.horizontalAccuracy >= 0,
                "a fix without a usable accuracy");
        require(std::isfinite(location.timestamp.secondsSince1970), "a fix without a time");
    }
    if (const auto time = gpsd::parseTime(line)) require(std::isfinite(time->secondsSince1970), "a time that is not finite");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // As the client reads its socket: one message a line.
    auto text = rovalis::fuzz::asText(data, size);
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        checkLine(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return 0;
}
