#include "core/RVLUpdateDetector.h"

namespace rovalis {

RVLUpdateDetector::RVLUpdateDetector(std::shared_ptr<RVLAppInfoModifier> userDefaultsManager,
                                     std::string currentAppInfo)
    : userDefaultsManager_(std::move(userDefaultsManager)), currentAppInfo_(std::move(currentAppInfo)) {}

bool RVLUpdateDetector::hasAppUpdated() {
    const auto stored = userDefaultsManager_->appInfo();
    if (stored && *stored == currentAppInfo_) return false;
    userDefaultsManager_->setAppInfo(currentAppInfo_);
    return stored.has_value();
}

}  // namespace rovalis
