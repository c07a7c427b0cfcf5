#pragma once

#include <optional>
#include <string>

#include "rovalis/InfoDictionary.h"

namespace rovalis {

// What the host application tells the SDK about itself at initialisation: its bundle
// information and its Info settings (such as "RV_SDK_BEACON_TRACKING_ENABLED").
struct HostInfo {
    std::string displayName;
    std::string version;
    std::string build;
    std::optional<std::string> identifier;
    InfoDictionary info;

    // True only when the setting is present and is the boolean true; the text "true" or the
    // number 1 does not switch anything on.
    bool isSwitchOn(const std::string& key) const {
        const auto found = info.find(key);
        if (found == info.end()) return false;
        const bool* value = std::get_if<bool>(&found->second);
        return value != nullptr && *value;
    }
};

}  // namespace rovalis
