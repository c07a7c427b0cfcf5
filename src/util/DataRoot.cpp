#include "util/DataRoot.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "rovalis/Console.h"
#include "util/Fatal.h"

namespace rovalis {

namespace fs = std::filesystem;

namespace {

void reportFailure(const std::string& what, const fs::path& path, int error) {
    Console::log("Rovalis: cannot " + what + " " + path.string() + ": " + std::strerror(error));
}

std::string homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        return found->pw_dir;
    }
    return fs::temp_directory_path().string();
}

std::string safeComponent(std::string name) {
    for (char& c : name) {
        if (c == '/' || c == '\0') c = '_';
    }
    if (name.empty() || name == "." || name == "..") return "rovalis";
    return name;
}

}  // namespace

bool ensurePrivateDirectory(const fs::path& directory) {
    const fs::path absolute = directory.is_absolute() ? directory : fs::absolute(directory);
    // Create missing ancestors one by one so that each new one is private as well.
    fs::path current;
    for (const auto& part : absolute) {
        current /= part;
        if (::mkdir(current.c_str(), 0700) != 0 && errno != EEXIST) {
            reportFailure("create the directory", current, errno);
            return false;
        }
    }
    struct stat status {};
    if (::stat(absolute.c_str(), &status) != 0) {
        reportFailure("inspect the directory", absolute, errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        Console::log("Rovalis: cannot use " + absolute.string() + " as a directory: a file of that name exists");
        return false;
    }
    if ((status.st_mode & 07777) != 0700 && ::chmod(absolute.c_str(), 0700) != 0) {
        reportFailure("make private the directory", absolute, errno);
        return false;
    }
    return true;
}

bool ensurePrivateFile(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        reportFailure("open the file", file, errno);
        return false;
    }
    const bool ok = ::fchmod(fd, 0600) == 0;
    const int error = errno;
    ::close(fd);
    if (!ok) reportFailure("make private the file", file, error);
    return ok;
}

DataRoot::DataRoot(fs::path root) : root_(root.empty() ? defaultPath(std::nullopt) : std::move(root)) {
    if (!root_.is_absolute()) root_ = fs::absolute(root_);
    usable_ = ensurePrivateDirectory(root_);
}

DataRoot DataRoot::forHost(const std::optional<std::string>& hostIdentifier) {
    return DataRoot(defaultPath(hostIdentifier));
}

fs::path DataRoot::defaultPath(const std::optional<std::string>& hostIdentifier) {
    fs::path base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
        base = xdg;
    } else {
        base = fs::path(homeDirectory()) / ".local" / "share";
    }
    return base / "rovalis" / safeComponent(hostIdentifier.value_or("rovalis"));
}

fs::path DataRoot::privateDirectory(const std::string& name) const {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        fatalError("Invalid private directory name: " + name);
    }
    fs::path directory = root_ / name;
    ensurePrivateDirectory(directory);
    return directory;
}

}  // namespace rovalis
