#pragma once

#include <cstdint>
#include <memory>

#include "platform/sim/DeviceLog.h"
#include "platform/sim/EnergyLedger.h"
#include "platform/sim/TruePath.h"
#include "rovalis/RunLoop.h"

namespace rovalis::sim {

// What every service of the simulated device shares: where the device truly is, the run
// loop on whose timers all device activity happens, the energy meter, the log and the seed.
struct DeviceContext {
    std::shared_ptr<const TruePath> path;
    std::shared_ptr<RunLoop> runLoop;
    std::shared_ptr<EnergyMeter> energy;
    std::shared_ptr<DeviceLog> log;
    std::uint64_t seed = 1;
};

}  // namespace rovalis::sim
