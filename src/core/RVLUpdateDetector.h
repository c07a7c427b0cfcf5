#pragma once

#include <memory>
#include <string>

#include "core/UserDefaultsManager.h"

namespace rovalis {

// Tells whether the app (or the system under it) changed since the last run, by comparing
// the application description with the one stored then.
class RVLUpdateDetector {
public:
    // currentAppInfo: "<display name> <version> (<build>)iOS <system version>".
    RVLUpdateDetector(std::shared_ptr<RVLAppInfoModifier> userDefaultsManager, std::string currentAppInfo);

    // True once after the description changed; false on the very first run, which only
    // records it.
    bool hasAppUpdated();

private:
    const std::shared_ptr<RVLAppInfoModifier> userDefaultsManager_;
    const std::string currentAppInfo_;
};

}  // namespace rovalis
