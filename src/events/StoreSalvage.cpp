#include "events/StoreSalvage.h"

#include <sqlite3.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "events/EventRecords.h"
#include "events/SqliteDatabase.h"
#include "events/StoredPayload.h"
#include "rovalis/Uuid.h"

namespace rovalis {

// Reads a table in the order of its integer key, row by row, past damaged pages.
class StoreSalvage::TableReader {
public:
    // columns: what each row gives, the key first.
    TableReader(sqlite::Database& db, const std::string& table, const std::string& key, const std::string& columns)
        : scan_(db, "SELECT " + columns + " FROM " + table + " WHERE " + key + " >= ?1 ORDER BY " + key),
          probe_(db, "SELECT " + key + " FROM " + table + " WHERE " + key + " >= ?1 ORDER BY " + key + " LIMIT 1") {}

    // Steps to the next row that can be read; its columns are then row()'s. False at the end.
    bool next() {
        while (!done_) {
            try {
                if (!positioned_) {
                    scan_.reset();
                    scan_.bind(1, from_);
                    positioned_ = true;
                }
                if (!scan_.step()) break;
                const std::int64_t key = scan_.columnInt64(0);
                if (key == std::numeric_limits<std::int64_t>::max()) done_ = true;
                from_ = key + (done_ ? 0 : 1);
                retrying_ = false;
                return true;
            } catch (const sqlite::Error&) {
                positioned_ = false;
                passDamage();
            }
        }
        done_ = true;
        scan_.reset();
        return false;
    }

    sqlite::Statement& row() { return scan_; }
    std::size_t unreadableRows() const { return unreadableRows_; }
    std::size_t damagedRegions() const { return damagedRegions_; }

private:
    struct Probe {
        bool reached = false;              // the keys from there on could be read
        std::optional<std::int64_t> key;  // the first of them, if any
    };

    Probe probe(std::int64_t from) {
        try {
            sqlite::StatementReset resetAfter(probe_);
            probe_.bind(1, from);
            if (!probe_.step()) return Probe{true, std::nullopt};
            return Probe{true, probe_.columnInt64(0)};
        } catch (const sqlite::Error&) {
            return Probe{};
        }
    }

    // The scan failed reading the first row at or after from_.
    void passDamage() {
        const Probe here = probe(from_);
        if (here.reached) {
            if (!here.key) {
                done_ = true;
            } else if (retrying_ && *here.key == from_) {
                // Its key can be read but the row cannot (a damaged overflow page, say).
                ++unreadableRows_;
                retrying_ = false;
                if (*here.key == std::numeric_limits<std::int64_t>::max()) done_ = true;
                from_ = *here.key + (done_ ? 0 : 1);
            } else {
                from_ = *here.key;  // read that row on its own once more before giving it up
                retrying_ = true;
            }
            return;
        }
        ++damagedRegions_;
        retrying_ = false;
        const auto resume = firstReachableAfter(from_);
        if (resume) {
            from_ = *resume;
        } else {
            done_ = true;
        }
    }

    // Keys from `unreachable` on cannot be reached. Doubling steps find a key from which they
    // can; halving the last step then finds the first such key, so that no readable row just
    // after the damage is passed over. Gives the first row's key there, or none.
    std::optional<std::int64_t> firstReachableAfter(std::int64_t unreachable) {
        constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
        const std::int64_t start = unreachable;
        std::int64_t reachable = 0;
        for (std::int64_t step = 1;; step *= 2) {
            if (start > largest - step) return std::nullopt;
            const std::int64_t candidate = start + step;
            if (probe(candidate).reached) {
                reachable = candidate;
                break;
            }
            unreachable = candidate;
            if (step > largest / 2) return std::nullopt;
        }
        while (reachable - unreachable > 1) {
            const std::int64_t middle = unreachable + (reachable - unreachable) / 2;
            (probe(middle).reached ? reachable : unreachable) = middle;
        }
        return probe(reachable).key;
    }

    sqlite::Statement scan_;
    sqlite::Statement probe_;
    std::int64_t from_ = 0;  // the store numbers its rows from 1
    bool positioned_ = false;
    bool retrying_ = false;
    bool done_ = false;
    std::size_t unreadableRows_ = 0;
    std::size_t damagedRegions_ = 0;
};

namespace {

std::optional<SalvagedRow> eventAt(sqlite::Statement& statement, int firstColumn) {
    if (statement.columnType(firstColumn) != SQLITE_TEXT) return std::nullopt;
    const int time = statement.columnType(firstColumn + 1);
    const int payload = statement.columnType(firstColumn + 2);
    if ((time != SQLITE_FLOAT && time != SQLITE_INTEGER) || (payload != SQLITE_BLOB && payload != SQLITE_TEXT)) {
        return std::nullopt;
    }
    SalvagedRow row{0, std::string(statement.columnText(firstColumn)), statement.columnDouble(firstColumn + 1), {}};
    stored_payload::restore(row.type, row.trackedAt, statement.columnBlob(firstColumn + 2), row.payload);
    return row;
}

}  // namespace

StoreSalvage::StoreSalvage(const std::filesystem::path& file) {
    try {
        db_ = std::make_unique<sqlite::Database>(file.string(), sqlite::Database::Mode::readOnly);
        db_->setCheckpointOnClose(false);
        // Read the pages a file cut short still has, rather than refusing the whole file,
        // and check each page's cells before trusting them.
        db_->exec("PRAGMA writable_schema = ON");
        db_->exec("PRAGMA cell_size_check = ON");
    } catch (const sqlite::Error&) {
        db_.reset();  // nothing can be read
        return;
    }
    try {
        events_ = std::make_unique<TableReader>(*db_, "EventEntity", "id", "id, type, tracked_at_ms, payload");
    } catch (const sqlite::Error&) {
        // No events table that can be read; the store's identity may still be.
    }
}

StoreSalvage::~StoreSalvage() = default;

std::optional<std::string> StoreSalvage::storeIdentifier() {
    if (!db_) return std::nullopt;
    try {
        const auto uuid = Uuid::parse(db_->queryText("SELECT store_uuid FROM StoreMetadata WHERE singleton = 1"));
        if (uuid) return uuid->uuidString();
    } catch (const sqlite::Error&) {
    }
    return std::nullopt;
}

std::int64_t StoreSalvage::highestRowId() {
    if (!db_) return 0;
    std::int64_t highest = 0;
    for (const char* sql : {"SELECT seq FROM sqlite_sequence WHERE name = 'EventEntity'",
                            "SELECT highest_event_id FROM StoreMetadata WHERE singleton = 1",
                            "SELECT ids_reserved_through FROM StoreMetadata WHERE singleton = 1",
                            "SELECT max(id) FROM EventEntity"}) {
        try {
            highest = std::max(highest, db_->queryInt64(sql));
        } catch (const sqlite::Error&) {
        }
    }
    return highest;
}

std::optional<SalvagedBatch> StoreSalvage::pendingBatch() {
    if (!db_) return std::nullopt;
    SalvagedBatch batch;
    try {
        sqlite::Statement read(*db_,
                               "SELECT batch_id, sequential_id, event_count, closing_type, closing_tracked_at,"
                               " closing_payload FROM PendingBatch WHERE singleton = 1");
        if (!read.step() || read.columnType(0) != SQLITE_TEXT || read.columnText(0).empty()) return std::nullopt;
        batch.batchId = std::string(read.columnText(0));
        batch.sequentialId = read.columnInt64(1);
        batch.eventCount = read.columnInt64(2);
        // A closing event that cannot be trusted is left out and counted as a lost member: the
        // batch then reads as incomplete and is not sent again under its id as if it were whole.
        if (read.columnType(3) != SQLITE_NULL) {
            auto closing = eventAt(read, 3);
            if (closing && isPlausibleEvent(*closing)) {
                batch.closing = std::move(closing);
            } else {
                ++batch.eventCount;
            }
        }
        TableReader members(*db_, "PendingBatchEvent", "event_id", "event_id");
        while (members.next()) batch.eventIds.push_back(members.row().columnInt64(0));
    } catch (const sqlite::Error&) {
        return std::nullopt;  // no record that can be read
    }
    return batch;
}

std::vector<SalvagedRow> StoreSalvage::nextRows(std::size_t max) {
    std::vector<SalvagedRow> rows;
    if (!events_) return rows;
    while (rows.size() < max && events_->next()) {
        auto row = eventAt(events_->row(), 1);
        if (!row || !isPlausibleEvent(*row)) {
            ++implausibleRows_;
            continue;
        }
        row->id = events_->row().columnInt64(0);
        rows.push_back(std::move(*row));
    }
    return rows;
}

std::size_t StoreSalvage::skippedRows() const {
    return implausibleRows_ + (events_ ? events_->unreadableRows() : 0);
}

std::size_t StoreSalvage::damagedRegions() const { return events_ ? events_->damagedRegions() : 0; }

bool StoreSalvage::isPlausibleEvent(const SalvagedRow& row) {
    // A row kept without its type at the end of its JSON takes it from its type column, so
    // that column must name a kind of event.
    if (!std::isfinite(row.trackedAt) || !isEventTypeName(row.type)) return false;
    // The parser refuses ill-formed UTF-8, so a payload it accepts can be sent as text.
    const auto json = nlohmann::json::parse(row.payload, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return false;
    const auto type = json.find("type");
    return type != json.end() && type->is_string() && type->get_ref<const std::string&>() == row.type;
}

}  // namespace rovalis
