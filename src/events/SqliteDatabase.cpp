#include "events/SqliteDatabase.h"

#include <sqlite3.h>

namespace rovalis::sqlite {

Error::Error(int code, int extendedCode, const std::string& message)
    : std::runtime_error(message), code_(code), extendedCode_(extendedCode) {}

bool Error::isDamage() const {
    // A short read is a file that ends before its contents do; an I/O error that the file
    // system itself reports as corruption is no better.
    return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB || extendedCode_ == SQLITE_IOERR_SHORT_READ ||
           extendedCode_ == SQLITE_IOERR_CORRUPTFS;
}

bool Error::isEnvironmental() const {
    if (isDamage()) return false;
    switch (code_) {
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_BUSY:
    case SQLITE_NOMEM:
    case SQLITE_PROTOCOL: return true;
    default: return false;
    }
}

// ---- Database ----

Database::Database(const std::string& path, Mode mode, const char* vfs) {
    // One connection per thread of use, so SQLite's own per-connection mutex is not needed.
    int flags = SQLITE_OPEN_NOMUTEX;
    switch (mode) {
    case Mode::readWrite: flags |= SQLITE_OPEN_READWRITE; break;
    case Mode::readWriteCreate: flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE; break;
    case Mode::readOnly: flags |= SQLITE_OPEN_READONLY; break;
    }
    const int rc = sqlite3_open_v2(path.c_str(), &db_, flags, vfs);
    if (rc != SQLITE_OK) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        const int extended = db_ ? sqlite3_extended_errcode(db_) : rc;
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw Error(rc & 0xff, extended, message);
    }
    sqlite3_extended_result_codes(db_, 1);
}

Database::~Database() { sqlite3_close_v2(db_); }

void Database::throwError(int rc) const {
    throw Error(rc & 0xff, sqlite3_extended_errcode(db_), sqlite3_errmsg(db_));
}

void Database::exec(const std::string& sql) {
    const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) throwError(rc);
}

std::string Database::queryText(const std::string& sql) {
    Statement statement(*this, sql);
    return statement.step() ? std::string(statement.columnText(0)) : std::string();
}

std::int64_t Database::queryInt64(const std::string& sql) {
    Statement statement(*this, sql);
    return statement.step() ? statement.columnInt64(0) : 0;
}

void Database::setCheckpointOnClose(bool checkpoint) {
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, checkpoint ? 0 : 1, nullptr);
}

void Database::keepJournalFile() {
    int persist = 1;
    const int rc = sqlite3_file_control(db_, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    if (rc != SQLITE_OK) throwError(rc);
}

std::int64_t Database::lastInsertRowid() const { return sqlite3_last_insert_rowid(db_); }

int Database::changes() const { return sqlite3_changes(db_); }

bool Database::inTransaction() const { return sqlite3_get_autocommit(db_) == 0; }

int Database::variableLimit() const { return sqlite3_limit(db_, SQLITE_LIMIT_VARIABLE_NUMBER, -1); }

// ---- Statement ----

Statement::Statement(Database& db, std::string_view sql) : db_(db) {
    const int rc =
        sqlite3_prepare_v3(db.handle(), sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &stmt_, nullptr);
    if (rc != SQLITE_OK) db.throwError(rc);
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

void Statement::bind(int index, std::int64_t value) {
    const int rc = sqlite3_bind_int64(stmt_, index, value);
    if (rc != SQLITE_OK) db_.throwError(rc);
}

void Statement::bind(int index, double value) {
    const int rc = sqlite3_bind_double(stmt_, index, value);
    if (rc != SQLITE_OK) db_.throwError(rc);
}

void Statement::bindText(int index, std::string_view value) {
    const int rc = sqlite3_bind_text64(stmt_, index, value.data(), value.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (rc != SQLITE_OK) db_.throwError(rc);
}

void Statement::bindBlob(int index, std::string_view value) {
    // A zero-length blob still binds a blob, not NULL: the pointer must not be null.
    static const char empty = 0;
    const int rc = sqlite3_bind_blob64(stmt_, index, value.empty() ? &empty : value.data(), value.size(),
                                       SQLITE_STATIC);
    if (rc != SQLITE_OK) db_.throwError(rc);
}

void Statement::bindNull(int index) {
    const int rc = sqlite3_bind_null(stmt_, index);
    if (rc != SQLITE_OK) db_.throwError(rc);
}

bool Statement::step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    db_.throwError(rc);
}

void Statement::run() {
    while (step()) {
    }
}

void Statement::reset() {
    sqlite3_reset(stmt_);  // repeats the last step's error, which was already reported
    sqlite3_clear_bindings(stmt_);
}

std::int64_t Statement::columnInt64(int column) const { return sqlite3_column_int64(stmt_, column); }

double Statement::columnDouble(int column) const { return sqlite3_column_double(stmt_, column); }

std::string_view Statement::columnText(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return text ? std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
                : std::string_view();
}

std::string_view Statement::columnBlob(int column) const {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(stmt_, column));
    return data ? std::string_view(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
                : std::string_view();
}

int Statement::columnType(int column) const { return sqlite3_column_type(stmt_, column); }

int Statement::parameterCount() const { return sqlite3_bind_parameter_count(stmt_); }

// ---- Transaction ----

Transaction::Transaction(Database& db) : db_(db) { db_.exec("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
    // SQLite may already have rolled the transaction back itself (after a full disk, for
    // instance); a second rollback would only fail.
    if (!done_ && db_.inTransaction()) sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
    db_.exec("COMMIT");
    done_ = true;
}

}  // namespace rovalis::sqlite
