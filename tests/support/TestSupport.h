#pragma once

// Small helpers shared by the tests.

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Console.h"

namespace rovalis::test {

// A fresh directory under the system's temporary folder, removed with everything in it
// when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Sets an environment variable (or unsets it, for no value) while it lives, and puts the old
// value back after.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        set(name_, value);
    }
    ~ScopedEnv() { set(name_, old_ ? old_->c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    static void set(const char* name, const char* value) {
        if (value) ::setenv(name, value, 1); else ::unsetenv(name);
    }
    const char* name_;
    std::optional<std::string> old_;
};

// Unpadded base64url, as an access token carries its parts; and a token of three parts
// whose payload is the given JSON text.
std::string base64Url(const std::string& data);
std::string tokenWithPayload(const std::string& json);

// The permission bits of a file or directory (a failed stat is reported and gives 0).
unsigned fileMode(const std::filesystem::path& path);
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& bytes);

// Overwrites with garbage the leaf page in the middle of a table's pages in a closed SQLite
// file whose journal has been checkpointed, as a failing flash block would; answers how
// many rows that page held.
std::size_t damageMiddleLeafPage(const std::filesystem::path& database, const std::string& table);

// Collects the console's lines while it lives, and restores the previous sink after.
class ConsoleCapture {
public:
    ConsoleCapture();
    ~ConsoleCapture();
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    Console::Sink previous_;
};

}  // namespace rovalis::test
