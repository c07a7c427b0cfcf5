// The simulator's trace reader: a trace file can come from any recorder or be cut short.
// Each input is refused with a TraceError or read as at least one point, in time order, each
// at a finite time on the globe.
//
// The first byte chooses: 0 GPX, 1 CSV.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "platform/sim/TraceReader.h"

namespace {

using rovalis::fuzz::require;

void check(const std::vector<rovalis::sim::TracePoint>& points) {
    require(!points.empty(), "a trace read without a point");
    for (const auto& point : points) {
        require(std::isfinite(point.time.secondsSince1970), "a point without a finite time");
        require(std::abs(point.coordinate.latitude) <= 90 && std::abs(point.coordinate.longitude) <= 180,
                "a point off the globe");
        if (point.accuracy) require(std::isfinite(*point.accuracy) && *point.accuracy >= 0, "a point with a bad accuracy");
    }
    require(std::is_sorted(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.time < b.time; }),
            "points out of time order");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const auto text = rovalis::fuzz::asText(data + 1, size - 1);
    try {
        check(data[0] % 2 == 0 ? rovalis::sim::parseGpx(text) : rovalis::sim::parseCsv(text));
    } catch (const rovalis::sim::TraceError&) {
        // A refusal names what is wrong; that is all a reader owes a bad file.
    }
    return 0;
}
