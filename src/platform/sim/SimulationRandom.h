#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <optional>
#include <random>

namespace rovalis::sim {

// The independent random streams of the simulated device. Each service draws from its own
// stream, so that what one service does (how many fixes it made, say) never shifts the
// numbers another one sees.
enum class RandomStream : std::uint64_t {
    locationFixes = 1,
    locationStarts = 2,
    significantChanges = 3,
    regions = 4,
    accelerometer = 5,
    activity = 6,
    device = 7,
    beaconSignals = 8,
    beaconRegions = 9,
    // Seeded by a beacon's identity rather than the device's seed.
    beaconHardware = 10,
};

// A seeded random stream. The engine's output is fixed by the standard; the conversions to
// uniform and normal numbers are our own, because the standard library's distributions may
// differ from one library to another and a seed must give the same day everywhere.
class SimulationRandom {
public:
    SimulationRandom(std::uint64_t seed, RandomStream stream) : engine_(mix(seed, static_cast<std::uint64_t>(stream))) {}

    // In [0, 1), with 53 random bits.
    double uniform() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }
    double uniform(double low, double high) { return low + (high - low) * uniform(); }
    // Spread evenly over the orders of magnitude between low and high (both positive).
    double logUniform(double low, double high) { return low * std::pow(high / low, uniform()); }

    // Standard normal (Box-Muller; the second value of a pair is kept for the next call).
    double normal() {
        if (spare_) {
            const double value = *spare_;
            spare_.reset();
            return value;
        }
        double u = 0.0;
        while (u <= 0.0) u = uniform();
        const double radius = std::sqrt(-2.0 * std::log(u));
        const double angle = 2.0 * std::numbers::pi * uniform();
        spare_ = radius * std::sin(angle);
        return radius * std::cos(angle);
    }

private:
    // splitmix64 over the seed and the stream number, so that neighbouring seeds and
    // streams start the engine far apart.
    static std::uint64_t mix(std::uint64_t seed, std::uint64_t stream) {
        std::uint64_t z = seed + 0x9E3779B97F4A7C15ull * (stream + 1);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    std::mt19937_64 engine_;
    std::optional<double> spare_;
};

// A stationary Gauss-Markov process of unit variance: neighbouring values are correlated
// over about `tau` seconds, values far apart are independent. Measurement errors that drift
// rather than jump from fix to fix follow it.
class CorrelatedNoise {
public:
    double next(SimulationRandom& random, double elapsedSeconds, double tau) {
        if (!started_) {
            started_ = true;
            value_ = random.normal();
            return value_;
        }
        const double keep = std::exp(-std::max(elapsedSeconds, 0.0) / tau);
        value_ = keep * value_ + std::sqrt(1.0 - keep * keep) * random.normal();
        return value_;
    }
    double value() const { return value_; }

private:
    bool started_ = false;
    double value_ = 0.0;
};

}  // namespace rovalis::sim
