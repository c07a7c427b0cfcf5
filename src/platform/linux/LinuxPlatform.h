#pragma once

#include "rovalis/Platform.h"
#include "rovalis/Rovalis.h"
#include "util/DataRoot.h"

namespace rovalis {

// The real Linux bundle: the system clock, a main run loop on a thread of its own, the
// key-value state in <root>/Preferences.sqlite and the keychain in <root>/Keychain, the
// process's default notification centre, locations from gpsd, the battery and power profile
// from sysfs, and motion managers that report no sensors. A host that brings its own clock or
// main run loop passes them in, and the services are built on them. The settings say where
// gpsd and the power supplies are and which network interfaces count as cellular.
Platform makeLinuxPlatform(const DataRoot& root, std::shared_ptr<RVLDateSource> dateSource = nullptr,
                           std::shared_ptr<RunLoop> mainRunLoop = nullptr, const LinuxPlatformSettings& settings = {});

}  // namespace rovalis
