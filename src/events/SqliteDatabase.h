#pragma once

// A thin RAII layer over the SQLite C interface: a connection, a prepared statement and a
// transaction that rolls back unless it was committed. Failures are thrown as
// sqlite::Error carrying SQLite's result code and message; the callers decide which of
// them are environmental and which are programming errors.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace rovalis::sqlite {

class Error : public std::runtime_error {
public:
    Error(int code, int extendedCode, const std::string& message);

    int code() const { return code_; }                  // primary result code (SQLITE_FULL, ...)
    int extendedCode() const { return extendedCode_; }  // extended result code (SQLITE_IOERR_WRITE, ...)

    // The file's contents cannot be read as a database: a damaged page, a file cut short,
    // or a file that is not a database at all. Trying again gives the same answer.
    bool isDamage() const;
    // A fault of the environment rather than of the program: a full disk, an I/O failure,
    // a file that cannot be opened, locked or written. It may pass.
    bool isEnvironmental() const;

private:
    int code_;
    int extendedCode_;
};

class Database {
public:
    enum class Mode { readWrite, readWriteCreate, readOnly };

    // Opens (and with readWriteCreate, creates) the database file, through the named SQLite
    // file system or the default one. Throws Error on failure.
    Database(const std::string& path, Mode mode, const char* vfs = nullptr);
    Database(const std::string& path, bool create)
        : Database(path, create ? Mode::readWriteCreate : Mode::readWrite) {}
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Runs one or more statements without results.
    void exec(const std::string& sql);

    // The first column of the first row of a query (a PRAGMA, say) as text; empty when the
    // query gives no row or NULL.
    std::string queryText(const std::string& sql);
    std::int64_t queryInt64(const std::string& sql);

    // By default closing the connection copies the write-ahead journal into the file. A
    // damaged file is closed without that, so it stays as it was.
    void setCheckpointOnClose(bool checkpoint);
    // Keeps the write-ahead journal file, at its size, when the connection closes.
    void keepJournalFile();

    std::int64_t lastInsertRowid() const;
    int changes() const;
    bool inTransaction() const;
    // The largest number of host parameters a statement may have.
    int variableLimit() const;

    sqlite3* handle() const { return db_; }

    // Throws the connection's current error for the given result code.
    [[noreturn]] void throwError(int rc) const;

private:
    sqlite3* db_ = nullptr;
};

class Statement {
public:
    Statement(Database& db, std::string_view sql);
    ~Statement();

    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Parameters are numbered from 1.
    void bind(int index, std::int64_t value);
    void bind(int index, double value);
    void bindText(int index, std::string_view value);  // the text must outlive the step
    void bindBlob(int index, std::string_view value);  // likewise
    void bindNull(int index);

    // Advances: true when a row is available, false when done. Throws Error on failure.
    bool step();
    // Steps a statement that yields no rows.
    void run();
    // Makes the statement ready for new bindings and clears the old ones.
    void reset();

    std::int64_t columnInt64(int column) const;
    double columnDouble(int column) const;
    std::string_view columnText(int column) const;
    std::string_view columnBlob(int column) const;
    // SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB or SQLITE_NULL.
    int columnType(int column) const;
    int parameterCount() const;

private:
    Database& db_;
    sqlite3_stmt* stmt_ = nullptr;
};

// Resets a statement when leaving a scope, so a reused statement never holds a read
// transaction open or stale bindings after an error.
class StatementReset {
public:
    explicit StatementReset(Statement& statement) : statement_(statement) {}
    ~StatementReset() { statement_.reset(); }
    StatementReset(const StatementReset&) = delete;
    StatementReset& operator=(const StatementReset&) = delete;

private:
    Statement& statement_;
};

// BEGIN IMMEDIATE on construction; ROLLBACK on destruction unless commit() succeeded.
class Transaction {
public:
    explicit Transaction(Database& db);
    ~Transaction();

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit();

private:
    Database& db_;
    bool done_ = false;
};

}  // namespace rovalis::sqlite
