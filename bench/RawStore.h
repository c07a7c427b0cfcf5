#pragma once

// The bare baselines' tools: SQLite with the event store's table and settings but
// none of its code, and zlib called directly.

#include <sqlite3.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "events/EventRecords.h"

namespace rovalis::bench {

// A row as bare SQLite writes it: the store's columns.
struct RawRow {
    std::string type;
    double trackedAt = 0;  // seconds, as the store keeps them
    std::string payload;
};

// The records encoded by the SDK's encoder (the payloads are the same on both sides).
std::vector<RawRow> rawRows(const std::vector<EventRecord>& events);

class RawStore {
public:
    explicit RawStore(const std::filesystem::path& path);
    ~RawStore();
    RawStore(const RawStore&) = delete;
    RawStore& operator=(const RawStore&) = delete;

    void exec(const char* sql);
    // Writes the rows 300 per transaction.
    void insertAll(const std::vector<RawRow>& rows);

    sqlite3* db = nullptr;

private:
    sqlite3_stmt* insert_ = nullptr;
};

// Gzip (default level, gzip wrapper, memory level 8, default strategy) in one deflate call.
std::string rawGzip(std::string_view data);

}  // namespace rovalis::bench
