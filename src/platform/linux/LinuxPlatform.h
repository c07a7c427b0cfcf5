#pragma once

#include "rovalis/Platform.h"
#include "util/DataRoot.h"

namespace rovalis {

// The real Linux bundle: the system clock, a main run loop on a thread of its own, and the
// key-value state in <root>/Preferences.sqlite. The keychain member is not filled in yet:
// the file keychain under <root>/Keychain joins the bundle here once it exists.
Platform makeLinuxPlatform(const DataRoot& root);

}  // namespace rovalis
