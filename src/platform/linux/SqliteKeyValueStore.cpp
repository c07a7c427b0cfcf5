#include "platform/linux/SqliteKeyValueStore.h"

#include <sqlite3.h>

#include <cmath>
#include <limits>
#include <system_error>

#include "rovalis/Console.h"
#include "util/DataRoot.h"

namespace rovalis {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSchema =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "CREATE TABLE IF NOT EXISTS defaults (key TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB);";

// Resets a statement and clears its bindings when the scope ends.
struct StatementScope {
    sqlite3_stmt* statement;
    ~StatementScope() {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
};

double readReal(sqlite3_stmt* statement, int column, int type) {
    // SQLite keeps a NaN as NULL.
    return type == SQLITE_NULL ? std::numeric_limits<double>::quiet_NaN() : sqlite3_column_double(statement, column);
}

}  // namespace

SqliteKeyValueStore::SqliteKeyValueStore(fs::path file) : file_(std::move(file)) {
    if (ensurePrivateFile(file_)) {
        auto failure = open(file_.string());
        if (failure) {
            setAside();
            Console::log("Rovalis: the key-value store " + file_.string() + " could not be read (" + *failure +
                         "); it was set aside and the store starts empty");
            if (ensurePrivateFile(file_)) failure = open(file_.string());
        }
        persistent_ = !failure;
    }
    if (!persistent_) {
        Console::log("Rovalis: the key-value store " + file_.string() +
                     " cannot be used; values are kept in memory until the process ends");
        if (const auto failure = open(":memory:")) {
            Console::log("Rovalis: the key-value store cannot be opened at all: " + *failure);
        }
    }
}

SqliteKeyValueStore::~SqliteKeyValueStore() { close(); }

std::optional<std::string> SqliteKeyValueStore::open(const std::string& name) {
    int rc = sqlite3_open_v2(name.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    std::optional<std::string> failure;
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(db_, 5000);
        rc = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) {
        // A damaged file can pass the steps above; check its pages before trusting it.
        sqlite3_stmt* check = nullptr;
        rc = sqlite3_prepare_v2(db_, "PRAGMA quick_check", -1, &check, nullptr);
        if (rc == SQLITE_OK) {
            rc = sqlite3_step(check);
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
            if (rc == SQLITE_ROW && text != nullptr && std::string(text) == "ok") {
                rc = SQLITE_OK;
            } else if (rc == SQLITE_ROW) {
                failure = "damaged: " + std::string(text != nullptr ? text : "");
                rc = SQLITE_CORRUPT;
            }
        }
        sqlite3_finalize(check);
    }
    const auto prepare = [&](const char* sql, sqlite3_stmt** statement) {
        if (rc == SQLITE_OK) rc = sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr);
    };
    prepare("SELECT kind, value FROM defaults WHERE key = ?1", &select_);
    prepare("INSERT OR REPLACE INTO defaults (key, kind, value) VALUES (?1, ?2, ?3)", &upsert_);
    prepare("DELETE FROM defaults WHERE key = ?1", &delete_);
    if (rc == SQLITE_OK) return std::nullopt;
    if (!failure) failure = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    close();
    return failure;
}

void SqliteKeyValueStore::close() {
    for (sqlite3_stmt** statement : {&select_, &upsert_, &delete_}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    sqlite3_close(db_);
    db_ = nullptr;
}

void SqliteKeyValueStore::setAside() {
    fs::path aside = file_.string() + ".corrupt";
    std::error_code error;
    for (int n = 1; fs::exists(aside, error); ++n) aside = file_.string() + ".corrupt." + std::to_string(n);
    fs::rename(file_, aside, error);
    if (error) {
        Console::log("Rovalis: cannot set aside " + file_.string() + ": " + error.message());
        fs::remove(file_, error);
    }
    // Journal files belong to the old file and must not be replayed into the new one.
    for (const char* suffix : {"-wal", "-shm"}) {
        const fs::path journal = file_.string() + suffix;
        if (fs::exists(journal, error)) fs::rename(journal, aside.string() + suffix, error);
    }
}

std::optional<KeyValue> SqliteKeyValueStore::object(const std::string& key) const {
    std::lock_guard lock(mutex_);
    if (select_ == nullptr) return std::nullopt;
    StatementScope scope{select_};
    sqlite3_bind_text(select_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    const int rc = sqlite3_step(select_);
    if (rc != SQLITE_ROW) {
        if (rc != SQLITE_DONE) Console::log("Rovalis: the key-value store could not read " + key + ": " + sqlite3_errmsg(db_));
        return std::nullopt;
    }
    const int type = sqlite3_column_type(select_, 1);
    switch (sqlite3_column_int(select_, 0)) {
        case kDate:
            if (type == SQLITE_FLOAT || type == SQLITE_INTEGER || type == SQLITE_NULL)
                return Date{readReal(select_, 1, type)};
            break;
        case kReal:
            if (type == SQLITE_FLOAT || type == SQLITE_INTEGER || type == SQLITE_NULL) return readReal(select_, 1, type);
            break;
        case kInteger:
            if (type == SQLITE_INTEGER) return static_cast<std::int64_t>(sqlite3_column_int64(select_, 1));
            break;
        case kBool:
            if (type == SQLITE_INTEGER) return sqlite3_column_int64(select_, 1) != 0;
            break;
        case kString:
            if (type == SQLITE_TEXT) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select_, 1));
                return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(select_, 1)));
            }
            break;
        case kBytes:
            if (type == SQLITE_BLOB) {
                const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(select_, 1));
                return std::vector<std::uint8_t>(bytes, bytes + sqlite3_column_bytes(select_, 1));
            }
            break;
        default:
            break;
    }
    return std::nullopt;
}

void SqliteKeyValueStore::setObject(const Value& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    if (upsert_ == nullptr) return;
    StatementScope scope{upsert_};
    sqlite3_bind_text(upsert_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::visit(
        [this](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, Date>) {
                sqlite3_bind_int(upsert_, 2, kDate);
                sqlite3_bind_double(upsert_, 3, v.secondsSince1970);
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                sqlite3_bind_int(upsert_, 2, kInteger);
                sqlite3_bind_int64(upsert_, 3, v);
            } else if constexpr (std::is_same_v<T, double>) {
                sqlite3_bind_int(upsert_, 2, kReal);
                sqlite3_bind_double(upsert_, 3, v);
            } else if constexpr (std::is_same_v<T, bool>) {
                sqlite3_bind_int(upsert_, 2, kBool);
                sqlite3_bind_int(upsert_, 3, v ? 1 : 0);
            } else if constexpr (std::is_same_v<T, std::string>) {
                sqlite3_bind_int(upsert_, 2, kString);
                sqlite3_bind_text(upsert_, 3, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
            } else {
                sqlite3_bind_int(upsert_, 2, kBytes);
                if (v.empty()) {
                    sqlite3_bind_zeroblob(upsert_, 3, 0);
                } else {
                    sqlite3_bind_blob(upsert_, 3, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
                }
            }
        },
        value);
    if (sqlite3_step(upsert_) != SQLITE_DONE) {
        Console::log("Rovalis: the key-value store could not write " + key + ": " + sqlite3_errmsg(db_));
    }
}

void SqliteKeyValueStore::removeObject(const std::string& key) {
    std::lock_guard lock(mutex_);
    if (delete_ == nullptr) return;
    StatementScope scope{delete_};
    sqlite3_bind_text(delete_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (sqlite3_step(delete_) != SQLITE_DONE) {
        Console::log("Rovalis: the key-value store could not remove " + key + ": " + sqlite3_errmsg(db_));
    }
}

}  // namespace rovalis
