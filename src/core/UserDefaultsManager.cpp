#include "core/UserDefaultsManager.h"

#include "util/Fatal.h"

namespace rovalis {

UserDefaultsManager::UserDefaultsManager(std::shared_ptr<KeyValueStore> store)
    : lastSuccessfulEventUploadDate_(store, "RVLLastSuccessfulEventTransmissionDate", Date::distantPast()),
      lastConnectionType_(store, "RVLLastConnectionType", 2),
      appInfo_(store, "RVL_APP_INFO"),
      storedTrackingStatus_(store, "IZSettings14", 0),
      storedTrackingInterruptedReason_(store, "RVL_TRACKING_INTERRUPTED_REASON", 1),
      pauseRecord_(store, "RVL_MANAGERS_PAUSED"),
      dataTransferMode_(store, "RVDataTransferMode", 1),
      isFirstStart_(store, "firstStart", false),
      userActivatedTrackingOnce_(store, "User-Activated-Tracking-Once", false) {
    if (!store) fatalError("UserDefaultsManager needs a key-value store");
}

std::int64_t UserDefaultsManager::storedTrackingInterruptedReason() const {
    const std::int64_t reason = storedTrackingInterruptedReason_.get();
    return reason >= 0 && reason <= 5 ? reason : 1;
}

}  // namespace rovalis
