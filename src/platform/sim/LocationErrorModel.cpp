#include "platform/sim/LocationErrorModel.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace rovalis::sim {

namespace {

constexpr double earthRadius = 6371008.8;  // metres, mean
constexpr double degrees = 180.0 / std::numbers::pi;
constexpr double gridCell = 2000.0;  // metres, of approximate fixes
// Satellite fixes coarser than this have not settled enough to tell speed and course.
constexpr double settledAccuracy = 65.0;
constexpr double coldStartLow = 150.0;
constexpr double coldStartHigh = 300.0;

struct Band {
    double low;         // metres
    double high;        // metres
    double errorTau;    // seconds over which the error drifts
};

Band bandFor(LocationMode mode) {
    switch (mode) {
        case LocationMode::best:
        case LocationMode::tenMetres:
            return {3.0, 10.0, 20.0};
        case LocationMode::hundredMetres:
            return {20.0, 65.0, 60.0};
        case LocationMode::kilometre:
            return {300.0, 3000.0, 300.0};
        case LocationMode::approximate:
        case LocationMode::off:
            break;
    }
    return {1000.0, 3000.0, 600.0};
}

double wrapLongitude(double longitude) {
    longitude = std::fmod(longitude + 180.0, 360.0);
    if (longitude < 0.0) longitude += 360.0;
    return longitude - 180.0;
}

}  // namespace

void LocationErrorModel::beginAcquisition(Date now, const std::optional<Location>& recent, bool satelliteWarm) {
    acquisitionStart_ = now;
    if (recent && recent->horizontalAccuracy >= 0.0) {
        acquisitionFrom_ = std::min(recent->horizontalAccuracy, coldStartHigh);
        acquisitionTau_ = satelliteWarm ? 0.8 : 1.5;
    } else {
        acquisitionFrom_ = random_.uniform(coldStartLow, coldStartHigh);
        acquisitionTau_ = 1.5;
    }
}

Location LocationErrorModel::fix(Date now, LocationMode mode, const TruePath::State& truth) {
    const double elapsed = lastFix_ ? now.timeIntervalSince(*lastFix_) : 0.0;
    lastFix_ = now;
    const Band band = bandFor(mode);
    const bool satellite = mode == LocationMode::best || mode == LocationMode::tenMetres;

    // The accuracy wanders over the band on a scale of half a minute.
    const double wander = accuracyWander_.next(random_, elapsed, 30.0);
    const double share = 1.0 / (1.0 + std::exp(-1.6 * wander));
    double accuracy = band.low * std::pow(band.high / band.low, share);
    if ((satellite || mode == LocationMode::hundredMetres) && acquisitionFrom_ > accuracy) {
        const double since = std::max(0.0, now.timeIntervalSince(acquisitionStart_));
        accuracy += (acquisitionFrom_ - accuracy) * std::exp(-since / acquisitionTau_);
    }
    const double north = north_.next(random_, elapsed, band.errorTau);
    const double east = east_.next(random_, elapsed, band.errorTau);
    const double up = vertical_.next(random_, elapsed, band.errorTau);

    Location fix;
    fix.timestamp = now;
    fix.horizontalAccuracy = accuracy;
    if (mode == LocationMode::approximate) {
        fix.coordinate = approximate(truth.coordinate);
        return fix;
    }
    const double sigma = accuracy / accuracyPerSigma;
    fix.coordinate = offset(truth.coordinate, north * sigma, east * sigma);
    if (!satellite) return fix;
    fix.verticalAccuracy = std::max(3.0, accuracy * 1.5);
    fix.altitude = terrainAltitude(truth.coordinate) + up * fix.verticalAccuracy * 0.7;
    if (accuracy <= settledAccuracy) {
        fix.speed = truth.speed > 0.0 ? std::max(0.0, truth.speed + 0.15 * random_.normal()) : 0.0;
        if (truth.course >= 0.0) {
            fix.course = std::fmod(truth.course + 2.0 * random_.normal() + 360.0, 360.0);
        }
    }
    return fix;
}

Location LocationErrorModel::coarseFix(SimulationRandom& random, Date now, const TruePath::State& truth,
                                       bool approximate) {
    Location fix;
    fix.timestamp = now;
    if (approximate) {
        fix.horizontalAccuracy = random.uniform(1000.0, 3000.0);
        fix.coordinate = LocationErrorModel::approximate(truth.coordinate);
        return fix;
    }
    fix.horizontalAccuracy = random.logUniform(100.0, 1500.0);
    const double sigma = fix.horizontalAccuracy / accuracyPerSigma;
    const double north = random.normal() * sigma;
    const double east = random.normal() * sigma;
    fix.coordinate = offset(truth.coordinate, north, east);
    return fix;
}

LocationCoordinate2D LocationErrorModel::approximate(LocationCoordinate2D coordinate) {
    const double latitudeStep = gridCell / earthRadius * degrees;
    const double latitude =
        std::clamp((std::floor(coordinate.latitude / latitudeStep) + 0.5) * latitudeStep, -90.0, 90.0);
    const double longitudeStep = latitudeStep / std::max(std::cos(latitude / degrees), 0.01);
    const double longitude = wrapLongitude((std::floor(coordinate.longitude / longitudeStep) + 0.5) * longitudeStep);
    return {latitude, longitude};
}

LocationCoordinate2D LocationErrorModel::offset(LocationCoordinate2D coordinate, double north, double east) {
    const double latitude = std::clamp(coordinate.latitude + north / earthRadius * degrees, -90.0, 90.0);
    const double cosine = std::max(std::cos(coordinate.latitude / degrees), 1e-6);
    const double longitude = wrapLongitude(coordinate.longitude + east / (earthRadius * cosine) * degrees);
    return {latitude, longitude};
}

double LocationErrorModel::terrainAltitude(LocationCoordinate2D coordinate) {
    return 40.0 + 25.0 * std::sin(coordinate.latitude * 70.0) * std::cos(coordinate.longitude * 55.0);
}

}  // namespace rovalis::sim
