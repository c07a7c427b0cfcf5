#pragma once

#include "rovalis/Platform.h"
#include "util/DataRoot.h"

namespace rovalis {

// The real Linux bundle: the system clock, a main run loop on a thread of its own, the
// key-value state in <root>/Preferences.sqlite and the keychain in <root>/Keychain, the
// process's default notification centre, the battery and power profile from sysfs, and
// motion managers that report no sensors.
Platform makeLinuxPlatform(const DataRoot& root);

}  // namespace rovalis
