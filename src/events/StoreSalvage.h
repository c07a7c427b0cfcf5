#pragma once

// Reads what can still be read of a damaged event store, so that a new store can carry it
// over. The file is opened read-only and nothing in it or its journal is changed.
//
// A damaged page ends a plain scan of a table, though the rows after it may be intact. The
// reader seeks past it instead: it probes for the first readable row id further on with a
// doubling step, then narrows the gap by halving, so rows just after the damage are found.
// Rows whose contents cannot be read, or are not a plausible event, are skipped and counted.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace rovalis {

namespace sqlite {
class Database;
}

// One readable event row.
struct SalvagedRow {
    std::int64_t id = 0;
    std::string type;
    double trackedAt = 0;  // seconds since 1970
    std::string payload;
};

// The record of the batch that was waiting for the service's acceptance.
struct SalvagedBatch {
    std::string batchId;
    std::int64_t sequentialId = 0;
    std::int64_t eventCount = 0;  // as recorded, so that lost members show
    std::optional<SalvagedRow> closing;  // id unused
    std::vector<std::int64_t> eventIds;  // the members that could be read
};

class StoreSalvage {
public:
    explicit StoreSalvage(const std::filesystem::path& file);
    ~StoreSalvage();
    StoreSalvage(const StoreSalvage&) = delete;
    StoreSalvage& operator=(const StoreSalvage&) = delete;

    std::optional<std::string> storeIdentifier();
    // The highest row id the store may have handed out, as far as can be read (0 when
    // nothing can): at least the highest of its rows, and the ids it had reserved.
    std::int64_t highestRowId();
    std::optional<SalvagedBatch> pendingBatch();
    // The next plausible rows in id order, at most max of them; empty once none is left.
    std::vector<SalvagedRow> nextRows(std::size_t max);

    // Rows found but not carried: unreadable, or not an event this store could have written.
    std::size_t skippedRows() const;
    // Stretches of the events table that could not be reached at all.
    std::size_t damagedRegions() const;

    // A row this store could have written: its type is text, its time a finite number, and
    // its payload a JSON object (so valid UTF-8) whose "type" is the row's type.
    static bool isPlausibleEvent(const SalvagedRow& row);

    class TableReader;

private:
    std::unique_ptr<sqlite::Database> db_;
    std::unique_ptr<TableReader> events_;
    std::size_t implausibleRows_ = 0;
};

}  // namespace rovalis
