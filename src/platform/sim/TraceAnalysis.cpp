#include "platform/sim/TraceAnalysis.h"

#include <cmath>
#include <numbers>

namespace rovalis::sim {

namespace {

constexpr double sampleSeconds = 10.0;
// The mean radius of the Earth. Over the few hundred metres a stay spans, the chord between
// two points on this sphere differs from the geodesic distance by far less than a metre.
constexpr double earthRadius = 6371008.8;

struct Vector {
    double x = 0.0, y = 0.0, z = 0.0;

    Vector operator+(const Vector& other) const { return {x + other.x, y + other.y, z + other.z}; }
    Vector operator-(const Vector& other) const { return {x - other.x, y - other.y, z - other.z}; }
    Vector operator*(double factor) const { return {x * factor, y * factor, z * factor}; }
    double squaredLength() const { return x * x + y * y + z * z; }
};

Vector pointOnSphere(LocationCoordinate2D coordinate) {
    const double latitude = coordinate.latitude * std::numbers::pi / 180.0;
    const double longitude = coordinate.longitude * std::numbers::pi / 180.0;
    return Vector{std::cos(latitude) * std::cos(longitude), std::cos(latitude) * std::sin(longitude),
                  std::sin(latitude)} *
           earthRadius;
}

LocationCoordinate2D coordinateOf(const Vector& vector) {
    return {std::atan2(vector.z, std::hypot(vector.x, vector.y)) * 180.0 / std::numbers::pi,
            std::atan2(vector.y, vector.x) * 180.0 / std::numbers::pi};
}

struct Sample {
    Date time;
    Vector position;
};

// Every 10 s from the start, and every recorded point, in time order.
std::vector<Sample> samplesOf(const TruePath& path, const Vector& origin) {
    std::vector<Sample> samples;
    const auto& points = path.points();
    const double span = path.end().timeIntervalSince(path.start());
    samples.reserve(points.size() + static_cast<std::size_t>(span / sampleSeconds) + 1);
    std::size_t next = 0;
    const auto add = [&](Date time) {
        if (samples.empty() || samples.back().time < time) {
            samples.push_back(Sample{time, pointOnSphere(path.at(time).coordinate) - origin});
        }
    };
    for (long step = 0;; ++step) {
        const Date regular = path.start().addingSeconds(static_cast<double>(step) * sampleSeconds);
        while (next < points.size() && points[next].time <= regular) add(points[next++].time);
        if (regular > path.end()) break;
        add(regular);
    }
    while (next < points.size()) add(points[next++].time);
    return samples;
}

}  // namespace

std::vector<TrueStay> findStays(const TruePath& path, double radiusMetres, double minimumSeconds) {
    // Positions are taken from the first one, so that sums over a day keep their precision.
    const Vector origin = pointOnSphere(path.at(path.start()).coordinate);
    const std::vector<Sample> samples = samplesOf(path, origin);
    const double squaredRadius = radiusMetres * radiusMetres;
    const auto piece = [&](std::size_t i) {
        // The time integral of the position from sample i to sample i + 1.
        return (samples[i].position + samples[i + 1].position) *
               (samples[i + 1].time.timeIntervalSince(samples[i].time) / 2.0);
    };
    std::vector<TrueStay> stays;
    // The window is [first, last]; `integral` is the time integral of the position over it.
    std::size_t first = 0, last = 0;
    Vector integral;
    const auto lasted = [&] { return samples[last].time.timeIntervalSince(samples[first].time); };
    const auto meanOf = [&](const Vector& sum, std::size_t from, std::size_t to) {
        const double seconds = samples[to].time.timeIntervalSince(samples[from].time);
        return seconds > 0.0 ? sum * (1.0 / seconds) : samples[from].position;
    };
    const auto close = [&] {
        if (lasted() >= minimumSeconds) {
            stays.push_back(TrueStay{samples[first].time, samples[last].time,
                                     coordinateOf(meanOf(integral, first, last) + origin)});
        }
    };
    for (std::size_t next = 1; next < samples.size(); ++next) {
        while (true) {
            const Vector grown = integral + piece(last);
            const Vector mean = meanOf(grown, first, next);
            if ((samples[next].position - mean).squaredLength() > squaredRadius) {
                // The device is leaving: a window long enough is a stay, and the search goes on
                // from here; a shorter one gives up its oldest sample and tries again.
                if (lasted() >= minimumSeconds) {
                    close();
                    first = last = next;
                    integral = Vector{};
                    break;
                }
            } else {
                bool inside = true;
                for (std::size_t k = first; inside && k < next; ++k) {
                    inside = (samples[k].position - mean).squaredLength() <= squaredRadius;
                }
                if (inside) {
                    integral = grown;
                    last = next;
                    break;
                }
                // The window has settled somewhere its oldest samples are too far from: they
                // were the way in.
            }
            if (first == last) {
                first = last = next;
                integral = Vector{};
                break;
            }
            integral = integral - piece(first);
            ++first;
        }
    }
    close();
    return stays;
}

double pathLength(const TruePath& path) {
    const auto& points = path.points();
    double metres = 0.0;
    for (std::size_t i = 1; i < points.size(); ++i)
        metres += distanceBetween(points[i - 1].coordinate, points[i].coordinate);
    return metres;
}

MovementTimes movementTimes(const TruePath& path) {
    const auto& points = path.points();
    MovementTimes times;
    for (std::size_t i = 1; i < points.size(); ++i) {
        const double seconds = points[i].time.timeIntervalSince(points[i - 1].time);
        const Date middle = points[i - 1].time.addingSeconds(seconds / 2.0);
        (path.at(middle).speed > 0.0 ? times.movingSeconds : times.standingSeconds) += seconds;
    }
    return times;
}

}  // namespace rovalis::sim
