#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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

    // The directories the list is looked up in, in order; the first that holds it (as
    // "<dir>/DeviceUtil/DeviceList.json" or "<dir>/DeviceList.json") is read. A directory set
    // with setResourceDirectory is the only one (an empty path removes it). Otherwise:
    // $ROVALIS_RESOURCE_DIR; the installed data directory next to the library and next to the
    // program (<libdir>/../share/rovalis and <bindir>/../share/rovalis, which for a static
    // library are the same); and last the fallback a program of the build tree names (the
    // test programs name the source tree's data/).
    static void setResourceDirectory(std::filesystem::path directory);
    static void setFallbackResourceDirectory(std::filesystem::path directory);
    static std::vector<std::filesystem::path> resourceDirectories();

    // What hardwareSimpleDescription does to a description, on its own.
    static std::string simpleDescription(const std::string& description);

private:
    static std::optional<nlohmann::json> entryForThisDevice();
};

}  // namespace rovalis
