#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace rovalis {

// Which device the SDK runs on. The hardware string is what the upload protocol sends as
// the handset; the lookups read the device list shipped with the library
// ("DeviceList.json": hardware string -> {"name": text, "version": number}).
//
// No instances and no device state: every call asks the kernel, and every lookup reads
// the list again.
class RVL_DeviceUtil {
public:
    RVL_DeviceUtil() = delete;

    // The kernel's machine identifier (uname's machine field), e.g. "x86_64".
    static std::string hardwareString();

    // The device list, or none when it cannot be read or is not a JSON object.
    static std::optional<nlohmann::json> getDeviceList();

    // The list's "name" for this device, or none (and the two console lines).
    static std::optional<std::string> hardwareDescription();

    // hardwareDescription without its parenthesised suffix; a generation such as "(3 Gen)"
    // is kept. The space before a removed suffix stays.
    static std::optional<std::string> hardwareSimpleDescription();

    // The list's "version" for this device, or 200 (and the two console lines) when that is
    // missing or zero.
    static float hardwareNumber();

    // Writes the two console lines about an unlisted device.
    static void logMessage(const std::string& hardwareString);

    // The directory the list is looked up in: "<dir>/DeviceUtil/DeviceList.json" first,
    // then "<dir>/DeviceList.json". Defaults to $ROVALIS_RESOURCE_DIR, else the data
    // directory the library was built with. An empty path restores the default.
    static void setResourceDirectory(std::filesystem::path directory);
    static std::filesystem::path resourceDirectory();

    // What hardwareSimpleDescription does to a description, on its own.
    static std::string simpleDescription(const std::string& description);

private:
    static std::optional<nlohmann::json> entryForThisDevice();
};

}  // namespace rovalis
