#include "platform/linux/LinuxSystemState.h"

#include <time.h>

#include <fstream>
#include <string>
#include <utility>

namespace rovalis {

LinuxSystemState::LinuxSystemState(std::filesystem::path platformProfile)
    : platformProfile_(std::move(platformProfile)) {}

bool LinuxSystemState::isLowPowerModeEnabled() const {
    std::ifstream in(platformProfile_);
    std::string profile;
    return in && std::getline(in, profile) && profile == "low-power";
}

double LinuxSystemState::systemUptime() const {
    struct timespec now {};
    if (::clock_gettime(CLOCK_BOOTTIME, &now) != 0) return 0.0;
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace rovalis
