#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace rovalis {

// Creates the directory, and any missing parent, with mode 0700, and sets 0700 on it if it
// already exists. On failure writes a console line and returns false.
bool ensurePrivateDirectory(const std::filesystem::path& directory);

// Creates the file empty with mode 0600 if it is missing (an existing file keeps its
// contents) and sets 0600 on it. On failure writes a console line and returns false.
bool ensurePrivateFile(const std::filesystem::path& file);

// The directory under which the SDK keeps everything it writes: the key-value state, the
// keychain, the event store and the Documents folder. Directories in it are private to the
// user (0700), and so are the files the SDK writes (0600).
class DataRoot {
public:
    // Uses the given directory, creating it if needed. An empty path means the default root
    // of a host without an identifier.
    explicit DataRoot(std::filesystem::path root);

    // The root for a host that does not choose one.
    static DataRoot forHost(const std::optional<std::string>& hostIdentifier);

    // $XDG_DATA_HOME/rovalis/<host identifier>, with $HOME/.local/share when XDG_DATA_HOME is
    // unset or not absolute, and "rovalis" in place of a missing identifier. Characters that
    // would leave the directory ("/", a name of "." or "..") are replaced.
    static std::filesystem::path defaultPath(const std::optional<std::string>& hostIdentifier);

    const std::filesystem::path& root() const { return root_; }

    // False when the root could not be created or made private (a console line says why).
    bool isUsable() const { return usable_; }

    // <root>/Documents, created on demand.
    std::filesystem::path documents() const { return privateDirectory("Documents"); }

    // <root>/<name>, created on demand with mode 0700. The name is one path component.
    std::filesystem::path privateDirectory(const std::string& name) const;

private:
    std::filesystem::path root_;
    bool usable_ = false;
};

}  // namespace rovalis
