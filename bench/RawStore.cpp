#include "RawStore.h"

#include <zlib.h>

#include <stdexcept>

#include "events/EventEncoder.h"

namespace rovalis::bench {

std::vector<RawRow> rawRows(const std::vector<EventRecord>& events) {
    const EventEncoder encoder;
    std::vector<RawRow> rows;
    rows.reserve(events.size());
    for (const auto& event : events) {
        rows.push_back({std::string(typeOf(event)), trackedAtOf(event).secondsSince1970, encoder.encode(event)});
    }
    return rows;
}

RawStore::RawStore(const std::filesystem::path& path) {
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) throw std::runtime_error("open failed");
    exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
         "CREATE TABLE EventEntity (id INTEGER PRIMARY KEY, type TEXT NOT NULL,"
         " tracked_at_ms REAL NOT NULL, payload BLOB NOT NULL);");
    sqlite3_prepare_v2(db, "INSERT INTO EventEntity (type, tracked_at_ms, payload) VALUES (?1, ?2, ?3)", -1, &insert_,
                       nullptr);
}

RawStore::~RawStore() {
    sqlite3_finalize(insert_);
    sqlite3_close(db);
}

void RawStore::exec(const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db));
}

void RawStore::insertAll(const std::vector<RawRow>& rows) {
    for (std::size_t start = 0; start < rows.size(); start += 300) {
        exec("BEGIN IMMEDIATE");
        for (std::size_t i = start; i < std::min(rows.size(), start + 300); ++i) {
            sqlite3_bind_text(insert_, 1, rows[i].type.data(), static_cast<int>(rows[i].type.size()), SQLITE_STATIC);
            sqlite3_bind_double(insert_, 2, rows[i].trackedAt);
            sqlite3_bind_blob(insert_, 3, rows[i].payload.data(), static_cast<int>(rows[i].payload.size()),
                              SQLITE_STATIC);
            sqlite3_step(insert_);
            sqlite3_reset(insert_);
        }
        exec("COMMIT");
    }
}

std::string rawGzip(std::string_view data) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&stream, data.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int status = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (status != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return out;
}

}  // namespace rovalis::bench
