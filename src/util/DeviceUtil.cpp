#include "util/DeviceUtil.h"

#include <dlfcn.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <mutex>

#include "rovalis/Console.h"

namespace rovalis {
namespace {

std::mutex resourceMutex;
std::filesystem::path resourceOverride;
std::filesystem::path resourceFallback;

std::optional<nlohmann::json> readList(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    nlohmann::json list = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
    if (!list.is_object()) return std::nullopt;
    return list;
}

// A number, or text that starts with one (read the way a numeric text field reads), as a
// float; anything else reads as zero.
float floatValue(const nlohmann::json& value) {
    if (value.is_number()) return value.get<float>();
    if (value.is_string()) return std::strtof(value.get_ref<const std::string&>().c_str(), nullptr);
    if (value.is_boolean()) return value.get<bool>() ? 1.0f : 0.0f;
    return 0.0f;
}

}  // namespace

std::string RVL_DeviceUtil::hardwareString() {
    struct utsname name {};
    if (::uname(&name) != 0) return {};
    return name.machine;
}

void RVL_DeviceUtil::setResourceDirectory(std::filesystem::path directory) {
    std::lock_guard lock(resourceMutex);
    resourceOverride = std::move(directory);
}

void RVL_DeviceUtil::setFallbackResourceDirectory(std::filesystem::path directory) {
    std::lock_guard lock(resourceMutex);
    resourceFallback = std::move(directory);
}

std::vector<std::filesystem::path> RVL_DeviceUtil::resourceDirectories() {
    std::filesystem::path fallback;
    {
        std::lock_guard lock(resourceMutex);
        if (!resourceOverride.empty()) return {resourceOverride};
        fallback = resourceFallback;
    }
    std::vector<std::filesystem::path> directories;
    const auto add = [&directories](const std::filesystem::path& directory) {
        if (directory.empty()) return;
        if (std::find(directories.begin(), directories.end(), directory) == directories.end()) {
            directories.push_back(directory);
        }
    };
    if (const char* fromEnvironment = std::getenv("ROVALIS_RESOURCE_DIR"); fromEnvironment && *fromEnvironment) {
        add(fromEnvironment);
    }
    std::error_code noProgram;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", noProgram);
    // The file this function is in, when it is a shared library. For a static library dladdr
    // names the program instead, possibly as it was started (argv[0]); the program's own place
    // comes next in any case.
    Dl_info self{};
    if (::dladdr(reinterpret_cast<const void*>(&RVL_DeviceUtil::resourceDirectories), &self) != 0 &&
        self.dli_fname != nullptr && self.dli_fname[0] == '/') {
        const std::filesystem::path library = self.dli_fname;
        std::error_code ignored;
        if (noProgram || !std::filesystem::equivalent(library, program, ignored)) {
            add((library.parent_path() / ROVALIS_DATA_FROM_LIBDIR).lexically_normal());
        }
    }
    if (!noProgram) add((program.parent_path() / ROVALIS_DATA_FROM_BINDIR).lexically_normal());
    add(fallback);
    return directories;
}

std::optional<nlohmann::json> RVL_DeviceUtil::getDeviceList() {
    for (const auto& directory : resourceDirectories()) {
        // The list's own folder when it is there; otherwise the directory itself.
        const std::filesystem::path ownBundle = directory / "DeviceUtil";
        if (std::filesystem::is_directory(ownBundle)) return readList(ownBundle / "DeviceList.json");
        if (std::filesystem::exists(directory / "DeviceList.json")) return readList(directory / "DeviceList.json");
    }
    return std::nullopt;
}

std::optional<nlohmann::json> RVL_DeviceUtil::entryForThisDevice() {
    const auto list = getDeviceList();
    if (!list) return std::nullopt;
    const auto entry = list->find(hardwareString());
    if (entry == list->end() || !entry->is_object()) return std::nullopt;
    return *entry;
}

std::optional<std::string> RVL_DeviceUtil::hardwareDescription() {
    if (const auto entry = entryForThisDevice()) {
        const auto name = entry->find("name");
        if (name != entry->end() && name->is_string()) return name->get<std::string>();
    }
    logMessage(hardwareString());
    return std::nullopt;
}

std::string RVL_DeviceUtil::simpleDescription(const std::string& description) {
    // Removes every match of the expression \((?![0-9]+ Gen).*\) (case-insensitive): from an
    // opening parenthesis that does not start a generation such as "(3 Gen)", greedily to
    // the last closing parenthesis on the same line. Written out by hand: it is one small
    // pattern, and a regular-expression engine costs more to build than it saves.
    const auto isLineEnd = [](char c) { return c == '\n' || c == '\r'; };
    const auto startsGeneration = [&](std::size_t open) {
        std::size_t at = open + 1;
        while (at < description.size() && std::isdigit(static_cast<unsigned char>(description[at]))) ++at;
        if (at == open + 1 || description.compare(at, 1, " ") != 0) return false;
        if (description.size() < at + 4) return false;
        return std::tolower(static_cast<unsigned char>(description[at + 1])) == 'g' &&
               std::tolower(static_cast<unsigned char>(description[at + 2])) == 'e' &&
               std::tolower(static_cast<unsigned char>(description[at + 3])) == 'n';
    };

    std::string result;
    std::size_t at = 0;
    while (at < description.size()) {
        if (description[at] == '(' && !startsGeneration(at)) {
            std::size_t lineEnd = at;
            while (lineEnd < description.size() && !isLineEnd(description[lineEnd])) ++lineEnd;
            const std::size_t close = description.rfind(')', lineEnd - 1);
            if (close != std::string::npos && close > at) {
                at = close + 1;
                continue;
            }
        }
        result += description[at++];
    }
    return result;
}

std::optional<std::string> RVL_DeviceUtil::hardwareSimpleDescription() {
    const auto description = hardwareDescription();
    if (!description) return std::nullopt;
    return simpleDescription(*description);
}

float RVL_DeviceUtil::hardwareNumber() {
    float number = 0.0f;
    if (const auto entry = entryForThisDevice()) {
        const auto version = entry->find("version");
        if (version != entry->end()) number = floatValue(*version);
    }
    if (number == 0.0f) {
        logMessage(hardwareString());
        return 200.0f;
    }
    return number;
}

void RVL_DeviceUtil::logMessage(const std::string& hardwareString) {
    Console::log("This is a device which is not listed in this category. "
                 "Please report it, with the line below, to the maintainers of the SDK's device list.");
    Console::log("Your device hardware string is: " + hardwareString);
}

}  // namespace rovalis
