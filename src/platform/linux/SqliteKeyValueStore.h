#pragma once

#include <filesystem>
#include <mutex>

#include "rovalis/platform/KeyValueStore.h"

struct sqlite3;
struct sqlite3_stmt;

namespace rovalis {

// The key-value store on Linux: one SQLite file (mode 0600) with a table of key, kind and
// value, in WAL mode with full syncs, so a value written survives a crash and a restart.
//
// A file that cannot be read as this store (not a database, damaged) is set aside under a
// ".corrupt" name with a console line, and the store starts empty. Should even a fresh
// file be impossible, the store keeps its values in memory for the life of the process
// and says so on the console. A stored value whose kind this build does not know, or whose
// value does not match its kind, reads as absent.
class SqliteKeyValueStore final : public KeyValueStore {
public:
    explicit SqliteKeyValueStore(std::filesystem::path file);
    ~SqliteKeyValueStore() override;

    SqliteKeyValueStore(const SqliteKeyValueStore&) = delete;
    SqliteKeyValueStore& operator=(const SqliteKeyValueStore&) = delete;

    std::optional<Value> object(const std::string& key) const override;
    void setObject(const Value& value, const std::string& key) override;
    void removeObject(const std::string& key) override;

    const std::filesystem::path& path() const { return file_; }
    // False when the values live only in memory because the file could not be used.
    bool isPersistent() const { return persistent_; }

    // The stored kinds, as written in the table's kind column.
    enum Kind : int { kDate = 1, kInteger = 2, kReal = 3, kBool = 4, kString = 5, kBytes = 6 };

private:
    // Opens `name` and prepares the table and statements; on failure closes everything and
    // returns SQLite's message.
    std::optional<std::string> open(const std::string& name);
    void close();
    void setAside();

    const std::filesystem::path file_;
    bool persistent_ = false;
    mutable std::mutex mutex_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt* select_ = nullptr;
    sqlite3_stmt* upsert_ = nullptr;
    sqlite3_stmt* delete_ = nullptr;
};

}  // namespace rovalis
